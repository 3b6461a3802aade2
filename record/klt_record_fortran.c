/* The functions behind klt_record.f90: those of klt_record.h, or nothing without the recorder. */
#ifndef KLT_RECORD
#define KLT_RECORD
#endif
#include "klt_record.h"

void klt_record_f_enter(klt_record_id* id, const char* name);
void klt_record_f_leave(klt_record_id* id);
void klt_record_f_begin(klt_record_id* id, const char* name, uint32_t instance);
void klt_record_f_end(klt_record_id* id, uint32_t instance);
void klt_record_f_count(klt_record_id* id, const char* name, const char* unit, int64_t value);
void klt_record_f_measure(klt_record_id* id, const char* name, const char* unit, double value);
void klt_record_f_comment(const char* text);
void klt_record_f_pause(void);
void klt_record_f_resume(void);

void klt_record_f_enter(klt_record_id* id, const char* name) { klt_record_enter(id, name); }
void klt_record_f_leave(klt_record_id* id) { klt_record_leave(id); }
void klt_record_f_begin(klt_record_id* id, const char* name, uint32_t instance) {
  klt_record_begin(id, name, instance);
}
void klt_record_f_end(klt_record_id* id, uint32_t instance) { klt_record_end(id, instance); }
void klt_record_f_count(klt_record_id* id, const char* name, const char* unit, int64_t value) {
  klt_record_count(id, name, unit, value);
}
void klt_record_f_measure(klt_record_id* id, const char* name, const char* unit, double value) {
  klt_record_measure(id, name, unit, value);
}
void klt_record_f_comment(const char* text) { klt_record_comment(text); }
void klt_record_f_pause(void) { klt_record_pause(); }
void klt_record_f_resume(void) { klt_record_resume(); }
