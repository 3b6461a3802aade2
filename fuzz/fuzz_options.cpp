// The option grammar, times and triplets.
//
//   input: what | bytes of it, see LLVMFuzzerTestOneInput
#include <algorithm>
#include <cmath>
#include <vector>

#include "fuzz/fuzz_records.h"
#include "fuzz/fuzz_target.h"
#include "generic/RK_conf.h"
#include "generic/RK_scan.h"
#include "util/pal_triplets.h"

namespace {

void usage() {}

void scanArguments(std::string_view bytes) {
  std::vector<std::string> words{"klttool", "t.klt"};
  while (!bytes.empty() && words.size() < 100) {
    const size_t end = std::min(bytes.find('\0'), bytes.size());
    words.emplace_back(bytes.substr(0, end));
    bytes.remove_prefix(std::min(end + 1, bytes.size()));
  }
  std::vector<char*> pointers;
  for (std::string& word : words) pointers.push_back(word.data());
  pointers[0] = pointers[1] = nullptr;
  const auto count = static_cast<int>(pointers.size());
  pointers.push_back(nullptr);
  (void)RK_ConfigParseArgs(count, pointers.data(), &usage);
}

// Lists of at most 3 entries from single bytes, or from whole numbers.
PAL_Triplets listOf(std::string_view& bytes) {
  const auto next = [&](bool wide) {
    uint32_t value = 0;
    for (unsigned i = 0; i < (wide ? 4U : 1U); ++i) {
      value = value << 8 | (bytes.empty() ? 0 : static_cast<uint8_t>(bytes[0]));
      bytes.remove_prefix(bytes.empty() ? 0 : 1);
    }
    return wide ? static_cast<int32_t>(value) : static_cast<int8_t>(value);
  };
  const auto head = static_cast<uint32_t>(next(false));
  PAL_Triplets list;
  for (uint32_t i = 0; i < (head & 3); ++i) {
    const bool wide = (head & 0x80) != 0;
    const int32_t first = next(wide), last = next(wide);
    list.push_back({first, last, next(wide)});
  }
  return list;
}

// Entries that make sense: invalid ones are reported and handled as a whole.
bool isValid(PAL_TripletSpan list) {
  return std::all_of(list.begin(), list.end(), [](const PAL_Triplet& t) {
    return t.stride != 0 && (t.stride > 0 ? t.first <= t.last : t.first >= t.last);
  });
}

// How many numbers a valid list writes out.
uint64_t countOf(PAL_TripletSpan list) {
  uint64_t count = 0;
  for (const PAL_Triplet& t : list) {
    count += static_cast<uint64_t>((int64_t{t.last} - t.first) / t.stride) + 1;
  }
  return count;
}

void checkTriplets(std::string_view bytes) {
  const PAL_Triplets a = listOf(bytes), b = listOf(bytes);
  const bool valid = isValid(a) && isValid(b);
  const PAL_Triplets both = PAL_TripletsUnite(a, b), common = PAL_TripletsIntersect(a, b),
                     left = PAL_TripletsSubtract(a, b);
  const bool overlap = PAL_TripletsOverlap(a, b);
  (void)PAL_TripletsSubset(a, b);
  (void)PAL_TripletsEqual(a, b);
  const PAL_TripletSet set(a);
  (void)PAL_TripletsCompress(PAL_TripletsExpand(a), true);
  // Lists that interleave without end have empty results; small ones never do.
  if (!valid || countOf(a) + countOf(b) > 5000) return;
  bool any = false;
  for (const PAL_TripletSpan list : {PAL_TripletSpan(a), PAL_TripletSpan(b)}) {
    for (const int32_t number : PAL_TripletsExpand(list)) {
      const bool inA = PAL_TripletsContains(a, number), inB = PAL_TripletsContains(b, number);
      any |= inA && inB;
      fuzz::require(set.contains(number) == inA, "the set differs from the list");
      fuzz::require(PAL_TripletsContains(both, number), "a union lacks a number");
      fuzz::require(PAL_TripletsContains(common, number) == (inA && inB),
                    "an intersection is wrong");
      fuzz::require(PAL_TripletsContains(left, number) == (inA && !inB), "a difference is wrong");
    }
  }
  fuzz::require(overlap == any, "an overlap is wrong");
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string_view bytes = fuzz::view(data, size).substr(1);
  const std::string text(bytes);
  RK_ConfigDefaults();
  switch (data[0] % 6) {
    case 0:
      (void)RK_ScanText(bytes, RK_ScanMode::config);
      break;
    case 1:
      (void)RK_ScanText(bytes, RK_ScanMode::parameter);
      break;
    case 2:
      scanArguments(bytes);
      break;
    case 3:
      fuzz::require(!std::isnan(RK_ConfigParseTime(text.c_str())), "a time isn't a number");
      break;
    case 4: {
      int32_t first = 0, last = 0, stride = 0;
      (void)PAL_TripletParse(text.c_str(), 100, &first, &last, &stride);
      break;
    }
    default:
      checkTriplets(bytes);
      break;
  }
  (void)RK_ConfigFinish();
  RK_ConfigOutputName();
  RK_ConfigDefaults();
  return 0;
}

size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t limit, unsigned seed) {
  static constexpr std::string_view kWords[] = {"REQUEST ",   "--request",
                                                "FUNCTIONS",  "SCOPES",
                                                "MESSAGES",   "COLLOPS",
                                                "COUNTERS",   "1s:2s",
                                                "0:N:2",      "1h+2m",
                                                "1e300s",     "-1",
                                                "4294967295", "0:4294967295:1",
                                                "'",          "\"",
                                                "\n",         "\r",
                                                "on",         "off",
                                                "VERBOSE ",   "LOGFILE-NAME ",
                                                "TICKS",      "%",
                                                "'a b'",      "1us:",
                                                ":"};
  fuzz::Random random(seed);
  std::string input(fuzz::view(data, size));
  if (input.empty() || fuzz::below(random, 3) == 0) return LLVMFuzzerMutate(data, size, limit);
  const size_t at = 1 + fuzz::below(random, input.size());
  switch (fuzz::below(random, 4)) {
    case 0:
      if (const auto options = RK_ConfigOptions(); !options.empty())
        input.insert(at, std::string(options[fuzz::below(random, options.size())].key) + ' ');
      break;
    case 1:
      fuzz::mutateBytes(random, input);
      break;
    default:
      input.insert(at, kWords[fuzz::below(random, std::size(kWords))]);
      break;
  }
  return fuzz::give(input, data, limit);
}

size_t LLVMFuzzerCustomCrossOver(const uint8_t* data, size_t size, const uint8_t* donor,
                                 size_t donorSize, uint8_t* out, size_t limit, unsigned seed) {
  fuzz::Random random(seed);
  std::string input(fuzz::view(data, size));
  const size_t begin = fuzz::below(random, donorSize + 1);
  input.insert(fuzz::below(random, size + 1),
               fuzz::view(donor + begin, fuzz::below(random, donorSize - begin + 1)));
  return fuzz::give(input, out, limit);
}
