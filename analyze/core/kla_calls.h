// The calls of each thread: its stack, and a tree of its call paths with the number of calls and
// their inclusive time. All other times of calls are computed from the trees.
//
// Times of one thread never decrease; an earlier time counts as the last one. So the inclusive
// times of the children of a path are never longer than its own, and the sums are exact.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "analyze/core/kla_keys.h"
#include "analyze/core/kla_types.h"
#include "klt/klt.h"

namespace kla {

// A call path of a thread. Number 0 is the thread itself.
struct PathNode {
  uint32_t parent;
  uint32_t function;   // index in Definitions::functions; kNone in node 0
  uint32_t lastChild;  // the child that was entered last; kNone: none
  uint32_t follower;   // the sibling that was entered after this node the last time
  uint64_t calls;
  Time inclusive;
};

class ThreadCalls {
 public:
  struct Frame {
    uint32_t node;
    Time enter;
  };

  ThreadCalls(uint32_t gtp, bool selected) : gtp_(gtp), selected_(selected) {
    nodes_.push_back({kNone, kNone, kNone, kNone, 0, 0});
  }

  [[nodiscard]] uint32_t gtp() const { return gtp_; }
  [[nodiscard]] bool selected() const { return selected_; }
  [[nodiscard]] const std::vector<PathNode>& nodes() const { return nodes_; }
  [[nodiscard]] const std::vector<Frame>& stack() const { return stack_; }
  [[nodiscard]] Time last() const { return last_; }
  [[nodiscard]] Time clamp(Time time) const { return std::max(time, last_); }

  void enter(Time time, uint32_t function) {
    last_ = clamp(time);
    const uint32_t parent = stack_.empty() ? 0 : stack_.back().node;
    stack_.push_back({child(parent, function), last_});
  }
  // Ends the innermost call and returns its function. REQUIRES: a call is open.
  uint32_t leave(Time time) {
    last_ = clamp(time);
    const Frame frame = stack_.back();
    stack_.pop_back();
    PathNode& node = nodes_[frame.node];
    ++node.calls;
    node.inclusive += last_ - frame.enter;
    return node.function;
  }

  // Whether the thread counts as one of the run although it may have no calls.
  bool isDeclared = false;
  [[nodiscard]] bool hasCalls() const { return nodes_.size() > 1 || isDeclared; }

  // MPI calls that are open, and the start and function of the outermost.
  uint32_t mpiDepth = 0;
  uint32_t mpiFunction = kNone;
  Time mpiEnter = 0;

 private:
  // The path of `function` called from `parent`. Loops call the same functions in the same order,
  // so the last child and the one that followed it before are tried first.
  uint32_t child(uint32_t parent, uint32_t function) {
    const uint32_t last = nodes_[parent].lastChild;
    if (last != kNone) {
      if (nodes_[last].function == function) return last;
      const uint32_t next = nodes_[last].follower;
      if (next != kNone && nodes_[next].function == function) {
        nodes_[parent].lastChild = next;
        return next;
      }
    }
    return findChild(parent, function);
  }
  uint32_t findChild(uint32_t parent, uint32_t function);

  uint32_t gtp_;
  bool selected_;
  Time last_ = 0;
  std::vector<Frame> stack_;
  std::vector<PathNode> nodes_;  // a parent comes before its children
  KeyIndex children_;            // node index + 1 of parent and function
};

// The calls of all threads.
class Calls {
 public:
  // The index of a thread, which is added on first use.
  uint32_t indexOf(uint32_t gtp) {
    const uint32_t index = ids_.find(gtp);
    return index != kNone ? index : add(gtp);
  }
  [[nodiscard]] uint32_t find(uint32_t gtp) const { return ids_.find(gtp); }
  [[nodiscard]] ThreadCalls& operator[](uint32_t index) { return threads_[index]; }
  [[nodiscard]] const ThreadCalls& operator[](uint32_t index) const { return threads_[index]; }
  [[nodiscard]] uint32_t size() const { return static_cast<uint32_t>(threads_.size()); }

  // The threads of the tables, as the user selects them; all by default.
  PAL_TripletSet selection;
  bool selectsAll = true;

 private:
  uint32_t add(uint32_t gtp);

  KeyIndex ids_{kProcessMask + 1};
  std::vector<ThreadCalls> threads_;
};

}  // namespace kla
