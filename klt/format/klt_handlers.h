// Defines the table of record handlers that a caller passes to a reader.
//
// A handler's argument list follows from the record's longest variant: user_data, then the fields
// in row order. A field that the delivered variant lacks is passed as 0, an array as null. The time
// is absolute raw time. A count is followed by pointers to the elements of the arrays it covers; a
// string is passed as a zero-terminated text without its count; a reference to a stored string as
// its text, null if there is none. A handler returns 0 to continue, another value to stop reading.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <tuple>
#include <utility>

#include "klt/format/klt_schema.h"
#include "util/triplets/pal_triplets.h"

// A text as a template argument.
template <size_t Size>
struct KLT_NameText {
  char text[Size]{};
  constexpr KLT_NameText(const char (&from)[Size]) {  // NOLINT(google-explicit-constructor)
    for (size_t i = 0; i < Size; ++i) text[i] = from[i];
  }
  [[nodiscard]] constexpr std::string_view view() const { return {text, Size - 1}; }
};

namespace klt {

// Number of the longest row with this name.
constexpr int longestRow(std::string_view name) {
  int best = 0;
  unsigned fields = 0;
  for (const KLT_Row& row : kKltRows) {
    if (row.name != name || row.numFields < fields) continue;
    best = row.number;
    fields = row.numFields;
  }
  return best;
}

// How a field is passed to a handler.
enum class ArgumentKind : uint8_t { kNone, kScalar, kArray, kText, kString, kStrings };

constexpr ArgumentKind argumentKind(const KLT_Row& row, size_t f, bool isArray) {
  const KLT_Field& field = row.fields[f];
  if (field.isCount()) {  // the count of a text isn't passed
    return row.fields[f + 1].type() == KLT_Type::kChar ? ArgumentKind::kNone
                                                       : ArgumentKind::kScalar;
  }
  if (field.type() == KLT_Type::kChar) return ArgumentKind::kText;
  if (field.reference == "klt_string.id") {
    return isArray ? ArgumentKind::kStrings : ArgumentKind::kString;
  }
  return isArray ? ArgumentKind::kArray : ArgumentKind::kScalar;
}

template <KLT_Type Type>
constexpr auto scalarOf() {
  if constexpr (Type == KLT_Type::kU64 || Type == KLT_Type::kRaw64)
    return uint64_t{};
  else if constexpr (Type == KLT_Type::kI64)
    return int64_t{};
  else if constexpr (Type == KLT_Type::kF64)
    return double{};
  else if constexpr (Type == KLT_Type::kI32)
    return int32_t{};
  else
    return uint32_t{};
}
template <KLT_Type Type>
constexpr auto elementOf() {
  if constexpr (Type == KLT_Type::kU8)
    return uint8_t{};
  else
    return scalarOf<Type>();
}

constexpr bool isArrayField(const KLT_Row& row, size_t f) {
  size_t left = 0;
  for (size_t i = 0; i <= f; ++i) {
    if (row.fields[i].isCount())
      left = row.fields[i].covered();
    else if (i == f)
      return left != 0;
    else if (left != 0)
      --left;
  }
  return false;
}

template <int N, size_t F>
constexpr auto argumentTuple() {
  constexpr const KLT_Row& row = kKltRows[N - 1];
  constexpr KLT_Type type = row.fields[F].type();
  constexpr ArgumentKind kind = argumentKind(row, F, isArrayField(row, F));
  if constexpr (row.timed() && F == 0)
    return std::tuple<uint64_t>{};
  else if constexpr (kind == ArgumentKind::kNone)
    return std::tuple<>{};
  else if constexpr (kind == ArgumentKind::kText || kind == ArgumentKind::kString)
    return std::tuple<const char*>{};
  else if constexpr (kind == ArgumentKind::kStrings)
    return std::tuple<const char* const*>{};
  else if constexpr (kind == ArgumentKind::kArray)
    return std::tuple<const decltype(elementOf<type>())*>{};
  else
    return std::tuple<decltype(scalarOf<type>())>{};
}

template <class Tuple>
struct HandlerOfTuple;
template <class... Args>
struct HandlerOfTuple<std::tuple<Args...>> {
  using type = int (*)(void*, Args...);
};

template <int N, size_t... F>
constexpr auto handlerFor(std::index_sequence<F...>) {
  return typename HandlerOfTuple<decltype(std::tuple_cat(argumentTuple<N, F>()...))>::type{};
}

}  // namespace klt

