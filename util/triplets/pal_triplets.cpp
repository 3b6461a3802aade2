// Implements parsing, counting, expansion, compression and set operations of triplet lists.
//
// The set operations use arithmetic sections (see pal_triplets_sections.h). A set that would exceed
// the budget is reported as invalid data, and so is an expansion that would be too large.
#include "util/triplets/pal_triplets.h"

#include <algorithm>
#include <bit>
#include <functional>
#include <numeric>
#include <optional>
#include <string_view>
#include <utility>

#include "util/pal_error.h"
#include "util/pal_strings.h"
#include "util/triplets/pal_triplets_sections.h"

namespace {

using pal::Budget;
using pal::common;
using pal::Compressor;
using pal::makeSet;
using pal::Operation;
using pal::Section;
using pal::Sections;
using pal::validSections;

constexpr char kInvalidData[] = "Invalid triplet data.\n";
constexpr char kStrideZero[] = "Wrong triplet syntax, stride == 0, ignoring triplet.\n";

// The valid sections of a list. Invalid entries are reported; if an entry is inverted, the result
// is empty.
Sections checkedSections(PAL_TripletSpan list) {
  if (std::any_of(list.begin(), list.end(), pal::isInverted)) {
    PAL_Error(kInvalidData);
    return {};
  }
  Sections sections = validSections(list);
  if (sections.empty()) return sections;
  for (size_t i = sections.size(); i < list.size(); i++) PAL_Error(kStrideZero);
  return sections;
}

struct Sets {
  Sections x, y;
};

// The sets of two lists of sections; nothing if the budget is exceeded.
std::optional<Sets> makeSets(const Sections& a, const Sections& b, Budget& budget) {
  std::optional<Sections> x = makeSet(a, budget);
  std::optional<Sections> y = x ? makeSet(b, budget) : std::nullopt;
  if (!y) return std::nullopt;
  return Sets{std::move(*x), std::move(*y)};
}

// The sets of two lists of sections; nothing, after a report, if the default budget is exceeded.
std::optional<Sets> makeSetsOrReport(const Sections& a, const Sections& b) {
  Budget budget;
  std::optional<Sets> sets = makeSets(a, b, budget);
  if (!sets) PAL_Error(kInvalidData);
  return sets;
}

// The result of an operation on two lists of sections; nothing if the budget is exceeded.
std::optional<PAL_Triplets> combine(Operation operation, const Sections& a, const Sections& b,
                                    Budget budget = {}) {
  const std::optional<Sets> sets = makeSets(a, b, budget);
  return sets ? pal::combineSets(operation, sets->x, sets->y, budget) : std::nullopt;
}

// The result of an operation; empty, after a report, if the budget was exceeded.
PAL_Triplets valueOrReport(std::optional<PAL_Triplets>&& result) {
  if (!result) PAL_Error(kInvalidData);
  return std::move(result).value_or(PAL_Triplets());
}

// A small budget for the first attempt. If it is exceeded, each pair of sections is compared
// instead, in time proportional to the number of pairs. That is faster if the triplets of a list
// from a file overlap over the whole range of numbers and the user selects few of them.
constexpr Budget kSmallBudget{.steps = 4096};

bool pairsAreFew(const Sections& a, const Sections& b) {
  constexpr size_t kMaxPairs = size_t{1} << 20;
  return a.empty() || b.size() <= kMaxPairs / a.size();
}

// Calls visit(section) with the common numbers of each pair of sections that has any, until visit
// returns true. Returns whether visit returned true.
template <class Visit>
bool anyCommonPair(const Sections& a, const Sections& b, Visit&& visit) {
  for (const Section& x : a) {
    for (const Section& y : b) {
      const std::optional<Section> both = common(x, y);
      if (both && visit(*both)) return true;
    }
  }
  return false;
}

std::optional<PAL_Triplets> intersectPairs(const Sections& a, const Sections& b) {
  if (!pairsAreFew(a, b)) return std::nullopt;
  Sections pairs;
  anyCommonPair(a, b, [&](const Section& both) {
    pairs.push_back(both);
    return false;
  });
  return combine(Operation::kUnite, pairs, {});
}

// Calls visit(x, y) for each pair of sections of two sets whose ranges overlap, until visit returns
// true. Returns whether visit returned true.
template <class Visit>
bool anyOverlapping(const Sections& a, const Sections& b, Visit&& visit) {
  size_t i = 0;
  size_t j = 0;
  while (i < a.size() && j < b.size()) {
    if (a[i].low <= b[j].high && b[j].low <= a[i].high && visit(a[i], b[j])) return true;
    if (a[i].high < b[j].high) {
      i++;
    } else {
      j++;
    }
  }
  return false;
}

int64_t countNumbers(const Sections& set) {
  return std::transform_reduce(set.begin(), set.end(), int64_t{0}, std::plus<>(),
                               [](const Section& s) { return s.count(); });
}

int64_t largestCount(const Sections& sections) {
  int64_t count = 0;
  for (const Section& section : sections) count = std::max(count, section.count());
  return count;
}

// How many numbers two sets have in common, at most 2^32.
int64_t countCommon(const Sections& a, const Sections& b) {
  int64_t count = 0;
  anyOverlapping(a, b, [&](const Section& x, const Section& y) {
    if (const auto both = common(x, y)) count += both->count();
    return false;
  });
  return count;
}

// The last number of a valid triplet.
int64_t lastOf(const PAL_Triplet& t) {
  return t.first + (int64_t{t.last} - t.first) / t.stride * t.stride;
}

// Removes the next piece (the letter N or digits) and the colons before it from `text`, and returns
// the piece; empty if there is none.
std::string_view nextPiece(std::string_view& text) {
  text.remove_prefix(std::min(text.find_first_not_of(':'), text.size()));
  const std::string_view piece = text.substr(0, text.find(':'));
  text.remove_prefix(piece.size());
  return piece;
}

bool parsePiece(std::string_view piece, int32_t n, int32_t& value) {
  if (piece == "N" || piece == "n") {
    value = n;
    return true;
  }
  uint64_t number = 0;
  for (const char c : piece) {
    if (c < '0' || c > '9') return false;
    number = number * 10 + static_cast<uint64_t>(c - '0');
    if (number > std::numeric_limits<uint32_t>::max()) return false;
  }
  value = static_cast<int32_t>(static_cast<uint32_t>(number));
  return true;
}

}  // namespace

