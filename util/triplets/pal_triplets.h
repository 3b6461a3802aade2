// Operates on numbers of threads or processes that are stored as lists of first:last:stride
// triplets.
//
// The set operations and tests regard a list as a set. PAL_TripletsCount, PAL_TripletsExpand,
// PAL_TripletsCompress and PAL_TripletsFirstCommon also use the order and the repetitions of the
// numbers. Lists come from files and from the command line, so they aren't trusted: all arithmetic
// is 64-bit, and only PAL_TripletsExpand takes time or memory proportional to the numbers in a
// list. The module has no state; it reports invalid data through pal_error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

// The numbers `first`, `first + stride`, ... that don't pass `last`. A negative stride counts down.
// A triplet with a stride of 0 or with `last` on the wrong side of `first` is invalid and contains
// no numbers.
struct PAL_Triplet {
  int32_t first;
  int32_t last;
  int32_t stride;

  friend bool operator==(const PAL_Triplet&, const PAL_Triplet&) = default;
};

using PAL_TripletSpan = std::span<const PAL_Triplet>;
using PAL_Triplets = std::vector<PAL_Triplet>;

// The most numbers that PAL_TripletsExpand returns.
inline constexpr uint32_t kPalMaxExpansion = uint32_t{1} << 20;

// Parses "first[:last[:stride]]" from the start of `text` to white space. A piece is a decimal
// number from 0 to 4294967295 (stored as its 32 bits) or the letter N, which means `n`. Returns 1,
// or 0 for other text; then the pieces before the invalid one have been stored.
[[nodiscard]] int PAL_TripletParse(const char* text, int32_t n, int32_t* first, int32_t* last,
                                   int32_t* stride);

// How many numbers the list has, repetitions included; entries with stride 0 have none. If `last`
// of an entry is on the wrong side of `first`, or the sum is above 4294967294, that is reported and
// the result is 0.
[[nodiscard]] uint32_t PAL_TripletsCount(PAL_TripletSpan list);

// The numbers in list order. Entries with stride 0 are reported and skipped. Other invalid entries,
// or more than kPalMaxExpansion numbers, are reported and the result is empty.
[[nodiscard]] std::vector<int32_t> PAL_TripletsExpand(PAL_TripletSpan list);
// The entries that PAL_TripletsExpand expands, with the same reports.
[[nodiscard]] PAL_Triplets PAL_TripletsExpandable(PAL_TripletSpan list);

// Compresses `numbers` greedily to triplets, in the given order, or in ascending order with `sort`.
// Equal neighbours count once. 1 2 3 7 9 11 gives 1:3:1 7:11:2.
[[nodiscard]] PAL_Triplets PAL_TripletsCompress(std::span<const int32_t> numbers, bool sort);
// The same for the numbers of valid triplets, in the order of the list, without expanding them.
[[nodiscard]] PAL_Triplets PAL_TripletsCompress(PAL_TripletSpan list);

// The index of the first triplet that contains `number`, or kPalNotFound. Takes time linear in the
// list; for many numbers see PAL_TripletOrder.
inline constexpr uint32_t kPalNotFound = ~uint32_t{0};
[[nodiscard]] uint32_t PAL_TripletsFind(PAL_TripletSpan list, int32_t number);
// Whether `number` is in the list. For a test per record see PAL_TripletSet.
[[nodiscard]] bool PAL_TripletsContains(PAL_TripletSpan list, int32_t number);

// Set operations. A result is the list that PAL_TripletsCompress returns for the sorted numbers.
//
// Operand `a` is checked; in PAL_TripletsUnite and PAL_TripletsEqual both are, in
// PAL_TripletsSubset only `b`. Of a checked operand, entries with stride 0 are reported and
// skipped, and an entry whose `last` is on the wrong side of `first` is reported and makes the
// operand empty. In the other operand such entries contain no numbers. Memory is limited to 2^20
// triplets and time to 2^23 comparisons of two triplets. Lists that need more are reported as
// invalid, and the result is empty or false.
[[nodiscard]] PAL_Triplets PAL_TripletsIntersect(PAL_TripletSpan a, PAL_TripletSpan b);
[[nodiscard]] PAL_Triplets PAL_TripletsUnite(PAL_TripletSpan a, PAL_TripletSpan b);
[[nodiscard]] PAL_Triplets PAL_TripletsSubtract(PAL_TripletSpan a, PAL_TripletSpan b);

