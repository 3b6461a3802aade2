// Windows: what a consumer is told at their start and end, and that neither seek points nor the
// storage of a component change a word of it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
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
  s.at(3).counters(0, {{14, 100}, {3, 200}, {12, 300}}).at(4).counters(0, {{3, 201}});
  s.message({.sender = 0, .receiver = gtp(0, 1), .receiveTime = 6, .tag = 1});  // arrives at 10
  s.message({.sender = 0, .receiver = gtp(0, 1), .receiveTime = 7, .tag = 2});
  s.message({.sender = gtp(0, 1), .receiver = 0, .receiveTime = -7, .tag = 3});
  s.message({.sender = 0, .receiver = 1, .receiveTime = NO_RECEIVE, .tag = 4});
  s.message({.sender = 1, .receiver = 0, .receiveTime = NO_SEND, .tag = 5});
  s.at(5).collective({.communicator = 1, .operation = 2, .start = {0, 2}, .duration = {5, 3}});
  s.collective({.communicator = 1, .operation = 3, .start = {NOT_STARTED, 0}, .duration = {90, 6}});
  s.at(10).comment(0, "first").at(11).leave(0).at(12).leaveScope(0, 4, 2);
}

TEST(KltHistory, TellsWhatIsOpenAtTheStart) {
  Trace trace;
  fillOpen(trace);
  OpenTrace open(trace);
  const Lines messages = {"one_to_one_communication 4 0 7 65536 0 0 2 0 0 0 0 0 0",
                          "one_to_one_communication 4 0 -9223372036854775808 1 0 0 4 0 0 0 0 0 0"};
  const Lines expected = {
      "begin_of_history 10 495 3 0:0:1 65536:65536:1 131072:131072:1",
      "function_history 10 0 2 [5 6] [9 0]",
      "enter_scope 2 0 4 2 0",
      "enter_scope 2 0 4 1 0",
      messages[0],
      messages[1],
      "all_communication 5 1 3 2 [18446744073709551615 0] [90 6] [null]",
      "function_history 10 65536 1 [8] [0]",
      "one_to_one_communication 4 65536 -7 0 0 0 3 0 0 0 0 0 0",
      "end_of_history 10 495 3 0:0:1 65536:65536:1 131072:131072:1",
      "comment 10 0 'first'",
      "leave_function 11 0 0",
      "end_of_filter 12 495 3 0:0:1 65536:65536:1 131072:131072:1",
  };
  EXPECT_EQ(difference(expected, open.read({window(10, 12)})), "");
  // A message under way goes with its sender, though as an event it goes with either side.
  const auto ofThread0 = [&](uint64_t start) {
    return only(open.read({window(start, start + 1, MESSAGES, {0})}), {"one_to_one_communication"});
  };
  EXPECT_EQ(ofThread0(10), messages);
  EXPECT_EQ(ofThread0(4).size(), 5U);
  // Counters are told to those alone who ask for them and for nothing that is under way.
  const Lines samples = {"counter_value 3 0 1 [12] [300]", "counter_value 4 0 1 [3] [201]",
                         "counter_value 3 0 1 [14] [100]"};
  for (const uint32_t besides : {0U, FUNCTIONS | 0U, MESSAGES | 0U, COLLOPS | 0U, 1U}) {
    EXPECT_EQ(only(open.read({window(10, 11, COUNTERS | besides)}), {"counter_value"}),
              (besides & ~FUNCTIONS) == 0 ? samples : Lines{});
  }
  // It depends on the handlers that there are.
  Messages ofLeaves;  // of what is left without having been entered
  Recorder unbracketed, noStacks, noEnter;
  unbracketed.table.end_of_history = nullptr;
  EXPECT_EQ(open.read(unbracketed, {window(10, 10)}),
            (Lines{expected[1], expected[2], expected[3], expected[7],
                   "end_of_filter 10 495 3 0:0:1 65536:65536:1 131072:131072:1"}));
  noStacks.table.function_history = nullptr;
  noStacks.table.enter_scope = nullptr;
  EXPECT_EQ(open.read(noStacks, {window(10, 10, FUNCTIONS | SCOPES, {0})}),
            Lines{"end_of_filter 10 12 1 0:0:1"});
  noEnter.table.enter_function = nullptr;  // keeps no stacks
  EXPECT_EQ(only(open.read(noEnter, {window(10, 10)}), {"function_history"}), Lines{});
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
void fillWrong(Trace& trace) {  // leaves what wasn't entered
  Stream& s = trace.stream("f", FUNCTIONS | SCOPES, {0, 1}).at(1).leave(0).at(2).enter(0, 1);
  s.leave(1).leaveScope(0, 3, 4).at(9).leave(0);
}

TEST(KltHistory, RequestsTellTheseLines) {
  struct Case {
    void (*fill)(Trace&);
    Requests requests;
    Lines lines;
  };
  const Case cases[] = {
      // The latest sample counts, whatever is asked later.
      {fillSamples,
       {window(30, 40, COUNTERS), window(40, 50, COUNTERS | MESSAGES)},
       {"begin_of_history 30 64 1 0:0:1", "counter_value 20 0 1 [1] [7]",
        "end_of_history 30 64 1 0:0:1", "end_of_filter 50 64 1 0:0:1"}},
      {fillSamples,
       {window(30, 40, COUNTERS), window(35, 50)},
       {"begin_of_history 30 64 1 0:0:1", "counter_value 20 0 1 [1] [7]",
        "end_of_history 30 64 1 0:0:1", "end_of_filter 50 64 1 0:0:1"}},
      // A window without any record, and without length.
      {fillTwo,
       {window(7, 7, FUNCTIONS, {0})},
       {"begin_of_history 7 12 1 0:1:1", "function_history 7 0 1 [10] [0]",
        "end_of_history 7 12 1 0:1:1", "end_of_filter 7 4 1 0:0:1"}},
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
      {fillNested,
       {window(5, kOpenEnd - 1)},
       {"begin_of_history 5 1 0", "end_of_history 7 1 0",
        "end_of_filter 18446744073709551614 495 0", "end_of_filter 18446744073709551614 495 0"}},
      {fillWrong,
       {window(5, 20, FUNCTIONS | SCOPES, {0})},
       {"begin_of_history 5 12 1 0:1:1", "function_history 5 0 1 [1] [0]",
        "end_of_history 5 12 1 0:1:1", "leave_function 9 0 0", "end_of_filter 20 12 1 0:0:1"}},
  };
  for (const auto& [fill, requests, lines] : cases) {
    Trace trace;
    fill(trace);
    OpenTrace open(trace);
    Messages messages;
    EXPECT_EQ(difference(lines, open.read(requests)), "");
    EXPECT_EQ(messages.take(), fill != fillWrong
                                   ? ""
                                   : "WARNING: Encountered incorrect function stack (0 @ 1).\n"
                                     "ERROR: Leaving scope 3/4 which was never entered.\n");
  }
}

TEST(KltHistory, HasRoomForAnyDepthAndNumber) {
  Trace trace;
  Stream& f = trace.stream("f", FUNCTIONS, {0}).at(1);
  constexpr size_t kDepth = 70000;  // more than a fill holds, and a stored count
  for (size_t i = 0; i < kDepth; ++i) f.enter(0, 7);
  f.at(9).leave(0);
  Stream& m = trace.stream("m", MESSAGES, {0}).at(2);
  constexpr size_t kMessages = 300;  // more than one record of an anchor file names
  for (uint32_t i = 0; i < kMessages; ++i) m.message({.receiveTime = 100, .tag = i});
  m.at(3).comment(0, "").anchor().at(8).comment(0, "last");
  for (const TraceFiles& files : {trace.files(), withoutAnchors(trace.files())}) {
    const Lines lines = OpenTrace(files).read({window(5, 10, FUNCTIONS | MESSAGES)});
    ASSERT_EQ(only(lines, {"function_history"}).size(), 1U);
    EXPECT_EQ(only(lines, {"function_history"})[0].substr(0, 31),
              "function_history 5 0 70000 [7 7");
    EXPECT_EQ(only(lines, {"leave_function"}), Lines{"leave_function 9 0 0"});
    const Lines messages = only(lines, {"one_to_one_communication"});
    ASSERT_EQ(messages.size(), kMessages);
    EXPECT_EQ(messages.back(), "one_to_one_communication 2 0 100 0 0 0 299 0 0 0 0 0 0");
  }
}

TEST(KltHistory, ThreadsFollowTheOrderOfTheirTable) {
  KLT_FileHandle handle;
  handle.threadsPerProcess.assign(1022, 2);
  KLT_Context context;
  // Undeclared threads come after declared ones of their bucket. Which came first doesn't matter.
  const uint32_t undeclared = gtp(2041), another = gtp(3062);
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

// A run with a bit of everything, which is never quiet. No two changes of calls or scopes have the
// same line. Counters share records and buckets.
struct BusyTrace {
  BusyTrace(unsigned flags, Told told) : trace(flags) {
    trace.processes({2, 1, 1}).communicator(1, "some", {{0, 1, 1}});
    trace.communicator(2, "one", {{2, 2, 1}});
    std::mt19937 random(42);
    const auto upTo = [&](uint32_t n) { return static_cast<uint32_t>(random() % n); };
    const auto fill = [&](std::string_view name, uint32_t categories,
                          const std::vector<uint32_t>& threads, uint32_t events, auto event) {
      Stream& s = trace.stream(name, categories, threads).anchorEvery(300, told);
      const auto size = static_cast<uint32_t>(threads.size());
      for (uint32_t i = 1; i <= events; ++i) {
        s.at(s.time() + (upTo(4) == 0 ? 0 : upTo(90)) + (upTo(60) == 0 ? 70000U : 0));
        event(s, threads[upTo(size)], threads[upTo(size)], i);
      }
      for (const auto& [time, offset] : s.anchors()) anchorTimes.push_back(time);
    };
    std::map<uint32_t, int> depth;
    const auto call = [&](Stream& s, uint32_t thread, uint32_t, uint32_t i) {
      if (depth[thread] == 0 || upTo(9) < 5) {
        s.enter(thread, i, upTo(3));
        ++depth[thread];
      } else {
        s.leave(thread, i);
        --depth[thread];
      }
    };
    fill("f.0", FUNCTIONS, {0, gtp(0, 1)}, 250, call);
    fill("f.2", FUNCTIONS, {1, 2}, 250, call);
    std::vector<std::pair<uint32_t, uint32_t>> scopes;  // more are entered than left
    fill("s", SCOPES, {0, 1, 2}, 500, [&](Stream& s, uint32_t thread, uint32_t, uint32_t i) {
      if (scopes.size() < 3 || upTo(10) < 7) {
        scopes.emplace_back(thread, i % 7);
        s.enterScope(thread, 4, i % 7, i);
      } else {
        const auto which = scopes.begin() + upTo(static_cast<uint32_t>(scopes.size()));
        s.leaveScope(which->first, 4, which->second, i);
        scopes.erase(which);
      }
    });
    fill("m", MESSAGES | COLLOPS, {0, 1, 2, gtp(0, 1)}, 120,
         [&](Stream& s, uint32_t sender, uint32_t receiver, uint32_t i) {
           constexpr int64_t kSpans[] = {0, 5, 700, -700, 100000, NO_RECEIVE, NO_SEND};
           const int64_t span = kSpans[upTo(20) == 0 ? 5 + upTo(2) : upTo(5)];
           if (upTo(4) != 0) {
             s.message({.sender = sender, .receiver = receiver, .receiveTime = span, .tag = i});
           } else {
             s.collective({.communicator = 1 + upTo(2),
                           .operation = i,
                           .start = {upTo(50), upTo(3) == 0 ? NOT_STARTED : upTo(500)},
                           .duration = {upTo(300), 1}});
           }
         });
    fill("c", COUNTERS, {0, 1}, 80, [&](Stream& s, uint32_t thread, uint32_t, uint32_t i) {
      s.counters(thread, {{1 + upTo(5), i}, {12 + upTo(5), ~i}});
    });
    fill("x", ANY, {0}, 40, [](Stream& s, uint32_t thread, uint32_t, uint32_t i) {
      s.comment(thread, std::to_string(i));
    });
  }

  Trace trace;
  std::vector<uint64_t> anchorTimes;
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

std::string word(const std::string& line, size_t index) {
  std::istringstream words(line);
  std::string word;
  for (size_t i = 0; i <= index; ++i) words >> word;
  return word;
}

// A consumer that keeps calls and scopes from what it is told, beside one that saw the whole run.
class Consumer {
 public:
  explicit Consumer(const Lines& whole) {
    for (const std::string& line : changesOf(whole)) {
      std::string& open = known_[line[6] + word(line, 2)];
      truth_[line] = open;
      apply(line, open);
    }
    known_.clear();
  }

  // Empty if the line fits what is known.
  std::string take(const std::string& line) {
    if (line.find("_of_history ") != line.npos) isPast_ = line.starts_with("begin");
    if (line.starts_with("end_of_filter")) forget(line);
    if (line.starts_with("function_history")) {
      known_["f" + word(line, 2)] +=
          " " + line.substr(line.find('[') + 1, line.find(']') - line.find('[') - 1);
    }
    if (changesOf({line}).empty()) return "";
    std::string& open = known_[line[6] + word(line, 2)];
    if (!isPast_) {
      const auto truth = truth_.extract(line);
      if (truth.empty()) return "not in the trace, or twice: " + line;
      if (truth.mapped() != open) return "open are" + truth.mapped() + ", not" + open + ": " + line;
    }
    apply(line, open);
    return "";
  }

 private:
  static Lines changesOf(const Lines& lines) {
    return only(lines, {"enter_function", "leave_function", "enter_scope", "leave_scope"});
  }
  // Calls are kept as " 7 9", scopes as " 4:1@20 4:2@21". The oldest of a number is left first.
  static void apply(const std::string& line, std::string& open) {
    const bool isScope = line[6] == 's';
    const std::string scope = " " + word(line, 3) + ":" + word(line, 4) + "@";
    if (line.starts_with("enter_")) {
      open += isScope ? scope + word(line, 1) : " " + word(line, 3);
    } else {
      const size_t at = isScope ? open.find(scope) : open.rfind(' ');
      open.erase(at, open.find(' ', at + 1) - at);
    }
  }
  // The categories are asked for no more, of the threads named or of all.
  void forget(const std::string& line) {
    const unsigned long categories = std::stoul(word(line, 2));
    PAL_Triplets threads(std::stoul(word(line, 3)));
    for (size_t i = 0; i < threads.size(); ++i) {
      PAL_Triplet& t = threads[i];
      (void)std::sscanf(word(line, 4 + i).c_str(), "%d:%d:%d", &t.first, &t.last, &t.stride);
    }
    std::erase_if(known_, [&](const auto& known) {
      const int32_t thread = std::stoi(known.first.substr(1));
      return (categories & (known.first[0] == 's' ? SCOPES : FUNCTIONS)) != 0 &&
             (threads.empty() || PAL_TripletsContains(threads, thread));
    });
  }

  bool isPast_ = false;
  std::map<std::string, std::string> truth_;  // what is open ahead of a line
  std::map<std::string, std::string> known_;  // by thread, calls and scopes apart
};

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
      // A consumer knows what is open at every event.
      Consumer consumer(whole);
      for (const std::string& line : lines) ASSERT_EQ(consumer.take(line), "");
      // Together requests deliver what each delivers alone.
      ASSERT_EQ(unionOf(anchored, requests, eventsOf), eventsOf(lines));
      const Bag spans = unionOf(anchored, requests, spansOf);
      ASSERT_EQ(spans, spansOf(anchored.read(recorder, requests, 1, KLT_MODE_EVENTS_ONCE)));
      const bool isSeries = requests.size() == 2 && requests[0].end == requests[1].start;
      if (isSeries) {
        ASSERT_EQ(spans, spansOf(lines));
      }
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

TEST(KltAnchors, EntriesThatPointToNonsenseAreReportedAndSkipped) {
  enum File { kNone, kData, kAnchors, kDeclarations, kGone };
  const char* const corrupted = "Found corrupted data while filtering";
  struct Case {
    File file;
    uint64_t offset;
    const char* message;
  };
  const Case cases[] = {
      {kData, ~uint64_t{0}, ""},              // to be skipped
      {kData, ~uint64_t{0} - 1, corrupted},   // almost the end of numbers
      {kData, uint64_t{1} << 63, corrupted},  // beyond any file
      {kData, 61, corrupted},                 // the end of the file
      {kData, 58, "truncated file"},          // a record that the end cuts off
      {kData, 0, corrupted},                  // a comment
      {kData, 3, corrupted},                  // no record
      {kData, 9, corrupted},                  // an anchor
      {kData, 26, corrupted},                 // a history
      {kNone, 0, corrupted},
      {kAnchors, 0, corrupted},
      {kDeclarations, 0, corrupted},
      {kGone, 0, "Could not open"},
  };
  for (const auto& [file, offset, message] : cases) {
    SCOPED_TRACE(testing::Message() << file << " " << offset);
    Trace trace;
    trace.function(1, "f");
    Stream& m = trace.stream("m", MESSAGES, {0});
    m.comment(0, "").record(9, {{"offset", 1}});
    m.record(46, {{"file", m.fileId()}, {"offset", 26}, {"prevtime", 0}});
    const uint64_t gone = trace.stream("gone", ERRORS, {0}).fileId();
    const uint64_t files[] = {99, m.fileId(), m.fileId() + 1, 0x10001, gone};
    m.anchorRecord(46, {{"file", std::vector<uint64_t>(44, files[file])},
                        {"offset", std::vector<uint64_t>(44, offset)},
                        {"prevtime", std::vector<uint64_t>(44, 3)}});
    m.at(4).anchor(Told::Nothing).at(0x20).comment(0, "9");
    m.bytes("\x1c");  // the start of an enter
    OpenTrace open(trace.files().remove(".gone"));
    Messages messages;
    EXPECT_EQ(
        without(open.read({window(5, 0x21, MESSAGES)}), {"begin_of_history", "end_of_history"}),
        Lines{"comment 32 0 '9'"});
    const std::string text = messages.take();
    EXPECT_NE(text.find(message), text.npos) << text;
    EXPECT_TRUE(*message != '\0' || text.find("Found") == text.npos) << text;
  }
}

TEST(KltAnchors, MayListTooMuchOrTooLittle) {
  Trace trace;
  Stream& m = trace.stream("m", MESSAGES, {0});
  Stream& n = trace.stream("n", MESSAGES, {0});
  m.at(1).message({.receiveTime = 50, .tag = 1});
  // Entries of records that the streams come to themselves.
  m.anchorRecord(46, {{"file", std::vector<uint64_t>{m.fileId(), m.fileId(), n.fileId()}},
                      {"offset", std::vector<uint64_t>{m.size(), 0, 0}},
                      {"prevtime", std::vector<uint64_t>{1, 0, 0}}});
  m.anchor(Told::Nothing).at(12).message({.receiveTime = 50, .tag = 2});
  n.at(25).message({.receiveTime = 50, .tag = 3});
  // Samples that no entry lists.
  trace.stream("c", COUNTERS, {0}).at(5).counters(0, {{1, 9}}).anchor(Told::Nothing).at(40);
  OpenTrace plain(withoutAnchors(trace.files()));
  OpenTrace open(trace);
  for (const uint64_t start : {11U, 20U}) {
    for (const uint32_t categories : {MESSAGES, COUNTERS}) {
      const Lines lines = open.read({window(start, 60, categories)});
      EXPECT_EQ(difference(plain.read({window(start, 60, categories)}), lines), "") << start;
      EXPECT_EQ(only(lines, {"one_to_one_communication", "counter_value"}).size(),
                categories == MESSAGES ? 3U : 1U);
    }
  }
}

TEST(KltAnchors, ThoseThatCantBeTrueAreIgnored) {
  const std::vector<std::pair<uint64_t, uint64_t>> cases[] = {
      {{5, 1000}},         // after the file's end
      {{5, 20}, {4, 40}},  // back in time
      {{5, 40}, {6, 20}},  // back in the file
      {{~uint64_t{0}, ~uint64_t{0}}},
  };
  for (const auto& anchors : cases) {
    Trace trace;
    Stream& f = trace.stream("f", FUNCTIONS, {0});
    for (const auto& [time, offset] : anchors) {
      f.anchorRecord(9, {{"time_prev", time}, {"offset", offset}});
    }
    for (uint64_t i = 1; i < 20; ++i) f.at(i).enter(0, 1);
    OpenTrace plain(withoutAnchors(trace.files()));
    OpenTrace open(trace);
    Messages messages;
    for (const KLT_Request& request : {window(0, 4), window(6, 8), window(10, kOpenEnd)}) {
      EXPECT_EQ(difference(plain.read({request}), open.read({request})), "");
    }
    EXPECT_NE(messages.take().find("Ignoring anchors in "), std::string::npos);
  }
}

}  // namespace