int PAL_TripletParse(const char* text, int32_t n, int32_t* first, int32_t* last, int32_t* stride) {
  constexpr size_t kMaxText = 191;
  if (!text || !first || !last || !stride) return 0;
  while (PAL_IsSpace(*text)) text++;
  size_t length = 0;
  while (length < kMaxText && text[length] != '\0' && !PAL_IsSpace(text[length])) length++;

  std::string_view rest(text, length);
  const std::string_view start = nextPiece(rest);
  if (start.empty() || !parsePiece(start, n, *first)) return 0;
  *last = *first;
  *stride = 1;
  for (int32_t* field : {last, stride}) {
    const std::string_view piece = nextPiece(rest);
    if (piece.empty()) break;
    if (!parsePiece(piece, n, *field)) return 0;
  }
  return 1;
}

uint32_t PAL_TripletsCount(PAL_TripletSpan list) {
  constexpr int64_t kMaxCount = 4294967294;
  int64_t count = 0;
  for (const PAL_Triplet& t : list) {
    if (t.stride == 0) continue;
    if (!pal::isInverted(t)) count += (int64_t{t.last} - t.first) / t.stride + 1;
    if (pal::isInverted(t) || count > kMaxCount) {
      PAL_Error(kInvalidData);
      return 0;
    }
  }
  return static_cast<uint32_t>(count);
}

PAL_Triplets PAL_TripletsExpandable(PAL_TripletSpan list) {
  const uint32_t count = PAL_TripletsCount(list);
  if (count > kPalMaxExpansion) PAL_Error(kInvalidData);
  if (count == 0 || count > kPalMaxExpansion) return {};
  PAL_Triplets valid;
  valid.reserve(list.size());
  for (const PAL_Triplet& t : list) {
    if (t.stride == 0) {
      PAL_Error(kStrideZero);
    } else {
      valid.push_back(t);
    }
  }
  return valid;
}

std::vector<int32_t> PAL_TripletsExpand(PAL_TripletSpan list) {
  const PAL_Triplets valid = PAL_TripletsExpandable(list);
  std::vector<int32_t> numbers;
  numbers.reserve(PAL_TripletsCount(valid));
  for (const PAL_Triplet& t : valid) {
    const int64_t last = lastOf(t);
    for (int64_t v = t.first;; v += t.stride) {
      numbers.push_back(static_cast<int32_t>(v));
      if (v == last) break;
    }
  }
  return numbers;
}

PAL_Triplets PAL_TripletsCompress(std::span<const int32_t> numbers, bool sort) {
  std::vector<int32_t> sorted;
  if (sort) {
    sorted.assign(numbers.begin(), numbers.end());
    std::sort(sorted.begin(), sorted.end());
    numbers = sorted;
  }
  Compressor compressor;
  for (const int32_t v : numbers) compressor.add(v);
  return compressor.finish();
}

PAL_Triplets PAL_TripletsCompress(PAL_TripletSpan list) {
  Compressor compressor;
  for (const PAL_Triplet& t : list) compressor.add(t.first, lastOf(t), t.stride);
  return compressor.finish();
}

