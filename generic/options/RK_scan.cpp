// Scanner and parser of configuration lines. See RK_scan.h.
//
// The grammar in short. Blanks and a CR at the end of a line are removed first.
//
//   line     = "" | "#"... | "INFO" blanks... | keyword [blanks value]
//   word     = printable ASCII characters except the blank and " ' < > ` { }
//   quoted   = '"' text '"' | "'" text "'"      text: word characters and blanks
//   integer  = [sign] digits                    unsigned: no minus
//   part     = [sign] digits ["." digits] [("e"|"E") [sign] digits] [unit letter]
//   time     = part {"+" part}
//   request  = {quoted | triplet | window | time | name | " " | ","}
//   triplet  = number {":" number}, four at most, number = integer | "N"
//   window   = time ":" time                    name: letters and "_"
//
// Of the items of a request the longest match is taken; if several are equally long, the first in
// the order above: 10:20 is a triplet, 10s:20 a window.
#include "generic/options/RK_scan.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>

#include "generic/options/RK_hint.h"
#include "generic/options/RK_options.h"
#include "util/pal_error.h"
#include "util/pal_strings.h"

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isNameCharacter(char c) {
  return (PAL_ToUpper(c) >= 'A' && PAL_ToUpper(c) <= 'Z') || c == '_';
}
bool isWordCharacter(char c) {
  return c > ' ' && c <= '~' && std::string_view("\"'<>`{}").find(c) == std::string_view::npos;
}

// The number of consecutive characters from `from` on that `test` accepts.
template <class Test>
size_t runLength(std::string_view text, size_t from, Test test) {
  size_t end = from;
  while (end < text.size() && test(text[end])) ++end;
  return end - from;
}

// The matchers return the length of the longest match at the start of `text`, 0 for none.

size_t matchWord(std::string_view text) { return runLength(text, 0, isWordCharacter); }

size_t matchQuoted(std::string_view text) {
  if (text.empty() || (text[0] != '"' && text[0] != '\'')) return 0;
  const size_t inside = runLength(text, 1, [](char c) { return isWordCharacter(c) || isBlank(c); });
  const size_t end = 1 + inside;
  return inside > 0 && end < text.size() && text[end] == text[0] ? end + 1 : 0;
}

size_t matchSignedDigits(std::string_view text, std::string_view signs) {
  const size_t sign = !text.empty() && signs.find(text[0]) != std::string_view::npos ? 1 : 0;
  const size_t digits = runLength(text, sign, isDigit);
  return digits == 0 ? 0 : sign + digits;
}

size_t matchTimePart(std::string_view text) {
  size_t end = matchSignedDigits(text, "+-");
  if (end == 0) return 0;
  if (end < text.size() && text[end] == '.') {
    const size_t fraction = runLength(text, end + 1, isDigit);
    if (fraction > 0) end += 1 + fraction;
  }
  if (end < text.size() && PAL_ToUpper(text[end]) == 'E') {
    const size_t exponent = matchSignedDigits(text.substr(end + 1), "+-");
    if (exponent > 0) end += 1 + exponent;
  }
  // Capital letters match as units here, so that RK_ConfigParseTime can warn about them.
  if (end < text.size() &&
      std::string_view("SLCMHDW").find(PAL_ToUpper(text[end])) != std::string_view::npos)
    ++end;
  return end;
}

size_t matchTime(std::string_view text) {
  size_t end = matchTimePart(text);
  while (end > 0 && end < text.size() && text[end] == '+') {
    const size_t part = matchTimePart(text.substr(end + 1));
    if (part == 0) break;
    end += 1 + part;
  }
  return end;
}

size_t matchWindow(std::string_view text) {
  const size_t start = matchTime(text);
  if (start == 0 || start == text.size() || text[start] != ':') return 0;
  const size_t end = matchTime(text.substr(start + 1));
  return end == 0 ? 0 : start + 1 + end;
}

size_t matchTripletNumber(std::string_view text) {
  if (!text.empty() && PAL_ToUpper(text[0]) == 'N') return 1;
  return matchSignedDigits(text, "+-");
}

size_t matchTriplet(std::string_view text) {
  size_t end = matchTripletNumber(text);
  for (int more = 0; end > 0 && more < 3 && end < text.size() && text[end] == ':'; ++more) {
    const size_t number = matchTripletNumber(text.substr(end + 1));
    if (number == 0) break;
    end += 1 + number;
  }
  return end;
}

size_t matchName(std::string_view text) { return runLength(text, 0, isNameCharacter); }

// The readers of values return false if `text` as a whole isn't a value of their type.