// The first number of `a`, in the order of the list, that is in `b`; false if there is none.
[[nodiscard]] bool PAL_TripletsFirstCommon(PAL_TripletSpan a, PAL_TripletSpan b, int32_t* number);

[[nodiscard]] bool PAL_TripletsOverlap(PAL_TripletSpan a, PAL_TripletSpan b);  // a number in common
[[nodiscard]] bool PAL_TripletsEqual(PAL_TripletSpan a, PAL_TripletSpan b);    // the same set
[[nodiscard]] bool PAL_TripletsSubset(PAL_TripletSpan a, PAL_TripletSpan b);   // all of `b` in `a`

// Conversions to and from the form in records: all `first`, then all `last`, then all `stride`.
[[nodiscard]] std::vector<int32_t> PAL_TripletsToParallel(PAL_TripletSpan list);
[[nodiscard]] PAL_Triplets PAL_TripletsFromParallel(size_t n, const int32_t* first,
                                                    const int32_t* last, const int32_t* stride);

// A list prepared for a membership test per record, or for operations with many other lists. The
// results are those of PAL_TripletsContains, PAL_TripletsFirstCommon and PAL_TripletsIntersect with
// this list as the second operand, but take time proportional to the other list, not to this one.
//
// The list is stored as sections, which are triplets in ascending order of their numbers. Up to
// four are searched linearly. More are sorted and cut until their ranges don't overlap, so that a
// binary search finds the only one that can contain a number. If that makes too many, all are
// searched.
class PAL_TripletSet {
 public:
  PAL_TripletSet() = default;
  explicit PAL_TripletSet(PAL_TripletSpan list);

  [[nodiscard]] bool contains(int32_t number) const {
    if (sorted_) return search(number);
    for (const CompactSection& section : sections_) {
      if (section.contains(number)) return true;
    }
    return false;
  }
  [[nodiscard]] bool firstCommon(PAL_TripletSpan list, int32_t* number) const;
  [[nodiscard]] PAL_Triplets intersect(PAL_TripletSpan list) const;

 private:
  static constexpr size_t kMaxLinear = 4;  // sections that are searched linearly

  // The numbers low, low + step, ... low + span.
  struct CompactSection {
    int32_t low;
    uint32_t span;
    uint32_t step;

    [[nodiscard]] bool contains(int32_t number) const {
      const uint32_t distance = static_cast<uint32_t>(number) - static_cast<uint32_t>(low);
      return distance <= span && (step == 1 || distance % step == 0);
    }
  };

  bool search(int32_t number) const;
  [[nodiscard]] std::span<const CompactSection> near(int64_t low, int64_t high) const;

  std::vector<CompactSection> sections_;
  bool sorted_ = false;
};

// A list prepared for PAL_TripletsFind. It tests each triplet whose range contains the number,
// which takes a nanosecond a triplet. If the ranges don't overlap, that is one triplet.
class PAL_TripletOrder {
 public:
  explicit PAL_TripletOrder(PAL_TripletSpan list);
  [[nodiscard]] uint32_t find(int32_t number) const;

 private:
  // The numbers low, low + step, ... low + last * step. With the inverse of the step's odd factor,
  // modulo 2^32, `q = rotr((number - low) * inverse, shift)` is the quotient if the step divides
  // the distance. Otherwise q is above all quotients.
  struct Progression {
    uint32_t low;
    uint32_t inverse;
    uint32_t last;
    uint32_t shift;
    uint32_t index;
  };

  std::vector<Progression> progressions_;  // by `low` as a signed number
  std::vector<int32_t> highest_;           // number of each progression and those before it
};
