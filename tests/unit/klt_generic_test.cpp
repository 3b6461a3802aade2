// Traces that state other layouts than the program's own: which row a layout becomes, and what
// handlers get for its records.
#include "klt/klt_generic.h"

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

// A record of any kind, most often a call, at a time that most often is a little later.
void addRecord(std::mt19937& random, tb::Stream& s, uint64_t& time) {
  const auto any = [&](uint32_t below) { return static_cast<uint32_t>(random() % below); };
  const uint64_t steps[] = {0, any(9), any(9), any(300), any(300), 0xffff, 0x10000, any(1 << 20)};
  time += steps[any(8)];
  if (any(500) == 0) time -= any(3) * (time / 3);
  s.at(time);
  const uint32_t thread = any(4);
  const std::function<void()> kinds[] = {
      [&] { s.message({.sender = thread, .receiver = any(4), .receiveTime = any(99)}); },
      [&] { s.message({.sender = thread, .tag = 0x10000, .senderScl = 1}); },
      [&] { s.message({.sender = thread, .size = any(9), .senderChecksum = any(2)}); },
      [&] {
        s.collective({.shape = static_cast<tb::Shape>(any(4)),
                      .communicator = 5,
                      .root = 1,
                      .rootBytes = any(9),
                      .start = {0, any(9)},
                      .duration = {any(9), 2},
                      .sent = {5, 6},
                      .received = {7, 8},
                      .scl = {0, any(2)}});
      },
      [&] {
        s.counters(thread, {{any(3), any(99)}, {2, time}});
      },
      [&] { s.enterScope(thread, any(3), 1).comment(thread, std::string(any(40), 'c')); },
      [&] { s.leaveScope(thread, any(3), 1).ioBegin(thread, 2, 3, any(100), any(2)); },
      [&] { s.rawMessage({.thread = thread, .communicator = 5}).opaque(thread, "\xff", any(2)); },
      [&] { s.rawCollective({.communicator = 5}).ioEnd(thread, 2, 3, any(100), any(2)); },
      [&] { s.leave(thread, any(2)); },
      [&] { s.leave(thread); },
      [&] { s.enter(thread, any(9), any(2)); },
  };
  kinds[std::min<size_t>(any(16), std::size(kinds) - 1)]();
}

// A trace of random records in a changed layout. Damage, if any, is at the ends of components.
tb::TraceFiles randomTrace(unsigned seed, bool isDamaged, const Change& change) {
  std::mt19937 random(seed);
  tb::Trace trace;
  change(trace.layout());
  trace.clock(0.25, 4).duration(1, 99).processes({1, 1, 1, 1}).defineClass(3, "A:B", 2);
  trace.function(7, "main", 3).operation(9, "Barrier", 2).scope(4, "loop", 3);
  trace.communicator(5, "pair", {{1, 2, 1}, {3, 3, 1}}, 3).group(6, "", {0, 1});
  trace.counter(8, "flops", {.type = 1, .low = 2, .high = ~uint64_t{0}, .thread = 1, .unit = "x"});
  trace.sourceFile(2, "a.c").scl(1, {{2, 10}, {2, 20}}).ioFile(3, "out", 5).willyName(1, "one");
  for (unsigned i = 0; i < 1 + random() % 3; ++i) {
    tb::Stream& s = trace.stream("x." + std::to_string(i), 0x81ff);
    if (random() % 2 == 0) s.anchorEvery(500 + random() % 9000);
    uint64_t time = random() % 1000;
    for (size_t n = random() % (seed % 8 == 0 ? 6000 : 600); n > 0; --n) addRecord(random, s, time);
    if (isDamaged) s.bytes(random() % 2 == 0 ? "\x1c" : "\x7f");
  }
  return trace.files();
}

// Changes that say the same in other words, but for comments and opaque data, which no row has
// then.
void disguise(tb::Layout& layout) {
  for (unsigned n = 1; n <= kKltRowCount; ++n) {
    layout.renumber(n, static_cast<uint8_t>(n + 100));
    layout.insert(n, "", {.name = "weight", .type = Type::F64});
    layout.insert(n, "", {.type = Type::U16, .isCount = true, .covers = 2});
    layout.insert(n, "", {.name = "extra", .type = Type::Char});
    layout.insert(n, "", {.name = "more", .type = Type::I64});
  }
  layout.insert(29, "function", {.name = "between", .type = Type::Raw32});
  layout.insert(22, "counters", {.name = "error", .type = Type::F32});
  layout.row(22).fields[2].covers = 3;
  layout.retype(57, "time", Type::U8).retype(48, "willy_gtp", Type::U8);
  layout.retype(57, "communicator", Type::U8).retype(57, "receive_time", Type::I8);
  layout.retype(4, "#1", Type::I8).retype(22, "counters", Type::U8);
  layout.retype(13, "resolution", Type::F32).retype(67, "line", Type::I16);
  layout.retype(3, "start_time", Type::I8).retype(19, "stride", Type::I8);
  std::swap(layout.row(30).fields[1], layout.row(30).fields[3]);
  layout.row(18).name = "remark";
  layout.drop(64, "data");
}

