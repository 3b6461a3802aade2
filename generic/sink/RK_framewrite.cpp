// Adds the states of new threads. See RK_framewrite.h.
#include "generic/sink/RK_framewrite.h"

RK_WillyState& RK_WillyHashAdd(RK_WillyHash& table, uint32_t gtp) {
  table.states.emplace_back();
  table.states.back().gtp = gtp;
  table.index.add(gtp, static_cast<uint32_t>(table.states.size()));
  return table.states.back();
}
