// Triplet lists: parsing, counting, greedy compression and set algebra.
//
// The algebra works on arithmetic sections (low, high, step) in 64 bits. A set is a list of
// sections that is sorted and in which no two stretches overlap, so a binary operation is one sweep
// over two lists; its result passes through the greedy compression while it is made. Numbers are
// only looked at singly where two strides interleave in one stretch. That work is bounded (see
// Budget): a set that would need more is refused as invalid data, like an expansion that would be
// too large.
#include "util/pal_triplets.h"

#include <algorithm>
#include <functional>
#include <limits>
#include <numeric>
#include <optional>
#include <string_view>
#include <utility>

#include "util/pal_error.h"
#include "util/pal_strings.h"

namespace {

constexpr char kInvalidData[] = "Invalid triplet data.\n";
constexpr char kStrideZero[] = "Wrong triplet syntax, stride == 0, ignoring triplet.\n";

// The numbers low, low + step, ... high; `high` is one of them, and step is 1 for a single number.
struct Section {
  int64_t low;
  int64_t high;
  int64_t step;

  int64_t count() const { return (high - low) / step + 1; }
};

using Sections = std::vector<Section>;

// Limits on one operation: numbers of sections in a set, and steps to get there.
struct Budget {
  size_t maxSections = size_t{1} << 20;
  int64_t steps = int64_t{1} << 26;
};

Section makeSection(int64_t low, int64_t high, int64_t step) {
  high = low + (high - low) / step * step;
  return {low, high, high == low ? 1 : step};
}

// The part of a section inside [low, high], if there is one.
std::optional<Section> clip(const Section& section, int64_t low, int64_t high) {
  if (section.low >= low && section.high <= high) return section;
  int64_t from = section.low;
  if (from < low) from += (low - from + section.step - 1) / section.step * section.step;
  const int64_t to = std::min(section.high, high);
  if (from > to) return std::nullopt;
  return makeSection(from, to, section.step);
}

bool isInverted(const PAL_Triplet& t) {
  return (t.stride > 0 && t.last < t.first) || (t.stride < 0 && t.last > t.first);
}

Section toSection(const PAL_Triplet& t) {
  if (t.stride > 0) return makeSection(t.first, t.last, t.stride);
  const int64_t step = -int64_t{t.stride};
  const int64_t low = t.first - (int64_t{t.first} - t.last) / step * step;
  return {low, t.first, low == t.first ? 1 : step};
}

// The sections of a list in its order, with entries that stand for nothing left out.
Sections testedSections(PAL_TripletSpan list) {
  Sections sections;
  sections.reserve(list.size());
  for (const PAL_Triplet& t : list) {
    if (t.stride != 0 && !isInverted(t)) sections.push_back(toSection(t));
  }
  return sections;
}

// The same for a list whose numbers are walked: invalid entries are reported, and an inverted one
// spoils the list.
Sections walkedSections(PAL_TripletSpan list) {
  if (std::any_of(list.begin(), list.end(), isInverted)) {
    PAL_Error(kInvalidData);
    return {};
  }
  Sections sections = testedSections(list);
  if (sections.empty()) return sections;
  for (size_t i = sections.size(); i < list.size(); i++) PAL_Error(kStrideZero);
  return sections;
}

// The greedy compression, fed with numbers or with whole sections in ascending order.
class Compressor {
 public:
  // The next number: extends the open triplet, becomes its second number, or opens a new one.
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

  // Same as adding all its numbers. The open triplet takes up the section's stride after three
  // numbers at the latest, and the rest of the section extends it.
  void add(const Section& section) {
    for (int64_t v = section.low; v <= section.high; v += section.step) {
      add(v);
      if (state_ == State::kMore && stride_ == section.step) {
        last_ = section.high;
        return;
      }
    }
  }

