// Defines the 74 record types of the KLT format: their fields, categories and filter tests.
//
// The rows themselves are in klt_rows.inc. Everything that depends on a record's layout (reading,
// filtering, writing, delivery, the layout block of an index) is instantiated from kKltRows at
// compile time. A stored layout refers to records and fields by name, so the names are kept here.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string_view>

// Type codes of fields in a stored layout.
enum class KLT_Type : uint8_t {
  kChar = 0xed,
  kU8 = 0xee,
  kU16 = 0xef,
  kU32 = 0xf0,
  kU64 = 0xf1,
  kI8 = 0xf2,
  kI16 = 0xf3,
  kI32 = 0xf4,
  kI64 = 0xf5,
  kRaw8 = 0xf6,
  kRaw32 = 0xf8,
  kRaw64 = 0xf9,
  kF32 = 0xfa,
  kF64 = 0xfb,
};

// The byte that marks a count field in a stored layout.
inline constexpr uint8_t kKltCountMark = 0xfe;

[[nodiscard]] constexpr bool KLT_TypeIsValid(unsigned code) {
  return (code >= 0xed && code <= 0xf6) || (code >= 0xf8 && code <= 0xfb);
}

// Bytes of one element on disk.
[[nodiscard]] constexpr unsigned KLT_TypeBytes(KLT_Type type) {
  switch (type) {
    case KLT_Type::kChar:
    case KLT_Type::kU8:
    case KLT_Type::kI8:
    case KLT_Type::kRaw8:
      return 1;
    case KLT_Type::kU16:
    case KLT_Type::kI16:
      return 2;
    case KLT_Type::kU32:
    case KLT_Type::kI32:
    case KLT_Type::kRaw32:
    case KLT_Type::kF32:
      return 4;
    default:
      return 8;
  }
}

// Bytes of one array element in memory: 16-bit values are held as 32 bits.
[[nodiscard]] constexpr unsigned KLT_TypeNativeBytes(KLT_Type type) {
  const unsigned bytes = KLT_TypeBytes(type);
  return bytes == 2 ? 4 : bytes;
}

// Category masks of records, components and requests.
namespace klt {
inline constexpr uint32_t kAny = 0x0001;
inline constexpr uint32_t kDeclarations = 0x0002;
inline constexpr uint32_t kFunctions = 0x0004;
inline constexpr uint32_t kScopes = 0x0008;
inline constexpr uint32_t kFileIo = 0x0020;
inline constexpr uint32_t kCounters = 0x0040;
inline constexpr uint32_t kMessages = 0x0080;
inline constexpr uint32_t kCollops = 0x0100;
inline constexpr uint32_t kInternal = 0x0800;
inline constexpr uint32_t kErrors = 0x2000;
inline constexpr uint32_t kStatistics = 0x4000;
inline constexpr uint32_t kRawEvents = 0x8000;
// The categories that bit 0 of a request selects.
inline constexpr uint32_t kWholeSelection = 0x01ef;
}  // namespace klt

// Bits of a field descriptor.
inline constexpr uint32_t kKltRequired = 0x4000;
inline constexpr uint32_t kKltCount = 0x8000;

struct KLT_Field {
  std::string_view name;       // empty for a count field
  uint32_t descriptor = 0;     // type code, required and count flags, covered fields of a count
  std::string_view reference;  // definition that the value refers to, or empty

  [[nodiscard]] constexpr KLT_Type type() const { return static_cast<KLT_Type>(descriptor & 0xff); }
  [[nodiscard]] constexpr bool required() const { return (descriptor & kKltRequired) != 0; }
  [[nodiscard]] constexpr bool isCount() const { return (descriptor & kKltCount) != 0; }
  [[nodiscard]] constexpr unsigned covered() const { return (descriptor >> 16) & 0xff; }
};

// The filter's tests that a record must pass, and whether it changes the context (klt_context.h).
// KLT_TraitsOf defines them exactly.
enum class KLT_FilterClass : uint8_t {
  kTimeForward,    // only moves the running time
  kTimeBack,       // only moves the running time, to an earlier time
  kCallStack,      // enter and leave: all tests, changes the context
  kCounterSample,  // all tests except that for a handler, changes the context
  kMessage,        // sender or receiver must be selected; changes the context
  kCollective,     // a member of the communicator must be selected; changes the context
  kThreadEvent,    // all tests, no context
  kRawMessage,     // a member of the communicator must be selected; no context
  kRawCollective,  // the thread and a member of the communicator must be selected; no context
  kThreadTable,    // untimed, the thread must be selected
  kCommTable,      // untimed, a member of the communicator must be selected
  kAlwaysWanted,   // untimed, needs no handler
  kDefinition,     // untimed, needs a handler
  kStructure,      // untimed, needs no handler, most change the trace's tables
  kBracket,        // delivered by a reader at the start and end of a window; skipped in a file
  kSeekPoint,      // has an effect in an anchor file only
  kStack,          // the open calls of a thread at a seek point or in a history
  kNeverStored,    // isn't stored in files
};