uint32_t PAL_TripletsFind(PAL_TripletSpan list, int32_t number) {
  for (size_t i = 0; i < list.size(); i++) {
    const PAL_Triplet& t = list[i];
    const int64_t distance = int64_t{number} - t.first;
    const bool inside = t.stride > 0 ? number >= t.first && number <= t.last
                                     : number <= t.first && number >= t.last;
    if (t.stride != 0 && inside && distance % t.stride == 0) return static_cast<uint32_t>(i);
  }
  return kPalNotFound;
}

bool PAL_TripletsContains(PAL_TripletSpan list, int32_t number) {
  return PAL_TripletsFind(list, number) != kPalNotFound;
}

PAL_Triplets PAL_TripletsIntersect(PAL_TripletSpan a, PAL_TripletSpan b) {
  const Sections x = checkedSections(a);
  const Sections y = validSections(b);
  std::optional<PAL_Triplets> result = combine(Operation::kIntersect, x, y, kSmallBudget);
  if (!result) result = intersectPairs(x, y);
  if (!result) result = combine(Operation::kIntersect, x, y);
  return valueOrReport(std::move(result));
}

PAL_Triplets PAL_TripletsUnite(PAL_TripletSpan a, PAL_TripletSpan b) {
  return valueOrReport(combine(Operation::kUnite, checkedSections(a), checkedSections(b)));
}

PAL_Triplets PAL_TripletsSubtract(PAL_TripletSpan a, PAL_TripletSpan b) {
  return valueOrReport(combine(Operation::kSubtract, checkedSections(a), validSections(b)));
}

bool PAL_TripletsFirstCommon(PAL_TripletSpan a, PAL_TripletSpan b, int32_t* number) {
  return PAL_TripletSet(b).firstCommon(a, number);
}

bool PAL_TripletsOverlap(PAL_TripletSpan a, PAL_TripletSpan b) {
  const Sections x = checkedSections(a);
  const Sections y = validSections(b);
  Budget budget = kSmallBudget;
  std::optional<Sets> sets = makeSets(x, y, budget);
  if (!sets && pairsAreFew(x, y)) {
    return anyCommonPair(x, y, [](const Section&) { return true; });
  }
  if (!sets) sets = makeSetsOrReport(x, y);
  return sets && anyOverlapping(sets->x, sets->y, [](const Section& p, const Section& q) {
           return common(p, q).has_value();
         });
}

bool PAL_TripletsEqual(PAL_TripletSpan a, PAL_TripletSpan b) {
  const Sections x = checkedSections(a);
  const Sections y = checkedSections(b);
  // Lists can't be equal if one has a section with more numbers than the other list in total.
  if (largestCount(x) > countNumbers(y) || largestCount(y) > countNumbers(x)) return false;
  const std::optional<Sets> sets = makeSetsOrReport(x, y);
  if (!sets) return false;
  const int64_t count = countNumbers(sets->x);
  return count == countNumbers(sets->y) && count == countCommon(sets->x, sets->y);
}

bool PAL_TripletsSubset(PAL_TripletSpan a, PAL_TripletSpan b) {
  const std::optional<Sets> sets = makeSetsOrReport(validSections(a), checkedSections(b));
  return sets && countCommon(sets->x, sets->y) == countNumbers(sets->y);
}

std::vector<int32_t> PAL_TripletsToParallel(PAL_TripletSpan list) {
  const size_t n = list.size();
  std::vector<int32_t> numbers(3 * n);
  for (size_t i = 0; i < n; i++) {
    numbers[i] = list[i].first;
    numbers[n + i] = list[i].last;
    numbers[2 * n + i] = list[i].stride;
  }
  return numbers;
}

PAL_Triplets PAL_TripletsFromParallel(size_t n, const int32_t* first, const int32_t* last,
                                      const int32_t* stride) {
  PAL_Triplets list(n);
  for (size_t i = 0; i < n; i++) list[i] = {first[i], last[i], stride[i]};
  return list;
}

PAL_TripletSet::PAL_TripletSet(PAL_TripletSpan list) {
  Sections sections = validSections(list);
  if (sections.size() > kMaxLinear) {
    // The budget limits the size of the set, because every stream has a set of its own.
    Budget budget{.maxSections = size_t{1} << 14, .steps = int64_t{1} << 22};
    if (std::optional<Sections> set = makeSet(sections, budget)) {
      sections = std::move(*set);
      sorted_ = sections.size() > kMaxLinear;
    }
  }
  sections_.reserve(sections.size());
  for (const Section& s : sections) {
    sections_.push_back({static_cast<int32_t>(s.low), static_cast<uint32_t>(s.high - s.low),
                         static_cast<uint32_t>(s.step)});
  }
}

