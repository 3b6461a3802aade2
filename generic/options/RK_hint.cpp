// Hints after messages about wrong options. See RK_hint.h.
#include "generic/options/RK_hint.h"

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
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

bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isLetter(char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0; }

// The blanks and commas around a part of a request.
constexpr std::string_view kSeparators = " \t,";

// How to write a time whose unit is `word`, in lower case: null if the word is no such unit.
struct Unit {
  std::string_view word;
  char letter;
  double factor;
};
const Unit* unknownUnit(std::string_view word) {
  static constexpr Unit kUnits[] = {{"ms", 'l', 1},   {"msec", 'l', 1},  {"us", 'c', 1},
                                    {"usec", 'c', 1}, {"ns", 'c', .001}, {"sec", 's', 1},
                                    {"min", 'm', 1},  {"hr", 'h', 1}};
  const auto* found = std::find_if(std::begin(kUnits), std::end(kUnits),
                                   [&](const Unit& unit) { return unit.word == word; });
  return found == std::end(kUnits) ? nullptr : found;
}

}  // namespace

void RK_Hint(const char* format, ...) {
  if (RK_conf.verbose == 0) return;
  va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stderr, format, arguments);
  va_end(arguments);
  std::fputc('\n', stderr);
}

void RK_HintUnreadable(std::string_view value, size_t at) {
  const size_t before = value.substr(0, at).find_last_of(kSeparators);
  const size_t begin = before == std::string_view::npos ? 0 : before + 1;
  const size_t end = std::min(value.find_first_of(kSeparators, at), value.size());
  RK_Hint("\"%s\" can't be read.", PAL_Printable(value.substr(begin, end - begin)).c_str());
}

bool RK_HintUnits(std::string_view value) {
  bool found = false;
  for (size_t at = 0; at < value.size();) {
    if (!isDigit(value[at])) {
      ++at;
      continue;
    }
    size_t end = at;
    while (end < value.size() && (isDigit(value[end]) || value[end] == '.')) ++end;
    const std::string number(value.substr(at, end - at));
    at = end;
    while (end < value.size() && isLetter(value[end])) ++end;
    const std::string word(value.substr(at, end - at));
    at = end;
    const Unit* unit = unknownUnit(lowerCase(word));
    if (unit == nullptr) continue;
    found = true;
    RK_Hint("Write %g%c for %s%s.", std::strtod(number.c_str(), nullptr) * unit->factor,
            unit->letter, number.c_str(), word.c_str());
  }
  return found;
}

void RK_HintOption(std::string_view keyword, bool hasDashes) {
  const std::string typed = nameIn(keyword);
  if (typed.empty() || typed.size() > kMaxLength) return;
  if (!hasDashes && RK_ConfigFindOption(keyword) != nullptr) {
    RK_Hint("An option begins with two dashes: --%s", typed.c_str());
    return;
  }
  Nearest nearest(typed);
  for (const RK_Option& option : RK_ConfigOptions()) nearest.consider(option.key);
  if (nearest.name().empty()) return;
  const std::string name = lowerCase(nearest.name());
  // A value follows the name after "=" or, if the name is right, without a blank.
  const bool isValued = keyword.find('=') != std::string_view::npos || name == typed;
  RK_Hint("Did you mean --%s%s?", name.c_str(), isValued ? " VALUE" : "");
}

void RK_HintQuotes(std::string_view keyword, std::string_view value, bool isEnvironment) {
  const std::string shown = PAL_Printable(value);
  if (isEnvironment)
    RK_Hint("A text with blanks needs quotes in the value: %s='\"%s\"'",
            RK_ConfigEnvironmentName(std::string(keyword).c_str()).c_str(), shown.c_str());
  else
    RK_Hint("A text with blanks needs quotes: --%s '%s'", lowerCase(keyword).c_str(),
            shown.c_str());
}

void RK_HintNoQuotes(std::string_view keyword, std::string_view text, bool isEnvironment) {
  const std::string shown = PAL_Printable(text);
  const std::string remedy =
      isEnvironment ? RK_ConfigEnvironmentName(std::string(keyword).c_str()) + "='" + shown + "'"
                    : "--" + lowerCase(keyword) + " " + shown;
  RK_Hint("\"%s\" in a request selects nothing. Without quotes it does: %s", shown.c_str(),
          remedy.c_str());
}

void RK_HintRequest(std::span<const std::string> words, bool isBroken) {
  bool needsForms = isBroken;
  for (const std::string& word : words) {
    RK_Hint("\"%s\" in a request selects nothing.", PAL_Printable(word).c_str());
    const std::string category = nearestCategory(word);
    if (category.empty())
      needsForms = true;
    else
      RK_Hint("Did you mean %s?", category.c_str());
  }
  if (!needsForms) return;
  std::string categories;
  for (const std::string_view name : RK_ConfigCategories()) (categories += ' ') += name;
  RK_Hint(
      "A request names any of these, separated by blanks or commas:\n"
      "  a window     10s:20s  1.5s:2s  1h+30m:2h  (units s, l 1/1000 s, c 1/1000000 s, m, h, d, "
      "w)\n"
      "  threads      5  0:3  0:15:4               (first:last:stride)\n"
      "  categories  %s",
      categories.c_str());
}