  size_t size() const { return triplets_.size(); }

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

// x with a * x == 1 (mod m), for coprime a and m.
int64_t inverse(int64_t a, int64_t m) {
  int64_t r0 = m, r1 = a % m, x0 = 0, x1 = 1;
  while (r1 != 0) {
    const int64_t q = r0 / r1;
    r0 = std::exchange(r1, r0 - q * r1);
    x0 = std::exchange(x1, x0 - q * x1);
  }
  return x0 < 0 ? x0 + m : x0;
}

// The common numbers of two sections form a section again (Chinese remainders). Steps are at most
// 2^31, so no product passes 2^62.
std::optional<Section> common(const Section& a, const Section& b) {
  const int64_t low = std::max(a.low, b.low);
  const int64_t high = std::min(a.high, b.high);
  if (low > high) return std::nullopt;
  if (a.step == 1) return clip(b, low, high);
  if (b.step == 1) return clip(a, low, high);
  const int64_t divisor = std::gcd(a.step, b.step);
  const int64_t distance = b.low - a.low;
  if (distance % divisor != 0) return std::nullopt;
  const int64_t modulus = b.step / divisor;
  const int64_t quotient = ((distance / divisor) % modulus + modulus) % modulus;
  const int64_t k = quotient * inverse(a.step / divisor, modulus) % modulus;
  const int64_t step = a.step / divisor * b.step;
  int64_t from = a.low + k * a.step;
  if (from < low) from += (low - from + step - 1) / step * step;
  if (from > high) return std::nullopt;
  return makeSection(from, high, step);
}

enum class Operation { kIntersect, kUnite, kSubtract };

// One binary operation on two sets: a sweep that hands the result to a Compressor.
class Sweep {
 public:
  Sweep(Operation operation, Budget& budget) : operation_(operation), budget_(budget) {}

  // False if the budget ran out.
  bool run(const Sections& a, const Sections& b) {
    size_t i = 0;
    size_t j = 0;
    std::optional<Section> x = at(a, i);
    std::optional<Section> y = at(b, j);
    while (x && y && withinBudget()) {
      const int64_t low = std::max(x->low, y->low);
      const int64_t high = std::min(x->high, y->high);
      if (low <= high) {
        if (x->low < low) left(clip(*x, x->low, low - 1));
        if (y->low < low) right(clip(*y, y->low, low - 1));
        overlap(clip(*x, low, high), clip(*y, low, high));
        x = clip(*x, high + 1, x->high);
        y = clip(*y, high + 1, y->high);
      } else if (x->high < y->low) {
        left(std::exchange(x, std::nullopt));
      } else {
        right(std::exchange(y, std::nullopt));
      }
      if (!x) x = at(a, ++i);
      if (!y) y = at(b, ++j);
    }
    for (; x && withinBudget(); x = at(a, ++i)) left(x);
    for (; y && withinBudget(); y = at(b, ++j)) right(y);
    return withinBudget();
  }

  PAL_Triplets finish() { return result_.finish(); }

 private:
  static std::optional<Section> at(const Sections& set, size_t i) {
    return i < set.size() ? std::optional(set[i]) : std::nullopt;
  }

  bool withinBudget() const { return budget_.steps > 0 && result_.size() <= budget_.maxSections; }

  void emit(const Section& section) {
    budget_.steps--;
    result_.add(section);
  }

  // A stretch that only one of the sets touches.
  void left(const std::optional<Section>& x) {
    if (x && operation_ != Operation::kIntersect) emit(*x);
  }
  void right(const std::optional<Section>& y) {
    if (y && operation_ == Operation::kUnite) emit(*y);
  }

  // A stretch in which both have a section.
  void overlap(const std::optional<Section>& x, const std::optional<Section>& y) {
    if (!y) return left(x);
    if (!x) return right(y);
    const std::optional<Section> both = common(*x, *y);
    switch (operation_) {
      case Operation::kIntersect:
        if (both) emit(*both);
        break;
      case Operation::kSubtract:
        subtract(*x, both);
        break;
      case Operation::kUnite:
        unite(*x, *y, both);
        break;
    }
  }

  // The stretches of `x` between the numbers of `hole`, which are numbers of `x`.
  void subtract(const Section& x, const std::optional<Section>& hole) {
    if (!hole) return emit(x);
    if (hole->step == x.step) {
      left(clip(x, x.low, hole->low - 1));
      left(clip(x, hole->high + 1, x.high));
      return;
    }
    int64_t from = x.low;
    for (int64_t v = hole->low; v <= hole->high && withinBudget(); v += hole->step) {
      left(clip(x, from, v - 1));
      from = v + 1;
    }
    left(clip(x, from, x.high));
  }

