// Windows: what a consumer is told at their start and end, and that neither seek points nor the
// storage of a component change a word of it.
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

using namespace reading;  // the words that these tests are made of
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

// --- what is told --------------------------------------------------------------------------------

// One component with all that a history can hold; thread 1 isn't part of it.
void fillOpen(Trace& trace) {
  trace.processes({3, 1}).communicator(1, "pair", {{0, 65536, 65536}});
  Stream& s = trace.stream("e", 0x1ef, {0, gtp(0, 1), gtp(0, 2)});
  s.at(1).enter(0, 5, 9).enter(gtp(0, 1), 8).at(2).enter(0, 6).enter(0, 7).leave(0);
  s.enterScope(0, 4, 1, 3).enterScope(0, 4, 2).enterScope(0, 4, 1).leaveScope(0, 4, 1);
  s.at(3).counters(0, {{10, 100}, {11, 200}, {12, 300}, {22, 400}}).at(4).counters(0, {{11, 201}});
  s.message({.sender = 0, .receiver = gtp(0, 1), .receiveTime = 6, .tag = 1});  // arrives at 10
  s.message({.sender = 0, .receiver = gtp(0, 1), .receiveTime = 7, .tag = 2});
  s.message({.sender = gtp(0, 1), .receiver = 0, .receiveTime = -7, .tag = 3});
  s.message({.sender = 0, .receiver = 1, .receiveTime = NO_RECEIVE, .tag = 4});
  s.message({.sender = 1, .receiver = 0, .receiveTime = NO_SEND, .tag = 5});
  s.at(5).collective({.communicator = 1, .operation = 2, .start = {0, 2}, .duration = {5, 3}});
  s.collective({.communicator = 1, .operation = 3, .start = {NOT_STARTED, 0}, .duration = {90, 6}});
  s.at(10).comment(0, "first").at(11).leave(0).at(12).leaveScope(0, 4, 2);
}
void fillSamples(Trace& trace) {  // out of order
  trace.stream("c", COUNTERS, {0}).at(20).counters(0, {{1, 7}}).at(10).counters(0, {{1, 8}});
}
void fillTwo(Trace& trace) {
  Stream& s = trace.processes({1, 1}).stream("e", FUNCTIONS | SCOPES, {0, 1});
  s.at(1).enter(0, 10).enter(1, 11).enterScope(0, 2, 1).enterScope(1, 3, 1);
  s.at(10).enter(0, 12).at(15).leave(1);
}
void fillNested(Trace& trace) {
  for (const char* name : {"a", "b"}) {
    trace.stream(name, ANY).at(5).record(11).at(7).record(27).at(kOpenEnd).comment(0, name);
  }
}
void fillUnlisted(Trace& trace) {  // says nothing of threads: history is told to who names some
  Stream& s = trace.communicator(1, "pair", {{0, 1, 1}}).stream("m", COLLOPS).at(1);
  s.collective({.communicator = 1, .operation = 2, .start = {0, 0}, .duration = {50, 50}});
}
void fillWrong(Trace& trace) {  // leaves what wasn't entered
  Stream& s = trace.stream("f", FUNCTIONS | SCOPES, {0, 1}).at(1).leave(0).at(2).enter(0, 1);
  s.leave(1).leaveScope(0, 3, 4).at(9).leave(0);
}

