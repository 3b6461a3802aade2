// Reads command lines and opens traces. See kla_options.h.
#include "analyze/kla_options.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <map>

#include "analyze/tables/kla_tables.h"
#include "analyze/tables/kla_text.h"

namespace kla {

namespace {

constexpr double kMostTime = 1.8e19;  // below 2^64

// Raw time as klttool reads the times of a request: whole ticks, rounded down.
Time rawTimeOf(double seconds, double resolution, uint32_t eventBits) {
  const double units = std::ldexp(1.0, static_cast<int>(std::min(eventBits, 63U)));
  const double raw = std::floor(seconds * (1 / (resolution * units))) * units;
  return raw >= kMostTime ? kNever : static_cast<Time>(std::max(raw, 0.0));
}

std::optional<Time> timeOf(const std::string& text, bool ticks, const Definitions& definitions,
                           Time missing) {
  if (text.empty()) return missing;
  if (ticks) return wholeNumber(text, 0, kNever);
  const std::optional<double> seconds = secondsOf(text);
  if (!seconds) return std::nullopt;
  return rawTimeOf(*seconds, definitions.resolution, definitions.eventBits);
}

std::optional<Window> windowOf(const Selection& selection, const Definitions& definitions) {
  const size_t colon = selection.window.find(':');
  if (colon == std::string::npos) return std::nullopt;
  const auto start = timeOf(selection.window.substr(0, colon), selection.ticks, definitions, 0);
  const auto end = timeOf(selection.window.substr(colon + 1), selection.ticks, definitions, kNever);
  if (!start || !end || *start >= *end) return std::nullopt;
  return Window{*start, *end};
}

PAL_Triplet oneThread(uint64_t process, uint64_t thread) {
  const auto gtp = static_cast<int32_t>(thread << 16 | process);
  return {gtp, gtp, 1};
}

// Appends what one item of a list of threads selects.
bool appendThreads(const std::string& item, const Definitions& definitions, PAL_Triplets& list) {
  if (const size_t dot = item.find('.'); dot != std::string::npos) {
    const auto process = wholeNumber(item.substr(0, dot), 0, kProcessMask);
    const std::string thread = item.substr(dot + 1);
    if (process && thread == "*") {
      const bool isKnown = *process < definitions.threads.size();
      const uint32_t count = isKnown ? std::min(definitions.threads[*process], 0x8000U) : 1;
      list.push_back({static_cast<int32_t>(*process),
                      static_cast<int32_t>(*process + (std::max(count, 1U) - 1) * 0x10000),
                      0x10000});
      return true;
    }
    const auto number = wholeNumber(thread, 0, 0x7fff);
    if (process && number) list.push_back(oneThread(*process, *number));
    return process && number;
  }
  uint64_t parts[3] = {0, 0, 1};
  size_t count = 0;
  for (size_t at = 0; count < 3; ++count) {
    const size_t colon = std::min(item.find(':', at), item.size());
    const auto number = wholeNumber(item.substr(at, colon - at), count == 2 ? 1 : 0, kProcessMask);
    if (!number) return false;
    parts[count] = *number;
    if (count == 0) parts[1] = *number;
    if (colon == item.size()) break;
    if (count == 2) return false;
    at = colon + 1;
  }
  if (parts[0] > parts[1]) return false;
  list.push_back({static_cast<int32_t>(parts[0]), static_cast<int32_t>(parts[1]),
                  static_cast<int32_t>(parts[2])});
  return true;
}

}  // namespace

Words::Words(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    const size_t equals = word.starts_with("--") ? word.find('=') : std::string::npos;
    words_.push_back({word.substr(0, equals), false});
    if (equals != std::string::npos) words_.push_back({word.substr(equals + 1), true});
  }
}

std::optional<std::string> Words::next() {
  if (at_ == words_.size()) return std::nullopt;
  return words_[at_++].text;
}

std::optional<std::string> Words::value() {
  if (at_ == words_.size() || words_[at_].text.empty()) return std::nullopt;
  if (!words_[at_].isJoined && words_[at_].text.starts_with("--")) return std::nullopt;
  return words_[at_++].text;
}