// What is read of the trace by the rows' own decoders, or by the generic one alone.
struct Result {
  Result(const tb::TraceFiles& files, const std::vector<KLT_Request>& requests, bool genericOnly) {
    setenv("KLT_GENERIC_ONLY", genericOnly ? "1" : "0", 1);
    OpenTrace open(files);
    Messages messages;
    lines = open.definitions;
    for (std::string& line : open.read(requests)) lines.push_back(std::move(line));
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
    std::vector<KLT_Request> requests(random() % 3);
    for (KLT_Request& request : requests) {
      request.start = random() % 2 == 0 ? 0 : random() % 9000000;
      request.end = random() % 2 == 0 ? reading::kOpenEnd : request.start + random() % 9000000;
      request.categories = random() % 2 == 0 ? 1 : static_cast<uint32_t>(random() % 0x1ff);
      if (random() % 3 == 0) request.threads = {{static_cast<int32_t>(random() % 4), 5, 1}};
    }
    const bool isDamaged = round % 4 == 0;
    const tb::TraceFiles files = randomTrace(round, isDamaged, [](tb::Layout&) {});
    const Result fast(files, requests, false);
    const Result generic(files, requests, true);
    ASSERT_EQ(reading::difference(fast.lines, generic.lines), "") << round;
    EXPECT_EQ(fast.statuses, generic.statuses);
    EXPECT_EQ(fast.text, generic.text);
    if (isDamaged) continue;
    const Result other(randomTrace(round, false, disguise), requests, false);
    ASSERT_EQ(
        reading::difference(reading::without(fast.lines, {"comment", "opaque_data"}), other.lines),
        "")
        << round;
  }
}

TEST_F(KltGeneric, TheStandardLayoutUsesEachRowsOwnDecoder) {
  for (const char* genericOnly : {"", "0", "1"}) {
    setenv("KLT_GENERIC_ONLY", genericOnly, 1);
    const OpenTrace open{tb::Trace()};
    for (const KLT_Row& row : kKltRows) {
      const KLT_DecoderEntry& entry = open.handle()->decoders->entries[row.number];
      EXPECT_TRUE(entry.layout->exact && entry.layout->row == &row) << row.number;
      if (row.filter == KLT_FilterClass::kNeverStored) {
        EXPECT_EQ(entry.parse, nullptr);
      } else {
        EXPECT_EQ(entry.parse == &KLT_ParseGeneric, *genericOnly == '1') << row.number;
      }
    }
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
      {29, 28, [](tb::Layout& l) { l.drop(29, "scl"); }},
      {36, 35, [](tb::Layout& l) { l.drop(36, "scl"); }},
      {57, 59, [](tb::Layout& l) { l.retype(57, "tag", Type::U32); }},
      {61, 60, [](tb::Layout& l) { l.drop(61, "sender_checksum"); }},
      {61, 58, [](tb::Layout& l) { l.retype(61, "tag", Type::U16); }},
      {1, 2, [](tb::Layout& l) { l.retype(1, "time", Type::U64); }},
      {2, 0, [](tb::Layout& l) { l.retype(2, "time", Type::F64); }},
      {28, 0, [](tb::Layout& l) { l.drop(28, "willy_gtp"); }},
      {28, 0, [](tb::Layout& l) { l.row(28).name = "enter_functio"; }},
      // All fields are there, but none in its place.
      {28, 0, [&](tb::Layout& l) { l.insert(28, "time", scl); }},
      // Nothing is left that the count would count.
      {3, 0, [](tb::Layout& l) { l.drop(3, "start_time").drop(3, "delta"); }},
  };
  for (const Case& c : cases) {
    tb::Trace trace;
    c.change(trace.layout());
    // A later layout of a number replaces the first; one of layouts means nothing.
    trace.extraIndex().bytes(
        "\0\x12\x07"
        "comment\1\xef\4time\0\0\0\1x\0"sv);
    const OpenTrace open(trace);
    const auto& entries = open.handle()->decoders->entries;
    const KLT_Row* row = entries[c.stored].layout->row;
    EXPECT_EQ(row == nullptr ? 0 : row->number, c.row) << &c - cases;
    EXPECT_EQ(entries[18].layout->fields.size(), 1U);
    EXPECT_EQ(entries[18].layout->row, nullptr);  // it has no text
    EXPECT_EQ(entries[0].parse, nullptr);
  }
}