// Which tests of the category masks and of the handler table a record must pass (isWanted in
// klt_select.cpp). kNoHandler is kFull without the test of the table.
enum class KLT_CategoryTest : uint8_t { kFull, kNoHandler, kMasksAndHandler, kMasks, kNone };
// Which threads of a record a request must select.
enum class KLT_ThreadTest : uint8_t { kNone, kThread, kEitherSide, kCommunicator, kThreadAndComm };

struct KLT_FilterTraits {
  KLT_CategoryTest category = KLT_CategoryTest::kNone;
  KLT_ThreadTest threads = KLT_ThreadTest::kNone;
  bool window = false;   // it must be in the request's time window
  bool context = false;  // it changes the context
  bool history = false;  // the request's history is delivered before it
};

[[nodiscard]] constexpr KLT_FilterTraits KLT_TraitsOf(KLT_FilterClass filter) {
  using C = KLT_CategoryTest;
  using T = KLT_ThreadTest;
  switch (filter) {
    case KLT_FilterClass::kCallStack:
      return {C::kFull, T::kThread, true, true, true};
    case KLT_FilterClass::kCounterSample:
      return {C::kNoHandler, T::kThread, true, true, true};
    case KLT_FilterClass::kMessage:
      return {C::kFull, T::kEitherSide, true, true, true};
    case KLT_FilterClass::kCollective:
      return {C::kFull, T::kCommunicator, true, true, true};
    case KLT_FilterClass::kThreadEvent:
      return {C::kFull, T::kThread, true, false, true};
    case KLT_FilterClass::kRawMessage:
      return {C::kFull, T::kCommunicator, true, false, true};
    case KLT_FilterClass::kRawCollective:
      return {C::kFull, T::kThreadAndComm, true, false, true};
    case KLT_FilterClass::kThreadTable:
      return {C::kFull, T::kThread, false, false, false};
    case KLT_FilterClass::kCommTable:
      return {C::kFull, T::kCommunicator, false, false, false};
    case KLT_FilterClass::kAlwaysWanted:
      return {C::kNoHandler, T::kNone, false, false, false};
    case KLT_FilterClass::kDefinition:
      return {C::kMasksAndHandler, T::kNone, false, false, false};
    case KLT_FilterClass::kStructure:
      return {C::kMasks, T::kNone, false, false, false};
    case KLT_FilterClass::kTimeForward:
    case KLT_FilterClass::kTimeBack:
    case KLT_FilterClass::kBracket:
    case KLT_FilterClass::kSeekPoint:
    case KLT_FilterClass::kStack:
    case KLT_FilterClass::kNeverStored:
      break;
  }
  return {};
}

#define ROW(number, id, name, timed, categories, filter, fields) (number),
inline constexpr uint8_t kKltRowNumbers[] = {
#include "klt/format/klt_rows.inc"
};
#undef ROW
inline constexpr size_t kKltRowCount = std::size(kKltRowNumbers);
inline constexpr size_t kKltMaxFields = 17;

// A row as it is written in klt_rows.inc.
struct KLT_RowText {
  uint8_t number;
  std::string_view name;
  bool timed;
  uint32_t categories;
  KLT_FilterClass filter;
  std::string_view fields;
};

struct KLT_Row {
  // The number of each row by its name: KLT_Row::enterFunction is 28.
#define ROW(number, id, name, timed, categories, filter, fields) id = (number),
  enum Number : uint8_t {
#include "klt/format/klt_rows.inc"
  };
#undef ROW

  uint8_t number = 0;
  std::string_view name;
  uint32_t code = 0;  // number << 24 | timed << 23 | categories
  KLT_FilterClass filter = KLT_FilterClass::kNeverStored;
  uint8_t numFields = 0;
  std::array<KLT_Field, kKltMaxFields> fields{};

  [[nodiscard]] constexpr bool timed() const { return (code >> 23 & 1) != 0; }
  [[nodiscard]] constexpr uint32_t categories() const { return code & 0xffff; }
  [[nodiscard]] constexpr KLT_FilterTraits traits() const { return KLT_TraitsOf(filter); }
  [[nodiscard]] constexpr bool movesTimeOnly() const {
    return filter == KLT_FilterClass::kTimeForward || filter == KLT_FilterClass::kTimeBack;
  }
  // Whether an entry of a history at a seek point may refer to records of this row.
  [[nodiscard]] constexpr bool replayed() const {
    return traits().context || filter == KLT_FilterClass::kTimeForward;
  }
  // Whether KLT_FilterPlain can process such a record: its size is fixed and, while no history is
  // to be produced, the only context that it changes is the depth of the call stack.
  [[nodiscard]] constexpr bool plain() const {
    for (size_t f = 0; f < numFields; ++f) {
      if (fields[f].isCount()) return false;
    }
    switch (filter) {
      case KLT_FilterClass::kTimeForward:
      case KLT_FilterClass::kMessage:
      case KLT_FilterClass::kThreadEvent:
      case KLT_FilterClass::kRawMessage:
      case KLT_FilterClass::kRawCollective:
        return timed();
      case KLT_FilterClass::kCallStack:
        return name == "enter_function" || name == "leave_function";
      default:
        return false;
    }
  }
  // Index of a field, or numFields.
  [[nodiscard]] constexpr size_t find(std::string_view fieldName) const {
    size_t i = 0;
    while (i < numFields && fields[i].name != fieldName) ++i;
    return i;
  }
};