bool readBoolean(std::string_view text, int32_t* value) {
  const bool on = RK_ConfigSameText(text, "on") || RK_ConfigSameText(text, "true");
  if (!on && !RK_ConfigSameText(text, "off") && !RK_ConfigSameText(text, "false")) return false;
  *value = on ? 1 : 0;
  return true;
}

bool readInteger(std::string_view text, std::string_view signs, int32_t* value) {
  if (text.empty() || matchSignedDigits(text, signs) != text.size()) return false;
  using Limits = std::numeric_limits<int32_t>;
  const long long number = std::strtoll(std::string(text).c_str(), nullptr, 10);
  *value = static_cast<int32_t>(std::clamp<long long>(number, Limits::min(), Limits::max()));
  return true;
}

bool readString(std::string_view text, std::string* value) {
  if (text.empty()) return false;
  if (matchWord(text) == text.size()) {
    *value = text;
  } else if (matchQuoted(text) == text.size()) {
    *value = text.substr(1, text.size() - 2);
  } else {
    return false;
  }
  return true;
}

bool readTime(std::string_view text, double* value) {
  if (text.empty() || matchTime(text) != text.size()) return false;
  *value = RK_ConfigParseTime(std::string(text).c_str());
  return true;
}

// A file name that is given as the value becomes the name of the output.
bool readToggleOrFile(std::string_view text, int32_t* value) {
  if (readBoolean(text, value)) return true;
  if (!readString(text, &RK_conf.logfile_name)) return false;
  RK_conf.logfile_name_set = true;
  *value = 1;
  return true;
}

void takeType(RK_Request& request, const RK_RequestText& type) {
  if (!request.types.empty()) {
    PAL_Warning("overwriting old type \"%s\" of frame with \"%s\"",
                PAL_Printable(request.types.back().text).c_str(), PAL_Printable(type.text).c_str());
  }
  request.types.push_back(type);
}

void takeQuoted(RK_Request& request, std::string_view text) {
  takeType(request, {std::string(text.substr(1, text.size() - 2)), true});
}

void takeTriplet(RK_Request& request, std::string_view text) {
  constexpr int32_t kHighestProcess = 0;  // of klttool's own processes, not of the trace's
  PAL_Triplet triplet{};
  if (PAL_TripletParse(std::string(text).c_str(), kHighestProcess, &triplet.first, &triplet.last,
                       &triplet.stride) != 0)
    request.triplets.push_back(triplet);
  else
    request.has_refused_triplets = true;
}

void takeWindow(RK_Request& request, std::string_view text) {
  const size_t colon = text.find(':');
  request.window_start = RK_ConfigParseTime(std::string(text.substr(0, colon)).c_str());
  request.window_end = RK_ConfigParseTime(std::string(text.substr(colon + 1)).c_str());
}

void takeTime(RK_Request& request, std::string_view text) {
  request.time = RK_ConfigParseTime(std::string(text).c_str());
}

void takeName(RK_Request& request, std::string_view text) {
  const uint32_t bit = RK_ConfigCategoryBit(text);
  request.categories |= bit;
  if (bit == 0) takeType(request, {std::string(text), false});
}

struct RequestItem {
  size_t (*match)(std::string_view text);
  void (*take)(RK_Request& request, std::string_view text);
};
constexpr RequestItem kRequestItems[] = {{&matchQuoted, &takeQuoted},
                                         {&matchTriplet, &takeTriplet},
                                         {&matchWindow, &takeWindow},
                                         {&matchTime, &takeTime},
                                         {&matchName, &takeName}};

// Adds the items of `text` to `request` and returns the rest, from the first invalid item on.
std::string_view readRequest(std::string_view text, RK_Request& request) {
  while (!text.empty()) {
    if (text[0] == ' ' || text[0] == ',') {
      text.remove_prefix(1);
      continue;
    }
    const RequestItem* best = nullptr;
    size_t length = 0;
    for (const RequestItem& item : kRequestItems) {
      const size_t matched = item.match(text);
      if (matched > length) {
        length = matched;
        best = &item;
      }
    }
    if (best == nullptr) break;
    best->take(request, text.substr(0, length));
    text.remove_prefix(length);
  }
  return text;
}

// The line that is being read, for messages about it.
struct Line {
  RK_ScanMode mode;
  size_t number;
  std::string keyword;  // as the user wrote it
};

bool isFromFile(const Line& line) { return line.mode == RK_ScanMode::config; }

void reportUnknown(const Line& line, bool hasDashes = true) {
  if (!isFromFile(line)) {
    PAL_Error("unknown parameter \"--%s\"", line.keyword.c_str());
    RK_HintOption(line.keyword, hasDashes);
    return;
  }
  PAL_Error("unknown config option \"%s\" in line %zu", line.keyword.c_str(), line.number);
}