TEST_F(KltGeneric, ATypeFeedsWhatCanHoldItsValues) {
  const std::string names = "char u8 u16 u32 u64 i8 i16 i32 i64 r8 - r32 r64 f32 f64 ";
  const std::string feeds[] = {"char",
                               "u8 u16 u32 u64 i8 i16 i32 i64 f32 f64",
                               "u16 u32 u64 i16 i32 i64 f32 f64",
                               "u32 u64 i32 f32 f64",
                               "u64 i64 f32 f64",
                               "u8 u16 u32 u64 i8 i16 i32 i64 f32 f64",
                               "u16 u32 u64 i16 i32 i64 f32 f64",
                               "u32 u64 i32 f32 f64",
                               "u64 i64 f32 f64",
                               "r8",
                               "",
                               "r32",
                               "r64",
                               "f32 f64",
                               "f64"};
  for (unsigned stored = 0; stored < std::size(feeds); ++stored) {
    std::string fed;
    size_t at = 0;
    for (unsigned wanted = 0; wanted < std::size(feeds); ++wanted) {
      const size_t end = names.find(' ', at);
      const bool isType = names[at] != '-';
      EXPECT_EQ(KLT_TypeIsValid(0xed + wanted), isType);
      if (isType && KLT_TypeFeeds(static_cast<KLT_Type>(0xed + stored),
                                  static_cast<KLT_Type>(0xed + wanted))) {
        fed += (fed.empty() ? "" : " ") + names.substr(at, end - at);
      }
      at = end + 1;
    }
    if (!feeds[stored].empty()) {
      EXPECT_EQ(fed, feeds[stored]);
    }
  }
  EXPECT_FALSE(KLT_TypeIsValid(0xec) || KLT_TypeIsValid(0xfc));
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
    stream.ioBegin(1, 9, 2, 8).record(52, {{"willy_gtp", 1}, {"count", 2}}).enter(0, ~uint32_t{0});
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
    const char* about;
    Type type;
    uint64_t count;
    const char* message;
  };
  const char* const missing = "bytes missing";
  const char* const corrupt = "Corrupted data";
  const char* const wrong = "Found wrong field-type when filtering counter_value";
  const Case cases[] = {
      {"negative, 8 bits", Type::I8, 0xff, corrupt},
      {"negative, 16 bits", Type::I16, 0xffff, corrupt},
      {"negative, 64 bits", Type::I64, ~uint64_t{0}, corrupt},
      {"single", Type::F32, 2, wrong},
      {"double", Type::F64, 2, wrong},
      {"more than the file", Type::U32, 0xffffffff, missing},
      {"more than memory", Type::U64, uint64_t{1} << 50, missing},
      {"more than 64 bits of bytes", Type::U64, uint64_t{1} << 63, corrupt},
      {"one too many", Type::U8, 3, missing},
  };
  for (const Case& c : cases) {
    tb::Trace trace;
    trace.layout().retype(22, "#1", c.type);
    const std::vector<uint64_t> two{1, 2};
    trace.stream("f", tb::COUNTERS)
        .record(22, {{"#1", c.count}, {"values", two}, {"counters", two}});
    // Those of the rows' own decoders aren't, either.
    trace.declarations().record(65, {{"#1", 65535}, {"thread_numbers_gtp", 1}});
    trace.stream("o", tb::ANY).at(9).record(64, {{"#1", 0xffffffff}, {"data", "ab"}});
    Messages messages;
    OpenTrace open(trace);
    EXPECT_EQ(only(open.read(), {"counter_value", "opaque_data"}), Lines{}) << c.about;
    EXPECT_EQ(open.statuses,
              std::vector<int>{c.message == missing ? KLT_STATUS_FINISHED : KLT_STATUS_ABORTING})
        << c.about;
    EXPECT_LE(largest, 0x20000U) << c.about;
    const std::string text = messages.take();
    EXPECT_NE(text.find(c.message), std::string::npos) << text;
    EXPECT_NE(text.find(".dcl, 262136 bytes missing"), std::string::npos) << text;
  }
}

}  // namespace