  void unite(const Section& x, const Section& y, const std::optional<Section>& both) {
    if (both && both->count() == y.count()) return emit(x);
    if (both && both->count() == x.count()) return emit(y);
    int64_t v = x.low;
    int64_t w = y.low;
    while ((v <= x.high || w <= y.high) && withinBudget()) {
      const bool takeX = w > y.high || (v <= x.high && v <= w);
      const int64_t number = takeX ? v : w;
      emit({number, number, 1});
      if (v == number) v += x.step;
      if (w == number) w += y.step;
    }
  }

  const Operation operation_;
  Budget& budget_;
  Compressor result_;
};

bool areDisjoint(const Sections& sorted) {
  for (size_t i = 1; i < sorted.size(); i++) {
    if (sorted[i].low <= sorted[i - 1].high) return false;
  }
  return true;
}

// The set of sections that are sorted by `low`. Halves are united depth first, so that what
// interleaves among neighbours has melted into few sections before the next level sees it.
std::optional<Sections> makeSet(std::span<const Section> sorted, Budget& budget) {
  Sections whole(sorted.begin(), sorted.end());
  if (areDisjoint(whole)) return whole;
  const std::optional<Sections> a = makeSet(sorted.first(sorted.size() / 2), budget);
  const std::optional<Sections> b =
      a ? makeSet(sorted.subspan(sorted.size() / 2), budget) : std::nullopt;
  Sweep sweep(Operation::kUnite, budget);
  if (!b || !sweep.run(*a, *b)) return std::nullopt;
  return testedSections(sweep.finish());
}

std::optional<Sections> makeSet(Sections&& sections, Budget& budget) {
  std::sort(sections.begin(), sections.end(), [](const Section& a, const Section& b) {
    return a.low != b.low ? a.low < b.low : a.high < b.high;
  });
  budget.maxSections = std::max(budget.maxSections, 2 * sections.size());
  budget.steps += 64 * static_cast<int64_t>(sections.size());
  return makeSet(std::span<const Section>(sections), budget);
}

// The result of an operation on two lists given as sections, or nothing when the budget ran out,
// which is reported.
std::optional<PAL_Triplets> combine(Operation operation, Sections&& a, Sections&& b) {
  Budget budget;
  const std::optional<Sections> x = makeSet(std::move(a), budget);
  const std::optional<Sections> y = makeSet(std::move(b), budget);
  Sweep sweep(operation, budget);
  if (x && y && sweep.run(*x, *y)) return sweep.finish();
  PAL_Error(kInvalidData);
  return std::nullopt;
}

// Both sets, or false when the budget ran out, which is reported.
bool makeSets(Sections&& a, Sections&& b, Sections& x, Sections& y) {
  Budget budget;
  std::optional<Sections> first = makeSet(std::move(a), budget);
  std::optional<Sections> second = makeSet(std::move(b), budget);
  if (!first || !second) {
    PAL_Error(kInvalidData);
    return false;
  }
  x = std::move(*first);
  y = std::move(*second);
  return true;
}

// Calls visit(x, y) for each pair of sections of two sets that share a stretch; stops on true.
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

// How many numbers two sets have in common: no set holds more than 2^32.
int64_t countCommon(const Sections& a, const Sections& b) {
  int64_t count = 0;
  anyOverlapping(a, b, [&](const Section& x, const Section& y) {
    if (const auto both = common(x, y)) count += both->count();
    return false;
  });
  return count;
}

// One piece of a triplet text: the letter N or digits. The piece is taken off `text`, with the
// colons in front of it; no piece is left when the result is empty.
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
    if (!isInverted(t)) count += (int64_t{t.last} - t.first) / t.stride + 1;
    if (isInverted(t) || count > kMaxCount) {
      PAL_Error(kInvalidData);
      return 0;
    }
  }
  return static_cast<uint32_t>(count);
}

