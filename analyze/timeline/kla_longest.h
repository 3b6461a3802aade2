// Keeps the longest of any number of intervals, in bounded memory.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "analyze/core/kla_types.h"

namespace kla {

// `Element` has a member `length()`. Of two equally long elements either may be kept.
template <class Element>
class Longest {
 public:
  explicit Longest(size_t most) : most_(most) {}

  void add(const Element& element) {
    ++seen_;
    if (element.length() < least_) return;
    elements_.push_back(element);
    if (elements_.size() >= 2 * most_) shrink(most_);
  }
  // Keeps at most this many elements.
  void shrink(size_t most) {
    if (elements_.size() <= most) return;
    const auto end = elements_.begin() + static_cast<ptrdiff_t>(most);
    std::nth_element(elements_.begin(), end, elements_.end(),
                     [](const Element& a, const Element& b) { return a.length() > b.length(); });
    least_ = std::max(least_, end->length() + 1);
    elements_.erase(end, elements_.end());
  }

  [[nodiscard]] std::vector<Element>& elements() { return elements_; }
  // All elements of at least this length are kept.
  [[nodiscard]] Time least() const { return least_; }
  [[nodiscard]] uint64_t seen() const { return seen_; }

 private:
  size_t most_;
  uint64_t seen_ = 0;
  Time least_ = 0;
  std::vector<Element> elements_;
};

}  // namespace kla