// The handler type of a record name. The specializations are for records whose arguments differ
// from their fields.
template <KLT_NameText Name>
struct KLT_HandlerType {
  static constexpr int kRow = klt::longestRow(Name.view());
  static_assert(kRow != 0, "no record has this name");
  using type =
      decltype(klt::handlerFor<kRow>(std::make_index_sequence<kKltRows[kRow - 1].numFields>()));
};
template <>
struct KLT_HandlerType<"begin_of_history"> {  // time, categories and threads of the component
  using type = int (*)(void*, uint64_t, uint32_t, uint32_t, const PAL_Triplet*);
};
template <>
struct KLT_HandlerType<"end_of_history"> : KLT_HandlerType<"begin_of_history"> {};
template <>
struct KLT_HandlerType<"end_of_filter"> {  // time, dropped categories, dropped threads (none: all)
  using type = int (*)(void*, uint64_t, uint32_t, uint32_t, const PAL_Triplet*);
};
template <>
struct KLT_HandlerType<"communicator_definition"> {  // id, name, members in rank order, left_size
  using type = int (*)(void*, uint32_t, const char*, uint32_t, const PAL_Triplet*, int32_t);
};
template <>
struct KLT_HandlerType<"counter_definition"> {  // id, name, type | 0x80 for a differential counter,
                                                // lower and upper bound, thread, class, unit
  using type = int (*)(void*, uint32_t, const char*, uint32_t, const uint64_t*, uint32_t, uint32_t,
                       const char*);
};
template <>
struct KLT_HandlerType<"counter_value"> {  // time, thread, counters, values, which may be changed
  using type = int (*)(void*, uint64_t, uint32_t, uint32_t, const uint32_t*, uint64_t*);
};
template <>
struct KLT_HandlerType<"function_history"> {  // start of the window, thread, functions and
                                              // locations from the outermost
  using type = int (*)(void*, uint64_t, uint32_t, uint32_t, const uint32_t*, const uint32_t*);
};

template <KLT_NameText Name>
using KLT_Handler = typename KLT_HandlerType<Name>::type;

// One slot per record name; the caller doesn't want the records of a null slot.
struct KLT_HandlerTable {
  void* user_data = nullptr;  // first argument of every handler
  KLT_Handler<"all_to_all_communication"> all_to_all_communication = nullptr;
  KLT_Handler<"all_to_one_communication"> all_to_one_communication = nullptr;
  KLT_Handler<"begin_of_history"> begin_of_history = nullptr;
  KLT_Handler<"class_definition"> class_definition = nullptr;
  KLT_Handler<"clock_resolution"> clock_resolution = nullptr;
  KLT_Handler<"all_communication"> all_communication = nullptr;
  KLT_Handler<"collective_operation_definition"> collective_operation_definition = nullptr;
  KLT_Handler<"collop_statistics"> collop_statistics = nullptr;
  KLT_Handler<"collop_profile"> collop_profile = nullptr;
  KLT_Handler<"collop_raw_event"> collop_raw_event = nullptr;
  KLT_Handler<"comment"> comment = nullptr;
  KLT_Handler<"communicator_definition"> communicator_definition = nullptr;
  KLT_Handler<"counter_definition"> counter_definition = nullptr;
  KLT_Handler<"counter_value"> counter_value = nullptr;
  KLT_Handler<"custom_statistics_definition"> custom_statistics_definition = nullptr;
  KLT_Handler<"custom_statistics"> custom_statistics = nullptr;
  KLT_Handler<"duration"> duration = nullptr;
  KLT_Handler<"end_of_filter"> end_of_filter = nullptr;
  KLT_Handler<"end_of_history"> end_of_history = nullptr;
  KLT_Handler<"enter_function"> enter_function = nullptr;
  KLT_Handler<"enter_scope"> enter_scope = nullptr;
  KLT_Handler<"event_summary"> event_summary = nullptr;
  KLT_Handler<"file_io_begin"> file_io_begin = nullptr;
  KLT_Handler<"file_io_end"> file_io_end = nullptr;
  KLT_Handler<"file_io_file_definition"> file_io_file_definition = nullptr;
  KLT_Handler<"function_profile"> function_profile = nullptr;
  KLT_Handler<"function_definition"> function_definition = nullptr;
  KLT_Handler<"function_history"> function_history = nullptr;
  KLT_Handler<"function_statistics"> function_statistics = nullptr;
  KLT_Handler<"group_definition"> group_definition = nullptr;
  KLT_Handler<"info"> info = nullptr;
  KLT_Handler<"leave_function"> leave_function = nullptr;
  KLT_Handler<"leave_scope"> leave_scope = nullptr;
  KLT_Handler<"lw_statistics"> lw_statistics = nullptr;
  KLT_Handler<"message_raw_event"> message_raw_event = nullptr;
  KLT_Handler<"one_to_all_communication"> one_to_all_communication = nullptr;
  KLT_Handler<"one_to_one_communication"> one_to_one_communication = nullptr;
  KLT_Handler<"onetoone_profile"> onetoone_profile = nullptr;
  KLT_Handler<"onetoone_statistics"> onetoone_statistics = nullptr;
  KLT_Handler<"opaque_data"> opaque_data = nullptr;
  KLT_Handler<"report"> report = nullptr;
  KLT_Handler<"scl_definition"> scl_definition = nullptr;
  KLT_Handler<"file_definition"> file_definition = nullptr;
  KLT_Handler<"scope_definition"> scope_definition = nullptr;
  KLT_Handler<"process_declaration"> process_declaration = nullptr;
  KLT_Handler<"willy_definition"> willy_definition = nullptr;
  KLT_Handler<"willy_name"> willy_name = nullptr;
};

