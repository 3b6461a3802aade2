// The record layout that the builder writes unless a test changes it, and the reading of its text.
//
// One line per row: number, name, fields. "!" marks a field that a reader can't do without,
// "#n:type" a count that covers the next n fields, "@name" the definition that a value refers to.
#include "tests/builder/layout.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>

namespace tb {
namespace {

constexpr std::string_view kRowText = R"(1 add_time: time u32!
2 add_time: time u64!
3 all_communication: time u16!; communicator u16@comm; type u8!@op; #2:u16; start_time u64;
  delta u64
4 all_communication: time u16!; communicator u16@comm; type u8!@op; #3:u16; start_time u64;
  delta u64; scl u32@scl
5 all_to_all_communication: time u16!; communicator u16@comm; type u8!@op; #4:u16; start_time u64;
  delta u64; send_size u32; receive_size u32
6 all_to_all_communication: time u16!; communicator u16@comm; type u8!@op; #5:u16; start_time u64;
  delta u64; send_size u32; receive_size u32; scl u32@scl
7 all_to_one_communication: time u16!; receiver_gtp u32!; recvd u32; communicator u16@comm;
  type u8!@op; #3:u16; start_time u64; delta u64; send_size u32
8 all_to_one_communication: time u16!; receiver_gtp u32!; recvd u32; communicator u16@comm;
  type u8!@op; #4:u16; start_time u64; delta u64; send_size u32; scl u32@scl
9 anchor: time_prev u64!; offset u64!
10 anchor_file_declaration: anchor_file u32!@part; data_file u32!@part; categories u32!;
  willies u16!@willies
11 begin_of_history: time u16!
12 class_definition: id u32!; name u32@text; nameself u32@text; parent u32@class
13 clock_resolution: resolution f64!; eventbits u32
14 collective_operation_definition: id u8!; #1:u16; name char; type u8
15 collop_profile: type u8!@op; root_gtp u32!; comm u16@comm; #13:u16; count_exch u32!;
  min_bytes_sent u32!; max_bytes_sent u32!; sum_bytes_sent u32!; min_bytes_recvd u32!;
  max_bytes_recvd u32!; sum_bytes_recvd u32!; min_rate f64!; max_rate f64!; avg_rate f64;
  min_duration u64!; max_duration u64!; sum_duration u64!
16 collop_raw_event: time u16!; willy_gtp u32!; kind u32; operation u32!; comm u16@comm;
  counter u32; root_gtp u32!; send_size u32; receive_size u32; endtime i64!; scl u32@scl
17 collop_statistics: numprocs u32!; type u8!@op; count u32!
18 comment: time u16!; willy_gtp u32!; #1:u16; text char!
19 communicator_definition: id u16!; #1:u16; name char; #3:u16; first_id_gtp u32!;
  last_id_gtp u32!; stride i32; left_size i32
20 counter_definition: id u16!; name u32!@text; type u8!; do_diff u8!; lower_bound raw64!;
  upper_bound raw64!; willy_gtp u32!; class u32@class; #1:u16; unit char
21 counter_history: #2:u8; counters u16!@counter; values raw64!
22 counter_value: time u16!; willy_gtp u32!; #2:u8; values raw64!; counters u16!@counter
23 custom_statistics: stats_handle u16!@stats; name u32@text; #1:u16; value f64!
24 custom_statistics_definition: id u16!; name u32@text; #2:u16; label u32@text; unit u32!@text
25 duration: start u64; end u64!
26 end_of_filter: time u16!; categories u32!; #1:u16; willies u32!
27 end_of_history: time u16!
28 enter_function: time u16!; willy_gtp u32!; function u32!@function
29 enter_function: time u16!; willy_gtp u32!; function u32!@function; scl u32@scl
30 enter_scope: time u16!; willy_gtp u32!; scope u32!@scope; seqnr u32!
31 enter_scope: time u16!; willy_gtp u32!; scope u32!@scope; seqnr u32!; scl u32@scl
32 event_summary: num_funcs u32; num_one_to_ones u32; num_collectives u32; num_scopes u32;
  num_counters u32
33 file_declaration: id u32!; filetype u8; #1:u16; suffix char!
34 file_definition: id u32!; #1:u16; file char!
35 file_io_begin: time u16!; willy_gtp u32!; type u8; file u16!@io; bytes u32
36 file_io_begin: time u16!; willy_gtp u32!; type u8; file u16!@io; bytes u32; scl u32!@scl
37 file_io_end: time u16!; willy_gtp u32!; type u8; file u16!@io; bytes u32
38 file_io_end: time u16!; willy_gtp u32!; type u8; file u16!@io; bytes u32; scl u32!@scl
39 file_io_file_definition: id u16!; communicator u16@comm; name u32@text
40 function_definition: id u32!; name u32!@text; class u32@class
41 function_history: willy_gtp u32!; #1:u16; function_stack u32!@function
42 function_history: willy_gtp u32!; #2:u16; function_stack u32!@function; scls u32@scl
43 function_profile: willy_gtp u32!; function u32!@function; count u32!; min_self u64!;
  max_self u64!; total_self u64!; min_inclusive u64!; max_inclusive u64!; total_inclusive u64!
44 function_statistics: function u32!@function; willy_gtp u32!; calls u32!; min_self u64!;
  max_self u64!; total_self u64!; min_inclusive u64!; max_inclusive u64!; total_inclusive u64!
45 group_definition: id u32!; #1:u16; name char!; #1:u16; willies_gtp u32!
46 history: #3:u8; file u32!@part; offset u64!; prevtime u64!
47 info: info_class u32@class; #1:u16; info char!
48 leave_function: time u16!; willy_gtp u32!
49 leave_function: time u16!; willy_gtp u32!; scl u32@scl
50 leave_scope: time u16!; willy_gtp u32!; scope u32!@scope; seqnr u32!
51 leave_scope: time u16!; willy_gtp u32!; scope u32!@scope; seqnr u32!; scl u32@scl
52 lw_statistics: willy_gtp u32!; function u32!@function; receiver_gtp u32!; bytes_sent u32;
  comm_size i32; count u32!; minTicksIncl u64!; maxTicksIncl u64!; sumTicksIncl u64!;
  minTicksExcl u64!; maxTicksExcl u64!; sumTicksExcl u64!
53 message_raw_event: time u16!; willy_gtp u32!; kind u32; other_gtp u32!; tag u16; size u32;
  comm u16@comm; function u32@function; scl u32@scl
54 message_raw_event: time u16!; willy_gtp u32!; kind u32; other_gtp u32!; tag u32; size u32;
  comm u16@comm; function u32@function; scl u32@scl
55 one_to_all_communication: time u16!; sender_gtp u32!; sent u32; communicator u16@comm;
  type u8!@op; #3:u16; start_time u64; delta u64; receive_size u32
56 one_to_all_communication: time u16!; sender_gtp u32!; sent u32; communicator u16@comm;
  type u8!@op; #4:u16; start_time u64; delta u64; receive_size u32; scl u32@scl
57 one_to_one_communication: time u16!; sender_gtp u32!; receive_time i64; receiver_gtp u32!;
  communicator u16@comm; size u32; tag u16; sender_function u32@function;
  receiver_function u32@function
58 one_to_one_communication: time u16!; sender_gtp u32!; receive_time i64; receiver_gtp u32!;
  communicator u16@comm; size u32; tag u16; sender_scl u32@scl; receiver_scl u32@scl;
  sender_function u32@function; receiver_function u32@function
59 one_to_one_communication: time u16!; sender_gtp u32!; receive_time i64; receiver_gtp u32!;
  communicator u16@comm; size u32; tag u32; sender_function u32@function;
  receiver_function u32@function
60 one_to_one_communication: time u16!; sender_gtp u32!; receive_time i64; receiver_gtp u32!;
  communicator u16@comm; size u32; tag u32; sender_scl u32@scl; receiver_scl u32@scl;
  sender_function u32@function; receiver_function u32@function
61 one_to_one_communication: time u16!; sender_gtp u32!; receive_time i64; receiver_gtp u32!;
  communicator u16@comm; size u32; tag u32; sender_scl u32@scl; receiver_scl u32@scl;
  sender_checksum u32; receiver_checksum u32; sender_function u32@function;
  receiver_function u32@function
62 onetoone_profile: sender_gtp u32!; receiver_gtp u32!; funcsender u32!; funcreceiver u32!;
  tag u32!; comm u16@comm; size u32!; count u32!; sum_time i64!; min_time i64!; max_time i64!
63 onetoone_statistics: sender u16!; receiver u16!; count u32!; min_size u32!; max_size u32!;
  total u32!
64 opaque_data: time u16!; willy_gtp u32!; #1:u32; data u8!; scl u32@scl
65 process_declaration: #1:u16; thread_numbers_gtp u32!
66 report: time u16!; willy_gtp u32!; type u32@text; level u32@text; description u32@text; #6:u32;
  times u64!; willys_gtp u32!; headers u32@text; functions u32@function; calls u32@text;
  scls u32@scl
67 scl_definition: id u32!; #4:u8; file u32@file; line u32; symbol u32@text; object u32@text
68 scope_definition: id u32!; name u32!@text; class u32@class; scl1 u32@scl; scl2 u32@scl
69 klt_string: id u32!; #1:u16; string char!
70 sub_time: time u64!
71 willy_definition: willy_gtp u32!; hostname u32!@text; ip u32!@text; pid u32; tid u64;
  offset f64; skew f64
72 willy_id: gtp u32!
73 willy_list: id u16!; #3:u16; first_id_gtp u32!; last_id_gtp u32!; stride i32
74 willy_name: willy_gtp u32!; name u32!@text
)";

struct Named {
  std::string_view shortName;
  std::string_view text;
};

constexpr Named kReferences[] = {
    {"class", "class_definition.id"},
    {"comm", "communicator_definition.id"},
    {"counter", "counter_definition.id"},
    {"file", "file_definition.id"},
    {"function", "function_definition.id"},
    {"io", "file_io_file_definition.id"},
    {"op", "collective_operation_definition.id"},
    {"part", "file_declaration.id"},
    {"scl", "scl_definition.id"},
    {"scope", "scope_definition.id"},
    {"stats", "custom_statistics_definition.id"},
    {"text", "klt_string.id"},
    {"willies", "willy_list.id"},
};

struct NamedType {
  std::string_view name;
  Type type;
};

constexpr NamedType kTypes[] = {
    {"char", Type::Char}, {"u8", Type::U8},     {"u16", Type::U16},     {"u32", Type::U32},
    {"u64", Type::U64},   {"i8", Type::I8},     {"i16", Type::I16},     {"i32", Type::I32},
    {"i64", Type::I64},   {"raw8", Type::Raw8}, {"raw32", Type::Raw32}, {"raw64", Type::Raw64},
    {"f32", Type::F32},   {"f64", Type::F64},
};

[[noreturn]] void misuse(std::string_view what, std::string_view about) {
  std::fprintf(stderr, "trace builder: %.*s: %.*s\n", static_cast<int>(what.size()), what.data(),
               static_cast<int>(about.size()), about.data());
  std::abort();
}

Type typeNamed(std::string_view name) {
  for (const NamedType& entry : kTypes) {
    if (entry.name == name) return entry.type;
  }
  misuse("no such type", name);
}

std::string_view referenceNamed(std::string_view shortName) {
  for (const Named& entry : kReferences) {
    if (entry.shortName == shortName) return entry.text;
  }
  misuse("no such reference", shortName);
}

// Takes what stands before `end` off the front of `text`, and `end` with it.
std::string_view take(std::string_view& text, std::string_view end) {
  const size_t at = text.find(end);
  const std::string_view part = text.substr(0, at);
  text.remove_prefix(at == std::string_view::npos ? text.size() : at + end.size());
  return part;
}

int numberIn(std::string_view text) {
  int number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  if (result.ec != std::errc() || result.ptr != text.data() + text.size()) {
    misuse("not a number", text);
  }
  return number;
}

std::string_view trimmed(std::string_view text) {
  const size_t first = text.find_first_not_of(" \n");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \n") - first + 1);
}

Field parseField(std::string_view text) {
  Field field;
  if (text.starts_with('#')) {
    text.remove_prefix(1);
    field.isCount = true;
    field.covers = static_cast<uint8_t>(numberIn(take(text, ":")));
    field.type = typeNamed(text);
    return field;
  }
  field.name = take(text, " ");
  std::string_view type = take(text, "@");
  if (type.ends_with('!')) type.remove_suffix(1);
  field.type = typeNamed(type);
  if (!text.empty()) field.reference = referenceNamed(text);
  return field;
}

// A row begins at the start of a line with its number and ends before the next such line.
std::vector<Row> parseRows(std::string_view text) {
  std::vector<Row> rows;
  while (!text.empty()) {
    size_t end = 0;
    do {
      end = text.find('\n', end) + 1;
    } while (end < text.size() && text[end] == ' ');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end);

    Row row;
    row.number = static_cast<uint8_t>(numberIn(take(line, " ")));
    row.name = take(line, ": ");
    while (!line.empty()) row.fields.push_back(parseField(trimmed(take(line, ";"))));
    rows.push_back(row);
  }
  return rows;
}

