// Opening traces and running their records through handlers: what is accepted, in which order
// streams are served, what handlers get, and how a pass ends when something is wrong.
#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "klt/klt_stream.h"
#include "tests/unit/klt_reading.h"

namespace {

using reading::difference;
using reading::Lines;
using reading::Messages;
using reading::only;
using reading::OpenTrace;
using reading::Recorder;
using reading::window;
using reading::without;
using tb::gtp;
using Statuses = std::vector<int>;

constexpr int kFinished = KLT_STATUS_FINISHED;
constexpr int kContinuing = KLT_STATUS_CONTINUING;
constexpr int kAborting = KLT_STATUS_ABORTING;
constexpr int kDamaged = KLT_STATUS_CORRUPTED;

// --- opening -------------------------------------------------------------------------------------

TEST(KltOpen, AcceptsAndRefusesHeaders) {
  struct Case {
    const char* what;
    size_t at;
    unsigned char byte;
    const char* refusal;  // null: accepted
  };
  const Case cases[] = {
      {"as it is", 3, 0x40, nullptr},
      {"a later minor", 3, 0x41, nullptr},
      {"another version with layouts", 3, 0x80, nullptr},
      {"layouts behind a different header", 4, 1, nullptr},
      {"a different tail", 10, 0, nullptr},
      {"all flags", 7, 0xff, nullptr},
      {"no layouts", 3, 0x3f, "is of incompatible KLT version."},
      {"version 0", 3, 0, "is of incompatible KLT version."},
      {"other letters", 2, 'U', "is not KLT."},
      {"other first letter", 0, 'k', "is not KLT."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    tb::TraceFiles files = tb::Trace().files();
    files[" "][c.at] = static_cast<char>(c.byte);
    const tb::TempDir directory;
    const std::string name = files.writePlain(directory);
    Messages messages;
    KLT_FileHandle* handle = KLT_Open(name.c_str());
    const std::string text = messages.take();
    EXPECT_EQ(handle != nullptr, c.refusal == nullptr) << text;
    EXPECT_EQ(KLT_IsTrace(name.c_str()), c.at > 2);
    if (handle != nullptr) {
      EXPECT_EQ(handle->flags, c.at == 7 ? 0xffU : 0U);
      EXPECT_EQ(text, "");
    } else {
      EXPECT_NE(text.find(std::string("File ") + name + " " + c.refusal), std::string::npos)
          << text;
      EXPECT_NE(text.find("Aborting."), std::string::npos) << text;
    }
    KLT_Close(handle);
  }
}

TEST(KltOpen, RefusesAnIndexThatMakesNoSense) {
  struct Case {
    const char* what;
    std::string tail;
    const char* message;
  };
  const auto file = [](std::string_view suffix) {
    return std::string("\x21\0\0\0\5\0\0", 7) + static_cast<char>(suffix.size()) +
           std::string(suffix);
  };
  const Case cases[] = {
      {"unknown record", "\xc8", "Found corrupted data while filtering"},
      {"suffix outside", file("/../x"), "Corrupted data"},
      {"empty suffix", file(""), "Corrupted data"},
      {"suffix with a zero byte", file({"a\0b", 3}), "Corrupted data"},
      {"suffix with a line feed", file("a\n"), "Corrupted data"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    tb::TraceFiles files = tb::Trace().files();
    files[" "] += c.tail;
    Messages messages;
    const OpenTrace open(files);
    const std::string text = messages.take();
    EXPECT_EQ(open.handle(), nullptr);
    EXPECT_NE(text.find(c.message), std::string::npos) << text;
  }
  for (const size_t length : {size_t{0}, size_t{1}, size_t{10}}) {
    tb::TraceFiles files;
    files.add(" ", std::string("KLT\x40\0\0\0\0\0\0\x14", length));
    Messages messages;
    const OpenTrace open(files);
    const std::string text = messages.take();
    EXPECT_EQ(open.handle(), nullptr);
    EXPECT_NE(text.find("is corrupted.\n"), std::string::npos) << text;
  }
}

TEST(KltOpen, KeepsTheFirstOfEachId) {
  tb::Trace trace;
  EXPECT_EQ(trace.text("first"), 1U);
  trace.extraIndex().record(69, {{"id", 1}, {"string", "second"}});
  trace.extraIndex().record(69, {{"id", 0}, {"string", "none"}});
  trace.extraIndex().record(69, {{"id", 2}, {"string", ""}});
  trace.declarations().record(40, {{"id", 1}, {"name", 1}, {"class", 7}});
  trace.declarations().record(40, {{"id", 2}, {"name", 2}});
  trace.declarations().record(40, {{"id", 3}, {"name", 0}});
  trace.declarations().record(40, {{"id", 4}, {"name", 99}});
  EXPECT_EQ(OpenTrace(trace).definitions,
            (Lines{"function_definition 1 'first' 7", "function_definition 2 '' 0",
                   "function_definition 3 (null) 0", "function_definition 4 (null) 0"}));
}

// --- what handlers get ---------------------------------------------------------------------------

TEST(KltDeliver, DefinitionsArriveWithTheirFieldsInOrder) {
  tb::Trace trace;
  trace.clock(0.5, 13).duration(1, uint64_t{1} << 63).processes({2, 4294967295});
  trace.defineClass(3, "A:B", 2).function(7, "main", 3).operation(255, "Barrier", 2);
  trace.communicator(5, "world", {{4, 0, -2}, {-1, -1, 1}}, 3).scope(4, "loop", 3);
  trace.counter(8, "c",
                {.type = 1, .low = 2, .high = 3, .thread = 1, .counterClass = 3, .unit = "s"});
  trace.declarations().record(20, {{"id", 9}, {"type", 2}, {"do_diff", 5}, {"upper_bound", 1}});
  trace.group(6, "g", {0, gtp(1, 2)}).sourceFile(2, "a.c").scl(1, {{2, 10}, {2, 20}});
  trace.ioFile(3, "out", 5).willyName(1, "one");
  trace.declarations().record(47, {{"info_class", 3}, {"info", "text"}});
  trace.declarations().record(24, {{"id", 1},
                                   {"name", trace.text("n")},
                                   {"label", std::vector<uint32_t>{trace.text("l"), 99}},
                                   {"unit", std::vector<uint32_t>{0, trace.text("u")}}});
  const Lines expected = {
      "clock_resolution 0.500000 13",
      "duration 1 9223372036854775808",
      "process_declaration 2 [2 4294967295]",
      "class_definition 3 'A:B' 'B' 2",
      "function_definition 7 'main' 3",
      "collective_operation_definition 255 'Barrier' 2",
      "communicator_definition 5 'world' 2 4:0:-2 -1:-1:1 3",
      "scope_definition 4 'loop' 3 0 0",
      "counter_definition 8 'c' 1 [2 3] 1 3 's'",
      "counter_definition 9 (null) 130 [0 1] 0 0 ''",
      "group_definition 6 'g' 2 [0 131073]",
      "file_definition 2 'a.c'",
      "scl_definition 1 2 [2 2] [10 20] (null) (null) (null) (null)",
      "file_io_file_definition 3 5 'out'",
      "willy_name 1 'one'",
      "info 3 'text'",
      "custom_statistics_definition 1 'n' 2 'l' (null) (null) 'u'",
  };
  EXPECT_EQ(difference(expected, OpenTrace(trace).definitions), "");
}

TEST(KltDeliver, EventsArriveWithTheirFieldsInOrder) {
  tb::Trace trace;
  trace.communicator(5, "world", {{0, 1, 1}});
  tb::Stream& e = trace.stream("e", 0xa1ee);
  e.at(1).enter(1, 2).enter(1, 2, 3).leave(1).leave(1, 3);
  e.at(2).enterScope(1, 2, 3).enterScope(1, 2, 4, 5).leaveScope(1, 2, 3).leaveScope(1, 2, 4, 6);
  e.at(3).ioBegin(1, 2, 3, 4).ioBegin(1, 2, 3, 4, 5).ioEnd(1, 2, 3, 4).ioEnd(1, 2, 3, 4, 5);
  e.at(4).counters(1, {{2, 0x0102030405060708}, {3, 1}});
  e.message({1, 2, -3, 4, 5, 6, 0, 0, 0, 0, 7, 8}).message({1, 2, 3, 4, 5, 6, 7, 8, 0, 0, 9, 10});
  e.message({1, 2, tb::NO_RECEIVE, 4, 5, 70000}).message({1, 2, tb::NO_SEND, 4, 5, 70000, 7, 8});
  e.message({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12});
  e.at(5).collective({.communicator = 5,
                      .operation = 6,
                      .start = {1, tb::NOT_STARTED},
                      .duration = {3, 4},
                      .scl = {5, 6}});
  e.collective({.shape = tb::Shape::AllToAll,
                .communicator = 5,
                .operation = 6,
                .start = {1},
                .duration = {2},
                .sent = {3},
                .received = {4}});
  e.collective({.shape = tb::Shape::AllToOne,
                .communicator = 5,
                .operation = 6,
                .root = 7,
                .rootBytes = 8,
                .start = {1},
                .duration = {2},
                .sent = {3},
                .scl = {4}});
  e.collective({.shape = tb::Shape::OneToAll,
                .communicator = 5,
                .operation = 6,
                .root = 7,
                .rootBytes = 8,
                .start = {1},
                .duration = {2},
                .received = {3}});
  e.at(6).rawMessage({1, 2, 3, 4, 5, 6, 7, 8}).rawCollective({1, 2, 3, 4, 5, 6, 7, 8, -9, 10});
  e.comment(1, "text").comment(1, "").opaque(1, "ab", 3);
  e.record(66, {{"willy_gtp", 1},
                {"type", trace.text("t")},
                {"level", 99},
                {"times", std::vector<int>{2, 3}},
                {"willys_gtp", std::vector<int>{4, 5}},
                {"headers", std::vector<uint32_t>{trace.text("h"), 0}},
                {"functions", std::vector<int>{6, 7}},
                {"scls", std::vector<int>{8, 9}}});
  const Lines expected = {
      "enter_function 1 1 2 0",
      "enter_function 1 1 2 3",
      "leave_function 1 1 0",
      "leave_function 1 1 3",
      "enter_scope 2 1 2 3 0",
      "enter_scope 2 1 2 4 5",
      "leave_scope 2 1 2 3 0",
      "leave_scope 2 1 2 4 6",
      "file_io_begin 3 1 2 3 4 0",
      "file_io_begin 3 1 2 3 4 5",
      "file_io_end 3 1 2 3 4 0",
      "file_io_end 3 1 2 3 4 5",
      "counter_value 4 1 2 [2 3] [72623859790382856 1]",
      "one_to_one_communication 4 1 -3 2 4 5 6 0 0 0 0 7 8",
      "one_to_one_communication 4 1 3 2 4 5 6 7 8 0 0 9 10",
      "one_to_one_communication 4 1 -9223372036854775808 2 4 5 70000 0 0 0 0 0 0",
      "one_to_one_communication 4 1 -9223372036854775807 2 4 5 70000 7 8 0 0 0 0",
      "one_to_one_communication 4 1 3 2 4 5 6 7 8 9 10 11 12",
      "all_communication 5 5 6 2 [1 18446744073709551615] [3 4] [5 6]",
      "all_to_all_communication 5 5 6 1 [1] [2] [3] [4] [null]",
      "all_to_one_communication 5 7 8 5 6 1 [1] [2] [3] [4]",
      "one_to_all_communication 5 7 8 5 6 1 [1] [2] [3] [null]",
      "message_raw_event 6 1 2 3 4 5 6 7 8",
      "collop_raw_event 6 1 2 3 4 5 6 7 8 -9 10",
      "comment 6 1 'text'",
      "comment 6 1 ''",
      "opaque_data 6 1 2 [97 98] 3",
      "report 6 1 't' (null) (null) 2 [2 3] [4 5] 'h' (null) [6 7] (null) (null) [8 9]",
  };
  OpenTrace open(trace);
  Messages messages;  // communicator 4 isn't defined
  EXPECT_EQ(difference(expected, without(open.read({window(0, reading::kOpenEnd, 0xa1ee)}),
                                         {"end_of_filter"})),
            "");
}

TEST(KltDeliver, StructureInADataComponentChangesNothing) {
  tb::Trace trace;
  tb::Stream& f = trace.stream("f", 0x1ef | 0x800, {0});
  f.at(3).record(9, {{"offset", 1}}).record(46, {{"file", 1}, {"offset", 0}, {"prevtime", 7}});
  f.record(21, {{"counters", 1}, {"values", 2}}).record(33, {{"id", 1000}, {"suffix", "x"}});
  f.record(10, {{"anchor_file", 1000}, {"data_file", 1000}, {"categories", 4}});
  f.record(42, {{"willy_gtp", 0},
                {"function_stack", std::vector<int>{5, 6}},
                {"scls", std::vector<int>{0, 9}}});
  f.enter(0, 7);
  OpenTrace open(trace);
  const size_t components = open.handle()->components.size();
  EXPECT_EQ(only(open.read(), {"function_history", "enter_function"}),
            (Lines{"function_history 0 0 2 [5 6] [0 9]", "enter_function 3 0 7 0"}));
  (void)open.read({window(0, reading::kOpenEnd, 0x800)});
  EXPECT_EQ(open.handle()->components.size(), components);
  EXPECT_EQ(open.handle()->files.find(1000), nullptr);

  f.bytes(tb::Layout().block().substr(0, 40));  // a layout
  OpenTrace damaged(trace);
  Messages messages;
  (void)damaged.read();
  EXPECT_EQ(damaged.statuses, Statuses{kAborting});
  EXPECT_NE(messages.take().find("f (rectype 0, offset "), std::string::npos);
}

// --- order ---------------------------------------------------------------------------------------

using TimedStreams = std::vector<std::pair<size_t, std::vector<uint64_t>>>;

// What the rules make of streams of times, as texts "stream.record". A reader that stops after
// every `stopEach` records begins a new turn each time.
Lines servedOrder(TimedStreams streams, size_t stopEach = 0) {
  Lines result;
  std::vector<size_t> next(streams.size());
  std::erase_if(streams, [](const auto& stream) { return stream.second.empty(); });
  const auto time = [&](size_t i) { return streams[i].second[next[streams[i].first]]; };
  const auto stops = [&] { return stopEach != 0 && result.size() % stopEach == 0; };
  // Serves position i up to the limit; true if the turn is over with it: its stream has ended, or
  // the reader stops.
  const auto serve = [&](size_t i, uint64_t limit) {
    const auto& [name, times] = streams[i];
    do {
      result.push_back(std::to_string(name) + "." + std::to_string(next[name]++));
      if (next[name] == times.size()) {
        std::swap(streams[i], streams.back());
        streams.pop_back();
        return true;
      }
      if (stops()) return true;
    } while (times[next[name]] <= limit);
    return false;
  };
  while (!streams.empty()) {
    size_t best = 0;
    for (size_t i = 1; i < streams.size(); ++i) best = time(i) < time(best) ? i : best;
    size_t second = streams.size();
    for (size_t i = 0; i < streams.size(); ++i) {
      if (i != best && (second == streams.size() || time(i) < time(second))) second = i;
    }
    const bool alone = second == streams.size();
    const uint64_t limit = alone ? ~uint64_t{0} : time(second);
    if (!serve(best, limit) && !alone) (void)serve(second, limit);
  }
  return result;
}

// Streams of comments that name themselves.
tb::TraceFiles namedRecords(const TimedStreams& streams) {
  tb::Trace trace;
  for (const auto& [name, times] : streams) {
    tb::Stream& stream = trace.stream("x." + std::to_string(name), tb::ANY);
    for (size_t i = 0; i < times.size(); ++i) {
      stream.at(times[i]).comment(0, std::to_string(name) + "." + std::to_string(i));
    }
  }
  return trace.files();
}

// The same as the reader delivers it. With a limit of 0 it stops as often as it looks at the clock,
// which changes nothing.
Lines deliveredOrder(OpenTrace& open, size_t stopEach = 0, int timeoutMs = -1) {
  Recorder recorder;
  recorder.table.end_of_filter = nullptr;
  const reading::Reader reader = open.reader(recorder.table);
  int status = 0;
  do {
    if (stopEach != 0) recorder.stopAt = recorder.lines.size() + stopEach;
    status = KLT_ReadEvents(reader.get(), timeoutMs);
  } while (status == KLT_STATUS_HANDLER || status == KLT_STATUS_TIME);
  Lines result;
  for (const std::string& line : recorder.lines) {
    const size_t quote = line.find('\'');
    result.push_back(line.substr(quote + 1, line.size() - quote - 2));
  }
  return result;
}

Lines deliveredOrder(const TimedStreams& streams) {
  OpenTrace open(namedRecords(streams));
  return deliveredOrder(open);
}

TEST(KltOrder, OfEqualTimesTheEarlierStreamGoesFirstAndStays) {
  EXPECT_EQ(deliveredOrder({{0, {5, 5, 5}}, {1, {5, 5}}}),
            (Lines{"0.0", "0.1", "0.2", "1.0", "1.1"}));
  EXPECT_EQ(deliveredOrder({{0, {5, 6, 7}}, {1, {3, 6, 6}}, {2, {6}}}),
            (Lines{"1.0", "0.0", "0.1", "1.1", "1.2", "2.0", "0.2"}));
}

TEST(KltOrder, TheRunnerUpIsServedUpToTheLimitAhead) {
  // Stream 2 stands behind stream 1 at time 4, but stream 1 isn't the runner-up of stream 0.
  EXPECT_EQ(deliveredOrder({{0, {1, 5}}, {1, {4, 4}}, {2, {4, 4}}}),
            (Lines{"0.0", "1.0", "1.1", "2.0", "2.1", "0.1"}));
  EXPECT_EQ(deliveredOrder({{0, {4, 4}}, {1, {1, 9}}, {2, {4}}}),
            (Lines{"1.0", "0.0", "0.1", "2.0", "1.1"}));
}

TEST(KltOrder, TheLastStreamTakesThePlaceOfOneThatEnds) {
  EXPECT_EQ(deliveredOrder({{0, {1}}, {1, {5}}, {2, {5}}}), (Lines{"0.0", "2.0", "1.0"}));
  EXPECT_EQ(deliveredOrder({{0, {1}}, {1, {}}, {2, {5}}, {3, {5}}}), (Lines{"0.0", "2.0", "3.0"}));
}

TEST(KltOrder, FollowsTheRulesForAnyTimes) {
  std::mt19937 random(11);
  for (int round = 0; round < 60; ++round) {
    TimedStreams streams;
    const size_t count = 1 + random() % 7;
    for (size_t i = 0; i < count; ++i) {
      std::vector<uint64_t> times(1 + random() % 12);
      for (uint64_t& time : times) time = random() % 9;
      if (round % 4 != 0) std::sort(times.begin(), times.end());  // else with steps back
      streams.emplace_back(i, times);
    }
    OpenTrace open(namedRecords(streams));
    ASSERT_EQ(difference(servedOrder(streams), deliveredOrder(open)), "") << round;
    ASSERT_EQ(difference(servedOrder(streams), deliveredOrder(open, 0, 0)), "") << round;
  }
}

// From 256 streams on, records up to a near time are gathered and sorted. Equal times are many
// here, and turns that last from one such slice to the next, or into what comes behind the last of
// them.
TEST(KltOrder, FollowsTheRulesForHundredsOfStreams) {
  std::mt19937 random(13);
  const std::vector<uint64_t> spreads = {40, 300, 5000, uint64_t{1} << 40};
  for (int round = 0; round < 36; ++round) {
    TimedStreams streams;
    const size_t count = 250 + random() % 60;
    const uint64_t spread = spreads[random() % spreads.size()];
    const uint64_t early = random() % 2 == 0 ? spread / 8 : spread;  // some may end before others
    const size_t busy = round % 2 == 0 ? count : 2 + random() % 5;   // the others only end
    for (size_t i = 0; i < count; ++i) {
      const uint64_t end = random() % 16 == 0 ? early : spread;
      const size_t most = busy < count || i % 32 == 0 ? 200 : 12;
      std::vector<uint64_t> times(i < busy ? 1 + random() % most : 0);
      for (uint64_t& time : times) time = 1 + random() % end;
      if (round % 6 != 5 || random() % 8 != 0) std::sort(times.begin(), times.end());
      if (end == spread || times.empty()) times.push_back(spread + random() % 3);
      streams.emplace_back(i, times);
    }
    const size_t stopEach = round % 3 == 0 ? 1 + random() % 5 : 0;
    OpenTrace open(namedRecords(streams));
    ASSERT_EQ(difference(servedOrder(streams, stopEach), deliveredOrder(open, stopEach)), "")
        << round;
    ASSERT_EQ(difference(servedOrder(streams), deliveredOrder(open, 0, 0)), "") << round;
  }
}

// Stream 1 is the runner-up of the first slice and the best of the second one.
TEST(KltOrder, ATurnThatIsOverDoesNotReachIntoTheNextSlice) {
  TimedStreams streams = {{0, {10, 30, 1000, 2000}}, {1, {10, 20, 30, 1000, 2000}}};
  for (size_t i = 2; i < 256; ++i) streams.emplace_back(i, std::vector<uint64_t>{1000, 2000});
  EXPECT_EQ(difference(servedOrder(streams), deliveredOrder(streams)), "");
}

// As much at one time as there is room for, and more.
TEST(KltOrder, ManyRecordsOfOneTimeFillASlice) {
  constexpr size_t kStreams = 256;
  for (const size_t records : {31U, 32U, 33U, 200U}) {
    tb::Trace trace;
    Lines expected;
    for (size_t i = 0; i < kStreams; ++i) {
      const auto thread = static_cast<uint32_t>(i);
      tb::Stream& stream = trace.stream("x." + std::to_string(i), tb::ANY);
      for (size_t n = 0; n < records; ++n) {
        stream.at(10).enter(thread, static_cast<uint32_t>(n));
        expected.push_back("enter_function 10 " + std::to_string(i) + ' ' + std::to_string(n) +
                           " 0");
      }
      stream.at(1000 + i).leave(thread);
    }
    for (size_t i = 0; i < kStreams; ++i) {
      expected.push_back("leave_function " + std::to_string(1000 + i) + ' ' + std::to_string(i) +
                         " 0");
    }
    Recorder recorder;
    recorder.table.end_of_filter = nullptr;
    EXPECT_EQ(difference(expected, OpenTrace(trace).read(recorder)), "") << records;
  }
}

// Some streams hold more than is read ahead at once; records are small and large.
Lines fillWithSizesOfAllKinds(tb::Trace& trace, size_t streams) {
  const auto recordsOf = [](size_t stream) { return stream % 64 == 5 ? size_t{400} : size_t{12}; };
  size_t total = 0;
  for (size_t i = 0; i < streams; ++i) total += recordsOf(i);
  std::vector<uint64_t> times(total);
  std::iota(times.begin(), times.end(), uint64_t{1});
  std::mt19937 random(12);
  std::shuffle(times.begin(), times.end(), random);
  Lines expected(total);
  auto first = times.begin();
  for (size_t i = 0; i < streams; ++i) {
    const auto last = first + static_cast<ptrdiff_t>(recordsOf(i));
    std::sort(first, last);
    tb::Stream& stream = trace.stream("x." + std::to_string(i), tb::ANY);
    for (; first != last; ++first) {
      const std::string start = std::to_string(*first) + ' ' + std::to_string(i);
      if (random() % 3 == 0) {
        stream.at(*first).enter(static_cast<uint32_t>(i), 7);
        expected[*first - 1] = "enter_function " + start + " 7 0";
        continue;
      }
      const size_t kinds[] = {random() % 100, 440 + random() % 90, random() % 3000};
      const std::string text(kinds[random() % 3], 'x');
      stream.at(*first).comment(static_cast<uint32_t>(i), text);
      expected[*first - 1] = "comment " + start + " '" + text + '\'';
    }
  }
  // One stream ends within a record, another makes no sense from its start.
  trace.stream("cut", tb::ANY).at(total + 1).comment(7, "last").bytes("\x12");
  trace.stream("bad", tb::ANY).bytes("\x7f");
  expected.push_back("comment " + std::to_string(total + 1) + " 7 'last'");
  return expected;
}

TEST(KltOrder, HundredsOfStreamsWithRecordsOfAllSizes) {
  for (const size_t streams : {253U, 254U, 270U, 530U}) {
    tb::Trace trace;
    const Lines expected = fillWithSizesOfAllKinds(trace, streams);
    OpenTrace open(trace);
    Recorder recorder;
    recorder.table.end_of_filter = nullptr;
    Messages messages;
    EXPECT_EQ(difference(expected, open.read(recorder)), "") << streams;
    EXPECT_EQ(open.statuses, (std::vector<int>{KLT_STATUS_CONTINUING, kFinished}));
    EXPECT_TRUE(open.lostData);

    // Stopped in between by the handler or by the clock, it goes on where it was.
    Recorder stopping;
    stopping.table.end_of_filter = nullptr;
    const reading::Reader reader = open.reader(stopping.table);
    ASSERT_EQ(KLT_ReadEvents(reader.get(), -1), KLT_STATUS_CONTINUING);
    double progress = 0;
    int status = KLT_STATUS_TIME;
    for (size_t round = 0; status != kFinished && round < expected.size(); ++round) {
      stopping.stopAt = round % 2 == 0 ? stopping.lines.size() + 997 : 0;
      status = KLT_ReadEvents(reader.get(), round % 2 == 0 ? -1 : 1);
      const bool stopped = stopping.lines.size() == stopping.stopAt;
      EXPECT_EQ(status == KLT_STATUS_HANDLER, stopped);
      EXPECT_GE(KLT_Progress(reader.get()), progress);
      progress = KLT_Progress(reader.get());
      const auto lines = static_cast<double>(stopping.lines.size());
      EXPECT_NEAR(progress, lines / static_cast<double>(expected.size()), 0.1) << streams;
    }
    EXPECT_EQ(progress, 1.0);
    EXPECT_EQ(difference(expected, stopping.lines), "") << streams;
  }
}

TEST(KltOrder, StreamsStandInTheOrderOfTheirBuckets) {
  tb::Trace trace;  // 0x40 + list 2, 0x04 + list 2, 0x04 + list 1, and one that wraps to 0
  trace.stream("c", tb::COUNTERS, {7}).at(1).comment(0, "a");
  trace.stream("d", tb::COUNTERS, {8}).at(1).comment(0, "b");
  trace.stream("e", tb::FUNCTIONS, {8}).at(1).comment(0, "c");
  trace.stream("f", tb::FUNCTIONS, {7}).at(1).comment(0, "d");
  trace.stream("g", 1021 & ~1U, {7}).at(1).comment(0, "e");
  Recorder recorder;
  recorder.table.end_of_filter = nullptr;
  // Each stream ends with its record, and the last one takes its place.
  EXPECT_EQ(OpenTrace(trace).read(recorder),
            (Lines{"comment 1 0 'e'", "comment 1 0 'b'", "comment 1 0 'a'", "comment 1 0 'c'",
                   "comment 1 0 'd'"}));
}

// --- which records -------------------------------------------------------------------------------

TEST(KltFilter, OnlyMatchingComponentsAndThreadsAreRead) {
  tb::Trace trace;
  trace.processes({1, 1, 1})
      .communicator(1, "pair", {{0, 1, 1}})
      .communicator(2, "other", {{2, 2, 1}});
  trace.stream("f.0", tb::FUNCTIONS, {0}).at(1).enter(0, 1);
  trace.stream("f.1", tb::FUNCTIONS, {1}).at(2).enter(1, 1);
  trace.stream("x.2", tb::ANY, {2}).at(3).comment(2, "x").enter(2, 1);
  tb::Stream& m = trace.stream("msg", tb::MESSAGES | tb::COLLOPS).at(4);
  m.message({.sender = 0, .receiver = 1}).at(5).message({.sender = 1, .receiver = 2});
  m.at(6).collective({.communicator = 1, .start = {0, 0}, .duration = {0, 0}});
  m.at(7).collective({.communicator = 2, .start = {0}, .duration = {0}});
  trace.stream("s", tb::STATISTICS, {0}).record(17, {{"numprocs", 9}});
  trace.stream("p", 0).fileType(3).record(17, {{"numprocs", 8}});
  OpenTrace open(trace);
  const auto seen = [&](uint32_t categories, std::initializer_list<uint32_t> threads) {
    std::string result;
    for (const std::string& line : without(
             open.read({window(0, reading::kOpenEnd, categories, threads)}), {"end_of_filter"})) {
      result += (result.empty() ? "" : ", ") + line.substr(0, 9) + line.substr(line.find(' '), 2);
    }
    return result;
  };
  EXPECT_EQ(seen(tb::FUNCTIONS, {}), "enter_fun 1, enter_fun 2, comment 3 3, enter_fun 3");
  EXPECT_EQ(seen(tb::FUNCTIONS, {1}), "enter_fun 2");
  EXPECT_EQ(seen(tb::FUNCTIONS, {2, 0}), "enter_fun 1, comment 3 3, enter_fun 3");
  EXPECT_EQ(seen(tb::MESSAGES, {0}), "one_to_on 4");
  EXPECT_EQ(seen(tb::MESSAGES, {2}), "comment 3 3, one_to_on 5");
  EXPECT_EQ(seen(tb::COLLOPS, {1}), "all_commu 6");
  EXPECT_EQ(seen(tb::ANY, {2}), "comment 3 3, enter_fun 3, one_to_on 5, all_commu 7");
  EXPECT_EQ(seen(tb::SCOPES, {0, 1}), "");
  EXPECT_EQ(seen(tb::STATISTICS | tb::FUNCTIONS, {1}), "collop_st 8, collop_st 9");
}

TEST(KltFilter, AnUnknownCommunicatorCountsAsSelectedAndIsToldOnce) {
  tb::Trace trace;
  tb::Stream& m = trace.stream("c", tb::COLLOPS);
  m.at(1).collective({.communicator = 6}).at(2).collective({.communicator = 6});
  OpenTrace open(trace);
  Messages messages;
  EXPECT_EQ(only(open.read({window(0, 9, 1, {3})}), {"all_communication"}).size(), 2U);
  const std::string text = messages.take();
  const std::string message = "Requesting unkown or undefined communicator";
  EXPECT_NE(text.find(message), std::string::npos);
  EXPECT_EQ(text.find(message), text.rfind(message));
}

// --- statuses ------------------------------------------------------------------------------------

// `count` comments of 20 bytes at times 1, 2, ...
constexpr size_t kCommentBytes = 20;
void comments(tb::Stream& stream, size_t count) {
  for (size_t i = 0; i < count; ++i) stream.at(i + 1).comment(0, "eleven char");
}

TEST(KltStatus, ATraceWithoutComponentsIsFinishedAtOnce) {
  const tb::Trace trace;
  OpenTrace open(trace);
  EXPECT_EQ(open.read(), Lines{});
  EXPECT_EQ(open.statuses, Statuses{kFinished});
  EXPECT_EQ(open.read({}, 0), Lines{});
  EXPECT_EQ(open.statuses, Statuses{kFinished});
}

TEST(KltStatus, AHandlerCanStopAndGoOn) {
  tb::Trace trace;
  comments(trace.stream("a", tb::ANY), 9);
  comments(trace.stream("b", tb::ANY), 3);
  const OpenTrace open(trace);
  for (const int serial : {1, 0}) {
    for (size_t stop = 1; stop <= 12; ++stop) {
      Recorder recorder;
      recorder.table.end_of_filter = nullptr;
      recorder.stopAt = stop;
      const reading::Reader reader = open.reader(recorder.table, {}, serial);
      EXPECT_EQ(KLT_ReaderStatus(reader.get()), KLT_STATUS_BUILT);
      int status = KLT_STATUS_TIME;
      while (status == KLT_STATUS_TIME) status = KLT_ReadEvents(reader.get(), -1);
      EXPECT_EQ(status, KLT_STATUS_HANDLER);
      EXPECT_EQ(recorder.lines.size(), stop);
      status = KLT_STATUS_TIME;
      while (status == KLT_STATUS_TIME) status = KLT_ReadEvents(reader.get(), -1);
      EXPECT_EQ(status, kFinished);
      EXPECT_EQ(recorder.lines.size(), 12U);
      EXPECT_EQ(KLT_Progress(reader.get()), 1.0);
    }
  }
}

TEST(KltStatus, ATimeLimitInterruptsAndLosesNothing) {
  tb::Trace trace;
  comments(trace.stream("a", tb::ANY), 10000);
  comments(trace.stream("b", tb::ANY), 10000);
  OpenTrace open(trace);
  const Lines whole = open.read();
  Recorder recorder;
  const reading::Reader reader = open.reader(recorder.table);
  EXPECT_EQ(KLT_ReadEvents(reader.get(), 0), KLT_STATUS_TIME);
  EXPECT_EQ(KLT_ReadEvents(reader.get(), 0), KLT_STATUS_TIME);
  EXPECT_EQ(recorder.lines, Lines{});
  EXPECT_EQ(KLT_ReadEvents(reader.get(), 0), KLT_STATUS_TIME);
  EXPECT_FALSE(recorder.lines.empty()) << "no time at all still brings it on";
  double progress = KLT_Progress(reader.get());
  int status = KLT_STATUS_TIME;
  for (int calls = 0; status == KLT_STATUS_TIME && calls < 100000; ++calls) {
    status = KLT_ReadEvents(reader.get(), 1);
    EXPECT_GE(KLT_Progress(reader.get()), progress);
    progress = KLT_Progress(reader.get());
    EXPECT_LE(progress, 1.0);
  }
  EXPECT_EQ(status, kFinished);
  EXPECT_EQ(difference(whole, recorder.lines), "");
}

TEST(KltStatus, TheTimeCountsWhenAStreamLeavesToo) {
  tb::Trace trace;
  comments(trace.stream("a", tb::ANY), 1);           // leaves as the first of its turn
  trace.stream("b", tb::ANY).at(3).comment(1, "b");  // as the second, behind 2
  trace.stream("c", tb::ANY).at(2).comment(1, "c").at(4).comment(1, "c");  // as the last
  trace.stream("d", tb::ANY).at(1).comment(9, "d");                        // has nothing to deliver
  OpenTrace open(trace);
  Recorder recorder;
  recorder.table.end_of_filter = nullptr;
  const reading::Reader reader = open.reader(recorder.table, {window(0, 1000, 1, {0, 1})});
  for (int stream = 0; stream < 4; ++stream) {
    EXPECT_EQ(KLT_ReadEvents(reader.get(), 0), KLT_STATUS_TIME);
    EXPECT_EQ(KLT_Progress(reader.get()), 0.0) << "nothing is delivered yet";
  }
  EXPECT_EQ(recorder.lines, Lines{});
  for (const size_t lines : {1U, 3U, 4U}) {
    EXPECT_EQ(KLT_ReadEvents(reader.get(), 0), KLT_STATUS_TIME);
    EXPECT_EQ(recorder.lines.size(), lines);
  }
  EXPECT_EQ(KLT_ReadEvents(reader.get(), 0), kFinished);
  EXPECT_EQ(recorder.lines.size(), 4U);
}

// The times of comments, each behind a blank.
std::string timesOf(const Lines& lines) {
  std::string times;
  for (const std::string& line : lines) times += line.substr(7, line.find(' ', 8) - 7);
  return times;
}

TEST(KltStatus, WithoutTimeOrderStreamsTakeTurns) {
  tb::Trace trace;
  comments(trace.stream("a", tb::ANY), 8);
  trace.stream("b", tb::ANY).at(100).comment(1, "b");
  comments(trace.stream("c", tb::ANY), 12);
  OpenTrace open(trace);
  Recorder recorder;
  recorder.table.end_of_filter = nullptr;
  const std::string times = timesOf(open.read(recorder, {}, 0));
  // Five of each, then as much as there is; the stream that ends gives its place to the last.
  EXPECT_EQ(times, " 1 2 3 4 5 100 1 2 3 4 5 6 7 8 6 7 8 9 10 11 12");
  EXPECT_EQ(open.statuses, (Statuses{KLT_STATUS_TIME, kFinished}));
}

TEST(KltStatus, OnlyTheFirstTurnOfAStreamIsShort) {
  tb::Trace trace;
  comments(trace.stream("a", tb::ANY), 12);
  comments(trace.stream("b", tb::ANY), 1);
  comments(trace.stream("c", tb::ANY), 7);
  tb::TraceFiles files = trace.files();
  files[".b"][0] = '\x7f';
  OpenTrace open(files);
  Messages messages;
  Recorder recorder;
  recorder.table.end_of_filter = nullptr;
  const std::string times = timesOf(open.read(recorder, {}, 0));
  // A damaged stream ends the call; the next one begins with the first stream's second turn.
  EXPECT_EQ(times, " 1 2 3 4 5 6 7 8 9 10 11 12 1 2 3 4 5 6 7");
  EXPECT_EQ(open.statuses, (Statuses{kDamaged, KLT_STATUS_TIME, kFinished}));
}

TEST(KltStatus, AStreamThatFailsLeavesTheOthersGoingOn) {
  tb::Trace trace;
  comments(trace.stream("a", tb::ANY), 3);
  comments(trace.stream("b", tb::ANY), 4);
  comments(trace.stream("c", tb::ANY), 5);
  const auto statuses = [&](std::string_view damaged, int serial) {
    tb::TraceFiles files = trace.files();
    for (const char name : damaged) files["." + std::string(1, name)][0] = '\x7f';
    OpenTrace open(files);
    Messages messages;
    const size_t lines = only(open.read({}, serial), {"comment"}).size();
    EXPECT_EQ(lines, (damaged.find('a') == damaged.npos ? 3U : 0U) +
                         (damaged.find('b') == damaged.npos ? 4U : 0U) +
                         (damaged.find('c') == damaged.npos ? 5U : 0U));
    const std::string text = messages.take();
    EXPECT_NE(text.find("." + std::string(damaged.substr(0, 1)) + " (rectype 127, offset 0)."),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("Corrupted data\n"), std::string::npos) << text;
    return open.statuses;
  };
  EXPECT_EQ(statuses("a", 1), (Statuses{kContinuing, kFinished}));
  EXPECT_EQ(statuses("c", 1), (Statuses{kContinuing, kFinished}));
  EXPECT_EQ(statuses("ab", 1), (Statuses{kContinuing, kContinuing, kFinished}));
  EXPECT_EQ(statuses("abc", 1), (Statuses{kContinuing, kContinuing, kAborting}));
  EXPECT_EQ(statuses("a", 0), (Statuses{kDamaged, KLT_STATUS_TIME, kFinished}));
  EXPECT_EQ(statuses("abc", 0), (Statuses{kDamaged, kDamaged, kDamaged, kFinished}));
}

TEST(KltStatus, AMissingComponentFails) {
  tb::Trace trace;
  comments(trace.stream("a", tb::ANY), 1);
  comments(trace.stream("b", tb::ANY), 1);
  tb::TraceFiles files = trace.files();
  files.remove(".a");
  OpenTrace open(files);
  Messages messages;
  EXPECT_EQ(only(open.read(), {"comment"}).size(), 1U);
  EXPECT_EQ(open.statuses, (Statuses{kContinuing, kFinished}));
  const std::string text = messages.take();
  EXPECT_NE(text.find("t.klt.a: No such file or directory\n"), std::string::npos) << text;
  EXPECT_NE(text.find("t.klt.a for reading."), std::string::npos) << text;
}

// --- damage --------------------------------------------------------------------------------------

TEST(KltDamage, WhatAFillGatheredAheadOfTheDamageIsLost) {
  constexpr size_t kRecords = 15000;  // 300 KB
  // Fills end where the next record and what goes with it may not fit.
  constexpr size_t kOfAFill = (0x10000 - 11 - (kCommentBytes - 1)) / kCommentBytes + 1;
  tb::Trace trace;
  comments(trace.stream("a", tb::ANY), kRecords);
  comments(trace.stream("b", tb::ANY), 2);
  for (size_t fill = 0; fill < 3; ++fill) {
    // The record that doesn't fit any more is looked at, too.
    for (const size_t record : {fill * kOfAFill + 1, (fill + 1) * kOfAFill}) {
      SCOPED_TRACE(record);
      tb::TraceFiles files = trace.files();
      files[".a"][record * kCommentBytes] = '\x4b';
      OpenTrace open(files);
      Messages messages;
      EXPECT_EQ(only(open.read(), {"comment"}).size(), fill * kOfAFill + 2);
      EXPECT_EQ(open.statuses, (Statuses{kContinuing, kFinished}));
      // Without time order all that came ahead of it is told, and the filter is closed.
      const Lines direct = open.read({}, 0);
      EXPECT_EQ(only(direct, {"comment"}).size(), record + 2);
      EXPECT_EQ(only(direct, {"end_of_filter"}).size(), 2U);
    }
  }
}

TEST(KltDamage, AFileThatEndsInsideARecordIsToldOnceWithWhatIsMissing) {
  for (const size_t records : {size_t{25}, size_t{10000}}) {
    tb::Trace trace;
    tb::Stream& f = trace.stream("f", tb::MESSAGES);
    for (size_t i = 0; i < records; ++i) f.at(i).message({.receiver = 1, .receiveTime = 5});
    for (size_t cut = 1; cut <= 34; cut += 3) {
      SCOPED_TRACE(std::to_string(records) + " records, cut by " + std::to_string(cut));
      OpenTrace open(trace.files().truncate(".f", cut));
      Messages messages;
      const Lines lines = open.read();
      const std::string text = messages.take();
      EXPECT_EQ(only(lines, {"one_to_one_communication"}).size(), records - 1);
      EXPECT_EQ(open.statuses, Statuses{kFinished});
      EXPECT_TRUE(open.lostData);
      const std::string message = ".f, " + std::to_string(cut) + " bytes missing\n";
      EXPECT_NE(text.find(message), std::string::npos) << text;
      EXPECT_EQ(text.find("truncated file"), text.rfind("truncated file")) << text;
    }
  }
}

// How many bytes what is left of a compressed component promises and doesn't hold.
size_t missingFrom(const std::string& component) {
  uint64_t promised = 0;
  std::memcpy(&promised, component.data(), sizeof promised);
  std::vector<Bytef> inflated(promised);
  z_stream z{};
  EXPECT_EQ(inflateInit(&z), Z_OK);
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(component.data())) + sizeof promised;
  z.avail_in = static_cast<uInt>(component.size() - sizeof promised);
  z.next_out = inflated.data();
  z.avail_out = static_cast<uInt>(promised);
  (void)inflate(&z, Z_SYNC_FLUSH);
  inflateEnd(&z);
  return z.avail_out;
}

TEST(KltDamage, ADamagedCompressedComponentGivesWhatCameBefore) {
  tb::Trace trace(3);
  tb::Stream& f = trace.stream("f", tb::FUNCTIONS, {0});
  for (uint64_t i = 1; i <= 40000; ++i) f.at(i * i).enter(0, static_cast<uint32_t>(i * 7919));
  OpenTrace whole(trace);
  const Lines expected = only(whole.read(), {"enter_function"});
  EXPECT_EQ(expected.size(), 40000U);
  const size_t bytes = trace.files()[".f"].size();
  for (const size_t left : {size_t{8}, size_t{9}, bytes / 2, bytes - 1}) {
    OpenTrace open(trace.files().truncate(".f", bytes - left));
    Messages messages;
    Lines lines = only(open.read(), {"enter_function"});
    const std::string text = messages.take();
    ASSERT_LE(lines.size(), expected.size());
    Lines same(expected.begin(), expected.begin() + static_cast<std::ptrdiff_t>(lines.size()));
    EXPECT_EQ(difference(same, lines), "");
    if (left == bytes / 2) {
      EXPECT_GT(lines.size(), 10000U);
    }
    EXPECT_EQ(open.lostData, lines.size() < expected.size()) << left;
    EXPECT_EQ(text.find("truncated file"), text.rfind("truncated file")) << text;
    if (left < bytes / 2) continue;  // so little can't be what the length field says
    const size_t missing = missingFrom(trace.files()[".f"].substr(0, left));
    if (missing != 0) {
      EXPECT_NE(text.find(".f, " + std::to_string(missing) + " bytes missing\n"), std::string::npos)
          << missing << ": " << text;
    }
  }
  // A length field that can't be true is of no use, one in the other byte order is.
  for (const char* field : {"\xff\xff\xff\xff\xff\xff\xff\x7f", "\0\0\0\0\0\xaa\xbb\xcc"}) {
    tb::TraceFiles files = trace.files();
    files.splice(".f", 0, 8, std::string(field, 8));
    OpenTrace open(files);
    Messages messages;
    EXPECT_EQ(difference(expected, only(open.read(), {"enter_function"})), "");
  }
}

// The place that a message names doesn't depend on how the component is stored.
TEST(KltDamage, APlaceInACompressedComponentIsThatInAPlainOne) {
  const auto place = [](unsigned flags, uint64_t records) {
    tb::Trace trace(flags);
    tb::Stream& f = trace.stream("f", tb::FUNCTIONS, {0});
    for (uint64_t i = 1; i <= records; ++i) f.at(i * i).enter(0, static_cast<uint32_t>(i));
    f.bytes("\x7f");
    f.at(records * records + 1).enter(0, 1);
    OpenTrace open(trace);
    Messages messages;
    (void)open.read();
    const std::string text = messages.take();
    return text.substr(std::min(text.find("(rectype 127"), text.size()));
  };
  for (const uint64_t records : {100U, 2000U, 4500U, 9000U, 20000U}) {
    const std::string plain = place(1, records);
    EXPECT_NE(plain, "");
    EXPECT_EQ(place(3, records), plain);
  }
}

}  // namespace
