// Traces that state other layouts than the program's own: which row a layout becomes, and what
// handlers get for its records.
#include "klt/klt_generic.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <random>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "tests/unit/klt_reading.h"
#include "util/pal_mem.h"

namespace {

using reading::difference;
using reading::Lines;
using reading::Messages;
using reading::only;
using reading::OpenTrace;
using tb::Type;

// Records of most kinds, with every field in use.
void fill(tb::Trace& trace) {
  trace.clock(0.25, 4).duration(1, 99).processes({2, 1}).defineClass(3, "A:B", 2);
  trace.function(7, "main", 3).operation(9, "Barrier", 2).scope(4, "loop", 3);
  trace.communicator(5, "world", {{0, 4, 2}, {9, 9, 1}}, 3).group(6, "", {0, 1});
  trace.counter(8, "flops", {.type = 1, .low = 2, .high = ~uint64_t{0}, .thread = 1, .unit = "x"});
  trace.sourceFile(2, "a.c").scl(1, {{2, 10}, {2, 20}}).ioFile(3, "out", 5).willyName(1, "one");
  tb::Stream& e = trace.stream("e", 0x1ef, {0, 1});
  e.at(10).enter(0, 7).at(12).enter(1, 7, 1).comment(0, "here").opaque(1, "\xff\x01", 1);
  e.at(0x20000).enterScope(0, 4, 1).enterScope(1, 4, 2, 1).ioBegin(0, 2, 3, 100, 1);
  e.at(0x20001)
      .ioEnd(0, 2, 3, 100)
      .counters(1, {{8, 0x0102030405060708}, {8, 2}})
      .leaveScope(0, 4, 1);
  e.message(
      {.sender = 0, .receiver = 1, .receiveTime = -3, .communicator = 5, .size = 6, .tag = 7});
  e.message({.sender = 1, .receiveTime = tb::NO_RECEIVE, .tag = 0x10000, .senderScl = 1});
  e.message({.sender = 1, .senderChecksum = 0xffffffff, .receiverFunction = 7});
  using tb::Shape;
  for (const Shape shape : {Shape::All, Shape::AllToAll, Shape::AllToOne, Shape::OneToAll}) {
    e.collective({.shape = shape,
                  .communicator = 5,
                  .operation = 9,
                  .root = 1,
                  .rootBytes = 2,
                  .start = {0, tb::NOT_STARTED},
                  .duration = {3, 4},
                  .sent = {5, 6},
                  .received = {7, 8},
                  .scl = {0, 1}});
  }
  e.at(0x1ffff).leave(0).leave(1, 1);  // back in time
  trace.stream("raw", tb::RAW_EVENTS)
      .at(5)
      .rawMessage({.thread = 1, .kind = 2, .other = 0, .tag = 70000, .communicator = 5})
      .rawCollective({.thread = 1, .operation = 9, .communicator = 5, .end = -1, .scl = 1});
  trace.stream("err", tb::ERRORS)
      .record(66, {{"willy_gtp", 1},
                   {"type", trace.text("type")},
                   {"times", std::vector<uint64_t>{1, 2}},
                   {"headers", std::vector<uint32_t>{1, 99}}});
}

using Change = std::function<void(tb::Layout&)>;

// All lines of the filled trace, written in a changed layout.
Lines linesOf(const Change& change = nullptr) {
  tb::Trace trace;
  if (change) change(trace.layout());
  fill(trace);
  OpenTrace open(trace);
  Lines lines = open.definitions;
  const Lines events = open.read();
  lines.insert(lines.end(), events.begin(), events.end());
  EXPECT_EQ(open.statuses, std::vector<int>{KLT_STATUS_FINISHED});
  return lines;
}

// The number of the row that a layout of row `number` becomes after a change; 0 if none.
unsigned mappedRow(unsigned number, const Change& change) {
  tb::Trace trace;
  change(trace.layout());
  const OpenTrace open(trace);
  const KLT_Row* row = open.handle()->decoders->entries[number].layout->row;
  return row == nullptr ? 0 : row->number;
}

class KltGeneric : public testing::Test {
 protected:
  void TearDown() override { unsetenv("KLT_GENERIC_ONLY"); }
};

TEST_F(KltGeneric, TheStandardLayoutUsesEachRowsOwnDecoder) {
  for (const char* genericOnly : {"", "0", "1"}) {
    setenv("KLT_GENERIC_ONLY", genericOnly, 1);
    const tb::Trace trace;
    const OpenTrace open(trace);
    for (unsigned n = 1; n <= kKltRowCount; ++n) {
      const KLT_DecoderEntry& entry = open.handle()->decoders->entries[n];
      ASSERT_NE(entry.layout->row, nullptr) << n;
      EXPECT_EQ(entry.layout->row->number, n);
      EXPECT_TRUE(entry.layout->exact) << n;
      if (n == 72) {
        EXPECT_EQ(entry.parse, nullptr);  // a kind that no file holds
      } else {
        EXPECT_EQ(entry.parse == &KLT_ParseGeneric, *genericOnly == '1') << n;
      }
    }
  }
}

TEST_F(KltGeneric, BothRoadsMakeTheSameCalls) {
  const Lines fast = linesOf();
  EXPECT_GT(fast.size(), 30U);
  setenv("KLT_GENERIC_ONLY", "1", 1);
  EXPECT_EQ(difference(fast, linesOf()), "");
}

TEST_F(KltGeneric, NumbersMeanWhatTheLayoutSays) {
  const Lines plain = linesOf();
  EXPECT_EQ(difference(plain, linesOf([](tb::Layout& layout) {
                         for (unsigned n = 1; n <= kKltRowCount; ++n) {
                           layout.renumber(n, static_cast<uint8_t>(n + 100));
                         }
                       })),
            "");
}

TEST_F(KltGeneric, ExtraFieldsArePassedOver) {
  const Lines plain = linesOf();
  EXPECT_EQ(difference(plain, linesOf([](tb::Layout& layout) {
                         for (unsigned n = 1; n <= kKltRowCount; ++n) {
                           layout.insert(n, "", {.name = "weight", .type = Type::F64});
                           layout.insert(n, "", {.type = Type::U16, .isCount = true, .covers = 2});
                           layout.insert(n, "", {.name = "extra", .type = Type::Char});
                           layout.insert(n, "", {.name = "more", .type = Type::I64});
                         }
                         layout.insert(28, "function", {.name = "between", .type = Type::Raw32});
                         layout.insert(22, "counters", {.name = "error", .type = Type::F32});
                         for (tb::Field& field : layout.row(22).fields) {
                           if (field.isCount) {
                             field.covers = 3;
                             break;
                           }
                         }
                       })),
            "");
}

TEST_F(KltGeneric, OtherWidthsAndOrdersAreConverted) {
  const Lines plain = linesOf();
  EXPECT_EQ(
      difference(plain, linesOf([](tb::Layout& layout) {
                   layout.retype(57, "time", Type::U8).retype(48, "willy_gtp", Type::U8);
                   layout.retype(57, "communicator", Type::U8).retype(57, "receive_time", Type::I8);
                   layout.retype(3, "#1", Type::I8).retype(22, "counters", Type::U8);
                   layout.retype(13, "resolution", Type::F32).retype(67, "line", Type::I16);
                   layout.retype(3, "start_time", Type::I8).retype(19, "stride", Type::I8);
                   std::swap(layout.row(30).fields[1], layout.row(30).fields[3]);
                   std::swap(layout.row(18).fields[0], layout.row(18).fields[1]);
                 })),
      "");
}

TEST_F(KltGeneric, ASignIsKeptInAWiderField) {
  for (const Type type : {Type::I8, Type::I16, Type::I32}) {
    tb::Trace trace;
    trace.layout().retype(28, "function", type).retype(13, "resolution", type);
    trace.clock(-2, 10).stream("f", tb::FUNCTIONS).at(1).enter(0, ~uint32_t{0});
    OpenTrace open(trace);
    EXPECT_EQ(open.definitions, Lines{"clock_resolution -2.000000 10"});
    EXPECT_EQ(only(open.read(), {"enter_function"}), Lines{"enter_function 1 0 4294967295 0"});
  }
}

TEST_F(KltGeneric, TheNearestRowOfTheNameIsChosen) {
  const tb::Field scl{.name = "scl", .type = Type::U32};
  EXPECT_EQ(mappedRow(28, [&](tb::Layout& l) { l.insert(28, "", scl); }), 29U);
  EXPECT_EQ(mappedRow(29, [](tb::Layout& l) { l.drop(29, "scl"); }), 28U);
  EXPECT_EQ(mappedRow(36, [](tb::Layout& l) { l.drop(36, "scl"); }), 35U);
  EXPECT_EQ(mappedRow(57, [](tb::Layout& l) { l.retype(57, "tag", Type::U32); }), 59U);
  EXPECT_EQ(mappedRow(61, [](tb::Layout& l) { l.drop(61, "sender_checksum"); }), 60U);
  EXPECT_EQ(mappedRow(61, [](tb::Layout& l) { l.retype(61, "tag", Type::U16); }), 58U);
  EXPECT_EQ(mappedRow(1, [](tb::Layout& l) { l.retype(1, "time", Type::U64); }), 2U);
  EXPECT_EQ(mappedRow(2, [](tb::Layout& l) { l.retype(2, "time", Type::F64); }), 0U);
  EXPECT_EQ(mappedRow(28, [](tb::Layout& l) { l.drop(28, "willy_gtp"); }), 0U);
  EXPECT_EQ(mappedRow(28, [](tb::Layout& l) { l.row(28).name = "enter_functio"; }), 0U);
  EXPECT_EQ(mappedRow(28, [](tb::Layout& l) { l.row(28).name = ""; }), 0U);
  // All fields are there, but none in its place.
  EXPECT_EQ(mappedRow(28, [&](tb::Layout& l) { l.insert(28, "time", scl); }), 0U);
  // Nothing is left that the count would count.
  EXPECT_EQ(mappedRow(3, [](tb::Layout& l) { l.drop(3, "start_time").drop(3, "delta"); }), 0U);
}

TEST_F(KltGeneric, ATypeFeedsWhatCanHoldItsValues) {
  // By name of the stored type: all the types that it feeds.
  const std::vector<std::pair<Type, std::vector<Type>>> feeds = {
      {Type::Char, {Type::Char}},
      {Type::Raw8, {Type::Raw8}},
      {Type::Raw32, {Type::Raw32}},
      {Type::Raw64, {Type::Raw64}},
      {Type::F32, {Type::F32, Type::F64}},
      {Type::F64, {Type::F64}},
      {Type::U64, {Type::U64, Type::I64, Type::F32, Type::F64}},
      {Type::U32, {Type::U32, Type::U64, Type::I32, Type::F32, Type::F64}},
      {Type::I16,
       {Type::U16, Type::U32, Type::U64, Type::I16, Type::I32, Type::I64, Type::F32, Type::F64}},
      {Type::I8,
       {Type::U8, Type::U16, Type::U32, Type::U64, Type::I8, Type::I16, Type::I32, Type::I64,
        Type::F32, Type::F64}},
  };
  for (const auto& [stored, wanted] : feeds) {
    for (unsigned code = 0xed; code <= 0xfb; ++code) {
      if (!KLT_TypeIsValid(code)) continue;
      const bool listed =
          std::find(wanted.begin(), wanted.end(), static_cast<Type>(code)) != wanted.end();
      EXPECT_EQ(KLT_TypeFeeds(static_cast<KLT_Type>(stored), static_cast<KLT_Type>(code)), listed)
          << std::hex << static_cast<unsigned>(stored) << " " << code;
    }
  }
}

TEST_F(KltGeneric, MissingFieldsHaveTheirDefaults) {
  tb::Trace trace;
  trace.layout().drop(19, "left_size").drop(19, "stride").drop(71, "skew").drop(71, "pid");
  trace.layout().drop(35, "type").drop(35, "bytes").drop(52, "bytes_sent").drop(52, "comm_size");
  trace.layout().insert(25, "end", {.name = "begin", .type = Type::U64});
  trace.layout().drop(25, "start").drop(3, "start_time").drop(67, "line").drop(73, "stride");
  trace.communicator(5, "c", {{0, 4, 2}, {7, 7, 3}}).scl(1, {{2, 10}});
  trace.declarations().record(71, {{"tid", 4}, {"offset", 2.0}}).record(25, {{"end", 6}});
  EXPECT_EQ(OpenTrace(trace).definitions,
            (Lines{"communicator_definition 5 'c' 2 0:4:1 7:7:1 -2",
                   "scl_definition 1 1 [2] [0]"
                   " (null) (null)",
                   "willy_definition 0 (null) (null) 0 4 2.000000 1.000000", "duration 0 6"}));

  trace.streamOf("f", tb::FILEIO | tb::STATISTICS, {{0, 6, 2}})
      .at(3)
      .ioBegin(1, 9, 2, 8)
      .record(52, {{"willy_gtp", 1}, {"count", 2}});
  trace.stream("c", tb::COLLOPS)
      .at(1)
      .collective({.communicator = 5, .operation = 9, .start = {1, 2}, .duration = {3, 4}});
  OpenTrace open(trace);
  EXPECT_EQ(only(open.read(), {"file_io_begin", "all_communication"}),
            (Lines{"all_communication 1 5 9 2 [0 0] [3 4] [null]", "file_io_begin 3 1 1 2 0 0"}));
  EXPECT_EQ(only(open.read({reading::window(0, 9, tb::STATISTICS)}), {"lw_statistics"}),
            Lines{"lw_statistics 1 0 0 4294967295 0 2 0 0 0 0 0 0"});
}

TEST_F(KltGeneric, WhatFitsNoRowMovesTimeAndNothingElse) {
  tb::Trace trace;
  trace.layout().drop(28, "function").retype(29, "function", Type::Raw32);
  trace.layout().row(18).name = "remark";
  trace.layout().row(17).name = "remark";  // has no time
  trace.stream("f", tb::FUNCTIONS)
      .at(5)
      .enter(0, 1)
      .at(7)
      .leave(0)
      .at(20)
      .comment(0, "text")
      .record(17)
      .at(21)
      .enter(0, 1, 1)
      .at(23)
      .leave(0);
  OpenTrace open(trace);
  Messages messages;  // of stacks
  EXPECT_EQ(open.read(), (Lines{"leave_function 7 0 0", "leave_function 23 0 0",
                                "end_of_filter 18446744073709551615 4 0"}));
  EXPECT_EQ(messages.take().find("orrupt"), std::string::npos);
}

// The largest block that is asked for while it lives.
class LargestBlock {
 public:
  LargestBlock() : before_(PAL_allocators) {
    largest = 0;
    PAL_MemInit();
    before_ = PAL_allocators;
    PAL_allocators.malloc = [](size_t n) { return std::malloc(note(n)); };
    PAL_allocators.calloc = [](size_t n, size_t size) { return std::calloc(note(n), size); };
    PAL_allocators.realloc = [](void* block, size_t n) { return std::realloc(block, note(n)); };
  }
  ~LargestBlock() { PAL_allocators = before_; }
  LargestBlock(const LargestBlock&) = delete;
  LargestBlock& operator=(const LargestBlock&) = delete;

