// Adds the states of new threads. See RK_framewrite.h.
#include "generic/sink/RK_framewrite.h"

RK_WillyState& RK_WillyHashAdd(RK_WillyHash& table, uint32_t gtp) {
  table.states.emplace_back();
  table.states.back().gtp = gtp;
  table.index.add(gtp, static_cast<uint32_t>(table.states.size()));
  return table.states.back();
}

void RK_FrameList(RK_WillyHash& table, RK_WillyState& willy) {
  willy.isListed = true;
  table.opened.push_back(static_cast<uint32_t>(&willy - table.states.data()) + 1);
}
