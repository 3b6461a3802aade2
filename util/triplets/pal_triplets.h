// Sets of small numbers (threads, processes) as lists of first:last:stride triplets.
//
// A list means the set of its numbers, in whatever order and however often they stand in it. Lists
// come from files and from the command line, so nothing here trusts them: all arithmetic is 64-bit,
// and no operation but PAL_TripletsExpand takes time or memory in proportion to the numbers that a
// list stands for. The module has no state; it reports invalid data through pal_error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

// One section: `first`, `first + stride`, ... while the numbers don't pass `last`. A negative
// stride counts down; a stride of 0 is invalid and stands for nothing, and so does a `last` on the
// wrong side of `first`.
struct PAL_Triplet {
  int32_t first;
  int32_t last;
  int32_t stride;

  friend bool operator==(const PAL_Triplet&, const PAL_Triplet&) = default;
};

using PAL_TripletSpan = std::span<const PAL_Triplet>;
using PAL_Triplets = std::vector<PAL_Triplet>;

// Largest number of numbers that PAL_TripletsExpand writes out.
inline constexpr uint32_t PAL_TRIPLETS_MAX_EXPANSION = uint32_t{1} << 20;

// Reads "first[:last[:stride]]" from the start of `text` up to white space. A piece is a decimal
// number from 0 to 4294967295 (taken as a bit pattern) or the letter N, which stands for `n`.
// Returns 1, or 0 for anything else; pieces in front of the bad one are written already.
[[nodiscard]] int PAL_TripletParse(const char* text, int32_t n, int32_t* first, int32_t* last,
                                   int32_t* stride);

// How many numbers the list writes out, repeated ones included; entries with stride 0 count
// nothing. An entry that runs away from its `last`, or a sum above 4294967294, is an error:
// reported, 0.
[[nodiscard]] uint32_t PAL_TripletsCount(PAL_TripletSpan list);

// The numbers in list order. Entries with stride 0 are reported and skipped. Invalid data or more
// than PAL_TRIPLETS_MAX_EXPANSION numbers: reported, empty.
[[nodiscard]] std::vector<int32_t> PAL_TripletsExpand(PAL_TripletSpan list);

// The greedy description of `numbers` in the order given, or in ascending order with `sort`; equal
// neighbours count once. 1 2 3 7 9 11 gives 1:3:1 7:11:2.
[[nodiscard]] PAL_Triplets PAL_TripletsCompress(std::span<const int32_t> numbers, bool sort);

// Whether `number` is in the list. Walks the list; for a test per record see PAL_TripletSet.
[[nodiscard]] bool PAL_TripletsContains(PAL_TripletSpan list, int32_t number);

// Set algebra. Results are sorted and what PAL_TripletsCompress gives for the sorted numbers. The
// operand whose numbers are walked (`a`; both in a union; `b` in a subset) reports entries with
// stride 0 and skips them; an entry that runs away from its `last` is reported and makes it empty.
// In the other operand such entries just hold nothing. Lists whose strides interleave without end
// (more than 2^20 sections or 2^23 steps) are reported as invalid; the result is empty or false.
[[nodiscard]] PAL_Triplets PAL_TripletsIntersect(PAL_TripletSpan a, PAL_TripletSpan b);
[[nodiscard]] PAL_Triplets PAL_TripletsUnite(PAL_TripletSpan a, PAL_TripletSpan b);
[[nodiscard]] PAL_Triplets PAL_TripletsSubtract(PAL_TripletSpan a, PAL_TripletSpan b);

// The first number of `a`, in the order of the list, that is in `b`; false if there is none.
[[nodiscard]] bool PAL_TripletsFirstCommon(PAL_TripletSpan a, PAL_TripletSpan b, int32_t* number);

[[nodiscard]] bool PAL_TripletsOverlap(PAL_TripletSpan a, PAL_TripletSpan b);  // a number in common
[[nodiscard]] bool PAL_TripletsEqual(PAL_TripletSpan a, PAL_TripletSpan b);    // the same set
[[nodiscard]] bool PAL_TripletsSubset(PAL_TripletSpan a, PAL_TripletSpan b);   // all of `b` in `a`

// The form that records hold: all `first`, then all `last`, then all `stride`.
[[nodiscard]] std::vector<int32_t> PAL_TripletsToParallel(PAL_TripletSpan list);
[[nodiscard]] PAL_Triplets PAL_TripletsFromParallel(size_t n, const int32_t* first,
                                                    const int32_t* last, const int32_t* stride);

// A list made ready for one membership test per record. Answers as PAL_TripletsContains does.
// Up to four sections are walked. A longer list becomes sorted sections without overlaps for a
// binary search, unless its strides interleave so badly that it is smaller as it is.
class PAL_TripletSet {
 public:
  PAL_TripletSet() = default;
  explicit PAL_TripletSet(PAL_TripletSpan list);

  [[nodiscard]] bool contains(int32_t number) const {
    if (sorted_) return search(number);
    for (const Stretch& stretch : stretches_) {
      if (stretch.holds(number)) return true;
    }
    return false;
  }

 private:
  static constexpr size_t kWalked = 4;

  // low, low + step, ... low + span.
  struct Stretch {
    int32_t low;
    uint32_t span;
    uint32_t step;

    bool holds(int32_t number) const {
      const uint32_t distance = static_cast<uint32_t>(number) - static_cast<uint32_t>(low);
      return distance <= span && (step == 1 || distance % step == 0);
    }
  };

  bool search(int32_t number) const;

  std::vector<Stretch> stretches_;
  bool sorted_ = false;
};