std::optional<uint64_t> wholeNumber(const std::string& text, uint64_t least, uint64_t most) {
  uint64_t number = 0;
  const char* end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  if (text.empty() || error != std::errc() || rest != end || number < least || number > most) {
    return std::nullopt;
  }
  return number;
}

std::optional<double> secondsOf(const std::string& text) {
  static const std::map<std::string_view, double> kUnits{
      {"", 1},      {"s", 1},  {"l", 1e-3}, {"ms", 1e-3}, {"c", 1e-6},  {"us", 1e-6},
      {"ns", 1e-9}, {"m", 60}, {"h", 3600}, {"d", 86400}, {"w", 604800}};
  double number = 0;
  const char* end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  const auto unit = kUnits.find(std::string_view(rest, static_cast<size_t>(end - rest)));
  if (error != std::errc() || unit == kUnits.end() || !std::isfinite(number) || number < 0) {
    return std::nullopt;
  }
  return number * unit->second;
}

std::optional<PAL_Triplets> threadsOf(const std::string& text, const Definitions& definitions) {
  PAL_Triplets list;
  for (size_t at = 0; at <= text.size();) {
    const size_t comma = std::min(text.find(',', at), text.size());
    if (!appendThreads(text.substr(at, comma - at), definitions, list)) return std::nullopt;
    at = comma + 1;
  }
  return list;
}

OpenAnalysis openAnalysis(const char* program, const std::string& trace,
                          const Selection& selection) {
  OpenAnalysis open;
  open.trace.reset(KLT_Open(trace.c_str()));
  if (open.trace == nullptr) {
    std::fprintf(stderr, "%s: %s can't be opened as a trace\n", program, printable(trace).c_str());
    open.status = kFailed;
    return open;
  }
  auto analysis = std::make_unique<Analysis>(open.trace.get());
  if (!analysis->readDefinitions()) {
    std::fprintf(stderr, "%s: nothing of %s can be read\n", program, printable(trace).c_str());
    open.status = kNothingRead;
    return open;
  }
  if (!selection.window.empty()) {
    const std::optional<Window> window = windowOf(selection, analysis->definitions);
    if (!window) {
      open.status = wrongUsage(program, "wrong window: " + selection.window);
      return open;
    }
    analysis->select(*window);
  }
  if (!selection.threads.empty()) {
    const auto threads = threadsOf(selection.threads, analysis->definitions);
    if (!threads) {
      open.status = wrongUsage(program, "wrong list of threads: " + selection.threads);
      return open;
    }
    analysis->select(*threads);
  }
  open.analysis = std::move(analysis);
  return open;
}

int runAnalysis(const char* program, Analysis& analysis, const Wanted& wanted) {
  const int status = analysis.run(wanted);
  if (analysis.strayLeaves != 0) {
    std::fprintf(stderr, "%s: %llu ends of calls have no start\n", program,
                 static_cast<unsigned long long>(analysis.strayLeaves));
    return kWrongUsage;
  }
  if (!analysis.damaged) return kDone;
  const bool nothing = status == KLT_STATUS_ABORTING && analysis.enters == 0 &&
                       analysis.messages.count == 0 && analysis.collectives.count() == 0;
  std::fprintf(stderr, "%s: %s\n", program,
               nothing ? "no events could be read" : "parts of the trace couldn't be read");
  return nothing ? kNothingRead : kDamaged;
}

void printNotes(const char* program, const Analysis& analysis, const Wanted& wanted,
                const std::string& trace) {
  for (const std::string& note : notesOn(analysis, wanted, trace)) {
    std::fprintf(stderr, "%s: %s\n", program, printable(note).c_str());
  }
}

int wrongUsage(const char* program, const std::string& message) {
  std::fprintf(stderr, "%s: %s\nTry %s --help\n", program, printable(message).c_str(), program);
  return kWrongUsage;
}

}  // namespace kla
