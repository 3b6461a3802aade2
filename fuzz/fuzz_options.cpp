// The option grammar, times and triplets.
//
//   input: what | bytes of it, see fuzz::run
#include <algorithm>
#include <cmath>
#include <vector>

#include "fuzz/fuzz_records.h"
#include "generic/options/RK_conf.h"
#include "generic/options/RK_scan.h"
#include "util/triplets/pal_triplets.h"

namespace {

void scanArguments(std::string_view bytes) {
  std::vector<std::string> words;
  while (!bytes.empty() && words.size() < 98) {
    const size_t end = std::min(bytes.find('\0'), bytes.size());
    words.emplace_back(bytes.substr(0, end));
    bytes.remove_prefix(std::min(end + 1, bytes.size()));
  }
  std::vector<char*> pointers(2);
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  (void)RK_ConfigParseArgs(static_cast<int>(pointers.size()) - 1, pointers.data(), [] {});
}

// Lists of at most 3 entries from single bytes, or from whole numbers.
PAL_Triplets listOf(std::string_view& bytes) {
  const uint8_t head = fuzz::firstByte(bytes);
  const size_t width = (head & 0x80) != 0 ? 4 : 1;
  bytes = fuzz::rest(bytes);
  PAL_Triplets list;
  for (uint32_t i = 0; i < (head & 3U); ++i) {
    int32_t numbers[3];
    for (int32_t& number : numbers) {
      const uint64_t value = fuzz::load(bytes, 0, width);
      number = width == 1 ? static_cast<int8_t>(value) : static_cast<int32_t>(value);
      bytes.remove_prefix(std::min(bytes.size(), width));
    }
    list.push_back({numbers[0], numbers[1], numbers[2]});
  }
  return list;
}

void useTriplets(std::string_view bytes) {
  const PAL_Triplets a = listOf(bytes), b = listOf(bytes);
  const PAL_TripletSet set(a);
  for (const PAL_Triplets& list :
       {PAL_TripletsUnite(a, b), PAL_TripletsIntersect(a, b), PAL_TripletsSubtract(a, b),
        PAL_TripletsCompress(PAL_TripletsExpand(a), true)}) {
    for (const PAL_Triplet& t : list) (void)set.contains(t.first);
  }
  (void)PAL_TripletsEqual(a, b);
  (void)PAL_TripletsSubset(a, b);
  (void)PAL_TripletsOverlap(a, b);
}

}  // namespace

void fuzz::run(std::string_view input) {
  const std::string text(rest(input));
  int32_t first = 0, last = 0, stride = 0;
  RK_ConfigDefaults();
  switch (firstByte(input) % 6) {
    case 0:
      (void)RK_ScanText(text, RK_ScanMode::config);
      break;
    case 1:
      (void)RK_ScanText(text, RK_ScanMode::parameter);
      break;
    case 2:
      scanArguments(text);
      break;
    case 3:
      require(!std::isnan(RK_ConfigParseTime(text.c_str())), "a time isn't a number");
      break;
    case 4:
      (void)PAL_TripletParse(text.c_str(), 100, &first, &last, &stride);
      break;
    default:
      useTriplets(text);
      break;
  }
  (void)RK_ConfigFinish();
  RK_ConfigOutputName();
  RK_ConfigDefaults();
}

bool fuzz::mutate(Random& random, std::string& input) {
  static constexpr std::string_view kWords[] = {
      "REQUEST ", "--request", "FUNCTIONS", "SCOPES", "COLLOPS",  "1s:2s",     "0:N:2", "1h+2m",
      "1e300s",   "-1",        "'a b'",     "\"",     "\n",       "\r",        "on",    "off",
      "TICKS",    "%",         "1us:",      ":",      "VERBOSE ", "4294967295"};
  if (input.empty() || below(random, 3) == 0) return false;
  const size_t at = 1 + below(random, input.size());
  const auto options = RK_ConfigOptions();
  if (below(random, 4) != 0) {
    input.insert(at, kWords[below(random, std::size(kWords))]);
  } else {
    input.insert(at, std::string(options[below(random, options.size())].key) + ' ');
  }
  return true;
}
