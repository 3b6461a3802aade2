// The vocabulary of the KLT format: the 74 record types, their fields, categories and filter tests.
//
// This is the one place where rows are stated. Everything that depends on a record's layout
// (reading, filtering, writing, delivery, the layout block of an index) is instantiated from
// kKltRows at compile time. Names of records and fields are data: a stored layout is matched
// against them by name.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

// Type codes of fields, as they stand in a stored layout.
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
// What bit 0 of a request stands for.
inline constexpr uint32_t kWholeSelection = 0x01ef;
}  // namespace klt

// Bits of a field descriptor.
inline constexpr uint32_t kKltRequired = 0x4000;
inline constexpr uint32_t kKltCount = 0x8000;

struct KLT_Field {
  std::string_view name;       // empty for a count field
  uint32_t descriptor = 0;     // type code, required and count flags, covered fields of a count
  std::string_view reference;  // definition that the value names; only stored in layouts

  [[nodiscard]] constexpr KLT_Type type() const { return static_cast<KLT_Type>(descriptor & 0xff); }
  [[nodiscard]] constexpr bool required() const { return (descriptor & kKltRequired) != 0; }
  [[nodiscard]] constexpr bool isCount() const { return (descriptor & kKltCount) != 0; }
  [[nodiscard]] constexpr unsigned covered() const { return (descriptor >> 16) & 0xff; }
};

// What a filter pass tests for a record, and what else the record does there.
enum class KLT_FilterClass : uint8_t {
  kTimeStep,       // only moves the running time
  kCallStack,      // enter and leave: all tests, keeps the thread's context
  kCounterSample,  // as above, but kept without a handler too
  kMessage,        // sender or receiver must be selected; context with the sender
  kCollective,     // a member of the communicator must be selected; context
  kThreadEvent,    // all tests, no context
  kRawMessage,     // thread test through the communicator, no context
  kRawCollective,  // thread, then communicator, no context
  kFilterEnd,      // end_of_filter met in a file
  kThreadTable,    // untimed, thread test
  kCommTable,      // untimed, thread test through the communicator
  kAlwaysWanted,   // untimed, kept without a handler if it can occur
  kDefinition,     // untimed, needs a handler
  kStructure,      // untimed, changes the trace's tables with or without a handler
  kBracket,        // history brackets met in a file
  kUnfiltered,     // seek points and what belongs to them
  kNeverStored,    // has no coded form
};

enum class KLT_CategoryTest : uint8_t { kFull, kNoHandler, kMasksAndHandler, kMasks, kNone };
enum class KLT_ThreadTest : uint8_t { kNone, kThread, kEitherSide, kCommunicator, kThreadAndComm };

struct KLT_FilterTraits {
  KLT_CategoryTest category = KLT_CategoryTest::kNone;
  KLT_ThreadTest threads = KLT_ThreadTest::kNone;
  bool window = false;
  bool context = false;
  bool history = false;
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
    case KLT_FilterClass::kFilterEnd:
      return {C::kNoHandler, T::kNone, true, false, true};
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
    case KLT_FilterClass::kBracket:
      return {C::kNone, T::kNone, false, false, true};
    case KLT_FilterClass::kTimeStep:
    case KLT_FilterClass::kUnfiltered:
    case KLT_FilterClass::kNeverStored:
      break;
  }
  return {};
}

inline constexpr size_t kKltRowCount = 74;
inline constexpr size_t kKltMaxFields = 17;

// A row as it is written down below: fields in order, "name type", "!" for required, ">" before the
// definition that the value names, "#n:type" for a count of the next n fields.
struct KLT_RowText {
  uint8_t number;
  std::string_view name;
  bool timed;
  uint32_t categories;
  KLT_FilterClass filter;
  std::string_view fields;
};

struct KLT_Row {
  uint8_t number = 0;
  std::string_view name;
  uint32_t code = 0;  // number << 24 | timed << 23 | categories
  KLT_FilterClass filter = KLT_FilterClass::kNeverStored;
  uint8_t numFields = 0;
  std::array<KLT_Field, kKltMaxFields> fields{};