void reportMissing(const Line& line) {
  if (!isFromFile(line))
    PAL_Error("parameter error after %s, missing parameters", line.keyword.c_str());
  else
    PAL_Error("config error after %s, missing parameters in line %zu", line.keyword.c_str(),
              line.number);
}

void reportInvalid(const Line& line, std::string_view value) {
  const std::string shown = PAL_Printable(value);
  if (!isFromFile(line))
    PAL_Error("parameter error after --%s, invalid parameters \"%s\"", line.keyword.c_str(),
              shown.c_str());
  else
    PAL_Error("config error after %s, invalid parameters \"%s\" in line %zu", line.keyword.c_str(),
              shown.c_str(), line.number);
}

void reportTrailing(const Line& line, std::string_view rest) {
  const std::string shown = PAL_Printable(rest);
  if (!isFromFile(line))
    PAL_Error("parameter error after --%s, unrecognized text: %s", line.keyword.c_str(),
              shown.c_str());
  else
    PAL_Error("config error after %s, ignoring unrecognized text in line %zu: %s",
              line.keyword.c_str(), line.number, shown.c_str());
}

bool isToggle(RK_OptionType type) {
  return type == RK_OptionType::toggle || type == RK_OptionType::toggleOrFile;
}

bool readNumber(RK_OptionType type, std::string_view value, int32_t* number) {
  switch (type) {
    case RK_OptionType::toggle:
      return readBoolean(value, number);
    case RK_OptionType::toggleOrFile:
      return readToggleOrFile(value, number);
    case RK_OptionType::level:
      return readBoolean(value, number) || readInteger(value, "+-", number);
    case RK_OptionType::unsignedInteger:
      return readInteger(value, "+", number);
    default:
      return readInteger(value, "+-", number);
  }
}

bool readValue(const RK_Option& option, std::string_view value) {
  if (const auto* number = std::get_if<int32_t RK_Conf::*>(&option.field))
    return readNumber(option.type, value, &(RK_conf.*(*number)));
  if (const auto* real = std::get_if<double RK_Conf::*>(&option.field))
    return readTime(value, &(RK_conf.*(*real)));
  return readString(value, &(RK_conf.*std::get<std::string RK_Conf::*>(option.field)));
}

// Whether the option's value is a free text, which may contain blanks.
bool takesFreeText(const RK_Option& option) {
  return option.type == RK_OptionType::toggleOrFile ||
         (option.type == RK_OptionType::string && option.set != &RK_Conf::logfile_format_set);
}

// Recommends quotes if only its blanks make the value invalid.
void adviseOnText(const Line& line, std::string_view value) {
  const bool isQuotable = std::all_of(value.begin(), value.end(),
                                      [](char c) { return isWordCharacter(c) || isBlank(c); });
  if (isQuotable) RK_HintQuotes(line.keyword, value, line.mode == RK_ScanMode::environment);
}

// Whether a quoted text would select something without its quotes: one of its words is a window or
// a category, or all of them are threads.
bool wouldSelectUnquoted(std::string_view text) {
  bool hasThreads = false;
  bool hasOthers = false;
  while (!text.empty()) {
    const size_t end = std::min(text.find_first_of(" \t,"), text.size());
    const std::string_view word = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (word.empty()) continue;
    const bool isThreads = matchTriplet(word) == word.size();
    if (RK_ConfigCategoryBit(word) != 0 || (!isThreads && matchWindow(word) == word.size()))
      return true;
    (isThreads ? hasThreads : hasOthers) = true;
  }
  return hasThreads && !hasOthers;
}

// `rest` is the end of `value` that can't be read.
void adviseOnRequest(const Line& line, const RK_Request& request, std::string_view value,
                     std::string_view rest) {
  if (!rest.empty()) RK_HintUnreadable(value, value.size() - rest.size());
  const bool hasUnits = RK_HintUnits(value);
  std::vector<std::string> words;
  for (const RK_RequestText& type : request.types) {
    if (!type.isQuoted)
      words.push_back(type.text);
    else if (wouldSelectUnquoted(type.text))
      RK_HintNoQuotes(line.keyword, type.text, line.mode == RK_ScanMode::environment);
  }
  // With an unknown unit its last letters are such a word.
  if (hasUnits) words.clear();
  RK_HintRequest(words, !rest.empty());
}

