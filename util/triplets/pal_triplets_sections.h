// Operates on sets of numbers as sorted lists of arithmetic sections.
//
// Only used by pal_triplets.cpp. The ranges [low, high] of the sections in a set don't overlap, so
// a binary operation reads both lists once, and its result is compressed while it is computed.
// Single numbers are only processed where the ranges of two sections overlap. That work is limited
// (see Budget).
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <utility>
#include <vector>

#include "util/triplets/pal_triplets.h"

namespace pal {

// The numbers low, low + step, ... high; `high` is one of them, and step is 1 for a single number.
struct Section {
  int64_t low;
  int64_t high;
  int64_t step;

  [[nodiscard]] int64_t count() const { return (high - low) / step + 1; }
  friend bool operator==(const Section&, const Section&) = default;
};

using Sections = std::vector<Section>;

// Limits on one operation: the number of sections in a set, and of computing steps.
struct Budget {
  size_t maxSections = size_t{1} << 20;
  int64_t steps = int64_t{1} << 23;
};

// Whether the stride leads away from `last`.
[[nodiscard]] bool isInverted(const PAL_Triplet& t);
// The section of a valid triplet.
[[nodiscard]] Section toSection(const PAL_Triplet& t);
// The sections of the valid entries of a list, in its order.
[[nodiscard]] Sections validSections(PAL_TripletSpan list);
// The numbers that two sections have in common, which form a section; nothing if there are none.
[[nodiscard]] std::optional<Section> common(const Section& a, const Section& b);

enum class Operation { kIntersect, kUnite, kSubtract };

// The set of all numbers of the sections; nothing if the budget is exceeded.
[[nodiscard]] std::optional<Sections> makeSet(Sections sections, Budget& budget);
// The compressed result of an operation on two sets; nothing if the budget is exceeded.
[[nodiscard]] std::optional<PAL_Triplets> combineSets(Operation operation, const Sections& a,
                                                      const Sections& b, Budget& budget);

// Compresses numbers, whole sections in ascending order and triplets greedily to triplets.
class Compressor {
 public:
  // Adds a number: it extends the open triplet, becomes its second number, or opens a new one.
  void add(int64_t v) {
    switch (state_) {
      case State::kSecond:
        if (v == last_) return;
        if (const int64_t stride = v - first_; fits(stride)) {
          stride_ = stride;
          last_ = v;
          state_ = State::kMore;
          return;
        }
        break;
      case State::kMore:
        if (v == last_) return;
        if (v == last_ + stride_) {
          last_ = v;
          return;
        }
        break;
      case State::kFirst:
        break;
    }
    close();
    first_ = last_ = v;
    stride_ = 1;
    state_ = State::kSecond;
  }

  // Adds the numbers first, first + step, ... last. After at most three of them the open triplet
  // has their stride; then its last number is set, which adds the others in one step.
  void add(int64_t first, int64_t last, int64_t step) {
    for (int64_t v = first;; v += step) {
      add(v);
      if (v == last) return;
      if (state_ == State::kMore && stride_ == step) {
        last_ = last;
        return;
      }
    }
  }
  void add(const Section& section) { add(section.low, section.high, section.step); }

  [[nodiscard]] size_t size() const { return triplets_.size(); }

  PAL_Triplets finish() {
    close();
    return std::move(triplets_);
  }

 private:
  enum class State { kFirst, kSecond, kMore };  // which number of a triplet comes next

  static bool fits(int64_t stride) {
    return stride >= std::numeric_limits<int32_t>::min() &&
           stride <= std::numeric_limits<int32_t>::max();
  }

  void close() {
    if (state_ == State::kFirst) return;
    triplets_.push_back(
        {static_cast<int32_t>(first_), static_cast<int32_t>(last_), static_cast<int32_t>(stride_)});
    state_ = State::kFirst;
  }

  PAL_Triplets triplets_;
  State state_ = State::kFirst;
  int64_t first_ = 0;
  int64_t last_ = 0;
  int64_t stride_ = 1;
};

}  // namespace pal
