// The calls of each thread: its stack, the sums of each of its functions, and, if they are wanted,
// the sums of its call paths.
//
// Times of one thread never decrease; an earlier time counts as the last one. So no time is counted
// twice, and the sums are exact.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include "analyze/core/kla_keys.h"
#include "analyze/core/kla_types.h"
#include "klt/klt.h"

namespace kla {

// The calls of a function on one thread that have ended, and the time up to the last event.
struct FunctionSums {
  uint32_t function;  // index in Definitions::functions
  uint32_t open = 0;  // calls that haven't ended
  uint64_t calls = 0;
  Time inclusive = 0;  // recursive calls count once
  Time exclusive = 0;
};

// The call paths of a thread. Number 0 is the thread itself, a parent comes before its children.
class CallTree {
 public:
  struct Sums {
    uint64_t calls = 0;
    Time inclusive = 0;
  };

  // The path of `function` called from `parent`, which is added on first use.
  uint32_t child(uint32_t parent, uint32_t function) {
    const uint32_t path = keys_[uint64_t{parent} << 32 | function] + 1;
    if (path == sums_.size()) sums_.emplace_back();
    return path;
  }
  void add(uint32_t path, Time time) {
    ++sums_[path].calls;
    sums_[path].inclusive += time;
  }

  [[nodiscard]] uint32_t size() const { return static_cast<uint32_t>(sums_.size()); }
  [[nodiscard]] const Sums& operator[](uint32_t path) const { return sums_[path]; }
  // Of a path other than 0.
  [[nodiscard]] uint32_t parent(uint32_t path) const {
    return static_cast<uint32_t>(keys_.keys()[path - 1] >> 32);
  }
  [[nodiscard]] uint32_t function(uint32_t path) const {
    return static_cast<uint32_t>(keys_.keys()[path - 1]);
  }

 private:
  KeyIndex keys_;  // path - 1 of parent and function
  std::vector<Sums> sums_{1};
};

class ThreadCalls {
 public:
  ThreadCalls(uint32_t gtp, bool selected, bool keepsPaths)
      : gtp_(gtp), selected_(selected), tree_(keepsPaths ? new CallTree : nullptr) {}

  [[nodiscard]] uint32_t gtp() const { return gtp_; }
  [[nodiscard]] bool selected() const { return selected_; }
  [[nodiscard]] const std::vector<FunctionSums>& functions() const { return functions_; }
  // Null if call paths aren't wanted.
  [[nodiscard]] const CallTree* tree() const { return tree_.get(); }
  [[nodiscard]] bool isOpen() const { return !stack_.empty(); }
  [[nodiscard]] Time last() const { return last_; }

  void enter(Time time, uint32_t function) {
    advance(time);
    const uint32_t index = indices_[function];
    if (index == functions_.size()) functions_.push_back({.function = function});
    ++functions_[index].open;
    uint32_t path = 0;
    if (tree_ != nullptr) path = tree_->child(stack_.empty() ? 0 : stack_.back().path, function);
    stack_.push_back({index, path, last_});
  }
  // Ends the innermost call and returns its function. REQUIRES: isOpen().
  uint32_t leave(Time time) {
    advance(time);
    const Frame frame = stack_.back();
    stack_.pop_back();
    FunctionSums& sums = functions_[frame.index];
    ++sums.calls;
    if (--sums.open == 0) sums.inclusive += last_ - frame.enter;
    if (tree_ != nullptr) tree_->add(frame.path, last_ - frame.enter);
    return sums.function;
  }

  // Whether the thread counts as one of the run although it may have no calls.
  bool isDeclared = false;
  [[nodiscard]] bool hasCalls() const { return !functions_.empty() || isDeclared; }

  // MPI calls that are open, the start and function of the outermost, and the time in those that
  // have ended.
  uint32_t mpiDepth = 0;
  uint32_t mpiFunction = kNone;
  Time mpiEnter = 0;
  Time mpiTime = 0;

 private:
  // A function index up to this is found in an array of the thread.
  static constexpr uint32_t kDirect = 256;

  struct Frame {
    uint32_t index;  // in `functions_`
    uint32_t path;   // in `tree_`
    Time enter;
  };

  void advance(Time time) {
    time = std::max(time, last_);
    if (!stack_.empty()) functions_[stack_.back().index].exclusive += time - last_;
    last_ = time;
  }

  uint32_t gtp_;
  bool selected_;
  Time last_ = 0;
  std::vector<Frame> stack_;
  std::vector<FunctionSums> functions_;
  KeyIndex indices_{kDirect};
  std::unique_ptr<CallTree> tree_;
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

  // Before the first thread: whether call paths are wanted.
  bool keepsPaths = false;
  // The threads of the tables, as the user selects them; all by default.
  PAL_TripletSet selection;
  bool selectsAll = true;

 private:
  uint32_t add(uint32_t gtp);

  KeyIndex ids_{kProcessMask + 1};
  std::vector<ThreadCalls> threads_;
};

}  // namespace kla
