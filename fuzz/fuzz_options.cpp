// Fuzzes the option grammar, times and triplets. The first byte selects the function.
#include <cmath>
#include <vector>

#include "fuzz/fuzz_target.h"
#include "generic/options/RK_conf.h"
#include "generic/options/RK_scan.h"
#include "util/triplets/pal_triplets.h"

namespace {

void scanArguments(std::string_view bytes) {
  std::vector<std::string> words;
  for (; !bytes.empty() && words.size() < 98; bytes = fuzz::rest(bytes)) {
    words.emplace_back(bytes.substr(0, bytes.find('\0')));
    bytes.remove_prefix(words.back().size());
  }
  std::vector<char*> pointers(2);
  for (std::string& word : words) pointers.push_back(word.data());
  (void)RK_ConfigParseArgs(static_cast<int>(pointers.size()), pointers.data(), [] {});
}

}  // namespace

void fuzz::run(std::string_view input) {
  const std::string text(rest(input));
  int32_t first = 0, last = 0, stride = 0;
  RK_ConfigDefaults();
  const uint64_t what = load(input, 0) % 5;
  if (what < 2) (void)RK_ScanText(text, what == 0 ? RK_ScanMode::config : RK_ScanMode::parameter);
  if (what == 2) scanArguments(text);
  if (what == 3) require(!std::isnan(RK_ConfigParseTime(text.c_str())), "a time isn't a number");
  if (what == 4) (void)PAL_TripletParse(text.c_str(), 100, &first, &last, &stride);
  (void)RK_ConfigFinish();
  RK_ConfigOutputName();
}

bool fuzz::mutate(Random& random, std::string& input) {
  static constexpr std::string_view kWords[] = {
      "REQUEST ", "--request", "FUNCTIONS", "SCOPES", "COLLOPS",  "1s:2s",     "0:N:2", "1h+2m",
      "1e300s",   "-1",        "'a b'",     "\"",     "\n",       "\r",        "on",    "off",
      "TICKS",    "%",         "1us:",      ":",      "VERBOSE ", "4294967295"};
  if (input.empty() || below(random, 3) == 0) return false;
  const auto options = RK_ConfigOptions();
  const std::string key = std::string(options[below(random, options.size())].key) + ' ';
  input.insert(1 + below(random, input.size()),
               below(random, 4) == 0 ? key : kWords[below(random, std::size(kWords))]);
  return true;
}
