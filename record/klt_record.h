/* Marks parts of a program in the trace that klt-record makes of it.
 *
 *   #define KLT_RECORD
 *   #include <klt_record.h>
 *
 *   static klt_record_id solve = KLT_RECORD_ID;
 *   klt_record_enter(&solve, "solve");
 *   ...
 *   klt_record_leave(&solve);
 *
 * Without KLT_RECORD all calls compile to nothing. With it they do nothing unless the program runs
 * under klt-record; nothing has to be linked. They may be called from any thread, also before
 * MPI_Init. An id is defined by its first call and then costs no look-up; it is shared by threads.
 */
#ifndef KLT_RECORD_H
#define KLT_RECORD_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct {
  uint32_t number; /* 0: not defined yet */
} klt_record_id;
#define KLT_RECORD_ID \
  { 0 }

#ifdef KLT_RECORD
#define KLT_RECORD_WEAK __attribute__((weak))
void klt_record_enter_(klt_record_id* function, const char* name) KLT_RECORD_WEAK;
void klt_record_leave_(klt_record_id* function) KLT_RECORD_WEAK;
void klt_record_begin_(klt_record_id* scope, const char* name, uint32_t instance) KLT_RECORD_WEAK;
void klt_record_end_(klt_record_id* scope, uint32_t instance) KLT_RECORD_WEAK;
void klt_record_count_(klt_record_id* counter, const char* name, const char* unit,
                       int64_t value) KLT_RECORD_WEAK;
void klt_record_measure_(klt_record_id* counter, const char* name, const char* unit,
                         double value) KLT_RECORD_WEAK;
void klt_record_comment_(const char* text) KLT_RECORD_WEAK;
void klt_record_pause_(void) KLT_RECORD_WEAK;
void klt_record_resume_(void) KLT_RECORD_WEAK;
#define KLT_RECORD_CALL(name, ...) ((name) ? (name)(__VA_ARGS__) : (void)0)
#else
#define KLT_RECORD_CALL(name, ...) ((void)0)
#endif

/* A function, or any other part of the program that is nested in others. */
#define klt_record_enter(id, name) KLT_RECORD_CALL(klt_record_enter_, id, name)
#define klt_record_leave(id) KLT_RECORD_CALL(klt_record_leave_, id)
/* A scope, which needn't be nested; `instance` tells apart scopes that are open together. */
#define klt_record_begin(id, name, instance) KLT_RECORD_CALL(klt_record_begin_, id, name, instance)
#define klt_record_end(id, instance) KLT_RECORD_CALL(klt_record_end_, id, instance)
/* A sample of a counter, of integers or of doubles. */
#define klt_record_count(id, name, unit, value) \
  KLT_RECORD_CALL(klt_record_count_, id, name, unit, value)
#define klt_record_measure(id, name, unit, value) \
  KLT_RECORD_CALL(klt_record_measure_, id, name, unit, value)
/* A text at this moment. */
#define klt_record_comment(text) KLT_RECORD_CALL(klt_record_comment_, text)
/* Nothing is recorded between pause and resume. MPI_Pcontrol(0) and MPI_Pcontrol(1) do the same.
 * Pause all processes at the same place of the program: otherwise messages lack one side. */
#define klt_record_pause() KLT_RECORD_CALL(klt_record_pause_)
#define klt_record_resume() KLT_RECORD_CALL(klt_record_resume_)

#ifdef __cplusplus
}
#endif

#endif
