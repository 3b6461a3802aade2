// Windows: what is delivered at their start and end, and that neither seek points nor the storage
// of a component change it.
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "klt/stream/klt_context.h"
#include "tests/unit/klt_reading.h"

namespace {

using namespace reading;
using namespace tb;
using Requests = std::vector<KLT_Request>;
using Bag = std::multiset<std::string>;

TraceFiles withoutAnchors(const TraceFiles& files) {
  TraceFiles rest;
  for (const auto& [key, bytes] : files.parts()) {
    if (!key.ends_with(".anc")) rest.add(key, bytes);
  }
  return rest;
}

// --- what is delivered ---------------------------------------------------------------------------

// One component with everything that a history can contain; thread 1 isn't in its list.
void fillOpen(Trace& trace) {
  trace.processes({3, 1}).communicator(1, "pair", {{0, 65536, 65536}});
  Stream& s = trace.stream("e", 0x1ef, {0, gtp(0, 1), gtp(0, 2)});
  s.at(1).enter(0, 5, 9).enter(gtp(0, 1), 8).at(2).enter(0, 6).enter(0, 7).leave(0);
  s.enterScope(0, 4, 1, 3).enterScope(0, 4, 2).enterScope(0, 4, 1).leaveScope(0, 4, 1);
  s.at(3).counters(0, {{10, 100}, {11, 200}, {12, 300}, {22, 400}}).at(4).counters(0, {{11, 201}});
  s.message({.sender = 0, .receiver = gtp(0, 1), .receiveTime = 6, .tag = 1});  // received at 10
  s.message({.sender = 0, .receiver = gtp(0, 1), .receiveTime = 7, .tag = 2});
  s.message({.sender = gtp(0, 1), .receiver = 0, .receiveTime = -7, .tag = 3});
  s.message({.sender = 0, .receiver = 1, .receiveTime = kNoReceive, .tag = 4});
  s.message({.sender = 1, .receiver = 0, .receiveTime = kNoSend, .tag = 5});
  s.at(5).collective({.communicator = 1, .operation = 2, .start = {0, 2}, .duration = {5, 3}});
  s.collective({.communicator = 1, .operation = 3, .start = {kNotStarted, 0}, .duration = {90, 6}});
  s.at(10).comment(0, "first").at(11).leave(0).at(12).leaveScope(0, 4, 2);
}
void fillSamples(Trace& trace) {  // not in time order
  Stream& s = trace.stream("c", COUNTERS, {0}).at(20).counters(0, {{1, 7}, {2, 6}});
  s.at(10).counters(0, {{1, 8}}).at(47).counters(0, {{1, 9}});
}
void fillNested(Trace& trace) {
  for (const char* name : {"a", "b"}) {
    trace.stream(name, ANY).at(5).record(11).at(7).record(27).at(kOpenEnd).comment(0, name);
  }
}
void fillUnlisted(Trace& trace) {  // without threads: only requests with threads have a history
  Stream& s = trace.communicator(1, "pair", {{0, 1, 1}}).stream("m", COLLOPS).at(1);
  s.collective({.communicator = 1, .operation = 2, .start = {0, 0}, .duration = {50, 50}});
}
void fillWrong(Trace& trace) {  // leaves calls and scopes that weren't entered
  Stream& s = trace.stream("f", FUNCTIONS | SCOPES, {0, 1}).at(1).leave(0).at(2).enter(0, 1);
  s.leave(1).leaveScope(0, 3, 4).at(9).leave(0);
}

TEST(KltHistory, DeliversTheStateAtTheStartIfThereAreHandlers) {
  using Table = KLT_HandlerTable;
  struct Case {
    void (*fill)(Trace&);
    Requests requests;
    Lines lines;
    void (*drop)(Table&) = [](Table&) {};  // sets handlers to null
  };
  const std::string stacks[] = {"function_history 10 0 2 [5 6] [9 0]",
                                "function_history 10 65536 1 [8] [0]"};
  const Lines scopes = {"enter_scope 2 0 4 2 0", "enter_scope 2 0 4 1 0"};
  const std::string begin = "begin_of_history 10 495 3 0:0:1 65536:65536:1 131072:131072:1";
  const Case cases[] = {
      {fillOpen,
       {window(10, 12)},
       {begin, stacks[0], scopes[0], scopes[1],
        "one_to_one_communication 4 0 7 65536 0 0 2 0 0 0 0 0 0",
        "one_to_one_communication 4 0 -9223372036854775808 1 0 0 4 0 0 0 0 0 0",
        "all_communication 5 1 3 2 [18446744073709551615 0] [90 6] [null]", stacks[1],
        "one_to_one_communication 4 65536 -7 0 0 0 3 0 0 0 0 0 0",
        "end_of_history 10 495 3 0:0:1 65536:65536:1 131072:131072:1", "comment 10 0 'first'",
        "leave_function 11 0 0", "end_of_filter 12 495 3 0:0:1 65536:65536:1 131072:131072:1"}},
      {fillOpen,
       {window(10, 10)},
       {stacks[0], scopes[0], scopes[1], stacks[1],
        "end_of_filter 10 495 3 0:0:1 65536:65536:1 131072:131072:1"},
       [](Table& table) { table.end_of_history = nullptr; }},
      {fillOpen,
       {window(10, 10, FUNCTIONS, {0})},
       {"end_of_filter 10 4 1 0:0:1"},
       [](Table& table) { table.function_history = nullptr; }},
      // The last samples, only for requests without messages and collective operations.
      {fillOpen,
       {window(10, 11, COUNTERS | FUNCTIONS, {gtp(0, 1), 0})},
       {begin, stacks[0], "counter_value 4 0 1 [11] [201]", "counter_value 3 0 1 [22] [400]",
        "counter_value 3 0 1 [12] [300]", "counter_value 3 0 1 [10] [100]", stacks[1],
        "end_of_history 10 495 3 0:0:1 65536:65536:1 131072:131072:1", "comment 10 0 'first'",
        "end_of_filter 11 68 1 0:65536:65536"}},
      {fillSamples,
       {window(25, 30, COUNTERS | MESSAGES), window(40, 45, COUNTERS), window(50, 60, COUNTERS)},
       {"end_of_filter 30 64 1 0:0:1", "begin_of_history 40 64 1 0:0:1",
        "counter_value 20 0 1 [1] [7]", "counter_value 20 0 1 [2] [6]",
        "end_of_history 40 64 1 0:0:1", "end_of_filter 45 64 1 0:0:1",
        "begin_of_history 50 64 1 0:0:1", "counter_value 47 0 1 [1] [9]",
        "end_of_history 50 64 1 0:0:1", "end_of_filter 60 64 1 0:0:1"}},
      // Brackets in a file are skipped. The last raw time means no end.
      {fillNested,
       {window(5, kOpenEnd)},
       {"comment 18446744073709551615 0 'a'", "end_of_filter 18446744073709551615 495 0",
        "comment 18446744073709551615 0 'b'", "end_of_filter 18446744073709551615 495 0"}},
      {fillUnlisted,
       {window(5, 6, COLLOPS), window(8, 9, COLLOPS, {0})},
       {"end_of_filter 6 256 0", "begin_of_history 8 256 0",
        "all_communication 1 1 2 2 [0 0] [50 50] [null]", "end_of_history 8 256 0",
        "end_of_filter 9 256 1 0:0:1"}},
      {fillWrong,
       {window(5, 20, FUNCTIONS | SCOPES, {0})},
       {"begin_of_history 5 12 2 0:0:1 1:1:1", "function_history 5 0 1 [1] [0]",
        "end_of_history 5 12 2 0:0:1 1:1:1", "leave_function 9 0 0",
        "end_of_filter 20 12 1 0:0:1"}},
  };
  for (const auto& [fill, requests, lines, drop] : cases) {
    Trace trace;
    fill(trace);
    OpenTrace open(trace);
    Recorder recorder;
    drop(recorder.table);
    Messages messages;
    EXPECT_EQ(difference(lines, open.read(recorder, requests, 1, KLT_MODE_EVENTS_ONCE)), "");
    EXPECT_EQ(messages.take(), fill != fillWrong
                                   ? ""
                                   : "WARNING: Encountered incorrect function stack (0 @ 1).\n"
                                     "ERROR: Leaving scope 3/4 which was never entered.\n");
  }
}

TEST(KltHistory, HasRoomForAnyDepth) {
  constexpr size_t kDepth = 70000;  // more than a fill or a stored count can have
  Trace trace;
  Stream& f = trace.stream("f", FUNCTIONS, {0}).at(1);
  for (size_t i = 0; i < kDepth; ++i) f.enter(0, 7);
  f.at(9).leave(0);
  const Lines lines = OpenTrace(trace).read({window(5, 10, FUNCTIONS)});
  ASSERT_EQ(lines.size(), 5U);
  EXPECT_TRUE(lines[1].starts_with("function_history 5 0 70000 [7 7"));
  EXPECT_EQ(std::count(lines[1].begin(), lines[1].end(), '7'), kDepth + 1);
  EXPECT_EQ(lines[3], "leave_function 9 0 0");
}

TEST(KltHistory, ThreadsAreInTheOrderOfTheirTable) {
  KLT_FileHandle handle;
  handle.threadsPerProcess.assign(1022, 2);
  KLT_Context context;
  // Undeclared threads come after declared ones of their bucket, in any order of use.
  const uint32_t undeclared = gtp(1018, 2), another = gtp(3062);
  for (const uint32_t thread :
       {another, gtp(1), undeclared, gtp(1021), gtp(1020, 1), gtp(0), gtp(1020), ~uint32_t{0}}) {
    KLT_ContextEnterFunction(context, thread, 1, 0, true);
  }
  (void)context.of(gtp(5));  // has no state
  std::vector<uint32_t> order;
  for (const KLT_WillyState* state : context.ordered(handle)) order.push_back(state->gtp);
  EXPECT_EQ(order, (std::vector<uint32_t>{gtp(1020), undeclared, another, ~uint32_t{0}, gtp(0),
                                          gtp(1020, 1), gtp(1021), gtp(1)}));
}

// --- anchors and storage -------------------------------------------------------------------------

// A trace with events of all kinds, and open calls, scopes and messages at all times. No two events
// have the same line. Returns the times of its anchors.
std::vector<uint64_t> fillBusy(Trace& trace, Stored stored) {
  constexpr int64_t kSpans[] = {0, 5, 700, -700, 9000, kNoReceive, kNoSend};
  trace.processes({2, 1, 1}).communicator(1, "some", {{0, 1, 1}});
  trace.communicator(2, "one", {{2, 2, 1}});
  std::mt19937 random(42);
  const auto upTo = [&](size_t n) { return static_cast<uint32_t>(random() % n); };
  std::vector<uint64_t> anchorTimes;
  for (uint32_t i = 0; i < 1500;) {
    const std::vector<uint32_t> lists[] = {{0, gtp(0, 1)}, {1, 2}};
    constexpr uint32_t kCategories[] = {FUNCTIONS, SCOPES, MESSAGES | COLLOPS, COUNTERS, ANY};
    const std::vector<uint32_t>& threads = lists[i / 150 % 2];
    const uint32_t categories = kCategories[i / 300];
    Stream& s = trace.stream(std::to_string(i), categories, threads).anchorEvery(300, stored);
    std::vector<std::pair<uint32_t, uint32_t>> open;  // threads and calls or scopes
    for (const uint32_t end = i + 150; i < end; ++i) {
      s.at(s.time() + (upTo(4) == 0 ? 0 : upTo(90)) + (upTo(60) == 0 ? 70000U : 0));
      const uint32_t thread = threads[upTo(8) / 7], other = threads[upTo(threads.size())];
      const bool enters = open.size() < 3 || upTo(20) < (i % 150 < 78 ? 19U : 1U);
      const bool isCall = categories == FUNCTIONS, isScope = categories == SCOPES;
      if ((isCall || isScope) && enters) {
        isCall ? s.enter(thread, i, upTo(3)) : s.enterScope(thread, 4, i % 2, i);
        open.emplace_back(thread, i % 2);
      } else if (isCall || isScope) {
        const auto left = open.begin() + upTo(open.size());
        isCall ? s.leave(left->first, i) : s.leaveScope(left->first, 4, left->second, i);
        open.erase(left);
      } else if (categories == COUNTERS) {
        s.counters(thread, {{1 + upTo(16), i}});
      } else if (categories == ANY) {
        s.comment(thread, std::to_string(i));
      } else if (upTo(4) != 0) {
        const int64_t span = kSpans[upTo(20) == 0 ? 5 + upTo(2) : upTo(5)];
        s.message({.sender = thread, .receiver = other, .receiveTime = span, .tag = i});
      } else {
        s.collective({.communicator = 1 + upTo(2),
                      .operation = i % 256,
                      .start = {upTo(50), upTo(3) == 0 ? kNotStarted : upTo(500)},
                      .duration = {upTo(3000), 1}});
      }
    }
    anchorTimes.insert(anchorTimes.end(), s.anchors().begin(), s.anchors().end());
  }
  return anchorTimes;
}

// Up to four requests of random selections, some adjacent, some with gaps, some without length.
Requests randomRequests(std::mt19937& random, const std::vector<uint64_t>& instants) {
  std::vector<uint64_t> times(8);
  for (uint64_t& time : times) time = instants[random() % instants.size()] + random() % 3 - 1;
  std::sort(times.begin(), times.end());
  Requests requests(1 + random() % 4);
  for (size_t i = 0; i < requests.size(); ++i) {
    const bool follows = i != 0 && random() % 3 != 0;
    const uint64_t start = follows ? requests[i - 1].end : times[2 * i];
    // Two requests for one instant would select what neither selects alone.
    const bool isInstant = random() % 4 == 0 && (i == 0 || requests[i - 1].start != start);
    requests[i] = window(start, isInstant ? start : times[2 * i + 1]);
    if (random() % 8 == 0 && i + 1 == requests.size()) requests[i].end = kOpenEnd;
    const auto some = random() & (FUNCTIONS | SCOPES | COUNTERS | MESSAGES | COLLOPS);
    if (some != 0) requests[i].categories = static_cast<uint32_t>(some);
    if (random() % 3 == 0) continue;
    for (const int32_t thread : {0, 1, 2, 65536}) {
      if (random() % 3 != 0) requests[i].threads.push_back({thread, thread, 1});
    }
  }
  return requests;
}

// The open calls or scopes before each line that changes them, according to the lines before it.
// Calls are stored as " 7 9", scopes as " 4:1@20 4:2@21"; of equal scopes the oldest is left first.
std::map<std::string, std::string> openBefore(const Lines& lines) {
  std::map<std::string, std::string> open, result;  // by kind and thread; by line
  bool isHistory = false;
  for (const std::string& line : lines) {
    std::istringstream text(line);
    const Lines words(std::istream_iterator<std::string>(text), {});
    const std::string& name = words[0];
    if (name.ends_with("_of_history")) isHistory = name.starts_with("begin");
    if (name == "end_of_filter") {  // for the listed threads, or for all
      PAL_Triplets threads;
      for (size_t i = 4; i < words.size(); ++i) {
        char colon = 0;
        PAL_Triplet& t = threads.emplace_back();
        std::istringstream(words[i]) >> t.first >> colon >> t.last >> colon >> t.stride;
      }
      std::erase_if(open, [&](const auto& entry) {
        const uint32_t category = entry.first[0] == 's' ? SCOPES : FUNCTIONS;
        return (std::stoul(words[2]) & category) != 0 &&
               (threads.empty() || PAL_TripletsContains(threads, std::stoi(entry.first.substr(1))));
      });
    }
    const bool isScope = name.ends_with("_scope");
    if (!isScope && name.find("function") == name.npos) continue;
    std::string& opened = open[(isScope ? "s" : "f") + words[2]];
    const std::string number = " " + words[3] + (isScope ? ":" + words[4] + "@" : "");
    if (!isHistory) result[line] = opened;
    if (name == "function_history") {
      opened += " " + line.substr(line.find('[') + 1, line.find(']') - line.find('[') - 1);
    } else if (name.starts_with("enter")) {
      opened += number + (isScope ? words[1] : "");
    } else {
      const size_t at = isScope ? opened.find(number) : opened.rfind(' ');
      if (at < opened.size()) opened.erase(at, opened.find(' ', at + 1) - at);
    }
  }
  return result;
}

// The events without histories; or with `spans` all messages and collective operations.
Bag eventsOf(const Lines& lines, bool spans = false) {
  Bag events;
  bool isHistory = false;
  for (const std::string& line : lines) {
    if (line.starts_with("begin_of_history")) isHistory = true;
    const bool isSpan = hasName(line, {"one_to_one_communication", "all_communication"});
    if (spans ? isSpan : !isHistory && !line.starts_with("end_of_filter")) events.insert(line);
    if (line.starts_with("end_of_history")) isHistory = false;
  }
  return events;
}

// The union of what each of the requests delivers alone.
Bag unionOf(OpenTrace& open, const Requests& requests, bool spans = false) {
  Bag all;
  for (const KLT_Request& request : requests) {
    const Bag lines = eventsOf(open.read({request}), spans);
    Bag joined;
    std::set_union(all.begin(), all.end(), lines.begin(), lines.end(),
                   std::inserter(joined, joined.end()));
    all.swap(joined);
  }
  return all;
}

TEST(KltAnchors, NeitherSeekPointsNorStorageChangeAnyRequests) {
  for (const Stored stored : {Stored::Everything, Stored::NoScopes}) {
    Trace trace, deflated(3);
    const std::vector<uint64_t> anchorTimes = fillBusy(trace, stored);
    EXPECT_EQ(anchorTimes, fillBusy(deflated, stored));
    OpenTrace anchored(trace), compressed(deflated), plain(withoutAnchors(trace.files()));
    const Lines whole = plain.read({window(0, kOpenEnd)});
    const auto truth = openBefore(whole);
    EXPECT_GT(anchorTimes.size(), 40U);
    std::mt19937 random(5);
    Recorder recorder;
    Messages messages;
    for (int round = 0; round < 100; ++round) {
      SCOPED_TRACE(round);
      const Requests requests = randomRequests(random, anchorTimes);
      const Lines lines = plain.read(requests);
      ASSERT_EQ(difference(lines, anchored.read(requests)), "");
      ASSERT_EQ(difference(lines, compressed.read(requests)), "");
      // The lines show what is open at every event, also those delivered stream by stream.
      const Lines unordered = anchored.read(requests, 0);
      for (const auto& [line, open] : openBefore(lines)) ASSERT_EQ(open, truth.at(line)) << line;
      for (const auto& [line, open] : openBefore(unordered))
        ASSERT_EQ(open, truth.at(line)) << line;
      // Together requests deliver what each delivers alone.
      ASSERT_EQ(unionOf(anchored, requests), eventsOf(lines));
      const Bag spans = unionOf(anchored, requests, true);
      ASSERT_EQ(spans, eventsOf(anchored.read(recorder, requests, 1, KLT_MODE_EVENTS_ONCE), true));
      const bool isSeries = requests.size() == 2 && requests[0].end == requests[1].start;
      ASSERT_TRUE(!isSeries || spans == eventsOf(lines, true));
      // Adjoining windows deliver each event once.
      const uint64_t a = requests.front().start, b = requests.back().start;
      const Requests tiles = {window(0, a), window(a, b), window(b, kOpenEnd)};
      ASSERT_EQ(difference(whole, anchored.read(tiles)), "");
      Bag pieces;
      for (const KLT_Request& tile : tiles) pieces.merge(eventsOf(anchored.read({tile})));
      ASSERT_EQ(eventsOf(whole), pieces);
    }
    EXPECT_EQ(messages.take(), "");
  }
}

TEST(KltAnchors, SeekingSavesReading) {
  Trace trace;
  Stream& f = trace.stream("f", FUNCTIONS, {0}).anchorEvery(0x4000);
  for (uint64_t i = 1; i < 60000; ++i) f.at(i * 10).enter(0, 1).leave(0);
  TraceFiles files = trace.files();
  files[".f"][100] = '\x7f';  // before the anchor: not read
  files[".f"][files[".f"].size() - 18] = '\x7f';
  OpenTrace open(files);
  EXPECT_EQ(only(open.read({window(300000, 300100)}), {"enter_function"}).size(), 10U);
  EXPECT_EQ(open.statuses, std::vector<int>{KLT_STATUS_FINISHED});
}

// --- wrong anchors -------------------------------------------------------------------------------

// An anchor has a correct history entry, and another one many times. Wrong entries are reported and
// skipped. A record that the stream reads itself isn't delivered twice. Impossible anchors are
// ignored. Samples that no anchor refers to are found, too.
TEST(KltAnchors, WrongAnchorsAndEntriesChangeNothing) {
  enum File { kNone, kData, kDeclarations, kGone, kOther };
  constexpr uint64_t kRight = 48;  // the message before the anchor
  const char* const corrupted = "Found corrupted data while filtering";
  struct Case {
    File file;
    uint64_t offset;
    const char* message;
    std::vector<std::pair<uint64_t, uint64_t>> anchors = {};  // further anchors
  };
  const Case cases[] = {
      {kData, ~uint64_t{0}, ""},             // to be skipped
      {kData, ~uint64_t{0} - 1, corrupted},  // almost the largest number
      {kData, 118, corrupted},               // the end of the file
      {kData, 0, corrupted},                 // a comment
      {kData, 3, corrupted},                 // no record
      {kData, 26, corrupted},                // a history
      {kData, kRight, ""},
      {kData, 83, ""},                 // after the anchor
      {kOther, 0, ""},                 // after the start of the window
      {kOther, 44, "truncated file"},  // a record that is cut off
      {kNone, 0, corrupted},
      {kDeclarations, 0, corrupted},
      {kGone, 0, "Could not open"},
      {kData, kRight, "Ignoring anchors in ", {{9, 1000}}},  // after the file's end
      {kData, kRight, "Ignoring anchors in ", {{0, 83}}},    // decreasing times
      {kData, kRight, "Ignoring anchors in ", {{9, 20}}},    // decreasing offsets
  };
  for (const auto& [file, offset, message, anchors] : cases) {
    SCOPED_TRACE(testing::Message() << file << " " << offset);
    Trace trace;
    trace.function(1, "f")
        .stream("c", COUNTERS, {0})
        .at(5)
        .counters(0, {{1, 9}})
        .anchor(Stored::Nothing);
    Stream& m = trace.stream("m", MESSAGES, {0}).comment(0, "").record(9, {{"offset", 1}});
    m.record(46, {{"file", m.fileId()}, {"offset", 26}, {"prevtime", 0}}).at(1);
    m.message({.receiveTime = 50, .tag = 1});
    Stream& n = trace.stream("n", MESSAGES, {0}).at(25).message({.receiveTime = 50, .tag = 3});
    n.at(40).comment(0, "").bytes("\x1c");
    trace.extraIndex().record("file_declaration", {{"id", 5}, {"filetype", 1}, {"suffix", "gone"}});
    const uint64_t files[] = {99, m.fileId(), 0x10001, 5, n.fileId()};
    m.anchorRecord(46, {{"file", m.fileId()}, {"offset", kRight}, {"prevtime", 0}});
    m.anchorRecord(46, {{"file", std::vector<uint64_t>(44, files[file])},
                        {"offset", std::vector<uint64_t>(44, offset)},
                        {"prevtime", std::vector<uint64_t>(44, 0)}});
    m.anchor(Stored::Nothing).at(12).message({.receiveTime = 50, .tag = 2});
    for (const auto& [time, at] : anchors) {
      m.anchorRecord(9, {{"time_prev", time}, {"offset", at}});
    }
    OpenTrace open(trace), plain(withoutAnchors(trace.files()));
    Messages messages;
    for (const uint32_t categories : {COUNTERS, MESSAGES}) {
      const Requests requests = {window(20, 30, categories)};
      EXPECT_EQ(difference(plain.read(requests), open.read(requests)), "");
    }
    const std::string text = messages.take();
    EXPECT_TRUE(*message == '\0' ? text.empty() : text.find(message) != text.npos) << text;
    EXPECT_EQ(open.lostData, offset == 44 || file == kGone);
  }
}

TEST(KltAnchors, AreOnlyUsedIfTheIndexDeclaresThem) {
  for (const bool declared : {false, true}) {
    tb::Trace trace;
    trace.clock(1e-6, 0).processes({1}).defineClass(1, "A").function(1, "f", 1);
    tb::Stream& f = trace.stream("f.0", tb::FUNCTIONS, {0}).at(1).enter(0, 1).at(9).leave(0);
    // The offset is wrong, so that reading from it skips the end of the call.
    f.anchorRecord(9, {{"time_prev", 2}, {"offset", f.size()}});
    trace.declareComponent(0x20000, "z", tb::FUNCTIONS, declared ? f.fileId() + 1 : 0);
    tb::TraceFiles files = trace.files();
    for (const std::string part : {"", ".anc"}) files.add(".z" + part, files[".f.0" + part]);
    reading::OpenTrace open(files);
    const Lines lines = open.read({window(5, reading::kOpenEnd)});
    EXPECT_EQ(reading::only(lines, {"leave_function"}).size(), declared ? 0U : 1U);
  }
}

}  // namespace
