// Inserts named entries. See kltt_idtable.h.
#include "generic/tables/kltt_idtable.h"

int KLTT_TableInsert(KLTT_Table<KLTT_Named>& table, KLT_Texts& texts, uint32_t key,
                     const char* name, uint32_t extra) {
  if (key == 0) return 1;
  KLTT_Named* entry = table.insert(key);
  if (entry == nullptr) return 0;
  entry->extra = extra;
  if (name != nullptr) entry->name = texts.keep(name);
  return 1;
}