bool PAL_TripletSet::search(int32_t number) const {
  const auto next = std::upper_bound(sections_.begin(), sections_.end(), number,
                                     [](int32_t v, const CompactSection& s) { return v < s.low; });
  return next != sections_.begin() && std::prev(next)->contains(number);
}

// The sections that may have numbers from `low` to `high`.
std::span<const PAL_TripletSet::CompactSection> PAL_TripletSet::near(int64_t low,
                                                                     int64_t high) const {
  if (!sorted_) return sections_;
  const auto from =
      std::partition_point(sections_.begin(), sections_.end(),
                           [&](const CompactSection& s) { return int64_t{s.low} + s.span < low; });
  const auto to = std::partition_point(from, sections_.end(),
                                       [&](const CompactSection& s) { return s.low <= high; });
  return {from, to};
}

// The slow case is an entry whose range overlaps with many sections without a common number.
bool PAL_TripletSet::firstCommon(PAL_TripletSpan list, int32_t* number) const {
  int64_t steps = Budget().steps;
  const Sections sections = checkedSections(list);
  size_t entry = 0;
  for (const Section& x : sections) {
    while (list[entry].stride == 0) entry++;
    const bool down = list[entry++].stride < 0;
    const std::span<const CompactSection> others = near(x.low, x.high);
    std::optional<int64_t> first;
    for (size_t i = 0; i < others.size() && !(sorted_ && first); i++) {
      if (--steps < 0) {
        PAL_Error(kInvalidData);
        return false;
      }
      const CompactSection& y = others[down ? others.size() - 1 - i : i];
      const auto both = common(x, {y.low, int64_t{y.low} + y.span, y.step});
      if (!both) continue;
      const int64_t own = down ? both->high : both->low;
      first = !first ? own : down ? std::max(*first, own) : std::min(*first, own);
    }
    if (!first) continue;
    *number = static_cast<int32_t>(*first);
    return true;
  }
  return false;
}

PAL_Triplets PAL_TripletSet::intersect(PAL_TripletSpan list) const {
  constexpr size_t kMaxPairs = size_t{1} << 20;
  const auto section = [](const CompactSection& s) {
    return Section{s.low, int64_t{s.low} + s.span, s.step};
  };
  size_t pairs = 0;
  const Sections sections = checkedSections(list);
  Sections both;
  for (const Section& x : sections) {
    const std::span<const CompactSection> others = near(x.low, x.high);
    pairs += others.size();
    for (size_t i = 0; i < others.size() && pairs <= kMaxPairs; i++) {
      if (const auto own = common(x, section(others[i]))) both.push_back(*own);
    }
  }
  if (pairs <= kMaxPairs) return valueOrReport(combine(Operation::kUnite, both, {}));
  Sections own(sections_.size());
  std::transform(sections_.begin(), sections_.end(), own.begin(), section);
  return valueOrReport(combine(Operation::kIntersect, sections, own));
}

PAL_TripletOrder::PAL_TripletOrder(PAL_TripletSpan list) {
  struct Place {
    Section section;
    uint32_t index;
  };
  std::vector<Place> places;
  places.reserve(list.size());
  for (size_t i = 0; i < list.size(); i++) {
    if (list[i].stride == 0 || pal::isInverted(list[i])) continue;
    places.push_back({pal::toSection(list[i]), static_cast<uint32_t>(i)});
  }
  std::sort(places.begin(), places.end(),
            [](const Place& a, const Place& b) { return a.section.low < b.section.low; });
  for (const auto& [section, index] : places) {
    const auto step = static_cast<uint32_t>(section.step);
    const auto shift = static_cast<uint32_t>(std::countr_zero(step));
    const uint32_t odd = step >> shift;
    uint32_t inverse = odd;  // modulo 8; each step doubles the number of bits
    for (int bits = 3; bits < 32; bits *= 2) inverse *= 2 - odd * inverse;
    progressions_.push_back({static_cast<uint32_t>(section.low), inverse,
                             static_cast<uint32_t>(section.count() - 1), shift, index});
    const auto high = static_cast<int32_t>(section.high);
    highest_.push_back(highest_.empty() ? high : std::max(high, highest_.back()));
  }
}

uint32_t PAL_TripletOrder::find(int32_t number) const {
  const auto above = std::partition_point(
      progressions_.begin(), progressions_.end(),
      [number](const Progression& p) { return static_cast<int32_t>(p.low) <= number; });
  uint32_t first = kPalNotFound;
  for (auto i = static_cast<size_t>(above - progressions_.begin());
       i-- > 0 && highest_[i] >= number;) {
    const Progression& p = progressions_[i];
    const uint32_t distance = static_cast<uint32_t>(number) - p.low;
    const uint32_t quotient = std::rotr(distance * p.inverse, static_cast<int>(p.shift));
    if (quotient <= p.last && p.index < first) first = p.index;
  }
  return first;
}
