// Traces that state other layouts than the program's own: which row a layout becomes, and what
// handlers get for its records.
#include "klt/index/klt_generic.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <random>
#include <regex>
#include <string>
#include <string_view>
#include <vector>

#include "tests/unit/klt_reading.h"
#include "util/pal_mem.h"

namespace {

using reading::Lines;
using reading::Messages;
using reading::only;
using reading::OpenTrace;
using tb::Type;
using namespace std::string_view_literals;
using Change = std::function<void(tb::Layout&)>;

class KltGeneric : public testing::Test {
 protected:
  ~KltGeneric() override {
    unsetenv("KLT_GENERIC_ONLY");
    PAL_allocators = allocators_;
  }

 private:
  const PAL_AllocatorTable allocators_ = PAL_allocators;
};

// A record of the row with small values, of which arrays have up to three.
tb::Values randomValues(std::mt19937& random, const tb::Row& row) {
  tb::Values values;
  const size_t n = random() % 4;
  unsigned covered = 0;
  for (const tb::Field& field : row.fields) {
    if (field.isCount) covered = field.covers;
    if (field.isCount || field.name == "time") continue;
    std::vector<uint64_t> numbers(covered == 0 ? 1 : n);
    for (uint64_t& number : numbers) number = 1 + random() % 7;
    if (covered != 0) --covered;
    if (!numbers.empty()) values.emplace_back(field.name, numbers);
  }
  return values;
}

// Whether records of the row are among those that handlers get.
bool isDelivered(const KLT_Row& row) {
  const KLT_FilterClass filter = row.filter;
  return filter <= KLT_FilterClass::kRawCollective
             ? !row.movesTimeOnly()
             : (filter >= KLT_FilterClass::kThreadTable && filter <= KLT_FilterClass::kDefinition);
}

// Records of all kinds at times that most often are a little later, in the layout after a change.
tb::TraceFiles randomTrace(unsigned seed, const Change& change, std::string_view damage = "") {
  std::mt19937 random(seed);
  const tb::Layout standard;
  tb::Trace trace;
  change(trace.layout());
  for (const char* text : {"a", "b", "c"}) (void)trace.text(text);
  trace.processes({1, 1, 1, 1}).communicator(5, "pair", {{1, 2, 1}, {3, 3, 1}}, 3);
  for (const KLT_Row& row : kKltRows) {
    if (!isDelivered(row) || row.categories() != klt::kDeclarations) continue;
    trace.declarations().record(row.number, randomValues(random, standard.row(row.number)));
  }
  tb::Stream& s = trace.stream("x", 0xffff);
  uint64_t time = random() % 1000;
  for (size_t n = random() % (seed % 8 == 0 ? 6000 : 600); n > 0; --n) {
    const KLT_Row& row = kKltRows[random() % kKltRowCount];
    if (!isDelivered(row) || row.categories() == klt::kDeclarations) continue;
    const uint64_t steps[] = {0, random() % 9, random() % 300, 0xffff, 0x10000, random() % 999999};
    time += random() % 500 == 0 ? 0 - time / 3 : steps[random() % 6];
    s.at(time).record(row.number, randomValues(random, standard.row(row.number)));
  }
  s.bytes(damage);
  return trace.files();
}

// The same in other words, but for comments and opaque data, which are no rows' any more.
void disguise(tb::Layout& layout) {
  for (unsigned n = 1; n <= kKltRowCount; ++n) {
    layout.row(n).number = static_cast<uint8_t>(n + 100);
    layout.insert(n, "", {.name = "weight", .type = Type::F64});
    layout.insert(n, "", {.name = "#", .type = Type::U16, .isCount = true, .covers = 2});
    layout.insert(n, "", {.name = "extra", .type = Type::Char});
    layout.insert(n, "", {.name = "more", .type = Type::I64});
  }
  layout.insert(29, "function", {.name = "between", .type = Type::Raw32});
  layout.insert(22, "counters", {.name = "error", .type = Type::F32});
  layout.row(22).fields[2].covers = 3;
  layout.retype(57, "time", Type::U8).retype(48, "willy_gtp", Type::U8);
  layout.retype(57, "communicator", Type::U8).retype(57, "receive_time", Type::I8);
  layout.retype(4, "#1", Type::I8).retype(22, "counters", Type::U8);
  layout.retype(13, "resolution", Type::F32).retype(35, "bytes", Type::I16);
  layout.retype(3, "start_time", Type::I8).retype(19, "stride", Type::I8);
  std::swap(layout.row(30).fields[1], layout.row(30).fields[3]);
  layout.row(18).name = "remark";
  layout.drop(64, "data");
}

// What is read of a trace by the rows' own decoders, or by the generic one alone.
struct Result {
  Result(const tb::TraceFiles& files, const KLT_Request& request, bool genericOnly) {
    setenv("KLT_GENERIC_ONLY", genericOnly ? "1" : "0", 1);
    OpenTrace open(files);
    Messages messages;
    EXPECT_EQ(open.handle()->decoders->entries[67].parse == &KLT_ParseGeneric, genericOnly);
    lines = open.definitions;
    const Lines events = open.read({request});
    lines.insert(lines.end(), events.begin(), events.end());
    statuses = open.statuses;
    // Each says in its own way how many bytes are missing.
    const std::regex differs(open.handle()->base + "|[0-9]+ bytes missing");
    text = std::regex_replace(messages.take(), differs, "");
  }

