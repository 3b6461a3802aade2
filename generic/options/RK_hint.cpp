// Hints after messages about wrong options. See RK_hint.h.
#include "generic/options/RK_hint.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <numeric>
#include <string>
#include <vector>

#include "generic/options/RK_options.h"
#include "util/pal_error.h"

namespace {

std::string lowerCase(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return lower;
}

// The least number of changes that turn `a` into `b`. A change inserts, removes or replaces a
// letter or exchanges it with its neighbour.
size_t distanceOf(const std::string& a, const std::string& b) {
  std::vector<size_t> beforeLast(b.size() + 1);
  std::vector<size_t> last(b.size() + 1);
  std::iota(last.begin(), last.end(), size_t{0});
  for (size_t i = 1; i <= a.size(); ++i) {
    std::vector<size_t> row(b.size() + 1, i);
    for (size_t j = 1; j <= b.size(); ++j) {
      row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (a[i - 1] != b[j - 1])});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
        row[j] = std::min(row[j], beforeLast[j - 2] + 1);
    }
    beforeLast.swap(last);
    last.swap(row);
  }
  return last[b.size()];
}

// The part of `keyword` before "=", in lower case: a value after "=" isn't part of the name.
std::string nameIn(std::string_view keyword) {
  return lowerCase(keyword.substr(0, keyword.find('=')));
}

// Finds the name that is most similar to `typed`, which is in lower case; empty if none is similar.
// Of names at the same distance the shorter one is chosen.
class Nearest {
 public:
  explicit Nearest(const std::string& typed) : typed_(typed), maxDistance_(1 + typed.size() / 3) {}

  void consider(std::string_view candidate) {
    const std::string name = lowerCase(candidate);
    size_t distance = distanceOf(typed_, name);
    if (typed_.size() >= 3 && name.starts_with(typed_)) distance = std::min<size_t>(distance, 1);
    const bool isShorter = nearest_.empty() || name.size() < nearest_.size();
    if (distance > maxDistance_ || (distance == maxDistance_ && !isShorter)) return;
    maxDistance_ = distance;
    nearest_ = candidate;
  }
  [[nodiscard]] const std::string& name() const { return nearest_; }

 private:
  const std::string& typed_;
  size_t maxDistance_;  // a candidate with a larger distance isn't chosen
  std::string nearest_;
};

constexpr size_t kMaxLength = 64;  // of a word that is compared with names

// The category that is most similar to `word`; empty if none is similar.
std::string nearestCategory(std::string_view word) {
  const std::string typed = lowerCase(word);
  if (typed.size() > kMaxLength) return {};
  Nearest nearest(typed);
  for (const std::string_view name : RK_ConfigCategories()) nearest.consider(name);
  return nearest.name();
}

}  // namespace

void RK_HintOption(std::string_view keyword, bool hasDashes) {
  const std::string typed = nameIn(keyword);
  if (typed.empty() || typed.size() > kMaxLength) return;
  if (!hasDashes && RK_ConfigFindOption(keyword) != nullptr) {
    std::fprintf(stderr, "An option begins with two dashes: --%s\n", typed.c_str());
    return;
  }
  Nearest nearest(typed);
  for (const RK_Option& option : RK_ConfigOptions()) nearest.consider(option.key);
  if (nearest.name().empty()) return;
  const std::string name = lowerCase(nearest.name());
  // A value follows the name after "=" or, if the name is right, without a blank.
  const bool isValued = keyword.find('=') != std::string_view::npos || name == typed;
  std::fprintf(stderr, "Did you mean --%s%s?\n", name.c_str(), isValued ? " VALUE" : "");
}

void RK_HintQuotes(std::string_view keyword, std::string_view value, bool isEnvironment) {
  const std::string shown = PAL_Printable(value);
  if (isEnvironment)
    std::fprintf(stderr, "A text with blanks needs quotes in the value: %s='\"%s\"'\n",
                 RK_ConfigEnvironmentName(std::string(keyword).c_str()).c_str(), shown.c_str());
  else
    std::fprintf(stderr, "A text with blanks needs quotes: --%s '%s'\n", lowerCase(keyword).c_str(),
                 shown.c_str());
}

void RK_HintNoQuotes(std::string_view keyword, std::string_view text, bool isEnvironment) {
  const std::string shown = PAL_Printable(text);
  std::fprintf(stderr,
               "\"%s\" in a request selects nothing. Without quotes it does: ", shown.c_str());
  if (isEnvironment)
    std::fprintf(stderr, "%s='%s'\n",
                 RK_ConfigEnvironmentName(std::string(keyword).c_str()).c_str(), shown.c_str());
  else
    std::fprintf(stderr, "--%s %s\n", lowerCase(keyword).c_str(), shown.c_str());
}

void RK_HintRequest(std::span<const std::string> words, bool isBroken) {
  bool needsForms = isBroken;
  for (const std::string& word : words) {
    std::fprintf(stderr, "\"%s\" in a request selects nothing.\n", PAL_Printable(word).c_str());
    const std::string category = nearestCategory(word);
    if (category.empty())
      needsForms = true;
    else
      std::fprintf(stderr, "Did you mean %s?\n", category.c_str());
  }
  if (!needsForms) return;
  std::fputs(
      "A request names any of these, separated by blanks or commas:\n"
      "  a window     10s:20s  1.5s:2s  1h+30m:2h  (units s, l 1/1000 s, c 1/1000000 s, m, h, d, "
      "w)\n"
      "  threads      5  0:3  0:15:4               (first:last:stride)\n"
      "  categories  ",
      stderr);
  for (const std::string_view name : RK_ConfigCategories())
    std::fprintf(stderr, " %.*s", static_cast<int>(name.size()), name.data());
  std::fputs("\n", stderr);
}