// The position of a field by name; "#1" is the first count.
size_t findField(const Row& row, std::string_view name) {
  int wanted = name.starts_with('#') ? numberIn(name.substr(1)) : 0;
  for (size_t i = 0; i < row.fields.size(); ++i) {
    const Field& field = row.fields[i];
    if (wanted > 0 ? field.isCount && --wanted == 0 : !field.isCount && field.name == name) {
      return i;
    }
  }
  misuse(row.name + " has no such field", name);
}

}  // namespace

unsigned bytesOf(Type type) {
  switch (type) {
    case Type::Char:
    case Type::U8:
    case Type::I8:
    case Type::Raw8:
      return 1;
    case Type::U16:
    case Type::I16:
      return 2;
    case Type::U32:
    case Type::I32:
    case Type::Raw32:
    case Type::F32:
      return 4;
    case Type::U64:
    case Type::I64:
    case Type::Raw64:
    case Type::F64:
      return 8;
  }
  misuse("type without a width", "");
}

Layout::Layout() : rows_(parseRows(kRowText)) {}

Row& Layout::row(unsigned number) {
  if (number < 1 || number > rows_.size()) misuse("no such row", std::to_string(number));
  return rows_[number - 1];
}

const Row& Layout::row(unsigned number) const { return const_cast<Layout*>(this)->row(number); }