bool readOption(const Line& line, const RK_Option& option, std::string_view value) {
  if (value.empty() && !isToggle(option.type)) {
    reportMissing(line);
    return true;
  }
  if (option.set != nullptr) RK_conf.*option.set = true;
  if (option.type == RK_OptionType::request) {
    RK_Request& request = RK_conf.request.emplace_back();
    const std::string_view rest = readRequest(value, request);
    if (!rest.empty()) reportTrailing(line, rest);
    if (!isFromFile(line)) adviseOnRequest(line, request, value, rest);
    return rest.empty();
  }
  if (value.empty()) {
    RK_conf.*std::get<int32_t RK_Conf::*>(option.field) = 1;
    return true;
  }
  if (readValue(option, value)) return true;
  reportInvalid(line, value);
  if (takesFreeText(option) && !isFromFile(line)) adviseOnText(line, value);
  return false;
}

// Reads a line whose first characters can't start a word. These characters are copied to
// RK_conf.echo, and the word after them isn't accepted as a keyword.
bool readStrayLine(Line& line, std::string_view text) {
  const size_t stray = runLength(text, 0, [](char c) { return !isWordCharacter(c); });
  RK_conf.echo += text.substr(0, stray);
  line.keyword = text.substr(stray, matchWord(text.substr(stray)));
  if (line.keyword.empty()) return true;
  reportUnknown(line, false);
  return false;
}

// The refused keyword `word`, as the table spells it, or null. Two refused keywords are pairs of
// words: "INFO" and the first word of `rest`.
const char* findRefused(std::string_view word, std::string_view rest) {
  if (!RK_ConfigSameText(word, "INFO")) return RK_ConfigFindRefused(word);
  return RK_ConfigFindRefused("INFO " + std::string(rest.substr(0, matchWord(rest))));
}

std::string_view trimmedEnd(std::string_view text) {
  const auto trim = [&] {
    while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  };
  trim();
  if (!text.empty() && text.back() == '\r') text.remove_suffix(1);
  trim();
  return text;
}

}  // namespace

bool RK_ScanLine(std::string_view text, RK_ScanMode mode, size_t number) {
  Line line{mode, number, {}};
  text = trimmedEnd(text);
  if (text.empty() || text[0] == '#') return true;
  const size_t length = matchWord(text);
  if (length == 0) return readStrayLine(line, text);

  line.keyword = text.substr(0, length);
  std::string_view rest = text.substr(length);
  const size_t blanks = runLength(rest, 0, isBlank);
  if (blanks > 0 || rest.empty()) {
    rest.remove_prefix(blanks);
    if (const RK_Option* option = RK_ConfigFindOption(line.keyword))
      return readOption(line, *option, rest);
    if (const char* refused = findRefused(line.keyword, rest)) {
      PAL_Warning("Option %s not supported.\n", refused);
      return false;
    }
    if (blanks > 0 && RK_ConfigSameText(line.keyword, "INFO")) return true;
  }
  reportUnknown(line);
  return false;
}

bool RK_ScanArguments(std::string_view text) {
  if (text.find_first_of("\r\n") == std::string_view::npos)
    return RK_ScanLine(text, RK_ScanMode::parameter, 0);
  const size_t end = std::min(text.find_first_of(" \t"), text.size());
  const std::string_view keyword = text.substr(0, end);
  Line line{RK_ScanMode::parameter, 0, PAL_Printable(keyword)};
  if (keyword.empty() || keyword.find_first_of("\r\n") != std::string_view::npos) {
    line.keyword = PAL_Printable(text);
    reportUnknown(line);
  } else {
    reportInvalid(line, text.substr(end + 1));
  }
  return false;
}

bool RK_ScanText(std::string_view text, RK_ScanMode mode) {
  bool valid = true;
  for (size_t number = 1; !text.empty(); ++number) {
    const size_t end = std::min(text.find('\n'), text.size());
    valid &= RK_ScanLine(text.substr(0, end), mode, number);
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return valid;
}

double RK_ConfigParseTime(const char* text) {
  struct Unit {
    char letter;
    double seconds;
  };
  static constexpr Unit kUnits[] = {{'s', 1},    {'l', 0.001}, {'c', 0.000001}, {'m', 60},
                                    {'h', 3600}, {'d', 86400}, {'w', 604800}};
  double seconds = 0;
  std::string_view rest = text;
  while (!rest.empty()) {
    const size_t end = std::min(rest.find('+'), rest.size());
    const std::string piece(rest.substr(0, end));
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (piece.empty()) continue;
    const auto* unit = std::find_if(std::begin(kUnits), std::end(kUnits),
                                    [&](const Unit& row) { return row.letter == piece.back(); });
    if (unit != std::end(kUnits))
      seconds += std::strtod(piece.c_str(), nullptr) * unit->seconds;
    else if (isDigit(piece.back()))
      seconds += std::strtod(piece.c_str(), nullptr);
    else
      PAL_Warning("cannot decode time");
  }
  return seconds;
}
