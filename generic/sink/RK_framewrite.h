// RK_FrameWriter keeps the open calls and scopes of every thread during the event pass.
//
// No option defines a frame, so it keeps nothing else. RK_WillyHash holds one state per thread,
// created when a record first names the thread. RK_FrameEnter and RK_FrameLeave update the stack of
// functions, RK_FrameEnterScope and kltt_events the scopes. kltt_events also reads the stacks, to
// find the function that a call returns to, and kltt_closing closes what is open at the end of a
// window.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "generic/tables/kltt_idtable.h"
#include "klt/stream/klt_scopes.h"
#include "util/pal_hash.h"
#include "util/pal_stack.h"
#include "util/triplets/pal_triplets.h"

struct RK_WillyState {
  uint32_t gtp = 0;
  bool isListed = false;          // in RK_WillyHash::opened
  PAL_Stack<uint32_t> functions;  // ids of the open calls
  KLT_OpenScopes scopes;

  [[nodiscard]] bool isOpen() const { return !functions.empty() || !scopes.empty(); }
};

struct RK_WillyHash {
  KLT_IdIndex index{kKlttDirectIds};  // by gtp
  std::vector<RK_WillyState> states;  // in order of first use
  // The threads on which something may be open, in the order in which it was: indices in `states`
  // plus 1, and 0 for entries that have been removed.
  std::vector<uint32_t> opened;
};

// What has been found out about a list of threads on which everything was closed (kltt_closing).
struct RK_ClosedList {
  std::optional<PAL_TripletOrder> order;
  bool isUsed = false;
  uint32_t wrongStrides = 0;
  bool hasThreads = false;
  size_t seen = 0;        // no thread among the first `seen` entries of `opened` is in the list
  uint32_t renewals = 0;  // of `opened`, at which `seen` was set
};

// One for each event pass.
struct RK_FrameWriter {
  RK_WillyHash willys;
  PAL_HashMap<uint64_t, RK_ClosedList> lists;  // by address
  size_t gaps = 0;                             // removed entries of `opened`
  uint32_t renewals = 0;                       // how often they have been taken out
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

// Adds the thread to `opened`.
[[gnu::cold]] void RK_FrameList(RK_WillyHash& table, RK_WillyState& willy);

inline void RK_FrameEnter(RK_WillyHash& table, RK_WillyState& willy, uint32_t function) {
  if (!willy.isListed) [[unlikely]]
    RK_FrameList(table, willy);
  willy.functions.push(function);
}
inline void RK_FrameEnterScope(RK_WillyHash& table, RK_WillyState& willy, uint64_t time,
                               uint32_t scope, uint32_t seqnr) {
  if (!willy.isListed) RK_FrameList(table, willy);
  willy.scopes.enter(time, scope, seqnr);
}
// Ends the innermost call. Returns the function to which it returns, or 0 if no call is open any
// more. REQUIRES: a call is open.
inline uint32_t RK_FrameLeave(RK_WillyState& willy) {
  willy.functions.pop();
  return willy.functions.empty() ? 0 : willy.functions.top();
}
