/* The functions that programs call to mark their own parts: those of klt_record.h, and those that
 * compilers insert with -finstrument-functions. */
#define KLT_RECORD
#include "record/klt_record.h"

#include <pthread.h>
#include <string.h>

#include "record/runtime/klt_runtime.h"

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static uint32_t lastId;

/* The number of an id, which is defined at its first use. The names are texts of at most two
 * parts, which are separated by a newline. */
static uint32_t numberOf(klt_record_id* id, uint32_t kind, uint32_t other, const char* name,
                         const char* unit) {
  uint32_t number = __atomic_load_n(&id->number, __ATOMIC_ACQUIRE);
  if (number != 0) return number;
  pthread_mutex_lock(&lock);
  number = id->number;
  if (number == 0) {
    char text[512];
    size_t length = strnlen(name, 400);
    memcpy(text, name, length);
    if (unit != NULL) {
      const size_t more = strnlen(unit, 100);
      text[length++] = '\n';
      memcpy(text + length, unit, more);
      length += more;
    }
    number = ++lastId;
    klt_define(kind, number, other, text, length, NULL, 0);
    __atomic_store_n(&id->number, number, __ATOMIC_RELEASE);
  }
  pthread_mutex_unlock(&lock);
  return number;
}

void klt_record_enter_(klt_record_id* function, const char* name) {
  struct klt_thread* t = klt_self();
  if (t == NULL) return;
  if (klt_state == KLT_PAUSED) {
    ++t->hidden;
    return;
  }
  const uint32_t number = numberOf(function, KLT_DEF_FUNCTION, 0, name, NULL);
  klt_put_plain(t, klt_ticks(), KLT_ENTER_USER, number);
}

void klt_record_leave_(klt_record_id* function) {
  struct klt_thread* t = klt_self();
  if (t == NULL) return;
  if (KLT_RARE(t->hidden != 0)) {
    --t->hidden;
    return;
  }
  klt_put_plain(t, klt_ticks(), KLT_LEAVE_USER, function->number);
}

static void putScope(uint32_t kind, uint32_t number, uint32_t instance) {
  struct klt_thread* t = klt_self();
  if (t == NULL || number == 0) return;
  struct klt_record record = {.time = klt_ticks(), .kind = (uint8_t)kind, .a = number};
  record.u.two.b = instance;
  klt_put(t, record);
}

void klt_record_begin_(klt_record_id* scope, const char* name, uint32_t instance) {
  if (klt_self() == NULL) return;
  putScope(KLT_SCOPE_BEGIN, numberOf(scope, KLT_DEF_SCOPE, 0, name, NULL), instance);
}

void klt_record_end_(klt_record_id* scope, uint32_t instance) {
  putScope(KLT_SCOPE_END, scope->number, instance);
}

static void putSample(klt_record_id* counter, const char* name, const char* unit, int isReal,
                      uint64_t value) {
  struct klt_thread* t = klt_self();
  if (t == NULL) return;
  const uint32_t number = numberOf(counter, KLT_DEF_COUNTER, (uint32_t)isReal, name, unit);
  struct klt_record record = {.time = klt_ticks(),
                              .kind = KLT_SAMPLE,
                              .detail = (uint8_t)isReal,
                              .small = (uint16_t)number,
                              .u.wide = value};
  if (number <= 0xffff) klt_put(t, record);
}

void klt_record_count_(klt_record_id* counter, const char* name, const char* unit, int64_t value) {
  putSample(counter, name, unit, 0, (uint64_t)value);
}

void klt_record_measure_(klt_record_id* counter, const char* name, const char* unit, double value) {
  uint64_t bits;
  memcpy(&bits, &value, sizeof bits);
  putSample(counter, name, unit, 1, bits);
}

void klt_record_comment_(const char* text) {
  struct klt_thread* t = klt_self();
  if (t == NULL) return;
  klt_record_id id = KLT_RECORD_ID;
  klt_put_plain(t, klt_ticks(), KLT_COMMENT, numberOf(&id, KLT_DEF_COMMENT, 0, text, NULL));
}

void klt_record_pause_(void) {
  if (klt_state == KLT_ON) klt_state = KLT_PAUSED;
}

void klt_record_resume_(void) {
  if (klt_state == KLT_PAUSED) klt_state = KLT_ON;
}

/* The program's functions, if it is compiled with -finstrument-functions. */
void __cyg_profile_func_enter(void* function, void* caller);
void __cyg_profile_func_exit(void* function, void* caller);

void __cyg_profile_func_enter(void* function, void* caller) {
  (void)caller;
  struct klt_thread* t = klt_self();
  if (t == NULL) return;
  if (KLT_RARE(klt_state == KLT_PAUSED)) {
    ++t->hidden;
    return;
  }
  klt_put_wide(t, klt_ticks(), KLT_ENTER_CODE, 0, (uint64_t)(uintptr_t)function);
}

void __cyg_profile_func_exit(void* function, void* caller) {
  (void)caller;
  struct klt_thread* t = klt_self();
  if (t == NULL) return;
  if (KLT_RARE(t->hidden != 0)) {
    --t->hidden;
    return;
  }
  klt_put_wide(t, klt_ticks(), KLT_LEAVE_CODE, 0, (uint64_t)(uintptr_t)function);
}