std::vector<int32_t> PAL_TripletsExpand(PAL_TripletSpan list) {
  const uint32_t count = PAL_TripletsCount(list);
  if (count > PAL_TRIPLETS_MAX_EXPANSION) PAL_Error(kInvalidData);
  if (count == 0 || count > PAL_TRIPLETS_MAX_EXPANSION) return {};
  std::vector<int32_t> numbers;
  numbers.reserve(count);
  for (const PAL_Triplet& t : list) {
    if (t.stride == 0) {
      PAL_Error(kStrideZero);
      continue;
    }
    int64_t left = (int64_t{t.last} - t.first) / t.stride + 1;
    for (int64_t v = t.first; left > 0; left--, v += t.stride) {
      numbers.push_back(static_cast<int32_t>(v));
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

bool PAL_TripletsContains(PAL_TripletSpan list, int32_t number) {
  for (const PAL_Triplet& t : list) {
    const int64_t distance = int64_t{number} - t.first;
    const bool inside = t.stride > 0 ? number >= t.first && number <= t.last
                                     : number <= t.first && number >= t.last;
    if (t.stride != 0 && inside && distance % t.stride == 0) return true;
  }
  return false;
}

PAL_Triplets PAL_TripletsIntersect(PAL_TripletSpan a, PAL_TripletSpan b) {
  return combine(Operation::kIntersect, walkedSections(a), testedSections(b))
      .value_or(PAL_Triplets());
}

PAL_Triplets PAL_TripletsUnite(PAL_TripletSpan a, PAL_TripletSpan b) {
  return combine(Operation::kUnite, walkedSections(a), walkedSections(b)).value_or(PAL_Triplets());
}

PAL_Triplets PAL_TripletsSubtract(PAL_TripletSpan a, PAL_TripletSpan b) {
  return combine(Operation::kSubtract, walkedSections(a), testedSections(b))
      .value_or(PAL_Triplets());
}

bool PAL_TripletsFirstCommon(PAL_TripletSpan a, PAL_TripletSpan b, int32_t* number) {
  // Sections of `a` that share a stretch with many of `b` but no number are the slow case.
  Budget budget;
  const Sections walked = walkedSections(a);
  const std::optional<Sections> set = makeSet(testedSections(b), budget);
  if (!set) PAL_Error(kInvalidData);
  if (!set || walked.empty()) return false;

  size_t entry = 0;
  for (const Section& x : walked) {
    while (a[entry].stride == 0) entry++;
    const bool down = a[entry++].stride < 0;
    auto from = std::partition_point(set->begin(), set->end(),
                                     [&](const Section& y) { return y.high < x.low; });
    auto to =
        std::partition_point(from, set->end(), [&](const Section& y) { return y.low <= x.high; });
    while (from != to) {
      if (--budget.steps < 0) {
        PAL_Error(kInvalidData);
        return false;
      }
      const auto both = common(x, down ? *--to : *from++);
      if (both) {
        *number = static_cast<int32_t>(down ? both->high : both->low);
        return true;
      }
    }
  }
  return false;
}

bool PAL_TripletsOverlap(PAL_TripletSpan a, PAL_TripletSpan b) {
  Sections x, y;
  return makeSets(walkedSections(a), testedSections(b), x, y) &&
         anyOverlapping(
             x, y, [](const Section& p, const Section& q) { return common(p, q).has_value(); });
}

bool PAL_TripletsEqual(PAL_TripletSpan a, PAL_TripletSpan b) {
  Sections x, y;
  if (!makeSets(walkedSections(a), walkedSections(b), x, y)) return false;
  const int64_t count = countNumbers(x);
  return count == countNumbers(y) && count == countCommon(x, y);
}

bool PAL_TripletsSubset(PAL_TripletSpan a, PAL_TripletSpan b) {
  Sections x, y;
  return makeSets(testedSections(a), walkedSections(b), x, y) &&
         countCommon(x, y) == countNumbers(y);
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
  Sections sections = testedSections(list);
  if (sections.size() > kWalked) {
    // A set larger than its list by much isn't worth its memory in every stream.
    Budget budget{.maxSections = size_t{1} << 14, .steps = int64_t{1} << 22};
    Sections copy = sections;
    if (std::optional<Sections> set = makeSet(std::move(copy), budget)) {
      sections = std::move(*set);
      sorted_ = sections.size() > kWalked;
    }
  }
  stretches_.reserve(sections.size());
  for (const Section& s : sections) {
    stretches_.push_back({static_cast<int32_t>(s.low), static_cast<uint32_t>(s.high - s.low),
                          static_cast<uint32_t>(s.step)});
  }
}

bool PAL_TripletSet::search(int32_t number) const {
  const auto next = std::upper_bound(stretches_.begin(), stretches_.end(), number,
                                     [](int32_t v, const Stretch& s) { return v < s.low; });
  return next != stretches_.begin() && std::prev(next)->holds(number);
}