namespace klt {

// A slot of the table: the record's name and a pointer to the member, as constants.
template <KLT_NameText Name, auto Member>
struct Slot {
  static constexpr std::string_view name = Name.view();
  static constexpr auto member = Member;
};
template <class... Slots>
struct SlotList {
  static constexpr size_t size = sizeof...(Slots);
};

// All slots. The macro pairs each name with its member.
#define KLT_SLOT(name) Slot<#name, &KLT_HandlerTable::name>
using AllSlots = SlotList<
    KLT_SLOT(all_to_all_communication), KLT_SLOT(all_to_one_communication),
    KLT_SLOT(begin_of_history), KLT_SLOT(class_definition), KLT_SLOT(clock_resolution),
    KLT_SLOT(all_communication), KLT_SLOT(collective_operation_definition),
    KLT_SLOT(collop_statistics), KLT_SLOT(collop_profile), KLT_SLOT(collop_raw_event),
    KLT_SLOT(comment), KLT_SLOT(communicator_definition), KLT_SLOT(counter_definition),
    KLT_SLOT(counter_value), KLT_SLOT(custom_statistics_definition), KLT_SLOT(custom_statistics),
    KLT_SLOT(duration), KLT_SLOT(end_of_filter), KLT_SLOT(end_of_history), KLT_SLOT(enter_function),
    KLT_SLOT(enter_scope), KLT_SLOT(event_summary), KLT_SLOT(file_io_begin), KLT_SLOT(file_io_end),
    KLT_SLOT(file_io_file_definition), KLT_SLOT(function_profile), KLT_SLOT(function_definition),
    KLT_SLOT(function_history), KLT_SLOT(function_statistics), KLT_SLOT(group_definition),
    KLT_SLOT(info), KLT_SLOT(leave_function), KLT_SLOT(leave_scope), KLT_SLOT(lw_statistics),
    KLT_SLOT(message_raw_event), KLT_SLOT(one_to_all_communication),
    KLT_SLOT(one_to_one_communication), KLT_SLOT(onetoone_profile), KLT_SLOT(onetoone_statistics),
    KLT_SLOT(opaque_data), KLT_SLOT(report), KLT_SLOT(scl_definition), KLT_SLOT(file_definition),
    KLT_SLOT(scope_definition), KLT_SLOT(process_declaration), KLT_SLOT(willy_definition),
    KLT_SLOT(willy_name)>;
#undef KLT_SLOT
static_assert(sizeof(KLT_HandlerTable) == (1 + AllSlots::size) * sizeof(void*));

template <class Table, class F, class... Slots>
constexpr void forEachSlot(Table& table, F&& f, SlotList<Slots...>) {
  (f(Slots{}, table.*Slots::member), ...);
}
// Calls f(slot, handler) for each slot of a table and the handler in it.
template <class Table, class F>
constexpr void forEachSlot(Table& table, F&& f) {
  forEachSlot(table, std::forward<F>(f), AllSlots{});
}

}  // namespace klt

// A table with all slots empty, owned by the caller.
[[nodiscard]] KLT_HandlerTable* KLT_HandlerTableAlloc();
// A copy, owned by the caller.
[[nodiscard]] KLT_HandlerTable* KLT_HandlerTableCopy(const KLT_HandlerTable* table);
// Frees `table`, which may be null.
void KLT_HandlerTableFree(KLT_HandlerTable* table);
