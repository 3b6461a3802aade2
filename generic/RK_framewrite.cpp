// The per-thread states: the lookup behind the remembered one. See RK_framewrite.h.
#include "generic/RK_framewrite.h"

RK_WillyState& RK_WillyHashLookUp(RK_WillyHash& table, uint32_t gtp) {
  uint32_t index = table.index.find(gtp);
  if (index == 0) {
    table.states.emplace_back();
    table.states.back().gtp = gtp;
    index = static_cast<uint32_t>(table.states.size());
    table.index.add(gtp, index);
  }
  table.last = index - 1;
  return table.states[table.last];
}
