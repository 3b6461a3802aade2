// What a user may have meant. See RK_hint.h.
#include "generic/RK_hint.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <numeric>
#include <string>
#include <vector>

#include "generic/RK_conf.h"

namespace {

std::string lowerCase(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return lower;
}

// Letters to insert, remove, replace, or exchange with their neighbour.
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

// A value behind "=" isn't part of the name.
std::string nameIn(std::string_view keyword) {
  return lowerCase(keyword.substr(0, keyword.find('=')));
}

}  // namespace

void RK_HintOption(std::string_view keyword) {
  constexpr size_t kLongest = 64;
  const std::string meant = nameIn(keyword);
  if (meant.empty() || meant.size() > kLongest) return;
  size_t least = 1 + meant.size() / 3;  // no more letters may differ
  std::string nearest;
  for (const RK_Option& option : RK_ConfigOptions()) {
    const std::string name = lowerCase(option.key);
    size_t distance = distanceOf(meant, name);
    if (meant.size() >= 3 && name.starts_with(meant)) distance = std::min<size_t>(distance, 1);
    const bool isShorter = nearest.empty() || name.size() < nearest.size();
    if (distance > least || (distance == least && !isShorter)) continue;
    least = distance;
    nearest = name;
  }
  if (nearest.empty()) return;
  const bool isValued = keyword.find('=') != std::string_view::npos;
  std::fprintf(stderr, "Did you mean --%s%s?\n", nearest.c_str(), isValued ? " VALUE" : "");
}

void RK_HintName(std::string_view keyword) {
  std::fprintf(
      stderr,
      "A name with blanks needs quotes of its own: --%.*s \"'my file'\". One with quotes in "
      "it can't be given.\n",
      static_cast<int>(keyword.size()), keyword.data());
}

void RK_HintRequest() {
  std::fputs(
      "A request names any of these, separated by blanks or commas:\n"
      "  a window     10s:20s  1.5s:2s  1h+30m:2h  (units s, l 1/1000 s, c 1/1000000 s, m, h, d, "
      "w)\n"
      "  threads      5  0:3  0:15:4               (first:last:stride)\n"
      "  categories   FUNCTIONS MESSAGES COLLOPS SCOPES FILEIO COUNTERS\n",
      stderr);
}