  Lines lines;
  std::vector<int> statuses;
  std::string text;
};

TEST_F(KltGeneric, WhateverTheLayoutAndTheDecodersTheLinesAreTheSame) {
  std::mt19937 random(21);
  for (unsigned round = 0; round < 60; ++round) {
    KLT_Request request = reading::window(
        0, reading::kOpenEnd, round % 3 == 0 ? 0xffff : static_cast<uint32_t>(random() % 0xffff));
    if (random() % 2 == 0) request.start = random() % 9000000;
    if (random() % 2 == 0) request.end = request.start + random() % 9000000;
    if (random() % 3 == 0) request.threads = {{static_cast<int32_t>(random() % 4), 5, 1}};
    const std::string damage = round % 8 == 0 ? "\x1c" : round % 8 == 4 ? "\x7f" : "";
    const tb::TraceFiles files = randomTrace(
        round, [](tb::Layout&) {}, damage);
    const Result fast(files, request, false);
    const Result generic(files, request, true);
    ASSERT_EQ(reading::difference(fast.lines, generic.lines), "") << round;
    EXPECT_EQ(fast.statuses, generic.statuses);
    EXPECT_EQ(fast.text, generic.text);
    if (!damage.empty()) continue;
    const Result other(randomTrace(round, disguise), request, false);
    ASSERT_EQ(
        reading::difference(reading::without(fast.lines, {"comment", "opaque_data"}), other.lines),
        "")
        << round;
  }
}

TEST_F(KltGeneric, TheNearestRowOfTheNameIsChosen) {
  const tb::Field scl{.name = "scl", .type = Type::U32};
  struct Case {
    unsigned stored, row;
    Change change;
  };
  const Case cases[] = {
      {28, 29, [&](tb::Layout& l) { l.insert(28, "", scl); }},
      {36, 35, [](tb::Layout& l) { l.drop(36, "scl"); }},
      {57, 59, [](tb::Layout& l) { l.retype(57, "tag", Type::U32); }},
      {61, 58, [](tb::Layout& l) { l.retype(61, "tag", Type::U16); }},
      {2, 0, [](tb::Layout& l) { l.retype(2, "time", Type::F64); }},
      {28, 0, [](tb::Layout& l) { l.drop(28, "willy_gtp"); }},
      {28, 0, [](tb::Layout& l) { l.row(28).name = "enter_functio"; }},
      {13, 0, [](tb::Layout& l) { l.retype(13, "resolution", Type::Raw64); }},
      {57, 57, [](tb::Layout& l) { l.retype(57, "receive_time", Type::U16); }},
      {28, 0, [](tb::Layout& l) { l.retype(28, "function", Type::I64); }},
      {28, 0, [](tb::Layout& l) { l.retype(28, "function", Type::F32); }},
      {22, 0, [](tb::Layout& l) { l.retype(22, "values", Type::U64); }},
      // All fields are there, but none in its place.
      {28, 0, [&](tb::Layout& l) { l.insert(28, "time", scl); }},
      // Nothing is left that the count would count.
      {3, 0, [](tb::Layout& l) { l.drop(3, "start_time").drop(3, "delta"); }},
  };
  for (const auto& [stored, row, change] : cases) {
    SCOPED_TRACE(stored);
    tb::Trace trace;
    change(trace.layout());
    const KLT_Row* const nearest = OpenTrace(trace).handle()->decoders->entries[stored].layout->row;
    EXPECT_EQ(nearest == nullptr ? 0 : nearest->number, row);
  }
}

// A later layout of a number replaces the first; one of layouts means nothing.
TEST_F(KltGeneric, StandardLayoutsHaveDecodersOfTheirOwn) {
  tb::Trace trace;
  trace.extraIndex().bytes(
      "\0\x12\x07"
      "comment\1\xef\4time\0\0\0\1x\0"sv);
  const OpenTrace open(trace);
  const auto& entries = open.handle()->decoders->entries;
  for (const KLT_Row& row : kKltRows) {
    if (row.number == 18 || row.number == 72) continue;
    const KLT_DecoderEntry& entry = entries[row.number];
    EXPECT_TRUE(entry.layout->exact && entry.parse != &KLT_ParseGeneric) << row.number;
    EXPECT_EQ(entry.layout->row, &row);
  }
  EXPECT_EQ(entries[18].layout->fields.size(), 1U);
  EXPECT_EQ(entries[18].layout->row, nullptr);  // it has no text
  EXPECT_TRUE(entries[0].parse == nullptr && entries[72].parse == nullptr);
}

// Of what is left out, and of negative numbers in narrow fields.
TEST_F(KltGeneric, FieldsHaveTheirDefaultsAndSigns) {
  for (const Type type : {Type::I8, Type::I16, Type::I32}) {
    tb::Trace trace;
    tb::Layout& layout = trace.layout();
    layout.drop(19, "left_size").drop(19, "stride").drop(71, "skew").drop(71, "pid");
    layout.drop(35, "type").drop(35, "bytes").drop(52, "bytes_sent").drop(52, "comm_size");
    layout.insert(25, "end", {.name = "begin", .type = Type::U64}).drop(25, "start");
    layout.drop(3, "start_time").retype(28, "function", type).retype(13, "resolution", type);
    trace.clock(-2, 10).communicator(5, "c", {{0, 4, 2}, {7, 7, 3}});
    trace.declarations().record(71, {{"tid", 4}, {"offset", 2.0}}).record(25, {{"end", 6}});
    tb::Stream& stream =
        trace.stream("f", tb::FILEIO | tb::STATISTICS | tb::COLLOPS | tb::FUNCTIONS);
    stream.record(35, {{"willy_gtp", 1}, {"file", 2}})
        .record(52, {{"willy_gtp", 1}, {"count", 2}})
        .enter(0, ~uint32_t{0});
    stream.collective({.communicator = 5, .operation = 9, .start = {1, 2}, .duration = {3, 4}});
    OpenTrace open(trace);
    EXPECT_EQ(
        open.definitions,
        (Lines{"clock_resolution -2.000000 10", "communicator_definition 5 'c' 2 0:4:1 7:7:1 -2",
               "willy_definition 0 (null) (null) 0 4 2.000000 1.000000", "duration 0 6"}));
    EXPECT_EQ(
        reading::without(open.read(), {"end_of_filter"}),
        (Lines{"file_io_begin 0 1 1 2 0 0", "lw_statistics 1 0 0 4294967295 0 2 0 0 0 0 0 0",
               "enter_function 0 0 4294967295 0", "all_communication 0 5 9 2 [0 0] [3 4] [null]"}));
  }
}

TEST_F(KltGeneric, ACountIsNotBelievedBeforeItsElementsAreThere) {
  static size_t largest = 0;
  PAL_MemInit();
  PAL_allocators.realloc = [](void* block, size_t bytes) {
    largest = std::max(largest, bytes);
    return std::realloc(block, bytes);
  };
  struct Case {
    Type type;
    uint64_t count;
    const char* message;
  };
  const char* const missing = "bytes missing";
  const char* const corrupt = "Corrupted data";
  const char* const wrong = "Found wrong field-type when filtering counter_value";
  const Case cases[] = {
      {Type::I8, 0xff, corrupt},
      {Type::I64, ~uint64_t{0}, corrupt},
      {Type::F32, 2, wrong},
      {Type::F64, 2, wrong},
      {Type::U32, 0xffffffff, missing},
      {Type::U64, uint64_t{1} << 50, missing},
      {Type::U64, uint64_t{1} << 63, corrupt},  // of bytes more than 64 bits
      {Type::U8, 3, missing},                   // one too many
  };
  for (const auto& [type, count, message] : cases) {
    SCOPED_TRACE(count);
    tb::Trace trace;
    trace.layout().retype(22, "#1", type);
    const std::vector<uint64_t> two{1, 2};
    trace.stream("f", tb::COUNTERS).record(22, {{"#1", count}, {"values", two}, {"counters", two}});
    // Those of the rows' own decoders aren't, either.
    trace.declarations().record(65, {{"#1", 65535}, {"thread_numbers_gtp", 1}});
    trace.stream("o", tb::ANY).at(9).record(64, {{"#1", 0xffffffff}, {"data", "ab"}});
    Messages messages;
    OpenTrace open(trace);
    EXPECT_EQ(only(open.read(), {"counter_value", "opaque_data"}), Lines{});
    EXPECT_EQ(open.statuses,
              std::vector<int>{message == missing ? KLT_STATUS_FINISHED : KLT_STATUS_ABORTING});
    EXPECT_LE(largest, 0x20000U);
    const std::string text = messages.take();
    EXPECT_NE(text.find(message), std::string::npos) << text;
    EXPECT_NE(text.find(".dcl, 262136 bytes missing"), std::string::npos) << text;
  }
}

}  // namespace