Layout& Layout::renumber(unsigned number, uint8_t numberInFiles) {
  row(number).number = numberInFiles;
  return *this;
}

Layout& Layout::omit(unsigned number) {
  row(number).listed = false;
  return *this;
}

Layout& Layout::retype(unsigned number, std::string_view field, Type type) {
  Row& changed = row(number);
  changed.fields[findField(changed, field)].type = type;
  return *this;
}

Layout& Layout::drop(unsigned number, std::string_view field) {
  Row& changed = row(number);
  const size_t at = findField(changed, field);
  // A count loses what it covered; one that covers nothing any more goes too.
  for (size_t i = 0; i < at; ++i) {
    Field& count = changed.fields[i];
    if (!count.isCount || i + count.covers < at) continue;
    --count.covers;
    changed.fields.erase(changed.fields.begin() + static_cast<std::ptrdiff_t>(at));
    if (count.covers == 0)
      changed.fields.erase(changed.fields.begin() + static_cast<std::ptrdiff_t>(i));
    return *this;
  }
  changed.fields.erase(changed.fields.begin() + static_cast<std::ptrdiff_t>(at));
  return *this;
}

Layout& Layout::insert(unsigned number, std::string_view before, const Field& field) {
  Row& changed = row(number);
  const size_t at = before.empty() ? changed.fields.size() : findField(changed, before);
  changed.fields.insert(changed.fields.begin() + static_cast<std::ptrdiff_t>(at), field);
  return *this;
}

std::string Layout::block() const {
  std::string block;
  for (const Row& row : rows_) {
    if (!row.listed) continue;
    block += '\0';
    block += static_cast<char>(row.number);
    block += static_cast<char>(row.name.size());
    block += row.name;
    block += static_cast<char>(row.fields.size());
    for (const Field& field : row.fields) {
      if (field.isCount) block += '\xfe';
      block += static_cast<char>(field.type);
      if (field.isCount) {
        block += static_cast<char>(field.covers);
        continue;
      }
      block += static_cast<char>(field.name.size());
      block += field.name;
      block += static_cast<char>(field.reference.size());
      block += field.reference;
    }
  }
  return block;
}

}  // namespace tb