namespace klt_rows {
using namespace klt;  // the masks, for the table only
inline constexpr bool kTimed = true;
inline constexpr bool kUntimed = false;

#define ROW(number, id, name, timed, categories, filter, fields) \
  KLT_RowText{number, name, timed, categories, KLT_FilterClass::filter, fields},
inline constexpr std::array<KLT_RowText, kKltRowCount> kTexts = {
#include "klt/format/klt_rows.inc"
};
#undef ROW

constexpr KLT_Type typeNamed(std::string_view text) {
  struct Name {
    std::string_view name;
    KLT_Type type;
  };
  constexpr Name names[] = {
      {"char", KLT_Type::kChar}, {"u8", KLT_Type::kU8},       {"u16", KLT_Type::kU16},
      {"u32", KLT_Type::kU32},   {"u64", KLT_Type::kU64},     {"i32", KLT_Type::kI32},
      {"i64", KLT_Type::kI64},   {"raw64", KLT_Type::kRaw64}, {"f64", KLT_Type::kF64},
  };
  for (const Name& n : names) {
    if (n.name == text) return n.type;
  }
  throw "unknown field type";  // a typing error in the table stops the compilation
}

constexpr std::string_view until(std::string_view text, char stop) {
  return text.substr(0, text.find(stop));
}

constexpr KLT_Field parseField(std::string_view text) {
  KLT_Field field;
  if (text.front() == '#') {
    const auto covered = static_cast<uint32_t>(
        text[1] >= '0' && text[2] == ':' ? text[1] - '0' : (text[1] - '0') * 10 + (text[2] - '0'));
    const std::string_view type = text.substr(text.find(':') + 1);
    field.descriptor = kKltCount | covered << 16 | static_cast<uint32_t>(typeNamed(type));
    return field;
  }
  const size_t reference = text.find('>');
  if (reference != std::string_view::npos) {
    field.reference = text.substr(reference + 1);
    text = text.substr(0, reference - 1);
  }
  const bool required = text.back() == '!';
  if (required) text.remove_suffix(1);
  field.name = until(text, ' ');
  const std::string_view type = text.substr(field.name.size() + 1);
  field.descriptor = static_cast<uint32_t>(typeNamed(type)) | (required ? kKltRequired : 0);
  return field;
}

constexpr KLT_Row parseRow(const KLT_RowText& text) {
  KLT_Row row;
  row.number = text.number;
  row.name = text.name;
  row.code = uint32_t{text.number} << 24 | uint32_t{text.timed} << 23 | text.categories;
  row.filter = text.filter;
  std::string_view rest = text.fields;
  while (!rest.empty()) {
    const std::string_view field = until(rest, ';');
    row.fields[row.numFields++] = parseField(field);
    rest.remove_prefix(field.size() == rest.size() ? field.size() : field.size() + 2);
  }
  return row;
}

constexpr std::array<KLT_Row, kKltRowCount> parseAll() {
  std::array<KLT_Row, kKltRowCount> rows{};
  for (size_t i = 0; i < kKltRowCount; ++i) rows[i] = parseRow(kTexts[i]);
  return rows;
}
}  // namespace klt_rows

// Row n is at index n - 1.
inline constexpr std::array<KLT_Row, kKltRowCount> kKltRows = klt_rows::parseAll();

// The row of a record number, or null if there is none.
[[nodiscard]] constexpr const KLT_Row* KLT_RowOf(unsigned number) {
  return number >= 1 && number <= kKltRowCount ? &kKltRows[number - 1] : nullptr;
}

// The printed name of the category with this bit number.
[[nodiscard]] constexpr std::string_view KLT_CategoryName(unsigned bit) {
  constexpr std::string_view names[] = {"any",      "declarations", "FUNCTIONS",  "SCOPES",
                                        "OPENMP",   "FILEIO",       "COUNTERS",   "MESSAGES",
                                        "COLLOPS",  "frames",       "thumbnails", "internal",
                                        "REQUESTS", "ERRORS",       "???",        "RAW_EVENTS"};
  return bit < 16 ? names[bit] : std::string_view("???");
}

namespace klt_rows {
// Checks that numbers run from 1, timed rows begin with a time, and counts cover existing fields.
constexpr bool tableIsSound() {
  for (size_t i = 0; i < kKltRowCount; ++i) {
    const KLT_Row& row = kKltRows[i];
    if (row.number != i + 1 || row.numFields == 0) return false;
    if (row.timed() && row.fields[0].name != "time") return false;
    for (size_t f = 0; f < row.numFields; ++f) {
      if (row.fields[f].isCount() && f + row.fields[f].covered() >= row.numFields) return false;
    }
  }
  return true;
}
static_assert(tableIsSound());
}  // namespace klt_rows
