// The frame writer: the open calls and scopes of every thread, as the event pass sees them.
//
// No option defines a frame, so this is all that it keeps. RK_WillyHash holds one state per thread,
// made when a record first names the thread. Its function stack is moved by RK_FrameEnter and
// RK_FrameLeave; kltt_events keeps the scopes, and reads the stacks to say where a call returns to
// and to close what is open at the end of a window.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "generic/tables/kltt_idtable.h"
#include "klt/stream/klt_scopes.h"
#include "util/pal_stack.h"

struct RK_WillyState {
  uint32_t gtp = 0;
  PAL_Stack<uint32_t> functions;  // ids of the open calls
  KLT_OpenScopes scopes;

  [[nodiscard]] bool isOpen() const { return !functions.empty() || !scopes.empty(); }
};

struct RK_WillyHash {
  KLT_IdIndex index{KLTT_DIRECT_IDS};  // by gtp
  std::vector<RK_WillyState> states;   // in order of first use
};

// One for each event pass.
struct RK_FrameWriter {
  RK_WillyHash willys;
};

[[nodiscard]] inline RK_FrameWriter RK_FrameWriterCreate() { return {}; }
// Frees what `frames` holds.
inline void RK_FrameWriterFinish(RK_FrameWriter& frames) { frames = {}; }

// The state of a thread, null if no record has named it.
[[nodiscard]] inline RK_WillyState* RK_WillyHashFind(RK_WillyHash& table, uint32_t gtp) {
  const uint32_t index = table.index.find(gtp);
  return index == 0 ? nullptr : &table.states[index - 1];
}

// A state for a thread that no record has named before.
[[gnu::cold]] RK_WillyState& RK_WillyHashAdd(RK_WillyHash& table, uint32_t gtp);

// The state of a thread, made on first use. The reference holds until the next call.
inline RK_WillyState& RK_WillyHashGet(RK_WillyHash& table, uint32_t gtp) {
  const uint32_t index = table.index.find(gtp);
  return index != 0 ? table.states[index - 1] : RK_WillyHashAdd(table, gtp);
}

// A call: pushed at its entry, popped at its end.
inline void RK_FrameEnter(RK_WillyState& willy, uint32_t function) {
  willy.functions.push(function);
}
// REQUIRES: a call is open. Returns the function returned to, 0 if none is open any more.
inline uint32_t RK_FrameLeave(RK_WillyState& willy) {
  willy.functions.pop();
  return willy.functions.empty() ? 0 : willy.functions.top();
}
