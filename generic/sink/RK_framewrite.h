// RK_FrameWriter keeps the open calls and scopes of every thread during the event pass.
//
// Frames, to which its name refers, aren't supported. RK_WillyHash holds one state per thread,
// created when a record first names the thread. RK_FrameEnter and RK_FrameLeave update the stack of
// functions. kltt_events updates the scopes. It also reads the stacks, to find the function that a
// call returns to and to close open calls at the end of a window.
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
  KLT_IdIndex index{kKlttDirectIds};  // by gtp
  std::vector<RK_WillyState> states;  // in order of first use
};

// One for each event pass.
struct RK_FrameWriter {
  RK_WillyHash willys;
};

[[nodiscard]] inline RK_FrameWriter RK_FrameWriterCreate() { return {}; }
// Frees all states in `frames`.
inline void RK_FrameWriterFinish(RK_FrameWriter& frames) { frames = {}; }

// The state of a thread; null if no record has named the thread.
[[nodiscard]] inline RK_WillyState* RK_WillyHashFind(RK_WillyHash& table, uint32_t gtp) {
  const uint32_t index = table.index.find(gtp);
  return index == 0 ? nullptr : &table.states[index - 1];
}

// Adds a state for a thread that has none.
[[gnu::cold]] RK_WillyState& RK_WillyHashAdd(RK_WillyHash& table, uint32_t gtp);

// The state of a thread, created on first use. The reference is valid until the next call.
inline RK_WillyState& RK_WillyHashGet(RK_WillyHash& table, uint32_t gtp) {
  const uint32_t index = table.index.find(gtp);
  return index != 0 ? table.states[index - 1] : RK_WillyHashAdd(table, gtp);
}

inline void RK_FrameEnter(RK_WillyState& willy, uint32_t function) {
  willy.functions.push(function);
}
// Ends the innermost call. Returns the function to which it returns, or 0 if no call is open any
// more. REQUIRES: a call is open.
inline uint32_t RK_FrameLeave(RK_WillyState& willy) {
  willy.functions.pop();
  return willy.functions.empty() ? 0 : willy.functions.top();
}