  [[nodiscard]] constexpr bool timed() const { return (code >> 23 & 1) != 0; }
  [[nodiscard]] constexpr uint32_t categories() const { return code & 0xffff; }
  [[nodiscard]] constexpr KLT_FilterTraits traits() const { return KLT_TraitsOf(filter); }
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

// clang-format off
inline constexpr std::array<KLT_RowText, kKltRowCount> kTexts = {{
    {1, "add_time", kTimed, kAny, KLT_FilterClass::kTimeStep,
     "time u32!"},
    {2, "add_time", kTimed, kAny, KLT_FilterClass::kTimeStep,
     "time u64!"},
    {3, "all_communication", kTimed, kCollops, KLT_FilterClass::kCollective,
     "time u16!; communicator u16 >communicator_definition.id; "
     "type u8! >collective_operation_definition.id; #2:u16; start_time u64; delta u64"},
    {4, "all_communication", kTimed, kCollops, KLT_FilterClass::kCollective,
     "time u16!; communicator u16 >communicator_definition.id; "
     "type u8! >collective_operation_definition.id; #3:u16; start_time u64; delta u64; "
     "scl u32 >scl_definition.id"},
    {5, "all_to_all_communication", kTimed, kCollops, KLT_FilterClass::kCollective,
     "time u16!; communicator u16 >communicator_definition.id; "
     "type u8! >collective_operation_definition.id; #4:u16; start_time u64; delta u64; "
     "send_size u32; receive_size u32"},
    {6, "all_to_all_communication", kTimed, kCollops, KLT_FilterClass::kCollective,
     "time u16!; communicator u16 >communicator_definition.id; "
     "type u8! >collective_operation_definition.id; #5:u16; start_time u64; delta u64; "
     "send_size u32; receive_size u32; scl u32 >scl_definition.id"},
    {7, "all_to_one_communication", kTimed, kCollops, KLT_FilterClass::kCollective,
     "time u16!; receiver_gtp u32!; recvd u32; "
     "communicator u16 >communicator_definition.id; "
     "type u8! >collective_operation_definition.id; #3:u16; start_time u64; delta u64; "
     "send_size u32"},
    {8, "all_to_one_communication", kTimed, kCollops, KLT_FilterClass::kCollective,
     "time u16!; receiver_gtp u32!; recvd u32; "
     "communicator u16 >communicator_definition.id; "
     "type u8! >collective_operation_definition.id; #4:u16; start_time u64; delta u64; "
     "send_size u32; scl u32 >scl_definition.id"},
    {9, "anchor", kUntimed, kInternal, KLT_FilterClass::kUnfiltered,
     "time_prev u64!; offset u64!"},
    {10, "anchor_file_declaration", kUntimed, kInternal, KLT_FilterClass::kStructure,
     "anchor_file u32! >file_declaration.id; data_file u32! >file_declaration.id; "
     "categories u32!; willies u16! >willy_list.id"},
    {11, "begin_of_history", kTimed, kAny, KLT_FilterClass::kBracket,
     "time u16!"},
    {12, "class_definition", kUntimed, kDeclarations, KLT_FilterClass::kDefinition,
     "id u32!; name u32 >klt_string.id; nameself u32 >klt_string.id; "
     "parent u32 >class_definition.id"},
    {13, "clock_resolution", kUntimed, kDeclarations, KLT_FilterClass::kDefinition,
     "resolution f64!; eventbits u32"},
    {14, "collective_operation_definition", kUntimed, kDeclarations, KLT_FilterClass::kDefinition,
     "id u8!; #1:u16; name char; type u8"},
    {15, "collop_profile", kUntimed, kStatistics, KLT_FilterClass::kCommTable,
     "type u8! >collective_operation_definition.id; root_gtp u32!; "
     "comm u16 >communicator_definition.id; #13:u16; count_exch u32!; "
     "min_bytes_sent u32!; max_bytes_sent u32!; sum_bytes_sent u32!; "
     "min_bytes_recvd u32!; max_bytes_recvd u32!; sum_bytes_recvd u32!; min_rate f64!; "
     "max_rate f64!; avg_rate f64; min_duration u64!; max_duration u64!; "
     "sum_duration u64!"},
    {16, "collop_raw_event", kTimed, kRawEvents, KLT_FilterClass::kRawCollective,
     "time u16!; willy_gtp u32!; kind u32; operation u32!; "
     "comm u16 >communicator_definition.id; counter u32; root_gtp u32!; send_size u32; "
     "receive_size u32; endtime i64!; scl u32 >scl_definition.id"},
    {17, "collop_statistics", kUntimed, kStatistics, KLT_FilterClass::kDefinition,
     "numprocs u32!; type u8! >collective_operation_definition.id; count u32!"},
    {18, "comment", kTimed, kAny, KLT_FilterClass::kThreadEvent,
     "time u16!; willy_gtp u32!; #1:u16; text char!"},
    {19, "communicator_definition", kUntimed, kDeclarations, KLT_FilterClass::kStructure,
     "id u16!; #1:u16; name char; #3:u16; first_id_gtp u32!; last_id_gtp u32!; "
     "stride i32; left_size i32"},
    {20, "counter_definition", kUntimed, kDeclarations, KLT_FilterClass::kStructure,
     "id u16!; name u32! >klt_string.id; type u8!; do_diff u8!; lower_bound raw64!; "
     "upper_bound raw64!; willy_gtp u32!; class u32 >class_definition.id; #1:u16; "
     "unit char"},
    {21, "counter_history", kUntimed, kCounters, KLT_FilterClass::kUnfiltered,
     "#2:u8; counters u16! >counter_definition.id; values raw64!"},
    {22, "counter_value", kTimed, kCounters, KLT_FilterClass::kCounterSample,
     "time u16!; willy_gtp u32!; #2:u8; values raw64!; "
     "counters u16! >counter_definition.id"},
    {23, "custom_statistics", kUntimed, kStatistics, KLT_FilterClass::kDefinition,
     "stats_handle u16! >custom_statistics_definition.id; name u32 >klt_string.id; "
     "#1:u16; value f64!"},
    {24, "custom_statistics_definition", kUntimed, kDeclarations, KLT_FilterClass::kDefinition,
     "id u16!; name u32 >klt_string.id; #2:u16; label u32 >klt_string.id; "
     "unit u32! >klt_string.id"},
    {25, "duration", kUntimed, kDeclarations, KLT_FilterClass::kDefinition,
     "start u64; end u64!"},
    {26, "end_of_filter", kTimed, kAny, KLT_FilterClass::kFilterEnd,
     "time u16!; categories u32!; #1:u16; willies u32!"},
    {27, "end_of_history", kTimed, kAny, KLT_FilterClass::kBracket,
     "time u16!"},
    {28, "enter_function", kTimed, kFunctions, KLT_FilterClass::kCallStack,
     "time u16!; willy_gtp u32!; function u32! >function_definition.id"},
    {29, "enter_function", kTimed, kFunctions, KLT_FilterClass::kCallStack,
     "time u16!; willy_gtp u32!; function u32! >function_definition.id; "
     "scl u32 >scl_definition.id"},
    {30, "enter_scope", kTimed, kScopes, KLT_FilterClass::kCallStack,
     "time u16!; willy_gtp u32!; scope u32! >scope_definition.id; seqnr u32!"},
    {31, "enter_scope", kTimed, kScopes, KLT_FilterClass::kCallStack,
     "time u16!; willy_gtp u32!; scope u32! >scope_definition.id; seqnr u32!; "
     "scl u32 >scl_definition.id"},
    {32, "event_summary", kUntimed, kStatistics, KLT_FilterClass::kDefinition,
     "num_funcs u32; num_one_to_ones u32; num_collectives u32; num_scopes u32; "
     "num_counters u32"},
    {33, "file_declaration", kUntimed, kInternal, KLT_FilterClass::kStructure,
     "id u32!; filetype u8; #1:u16; suffix char!"},
    {34, "file_definition", kUntimed, kDeclarations, KLT_FilterClass::kDefinition,
     "id u32!; #1:u16; file char!"},
    {35, "file_io_begin", kTimed, kFileIo, KLT_FilterClass::kThreadEvent,
     "time u16!; willy_gtp u32!; type u8; file u16! >file_io_file_definition.id; "
     "bytes u32"},
    {36, "file_io_begin", kTimed, kFileIo, KLT_FilterClass::kThreadEvent,
     "time u16!; willy_gtp u32!; type u8; file u16! >file_io_file_definition.id; "
     "bytes u32; scl u32! >scl_definition.id"},
    {37, "file_io_end", kTimed, kFileIo, KLT_FilterClass::kThreadEvent,
     "time u16!; willy_gtp u32!; type u8; file u16! >file_io_file_definition.id; "
     "bytes u32"},
    {38, "file_io_end", kTimed, kFileIo, KLT_FilterClass::kThreadEvent,
     "time u16!; willy_gtp u32!; type u8; file u16! >file_io_file_definition.id; "
     "bytes u32; scl u32! >scl_definition.id"},
    {39, "file_io_file_definition", kUntimed, kDeclarations, KLT_FilterClass::kDefinition,
     "id u16!; communicator u16 >communicator_definition.id; name u32 >klt_string.id"},
    {40, "function_definition", kUntimed, kDeclarations, KLT_FilterClass::kDefinition,
     "id u32!; name u32! >klt_string.id; class u32 >class_definition.id"},
    {41, "function_history", kUntimed, kFunctions, KLT_FilterClass::kUnfiltered,
     "willy_gtp u32!; #1:u16; function_stack u32! >function_definition.id"},
    {42, "function_history", kUntimed, kFunctions, KLT_FilterClass::kUnfiltered,
     "willy_gtp u32!; #2:u16; function_stack u32! >function_definition.id; "
     "scls u32 >scl_definition.id"},
    {43, "function_profile", kUntimed, kStatistics, KLT_FilterClass::kThreadTable,
     "willy_gtp u32!; function u32! >function_definition.id; count u32!; min_self u64!; "
     "max_self u64!; total_self u64!; min_inclusive u64!; max_inclusive u64!; "
     "total_inclusive u64!"},
    {44, "function_statistics", kUntimed, kStatistics, KLT_FilterClass::kThreadTable,
     "function u32! >function_definition.id; willy_gtp u32!; calls u32!; min_self u64!; "
     "max_self u64!; total_self u64!; min_inclusive u64!; max_inclusive u64!; "
     "total_inclusive u64!"},
    {45, "group_definition", kUntimed, kDeclarations, KLT_FilterClass::kStructure,
     "id u32!; #1:u16; name char!; #1:u16; willies_gtp u32!"},
    {46, "history", kUntimed, kCounters | kMessages | kCollops, KLT_FilterClass::kUnfiltered,
     "#3:u8; file u32! >file_declaration.id; offset u64!; prevtime u64!"},
    {47, "info", kUntimed, kDeclarations, KLT_FilterClass::kDefinition,
     "info_class u32 >class_definition.id; #1:u16; info char!"},
    {48, "leave_function", kTimed, kFunctions, KLT_FilterClass::kCallStack,
     "time u16!; willy_gtp u32!"},
    {49, "leave_function", kTimed, kFunctions, KLT_FilterClass::kCallStack,
     "time u16!; willy_gtp u32!; scl u32 >scl_definition.id"},
    {50, "leave_scope", kTimed, kScopes, KLT_FilterClass::kCallStack,
     "time u16!; willy_gtp u32!; scope u32! >scope_definition.id; seqnr u32!"},
    {51, "leave_scope", kTimed, kScopes, KLT_FilterClass::kCallStack,
     "time u16!; willy_gtp u32!; scope u32! >scope_definition.id; seqnr u32!; "
     "scl u32 >scl_definition.id"},
    {52, "lw_statistics", kUntimed, kStatistics, KLT_FilterClass::kThreadTable,
     "willy_gtp u32!; function u32! >function_definition.id; receiver_gtp u32!; "
     "bytes_sent u32; comm_size i32; count u32!; minTicksIncl u64!; maxTicksIncl u64!; "
     "sumTicksIncl u64!; minTicksExcl u64!; maxTicksExcl u64!; sumTicksExcl u64!"},
    {53, "message_raw_event", kTimed, kRawEvents, KLT_FilterClass::kRawMessage,
     "time u16!; willy_gtp u32!; kind u32; other_gtp u32!; tag u16; size u32; "
     "comm u16 >communicator_definition.id; function u32 >function_definition.id; "
     "scl u32 >scl_definition.id"},
    {54, "message_raw_event", kTimed, kRawEvents, KLT_FilterClass::kRawMessage,
     "time u16!; willy_gtp u32!; kind u32; other_gtp u32!; tag u32; size u32; "
     "comm u16 >communicator_definition.id; function u32 >function_definition.id; "
     "scl u32 >scl_definition.id"},
    {55, "one_to_all_communication", kTimed, kCollops, KLT_FilterClass::kCollective,
     "time u16!; sender_gtp u32!; sent u32; "
     "communicator u16 >communicator_definition.id; "
     "type u8! >collective_operation_definition.id; #3:u16; start_time u64; delta u64; "
     "receive_size u32"},
    {56, "one_to_all_communication", kTimed, kCollops, KLT_FilterClass::kCollective,
     "time u16!; sender_gtp u32!; sent u32; "
     "communicator u16 >communicator_definition.id; "
     "type u8! >collective_operation_definition.id; #4:u16; start_time u64; delta u64; "
     "receive_size u32; scl u32 >scl_definition.id"},
    {57, "one_to_one_communication", kTimed, kMessages, KLT_FilterClass::kMessage,
     "time u16!; sender_gtp u32!; receive_time i64; receiver_gtp u32!; "
     "communicator u16 >communicator_definition.id; size u32; tag u16; "
     "sender_function u32 >function_definition.id; "
     "receiver_function u32 >function_definition.id"},
    {58, "one_to_one_communication", kTimed, kMessages, KLT_FilterClass::kMessage,
     "time u16!; sender_gtp u32!; receive_time i64; receiver_gtp u32!; "
     "communicator u16 >communicator_definition.id; size u32; tag u16; "
     "sender_scl u32 >scl_definition.id; receiver_scl u32 >scl_definition.id; "
     "sender_function u32 >function_definition.id; "
     "receiver_function u32 >function_definition.id"},
    {59, "one_to_one_communication", kTimed, kMessages, KLT_FilterClass::kMessage,
     "time u16!; sender_gtp u32!; receive_time i64; receiver_gtp u32!; "
     "communicator u16 >communicator_definition.id; size u32; tag u32; "
     "sender_function u32 >function_definition.id; "
     "receiver_function u32 >function_definition.id"},
    {60, "one_to_one_communication", kTimed, kMessages, KLT_FilterClass::kMessage,
     "time u16!; sender_gtp u32!; receive_time i64; receiver_gtp u32!; "
     "communicator u16 >communicator_definition.id; size u32; tag u32; "
     "sender_scl u32 >scl_definition.id; receiver_scl u32 >scl_definition.id; "
     "sender_function u32 >function_definition.id; "
     "receiver_function u32 >function_definition.id"},
    {61, "one_to_one_communication", kTimed, kMessages, KLT_FilterClass::kMessage,
     "time u16!; sender_gtp u32!; receive_time i64; receiver_gtp u32!; "
     "communicator u16 >communicator_definition.id; size u32; tag u32; "
     "sender_scl u32 >scl_definition.id; receiver_scl u32 >scl_definition.id; "
     "sender_checksum u32; receiver_checksum u32; "
     "sender_function u32 >function_definition.id; "
     "receiver_function u32 >function_definition.id"},
    {62, "onetoone_profile", kUntimed, kStatistics, KLT_FilterClass::kCommTable,
     "sender_gtp u32!; receiver_gtp u32!; funcsender u32!; funcreceiver u32!; tag u32!; "
     "comm u16 >communicator_definition.id; size u32!; count u32!; sum_time i64!; "
     "min_time i64!; max_time i64!"},
    {63, "onetoone_statistics", kUntimed, kStatistics, KLT_FilterClass::kDefinition,
     "sender u16!; receiver u16!; count u32!; min_size u32!; max_size u32!; total u32!"},
    {64, "opaque_data", kTimed, kAny, KLT_FilterClass::kThreadEvent,
     "time u16!; willy_gtp u32!; #1:u32; data u8!; scl u32 >scl_definition.id"},
    {65, "process_declaration", kUntimed, kDeclarations, KLT_FilterClass::kAlwaysWanted,
     "#1:u16; thread_numbers_gtp u32!"},
    {66, "report", kTimed, kErrors, KLT_FilterClass::kThreadEvent,
     "time u16!; willy_gtp u32!; type u32 >klt_string.id; level u32 >klt_string.id; "
     "description u32 >klt_string.id; #6:u32; times u64!; willys_gtp u32!; "
     "headers u32 >klt_string.id; functions u32 >function_definition.id; "
     "calls u32 >klt_string.id; scls u32 >scl_definition.id"},
    {67, "scl_definition", kUntimed, kDeclarations, KLT_FilterClass::kDefinition,
     "id u32!; #4:u8; file u32 >file_definition.id; line u32; "
     "symbol u32 >klt_string.id; object u32 >klt_string.id"},
    {68, "scope_definition", kUntimed, kDeclarations, KLT_FilterClass::kDefinition,
     "id u32!; name u32! >klt_string.id; class u32 >class_definition.id; "
     "scl1 u32 >scl_definition.id; scl2 u32 >scl_definition.id"},
    {69, "klt_string", kUntimed, kInternal, KLT_FilterClass::kStructure,
     "id u32!; #1:u16; string char!"},
    {70, "sub_time", kTimed, kAny, KLT_FilterClass::kTimeStep,
     "time u64!"},
    {71, "willy_definition", kUntimed, kDeclarations, KLT_FilterClass::kDefinition,
     "willy_gtp u32!; hostname u32! >klt_string.id; ip u32! >klt_string.id; pid u32; "
     "tid u64; offset f64; skew f64"},
    {72, "willy_id", kUntimed, kAny, KLT_FilterClass::kNeverStored,
     "gtp u32!"},
    {73, "willy_list", kUntimed, kInternal, KLT_FilterClass::kAlwaysWanted,
     "id u16!; #3:u16; first_id_gtp u32!; last_id_gtp u32!; stride i32"},
    {74, "willy_name", kUntimed, kDeclarations, KLT_FilterClass::kThreadTable,
     "willy_gtp u32!; name u32! >klt_string.id"},
}};
// clang-format on

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

// Row n stands at index n - 1.
inline constexpr std::array<KLT_Row, kKltRowCount> kKltRows = klt_rows::parseAll();

// The row of a record number, or null if there is none.
[[nodiscard]] constexpr const KLT_Row* KLT_RowOf(unsigned number) {
  return number >= 1 && number <= kKltRowCount ? &kKltRows[number - 1] : nullptr;
}

// What the tool prints for the category with this bit number.
[[nodiscard]] constexpr std::string_view KLT_CategoryName(unsigned bit) {
  constexpr std::string_view names[] = {"any",      "declarations", "FUNCTIONS",  "SCOPES",
                                        "OPENMP",   "FILEIO",       "COUNTERS",   "MESSAGES",
                                        "COLLOPS",  "frames",       "thumbnails", "internal",
                                        "REQUESTS", "ERRORS",       "???",        "RAW_EVENTS"};
  return bit < 16 ? names[bit] : std::string_view("???");
}

namespace klt_rows {
// The table is sorted by name, variants of a name stand together, numbers run from 1.
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
