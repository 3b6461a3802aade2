/* Samples the counters of the option --counters at the ends of MPI calls.
 *
 * Reading a counter is a system call, which takes longer than the other records of a call, so a
 * thread samples at most once in a millisecond. */
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include "record/runtime/klt_runtime.h"

enum { FIRST_ID = 0xff00, COUNTERS = 5 };

static const char* const kNames[COUNTERS] = {"rss", "faults", "majfaults", "ctxsw", "cputime"};
static const char* const kTexts[COUNTERS] = {"resident memory\nbytes", "page faults\n",
                                             "major page faults\n", "context switches\n",
                                             "processor time\nns"};
static int wanted[COUNTERS];

uint64_t klt_sample_ticks;

static int has(const char* list, const char* name) {
  const size_t length = strlen(name);
  for (const char* at = list; (at = strstr(at, name)) != NULL; at += length) {
    if ((at == list || at[-1] == ',') && (at[length] == ',' || at[length] == '\0')) return 1;
  }
  return 0;
}

void klt_counters_init(void) {
  const char* list = getenv("KLT_RECORD_COUNTERS");
  if (list == NULL || list[0] == '\0') return;
  for (uint32_t i = 0; i < COUNTERS; ++i) {
    wanted[i] = has(list, kNames[i]);
    if (wanted[i])
      klt_define(KLT_DEF_COUNTER, FIRST_ID + i, 0, kTexts[i], strlen(kTexts[i]), NULL, 0);
  }
  /* A millisecond, or less with a processor below 1 GHz. */
  klt_sample_ticks = klt_use_tsc ? 2000000 : 1000000;
}

/* The resident memory, which getrusage only has as a maximum. */
static uint64_t residentBytes(void) {
  char text[128];
  const int file = open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
  if (file < 0) return 0;
  const ssize_t got = read(file, text, sizeof text - 1);
  close(file);
  text[got > 0 ? got : 0] = '\0';
  const char* second = strchr(text, ' ');
  return second == NULL ? 0 : strtoull(second, NULL, 10) * (uint64_t)sysconf(_SC_PAGESIZE);
}

void klt_sample(struct klt_thread* t, uint64_t now) {
  struct rusage usage;
  t->sampled = now;
  if (getrusage(RUSAGE_THREAD, &usage) != 0) return;
  const uint64_t values[COUNTERS] = {
      wanted[0] ? residentBytes() : 0, (uint64_t)(usage.ru_minflt + usage.ru_majflt),
      (uint64_t)usage.ru_majflt, (uint64_t)(usage.ru_nvcsw + usage.ru_nivcsw),
      (uint64_t)(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000000000U +
          (uint64_t)(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1000U};
  for (uint32_t i = 0; i < COUNTERS; ++i) {
    struct klt_record record = {
        .time = now, .kind = KLT_SAMPLE, .small = (uint16_t)(FIRST_ID + i), .u.wide = values[i]};
    if (wanted[i]) klt_put(t, record);
  }
}
