// Implements sections and sets of sections. See pal_triplets_sections.h.
#include "util/triplets/pal_triplets_sections.h"

#include <algorithm>
#include <numeric>
#include <span>
#include <tuple>

namespace pal {
namespace {

// A range fits into 32 bits, in which a division takes half of the time.
Section makeSection(int64_t low, int64_t high, int64_t step) {
  if (step > high - low) return {low, low, 1};
  const uint32_t steps = static_cast<uint32_t>(high - low) / static_cast<uint32_t>(step);
  return {low, low + steps * step, step};
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

}  // namespace

bool isInverted(const PAL_Triplet& t) {
  return (t.stride > 0 && t.last < t.first) || (t.stride < 0 && t.last > t.first);
}

Section toSection(const PAL_Triplet& t) {
  if (t.stride > 0) return makeSection(t.first, t.last, t.stride);
  const Section down = makeSection(-int64_t{t.first}, -int64_t{t.last}, -int64_t{t.stride});
  return {-down.high, -down.low, down.step};
}

Sections validSections(PAL_TripletSpan list) {
  Sections sections;
  sections.reserve(list.size());
  for (const PAL_Triplet& t : list) {
    if (t.stride != 0 && !isInverted(t)) sections.push_back(toSection(t));
  }
  return sections;
}

// The common numbers of two sections form a section (Chinese remainder theorem). Steps are at most
// 2^31, so no product exceeds 2^62.
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

namespace {

// Goes through two sets in ascending order and adds the result of an operation to a Compressor.
class Sweep {
 public:
  Sweep(Operation operation, Budget& budget) : operation_(operation), budget_(budget) {}

  // False if the budget is exceeded.
  bool run(const Sections& a, const Sections& b) {
    size_t i = 0;
    size_t j = 0;
    std::optional<Section> x = at(a, i);
    std::optional<Section> y = at(b, j);
    while (x && y && withinBudget()) {
      const int64_t low = std::max(x->low, y->low);
      const int64_t high = std::min(x->high, y->high);
      if (low <= high) {
        if (x->low < low) addOnlyA(clip(*x, x->low, low - 1));
        if (y->low < low) addOnlyB(clip(*y, y->low, low - 1));
        addBoth(clip(*x, low, high), clip(*y, low, high));
        x = clip(*x, high + 1, x->high);
        y = clip(*y, high + 1, y->high);
      } else if (x->high < y->low) {
        addOnlyA(std::exchange(x, std::nullopt));
      } else {
        addOnlyB(std::exchange(y, std::nullopt));
      }
      if (!x) x = at(a, ++i);
      if (!y) y = at(b, ++j);
    }
    for (; x && withinBudget(); x = at(a, ++i)) addOnlyA(x);
    for (; y && withinBudget(); y = at(b, ++j)) addOnlyB(y);
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

  // A range in which only one of the sets has a section.
  void addOnlyA(const std::optional<Section>& x) {
    if (x && operation_ != Operation::kIntersect) emit(*x);
  }
  void addOnlyB(const std::optional<Section>& y) {
    if (y && operation_ == Operation::kUnite) emit(*y);
  }

  // A range in which both sets have a section.
  void addBoth(const std::optional<Section>& x, const std::optional<Section>& y) {
    if (!y) return addOnlyA(x);
    if (!x) return addOnlyB(y);
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

  // Adds `x` without `removed`, whose numbers are all in `x`.
  void subtract(const Section& x, const std::optional<Section>& removed) {
    if (!removed) return emit(x);
    if (removed->step == x.step) {
      addOnlyA(clip(x, x.low, removed->low - 1));
      addOnlyA(clip(x, removed->high + 1, x.high));
      return;
    }
    int64_t from = x.low;
    for (int64_t v = removed->low; v <= removed->high && withinBudget(); v += removed->step) {
      addOnlyA(clip(x, from, v - 1));
      from = v + 1;
    }
    addOnlyA(clip(x, from, x.high));
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

// The set of sections that are sorted by `low`. Each half is united first, so that neighbours that
// interleave become few sections before they are united with others.
std::optional<Sections> makeSorted(std::span<const Section> sorted, Budget& budget) {
  Sections whole(sorted.begin(), sorted.end());
  if (areDisjoint(whole)) return whole;
  const std::optional<Sections> a = makeSorted(sorted.first(sorted.size() / 2), budget);
  const std::optional<Sections> b =
      a ? makeSorted(sorted.subspan(sorted.size() / 2), budget) : std::nullopt;
  Sweep sweep(Operation::kUnite, budget);
  if (!b || !sweep.run(*a, *b)) return std::nullopt;
  return validSections(sweep.finish());
}

}  // namespace

std::optional<Sections> makeSet(Sections sections, Budget& budget) {
  budget.maxSections = std::max(budget.maxSections, 2 * sections.size());
  budget.steps += 64 * static_cast<int64_t>(sections.size());
  if (areDisjoint(sections)) return sections;  // as the results of operations are
  // Equal sections are removed first. Otherwise time would be spent on uniting them.
  std::sort(sections.begin(), sections.end(), [](const Section& a, const Section& b) {
    return std::tie(a.low, a.high, a.step) < std::tie(b.low, b.high, b.step);
  });
  sections.erase(std::unique(sections.begin(), sections.end()), sections.end());
  return makeSorted(std::span<const Section>(sections), budget);
}

std::optional<PAL_Triplets> combineSets(Operation operation, const Sections& a, const Sections& b,
                                        Budget& budget) {
  Sweep sweep(operation, budget);
  if (!sweep.run(a, b)) return std::nullopt;
  return sweep.finish();
}

}  // namespace pal
