// The members of a communicator, in rank order.
//
// A definition of some thirty bytes can name a million members, so they are stored as runs with
// equal steps and never expanded. Handlers of collective operations walk them with a cursor.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "util/triplets/pal_triplets.h"

class KLTT_MemberList {
 public:
  class Cursor;

  KLTT_MemberList() = default;
  // The first `limit` numbers of valid triplets, in rank order. Repeated ones are kept.
  explicit KLTT_MemberList(PAL_TripletSpan gtps, uint32_t limit = 0xffffffff);

  [[nodiscard]] uint32_t size() const { return size_; }

  // The number of runs, which determines the time of indexOf().
  [[nodiscard]] size_t runs() const { return runs_.size(); }

  static constexpr uint32_t kNoMember = 0xffffffff;
  // The rank of the first member with this number, from 0; kNoMember if there is none.
  [[nodiscard]] uint32_t indexOf(uint32_t gtp) const;

 private:
  // The `count` (at least 1) members first, first + step, ..., modulo 2^32. They are different
  // unless `step` is 0.
  struct Run {
    uint32_t first;
    uint32_t step;
    uint32_t count;
  };

  void add(Run run);

  std::vector<Run> runs_;
  uint32_t size_ = 0;
};

// Walks the members from the first. The list must outlive the cursor.
class KLTT_MemberList::Cursor {
 public:
  explicit Cursor(const KLTT_MemberList& list)
      : run_(list.runs_.data()), end_(run_ + list.runs_.size()) {}

  // Stores the next member in `gtp`. After the last member it returns false and leaves `gtp`
  // unchanged.
  bool next(uint32_t* gtp) {
    if (run_ == end_) return false;
    *gtp = run_->first + offset_ * run_->step;
    if (++offset_ == run_->count) {
      ++run_;
      offset_ = 0;
    }
    return true;
  }

 private:
  const Run* run_;
  const Run* end_;
  uint32_t offset_ = 0;
};