TEST(KltHistory, TellsWhatIsOpenAtTheStartToThoseWhoTakeIt) {
  using Table = KLT_HandlerTable;
  struct Case {
    void (*fill)(Trace&);
    Requests requests;
    Lines lines;
    void (*drop)(Table&) = [](Table&) {};  // handlers that the consumer lacks
  };
  const std::string stacks[] = {"function_history 10 0 2 [5 6] [9 0]",
                                "function_history 10 65536 1 [8] [0]"};
  const Lines scopes = {"enter_scope 2 0 4 2 0", "enter_scope 2 0 4 1 0"};
  const Case cases[] = {
      {fillOpen,
       {window(10, 12)},
       {"begin_of_history 10 495 3 0:0:1 65536:65536:1 131072:131072:1", stacks[0], scopes[0],
        scopes[1], "one_to_one_communication 4 0 7 65536 0 0 2 0 0 0 0 0 0",
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
       {window(10, 10, FUNCTIONS | SCOPES, {0})},
       {"end_of_filter 10 12 1 0:0:1"},
       [](Table& table) {
         table.function_history = nullptr;
         table.enter_scope = nullptr;
         table.leave_scope = nullptr;
       }},
      {fillOpen,
       {window(10, 10, FUNCTIONS, {0})},  // stacks aren't even kept
       {"end_of_filter 10 4 1 0:0:1"},
       [](Table& table) {
         table.enter_function = nullptr;
         table.leave_function = nullptr;
       }},
      // The latest samples, for those alone who ask for nothing that is under way.
      {fillOpen,
       {window(10, 11, COUNTERS | FUNCTIONS, {gtp(0, 1), 0})},
       {"begin_of_history 10 495 3 0:0:1 65536:65536:1 131072:131072:1", stacks[0],
        "counter_value 4 0 1 [11] [201]", "counter_value 3 0 1 [22] [400]",
        "counter_value 3 0 1 [12] [300]", "counter_value 3 0 1 [10] [100]", stacks[1],
        "end_of_history 10 495 3 0:0:1 65536:65536:1 131072:131072:1", "comment 10 0 'first'",
        "end_of_filter 11 68 1 0:65536:65536"}},
      {fillSamples,
       {window(25, 30, COUNTERS | MESSAGES), window(40, 50, COUNTERS), window(45, 60)},
       {"end_of_filter 30 64 1 0:0:1", "begin_of_history 40 64 1 0:0:1",
        "counter_value 20 0 1 [1] [7]", "end_of_history 40 64 1 0:0:1",
        "end_of_filter 60 64 1 0:0:1"}},
      // A thread and a category are added, then the same are dropped.
      {fillTwo,
       {window(5, 10, FUNCTIONS, {0}), window(10, 20, FUNCTIONS | SCOPES, {0, 1}),
        window(20, 30, FUNCTIONS, {0})},
       {"begin_of_history 5 12 1 0:1:1", "function_history 5 0 1 [10] [0]",
        "end_of_history 5 12 1 0:1:1", "begin_of_history 10 12 1 0:1:1", "enter_scope 1 0 2 1 0",
        "function_history 10 1 1 [11] [0]", "enter_scope 1 1 3 1 0", "end_of_history 10 12 1 0:1:1",
        "enter_function 10 0 12 0", "leave_function 15 1 0", "end_of_filter 20 12 1 1:1:1",
        "end_of_filter 20 8 0", "end_of_filter 30 4 1 0:0:1"}},
      // Of nested brackets the outer one is shown. The last moment of time is no end.
      {fillNested,
       {window(5, kOpenEnd)},
       {"begin_of_history 5 1 0", "end_of_history 7 1 0", "comment 18446744073709551615 0 'a'",
        "end_of_filter 18446744073709551615 495 0", "comment 18446744073709551615 0 'b'",
        "end_of_filter 18446744073709551615 495 0"}},
      {fillUnlisted,
       {window(5, 6, COLLOPS), window(8, 9, COLLOPS, {0})},
       {"end_of_filter 6 256 0", "begin_of_history 8 256 0",
        "all_communication 1 1 2 2 [0 0] [50 50] [null]", "end_of_history 8 256 0",
        "end_of_filter 9 256 1 0:0:1"}},
      {fillWrong,
       {window(5, 20, FUNCTIONS | SCOPES, {0})},
       {"begin_of_history 5 12 1 0:1:1", "function_history 5 0 1 [1] [0]",
        "end_of_history 5 12 1 0:1:1", "leave_function 9 0 0", "end_of_filter 20 12 1 0:0:1"}},
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
  constexpr size_t kDepth = 70000;  // more than a fill holds, and a stored count
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

TEST(KltHistory, ThreadsFollowTheOrderOfTheirTable) {
  KLT_FileHandle handle;
  handle.threadsPerProcess.assign(1022, 2);
  KLT_Context context;
  // Undeclared threads come after declared ones of their bucket. Which came first doesn't matter.
  const uint32_t undeclared = gtp(1018, 2), another = gtp(3062);
  for (const uint32_t thread :
       {another, gtp(1), undeclared, gtp(1021), gtp(1020, 1), gtp(0), gtp(1020), ~uint32_t{0}}) {
    KLT_ContextEnterFunction(context, thread, 1, 0, true);
  }
  (void)context.of(gtp(5));  // has nothing to tell
  std::vector<uint32_t> order;
  for (const KLT_WillyState* state : context.ordered(handle)) order.push_back(state->gtp);
  EXPECT_EQ(order, (std::vector<uint32_t>{gtp(1020), undeclared, another, ~uint32_t{0}, gtp(0),
                                          gtp(1020, 1), gtp(1021), gtp(1)}));
}

// --- anchors and storage -------------------------------------------------------------------------

// A run with a bit of everything, which is never quiet. No two events have the same line. Counters
// share records and buckets.
class BusyTrace {
 public:
  BusyTrace(unsigned flags, Told told) : trace(flags) {
    trace.processes({2, 1, 1}).communicator(1, "some", {{0, 1, 1}});
    trace.communicator(2, "one", {{2, 2, 1}});
    struct Part {
      const char* name;
      uint32_t categories;
      std::vector<uint32_t> threads;
      int events;
    };
    for (const auto& [name, categories, threads, events] :
         std::initializer_list<Part>{{"f.0", FUNCTIONS, {0, gtp(0, 1)}, 250},
                                     {"f.2", FUNCTIONS, {1, 2}, 250},
                                     {"s", SCOPES, {0, 1, 2}, 500},
                                     {"m", MESSAGES | COLLOPS, {0, 1, 2, gtp(0, 1)}, 120},
                                     {"c", COUNTERS, {0, 1}, 80},
                                     {"x", ANY, {0}, 40}}) {
      Stream& s = trace.stream(name, categories, threads).anchorEvery(300, told);
      const auto size = static_cast<uint32_t>(threads.size());
      for (int i = 0; i < events; ++i) {
        s.at(s.time() + (upTo(4) == 0 ? 0 : upTo(90)) + (upTo(60) == 0 ? 70000U : 0));
        addEvent(s, categories, threads[upTo(size)], threads[upTo(size)]);
      }
      for (const auto& [time, offset] : s.anchors()) anchorTimes.push_back(time);
    }
  }

  Trace trace;
  std::vector<uint64_t> anchorTimes;

 private:
  uint32_t upTo(uint32_t n) { return static_cast<uint32_t>(random_() % n); }
  void addEvent(Stream& s, uint32_t categories, uint32_t thread, uint32_t partner) {
    constexpr int64_t kSpans[] = {0, 5, 700, -700, 100000, NO_RECEIVE, NO_SEND};
    const uint32_t i = ++events_;
    if (categories == FUNCTIONS && (depth_[thread] == 0 || upTo(9) < 5)) {
      s.enter(thread, i, upTo(3));
      ++depth_[thread];
    } else if (categories == FUNCTIONS) {
      s.leave(thread, i);
      --depth_[thread];
    } else if (categories == SCOPES && (scopes_.size() < 3 || upTo(10) < 7)) {
      s.enterScope(thread, 4, i % 7, i);
      scopes_.emplace_back(thread, i % 7);
    } else if (categories == SCOPES) {
      const auto which = scopes_.begin() + upTo(static_cast<uint32_t>(scopes_.size()));
      s.leaveScope(which->first, 4, which->second, i);
      scopes_.erase(which);
    } else if (categories == COUNTERS) {
      s.counters(thread, {{1 + upTo(16), i}});
    } else if (categories == ANY) {
      s.comment(thread, std::to_string(i));
    } else if (upTo(4) != 0) {
      const int64_t span = kSpans[upTo(20) == 0 ? 5 + upTo(2) : upTo(5)];
      s.message({.sender = thread, .receiver = partner, .receiveTime = span, .tag = i});
    } else {
      s.collective({.communicator = 1 + upTo(2),
                    .operation = i,
                    .start = {upTo(50), upTo(3) == 0 ? NOT_STARTED : upTo(500)},
                    .duration = {upTo(300), 1}});
    }
  }

  std::mt19937 random_{42};
  uint32_t events_ = 0;
  std::map<uint32_t, int> depth_;
  std::vector<std::pair<uint32_t, uint32_t>> scopes_;  // open ones
};

// Up to four requests of random selections, some adjacent, some with gaps, some without length.
Requests randomRequests(std::mt19937& random, const std::vector<uint64_t>& instants) {
  std::vector<uint64_t> times(8);
  for (uint64_t& time : times) time = instants[random() % instants.size()] + random() % 3 - 1;
  std::sort(times.begin(), times.end());
  Requests requests(1 + random() % 4);
  for (size_t i = 0; i < requests.size(); ++i) {
    KLT_Request& request = requests[i];
    const bool follows = i != 0 && random() % 2 == 0;
    request = window(follows ? requests[i - 1].end : times[2 * i], times[2 * i + 1]);
    request.categories = random() & (FUNCTIONS | SCOPES | COUNTERS | MESSAGES | COLLOPS);
    if (request.categories == 0) request.categories = ANY;
    // Two of one instant would select what neither selects alone.
    const bool isSecond = i != 0 && requests[i - 1].start == request.start;
    if (random() % 6 == 0 && !isSecond) request.end = request.start;
    if (random() % 8 == 0 && i + 1 == requests.size()) request.end = kOpenEnd;
    if (random() % 3 == 0) continue;
    for (const int32_t thread : {0, 1, 2, 65536}) {
      if (random() % 3 != 0) request.threads.push_back({thread, thread, 1});
    }
  }
  return requests;
}

// What a consumer of these lines knows to be open ahead of each change of calls and scopes. Calls
// are kept as " 7 9", scopes as " 4:1@20 4:2@21", of which the oldest of a number is left first.
std::map<std::string, std::string> openAhead(const Lines& lines) {
  std::map<std::string, std::string> open, result;  // by thread, calls and scopes apart; by line
  bool isPast = false;
  for (const std::string& line : lines) {
    std::istringstream text(line);
    const Lines words(std::istream_iterator<std::string>(text), {});
    const std::string& name = words[0];
    if (name.ends_with("_of_history")) isPast = name.starts_with("begin");
    if (name == "end_of_filter") {  // of the threads named, or of all
      const unsigned long categories = std::stoul(words[2]);
      std::erase_if(open, [&](const auto& entry) {
        const int32_t thread = std::stoi(entry.first.substr(1));
        const auto isNamed = [&](const std::string& triplet) {
          PAL_Triplet t;
          char colon = 0;
          std::istringstream(triplet) >> t.first >> colon >> t.last >> colon >> t.stride;
          return PAL_TripletsContains({&t, 1}, thread);
        };
        return (categories & (entry.first[0] == 's' ? SCOPES : FUNCTIONS)) != 0 &&
               (words[3] == "0" || std::any_of(words.begin() + 4, words.end(), isNamed));
      });
    }
    if (name == "function_history") {
      std::string& calls = open["f" + words[2]];
      calls += " " + line.substr(line.find('[') + 1, line.find(']') - line.find('[') - 1);
    }
    const bool isScope = name.ends_with("_scope");
    if (!isScope && !hasName(line, {"enter_function", "leave_function"})) continue;
    std::string& things = open[(isScope ? "s" : "f") + words[2]];
    if (!isPast) result[line] = things;
    const std::string number = " " + words[3] + (isScope ? ":" + words[4] + "@" : "");
    if (name.starts_with("enter")) {
      things += number + (isScope ? words[1] : "");
    } else {
      const size_t at = isScope ? things.find(number) : things.rfind(' ');
      if (at < things.size()) things.erase(at, things.find(' ', at + 1) - at);
    }
  }
  return result;
}

// The events alone, without what was told about the past.
Bag eventsOf(const Lines& lines) {
  Bag events;
  bool isPast = false;
  for (const std::string& line : lines) {
    if (line.starts_with("begin_of_history")) isPast = true;
    if (!isPast && !line.starts_with("end_of_filter")) events.insert(line);
    if (line.starts_with("end_of_history")) isPast = false;
  }
  return events;
}

// Messages and collective operations, those under way at the start of a window as well.
Bag spansOf(const Lines& lines) {
  const Lines spans = only(lines, {"one_to_one_communication", "all_communication"});
  return {spans.begin(), spans.end()};
}

// All lines that any of the requests alone draws, each as often as one of them has it.
Bag unionOf(OpenTrace& open, const Requests& requests, Bag (*part)(const Lines&)) {
  Bag all;
  for (const KLT_Request& request : requests) {
    const Bag lines = part(open.read({request}));
    Bag joined;
    std::set_union(all.begin(), all.end(), lines.begin(), lines.end(),
                   std::inserter(joined, joined.end()));
    all.swap(joined);
  }
  return all;
}

TEST(KltAnchors, NeitherSeekPointsNorStorageChangeAnyRequests) {
  for (const Told told : {Told::Everything, Told::NoScopes}) {
    const BusyTrace busy(0, told), deflated(3, told);
    OpenTrace anchored(busy.trace), compressed(deflated.trace);
    OpenTrace plain(withoutAnchors(busy.trace.files()));
    const Lines whole = plain.read({window(0, kOpenEnd)});
    const auto truth = openAhead(whole);
    EXPECT_GT(busy.anchorTimes.size(), 40U);
    std::mt19937 random(5);
    Recorder recorder;
    Messages messages;
    for (int round = 0; round < 100; ++round) {
      SCOPED_TRACE(round);
      const Requests requests = randomRequests(random, busy.anchorTimes);
      const Lines lines = plain.read(requests);
      ASSERT_EQ(difference(lines, anchored.read(requests)), "");
      ASSERT_EQ(difference(lines, compressed.read(requests)), "");
      // A consumer knows what is open at every event, also stream by stream.
      const Lines unordered = anchored.read(requests, 0);
      for (const auto& [line, open] : openAhead(lines)) ASSERT_EQ(open, truth.at(line)) << line;
      for (const auto& [line, open] : openAhead(unordered)) ASSERT_EQ(open, truth.at(line)) << line;
      // Together requests deliver what each delivers alone.
      ASSERT_EQ(unionOf(anchored, requests, eventsOf), eventsOf(lines));
      ASSERT_EQ(unionOf(anchored, requests, spansOf),
                spansOf(anchored.read(recorder, requests, 1, KLT_MODE_EVENTS_ONCE)));
      // Windows that tile time deliver each event once.
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
  files.flip(".f", 100, 0xff);  // ahead of the anchor: never met
  files[".f"][files[".f"].size() - 18] = '\x7f';
  OpenTrace open(files);
  EXPECT_EQ(only(open.read({window(300000, 300100)}), {"enter_function"}).size(), 10U);
  EXPECT_EQ(open.statuses, std::vector<int>{KLT_STATUS_FINISHED});
}

// --- anchors that lie ----------------------------------------------------------------------------

// Beside the one that is right, an anchor lists one more entry many times: nonsense is reported and
// skipped, and what a stream comes to itself isn't told twice.
TEST(KltAnchors, EntriesThatMakeNoSenseChangeNothing) {
  enum File { kNone, kData, kAnchors, kDeclarations, kGone, kOther };
  const char* const corrupted = "Found corrupted data while filtering";
  struct Case {
    File file;
    uint64_t offset;
    const char* message;
  };
  const Case cases[] = {
      {kData, ~uint64_t{0}, ""},             // to be skipped
      {kData, ~uint64_t{0} - 1, corrupted},  // almost the end of numbers
      {kData, 118, corrupted},               // the end of the file
      {kData, 0, corrupted},                 // a comment
      {kData, 3, corrupted},                 // no record
      {kData, 9, corrupted},                 // an anchor
      {kData, 26, corrupted},                // a history
      {kData, 48, ""},                       // the one that is listed already
      {kData, 83, ""},                       // one after the anchor
      {kOther, 0, ""},                       // one after the start of the window
      {kOther, 44, "truncated file"},        // a record that the end cuts off
      {kNone, 0, corrupted},
      {kDeclarations, 0, corrupted},
      {kGone, 0, "Could not open"},
  };
  for (const auto& [file, offset, message] : cases) {
    SCOPED_TRACE(testing::Message() << file << " " << offset);
    Trace trace;
    trace.function(1, "f");
    Stream& m = trace.stream("m", MESSAGES, {0}).comment(0, "").record(9, {{"offset", 1}});
    m.record(46, {{"file", m.fileId()}, {"offset", 26}, {"prevtime", 0}}).at(1);
    m.message({.receiveTime = 50, .tag = 1});
    Stream& n = trace.stream("n", MESSAGES, {0})
                    .at(25)
                    .message({.receiveTime = 50, .tag = 3})
                    .at(40)
                    .comment(0, "")
                    .bytes("\x1c");
    const uint64_t gone = trace.stream("gone", ERRORS, {0}).fileId();
    const uint64_t files[] = {99, m.fileId(), m.fileId() + 1, 0x10001, gone, n.fileId()};
    std::vector<uint64_t> ids(44, files[file]), offsets(44, offset), times(44);
    ids[0] = m.fileId();
    offsets[0] = 48;
    m.anchorRecord(46, {{"file", ids}, {"offset", offsets}, {"prevtime", times}});
    m.anchor(Told::Nothing).at(12);
    m.message({.receiveTime = 50, .tag = 2});
    OpenTrace open(trace.files().remove(".gone"));
    OpenTrace plain(withoutAnchors(trace.files()));
    Messages messages;
    for (const uint64_t start : {11U, 20U}) {
      EXPECT_EQ(difference(plain.read({window(start, 30, MESSAGES)}),
                           open.read({window(start, 30, MESSAGES)})),
                "");
    }
    const std::string text = messages.take();
    EXPECT_TRUE(*message == '\0' ? text.empty() : text.find(message) != text.npos) << text;
    EXPECT_EQ(open.lostData, offset == 44 || file == kGone);
  }
}

// Samples that no anchor lists are found all the same.
TEST(KltAnchors, MayLackSamples) {
  Trace trace;
  trace.stream("c", COUNTERS, {0}).at(5).counters(0, {{1, 9}}).anchor(Told::Nothing).at(40);
  OpenTrace open(trace);
  EXPECT_EQ(only(open.read({window(20, 60, COUNTERS)}), {"counter_value"}),
            Lines{"counter_value 5 0 1 [1] [9]"});
}

TEST(KltAnchors, ThoseThatCantBeTrueAreIgnored) {
  const std::vector<std::pair<uint64_t, uint64_t>> cases[] = {
      {{5, 1000}},         // after the file's end
      {{5, 20}, {4, 40}},  // back in time
      {{5, 40}, {6, 20}},  // back in the file
  };
  for (const auto& anchors : cases) {
    Trace trace;
    Stream& f = trace.stream("f", FUNCTIONS, {0});
    for (const auto& [time, offset] : anchors) {
      f.anchorRecord(9, {{"time_prev", time}, {"offset", offset}});
    }
    for (uint64_t i = 1; i < 20; ++i) f.at(i).enter(0, 1);
    OpenTrace open(trace), plain(withoutAnchors(trace.files()));
    Messages messages;
    EXPECT_EQ(difference(plain.read({window(10, 15)}), open.read({window(10, 15)})), "");
    EXPECT_NE(messages.take().find("Ignoring anchors in "), std::string::npos);
  }
}

}  // namespace