  static inline size_t largest = 0;

 private:
  static size_t note(size_t bytes) {
    largest = std::max(largest, bytes);
    return bytes;
  }
  PAL_AllocatorTable before_;
};

TEST_F(KltGeneric, ACountIsNotBelievedBeforeItsElementsAreThere) {
  struct Case {
    const char* what;
    Type type;
    uint64_t count;
    const char* message;
    int status;
  };
  const Case cases[] = {
      {"negative, 8 bits", Type::I8, 0xff, "Corrupted data", KLT_STATUS_ABORTING},
      {"negative, 16 bits", Type::I16, 0xffff, "Corrupted data", KLT_STATUS_ABORTING},
      {"negative, 64 bits", Type::I64, ~uint64_t{0}, "Corrupted data", KLT_STATUS_ABORTING},
      {"single", Type::F32, 2, "Found wrong field-type when filtering counter_value",
       KLT_STATUS_ABORTING},
      {"double", Type::F64, 2, "Found wrong field-type when filtering counter_value",
       KLT_STATUS_ABORTING},
      {"more than the file", Type::U32, 0xffffffff, "bytes missing", KLT_STATUS_FINISHED},
      {"more than memory", Type::U64, uint64_t{1} << 50, "bytes missing", KLT_STATUS_FINISHED},
      {"more than 64 bits of bytes", Type::U64, uint64_t{1} << 63, "Corrupted data",
       KLT_STATUS_ABORTING},
      {"one too many", Type::U8, 3, "bytes missing", KLT_STATUS_FINISHED},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    tb::Trace trace;
    trace.layout().retype(22, "#1", c.type);
    trace.stream("f", tb::COUNTERS)
        .record(22, {{"#1", c.count},
                     {"values", std::vector<uint64_t>{1, 2}},
                     {"counters", std::vector<uint32_t>{1, 2}}});
    OpenTrace open(trace);
    Messages messages;
    const LargestBlock block;
    EXPECT_EQ(only(open.read(), {"counter_value"}), Lines{});
    EXPECT_EQ(open.statuses, std::vector<int>{c.status});
    EXPECT_EQ(open.lostData, c.status == KLT_STATUS_FINISHED);
    EXPECT_LE(LargestBlock::largest, 0x20000U);
    const std::string text = messages.take();
    EXPECT_NE(text.find(c.message), std::string::npos) << text;
  }
}

TEST_F(KltGeneric, FastDecodersDontBelieveACountEither) {
  for (const char* genericOnly : {"0", "1"}) {
    setenv("KLT_GENERIC_ONLY", genericOnly, 1);
    tb::Trace trace;
    trace.declarations().record(65, {{"#1", 65535}, {"thread_numbers_gtp", ~uint32_t{0}}});
    trace.stream("o", tb::ANY).record(64, {{"#1", 0xffffffff}, {"data", "ab"}});
    Messages messages;
    const LargestBlock block;
    OpenTrace open(trace);
    (void)open.read();
    EXPECT_LE(LargestBlock::largest, 0x20000U);
    const std::string text = messages.take();
    EXPECT_NE(text.find(".dcl, 262136 bytes missing"), std::string::npos) << text;
    EXPECT_NE(text.find(".o, 4294967289 bytes missing"), std::string::npos) << text;
  }
}

// A record of any kind, most often a call, at a time that most often is a little later.
void addRecord(std::mt19937& random, tb::Stream& s, uint64_t& time) {
  const auto any = [&](uint32_t below) { return static_cast<uint32_t>(random() % below); };
  const uint64_t steps[] = {0, any(9), any(9), any(300), any(300), 0xffff, 0x10000, any(1 << 20)};
  time += steps[any(8)];
  if (any(500) == 0) time -= any(3) * (time / 3);
  // A step of 64 bits may go back, too.
  if (any(50) == 0) s.bytes(std::string("\2\xff\xff\xff\xff\xff\xf0\0\0", 9));
  s.at(time);
  const uint32_t thread = any(4);
  switch (any(16)) {
    case 0:
      s.message({.sender = thread, .receiver = any(4), .receiveTime = any(99), .size = any(9)});
      break;
    case 1:
      s.message({.sender = thread, .tag = 0x10000, .senderScl = 1, .senderChecksum = any(2)});
      break;
    case 2:
      s.collective({.communicator = 5, .start = {0, any(9)}, .duration = {any(9), 2}});
      break;
    case 3:
      s.counters(thread, {{any(3), any(99)}, {2, time}});
      break;
    case 4:
      s.enterScope(thread, any(3), 1).comment(thread, std::string(any(40), 'c'));
      break;
    case 5:
      s.leaveScope(thread, any(3), 1).ioBegin(thread, 2, 3, any(100), any(2));
      break;
    case 6:
      s.rawMessage({.thread = thread, .communicator = 5}).rawCollective({.communicator = 5});
      break;
    case 7:
    case 8:
    case 9:
    case 10:
      s.leave(thread, any(2));
      break;
    default:
      s.enter(thread, any(9), any(2));
      break;
  }
}

// Reads the trace by the rows' own decoders and by the generic ones. The lines of the former.
Lines linesBothWays(const tb::TraceFiles& files, const std::vector<KLT_Request>& requests) {
  std::pair<Lines, std::vector<int>> results[2];
  std::string texts[2];
  for (const int genericOnly : {0, 1}) {
    setenv("KLT_GENERIC_ONLY", genericOnly == 0 ? "0" : "1", 1);
    OpenTrace open(files);
    Messages messages;
    results[genericOnly] = {open.read(requests), open.statuses};
    // Each says in its own way how many bytes are missing.
    const std::regex differs(open.handle()->base + "|[0-9]+ bytes missing");
    texts[genericOnly] = std::regex_replace(messages.take(), differs, "");
  }
  EXPECT_EQ(difference(results[1].first, results[0].first), "");
  EXPECT_EQ(results[1].second, results[0].second);
  EXPECT_EQ(texts[1], texts[0]);
  return std::move(results[0].first);
}

TEST_F(KltGeneric, BothWaysOfReadingAgree) {
  std::mt19937 random(21);
  for (int round = 0; round < 60; ++round) {
    tb::Trace trace;
    trace.processes({1, 1, 1, 1}).communicator(5, "pair", {{1, 2, 1}});
    for (unsigned i = 0; i < 1 + random() % 3; ++i) {
      tb::Stream& s = trace.stream("x." + std::to_string(i), 0x81ff);
      if (random() % 2 == 0) s.anchorEvery(500 + random() % 9000);
      uint64_t time = random() % 1000;
      for (size_t n = random() % (round % 8 == 0 ? 6000 : 600); n > 0; --n)
        addRecord(random, s, time);
      if (random() % 4 == 0) s.bytes(random() % 2 == 0 ? "\x1c" : "\x7f");
    }
    std::vector<KLT_Request> requests(random() % 3);
    for (KLT_Request& request : requests) {
      request.start = random() % 2 == 0 ? 0 : random() % 9000000;
      request.end = random() % 2 == 0 ? reading::kOpenEnd : request.start + random() % 9000000;
      request.categories = random() % 2 == 0 ? 1 : static_cast<uint32_t>(random() % 0x1ff);
      if (random() % 3 == 0) request.threads = {{static_cast<int32_t>(random() % 4), 5, 1}};
    }
    (void)linesBothWays(trace.files(), requests);
    ASSERT_FALSE(HasFailure()) << round;
  }
}

// What was read ahead together with the damage is lost: 64 KiB at most, in a form in which a long
// step in time takes 9 bytes. A file may hold it in 5, so that this ends ahead of a block of input.
TEST_F(KltGeneric, DamageCostsTheSameRecordsBothWays) {
  constexpr size_t kFirst = 11, kOther = 20;
  constexpr size_t kAtOnce = (0x10000 - 10 - 11 - kFirst) / kOther + 2;
  for (const size_t calls : {kAtOnce - 1, kAtOnce, kAtOnce + 1, kAtOnce + 2000}) {
    tb::Trace trace;
    tb::Stream& s = trace.stream("f", tb::FUNCTIONS);
    for (size_t n = 0; n < calls; ++n) s.at(n * 0x10000).enter(0, 7);
    ASSERT_EQ(s.size(), calls * 16 - 5);
    s.bytes("\x7f");
    const Lines lines = linesBothWays(trace.files(), {});
    EXPECT_EQ(only(lines, {"enter_function"}).size(), calls > kAtOnce ? kAtOnce : 0) << calls;
  }
}

TEST_F(KltGeneric, ALaterLayoutOfANumberReplacesTheFirst) {
  tb::Trace trace;
  std::string entry(
      "\0\x1c\x07"
      "comment\x02",
      11);
  entry += std::string("\xef\x04time\0", 7) + std::string("\xf0\x09willy_gtp\0", 12);
  trace.extraIndex().bytes(entry);
  entry[1] = 0;  // a layout of layouts is read, and means nothing
  trace.extraIndex().bytes(entry);
  const OpenTrace open(trace);
  const KLT_StoredLayout& layout = *open.handle()->decoders->entries[28].layout;
  EXPECT_EQ(layout.name, "comment");
  EXPECT_EQ(layout.fields.size(), 2U);
  EXPECT_EQ(layout.row, nullptr);  // it has no text
  EXPECT_EQ(open.handle()->decoders->entries[0].parse, nullptr);
}

TEST_F(KltGeneric, ABadLayoutEntryEndsTheIndex) {
  for (const int type : {0x00, 0xec, 0xf7, 0xfc, 0xfe, 0xff}) {
    tb::Trace trace;
    trace.layout().retype(40, "class", static_cast<Type>(type));
    Messages messages;
    const OpenTrace open(trace);
    const std::string text = messages.take();
    EXPECT_EQ(open.handle(), nullptr);
    EXPECT_NE(text.find("Found wrong field-type, trace might be corrupted!"), std::string::npos)
        << text;
  }
  tb::Trace trace;
  trace.extraIndex().bytes(std::string("\0\x1c\x01x\xff\xef", 6));  // 255 fields, half of one there
  Messages messages;
  const OpenTrace open(trace);
  const std::string text = messages.take();
  ASSERT_NE(open.handle(), nullptr);
  EXPECT_TRUE(open.handle()->lostData);
  EXPECT_NE(text.find("truncated file "), std::string::npos) << text;
}

}  // namespace
