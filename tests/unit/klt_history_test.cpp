// Windows: what a consumer is told at their start and end, and that neither seek points nor the
// storage of a component change a word of it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "klt/klt_context.h"
#include "tests/unit/klt_reading.h"

namespace {

using reading::difference;
using reading::kOpenEnd;
using reading::Lines;
using reading::Messages;
using reading::only;
using reading::OpenTrace;
using reading::Recorder;
using reading::window;
using reading::without;
using tb::COLLOPS;
using tb::COUNTERS;
using tb::FUNCTIONS;
using tb::gtp;
using tb::MESSAGES;
using tb::SCOPES;
using Requests = std::vector<KLT_Request>;

constexpr uint32_t kAll = 0x1ef;

tb::TraceFiles withoutAnchors(const tb::TraceFiles& files) {
  tb::TraceFiles rest;
  for (const auto& [key, bytes] : files.parts()) {
    if (!key.ends_with(".anc")) rest.add(key, bytes);
  }
  return rest;
}

// --- what is told --------------------------------------------------------------------------------

// One component with all that a history can hold; thread 1 isn't part of it.
void fillOpen(tb::Trace& trace) {
  trace.processes({3, 1}).communicator(1, "pair", {{0, 65536, 65536}});
  tb::Stream& s = trace.stream("e", kAll, {0, gtp(0, 1), gtp(0, 2)});
  s.at(1).enter(0, 5, 9).enter(gtp(0, 1), 8).at(2).enter(0, 6).enter(0, 7).leave(0);
  s.enterScope(0, 4, 1, 3).enterScope(0, 4, 2).enterScope(0, 4, 1).leaveScope(0, 4, 1);
  s.at(3).counters(0, {{14, 100}, {3, 200}, {12, 300}}).at(4).counters(0, {{3, 201}});
  s.message({.sender = 0, .receiver = gtp(0, 1), .receiveTime = 6, .tag = 1});  // arrives at 10
  s.message({.sender = 0, .receiver = gtp(0, 1), .receiveTime = 7, .tag = 2});
  s.message({.sender = gtp(0, 1), .receiver = 0, .receiveTime = -7, .tag = 3});
  s.message({.sender = 0, .receiver = 1, .receiveTime = tb::NO_RECEIVE, .tag = 4});
  s.message({.sender = 1, .receiver = 0, .receiveTime = tb::NO_SEND, .tag = 5});
  s.at(5).collective({.communicator = 1, .operation = 2, .start = {0, 2}, .duration = {5, 3}});
  s.collective(
      {.communicator = 1, .operation = 3, .start = {tb::NOT_STARTED, 0}, .duration = {90, 6}});
  s.at(10).comment(0, "first").at(11).leave(0).at(12).leaveScope(0, 4, 2);
}

TEST(KltHistory, TellsWhatIsOpenAtTheStart) {
  tb::Trace trace;
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
  Lines told = open.read({window(10, 12)});
  EXPECT_EQ(difference(expected, told), "");

  // One category, one thread.
  EXPECT_EQ(open.read({window(10, 11, FUNCTIONS, {gtp(0, 1)})}),
            (Lines{"begin_of_history 10 495 3 0:0:1 65536:65536:1 131072:131072:1",
                   "function_history 10 65536 1 [8] [0]",
                   "end_of_history 10 495 3 0:0:1 65536:65536:1 131072:131072:1",
                   "end_of_filter 11 4 1 65536:65536:1"}));
  // A message under way goes with its sender, though as an event it goes with either side.
  EXPECT_EQ(only(open.read({window(10, 11, MESSAGES, {0})}), {"one_to_one_communication"}),
            messages);
  EXPECT_EQ(only(open.read({window(4, 5, MESSAGES, {0})}), {"one_to_one_communication"}).size(),
            5U);
}

TEST(KltHistory, TellsCountersOnlyToThoseWhoAskForThemAlone) {
  tb::Trace trace;
  fillOpen(trace);
  OpenTrace open(trace);
  const Lines samples = {"counter_value 3 0 1 [12] [300]", "counter_value 3 0 1 [14] [100]",
                         "counter_value 4 0 1 [3] [201]"};
  const auto told = [&](uint32_t categories) {
    Lines lines = only(open.read({window(10, 11, categories)}), {"counter_value"});
    std::sort(lines.begin(), lines.end());
    return lines;
  };
  EXPECT_EQ(told(COUNTERS), samples);
  EXPECT_EQ(told(COUNTERS | FUNCTIONS), samples);
  EXPECT_EQ(told(COUNTERS | MESSAGES), Lines{});
  EXPECT_EQ(told(COUNTERS | COLLOPS), Lines{});
  EXPECT_EQ(told(1), Lines{});
  // What a later request asks for doesn't matter, and of samples out of order the latest counts.
  tb::Trace own;
  own.stream("c", COUNTERS, {0}).at(20).counters(0, {{1, 7}}).at(10).counters(0, {{1, 8}});
  OpenTrace openOwn(own);
  for (const KLT_Request& later : {window(40, 50, COUNTERS | MESSAGES), window(35, 50)}) {
    EXPECT_EQ(only(openOwn.read({window(30, 40, COUNTERS), later}), {"counter_value"}),
              Lines{"counter_value 20 0 1 [1] [7]"});
  }
  // A seek point that lists no samples may come from someone who doesn't keep them.
  tb::Trace bare;
  bare.stream("c", COUNTERS, {0}).at(5).counters(0, {{1, 9}}).anchor(tb::Told::Nothing).at(40);
  OpenTrace openBare(bare);
  EXPECT_EQ(only(openBare.read({window(30, 40, COUNTERS)}), {"counter_value"}),
            Lines{"counter_value 5 0 1 [1] [9]"});
}

TEST(KltHistory, DependsOnTheHandlersThatThereAre) {
  tb::Trace trace;
  fillOpen(trace);
  OpenTrace open(trace);
  Recorder unbracketed;
  unbracketed.table.end_of_history = nullptr;
  EXPECT_EQ(open.read(unbracketed, {window(10, 10)}),
            (Lines{"function_history 10 0 2 [5 6] [9 0]", "enter_scope 2 0 4 2 0",
                   "enter_scope 2 0 4 1 0", "function_history 10 65536 1 [8] [0]",
                   "end_of_filter 10 495 3 0:0:1 65536:65536:1 131072:131072:1"}));
  Messages messages;  // of what is left without having been entered
  Recorder noStacks;
  noStacks.table.function_history = nullptr;
  noStacks.table.enter_scope = nullptr;
  EXPECT_EQ(only(open.read(noStacks, {window(10, 10, FUNCTIONS | SCOPES)}), {"begin_of_history"}),
            Lines{});
  Recorder noEnter;  // keeps no stacks
  noEnter.table.enter_function = nullptr;
  EXPECT_EQ(only(open.read(noEnter, {window(10, 10)}), {"function_history"}), Lines{});
}

TEST(KltHistory, IsToldWithoutAnyRecordInTheWindow) {
  tb::Trace trace;
  trace.stream("f", FUNCTIONS, {0}).at(5).enter(0, 1).at(50).leave(0);
  OpenTrace open(trace);
  const Lines told = {"begin_of_history 7 4 1 0:0:1", "function_history 7 0 1 [1] [0]",
                      "end_of_history 7 4 1 0:0:1"};
  for (const uint64_t end : {uint64_t{7}, uint64_t{20}}) {  // without length too
    Lines expected = told;
    expected.push_back("end_of_filter " + std::to_string(end) + " 4 1 0:0:1");
    EXPECT_EQ(open.read({window(7, end)}), expected);
  }
  EXPECT_EQ(open.read({window(0, 5)}), Lines{"end_of_filter 5 4 1 0:0:1"});
  EXPECT_EQ(open.read({window(60, 70)}), Lines{"end_of_filter 70 4 1 0:0:1"});
  // A selection on neither side: nobody is known to be told about.
  trace.stream("g", SCOPES).at(5).enterScope(1, 2, 3);
  EXPECT_EQ(OpenTrace(trace).read({window(7, 8, SCOPES)}), Lines{"end_of_filter 8 8 0"});
}

TEST(KltHistory, EndsAtTheLastMomentOfTimeOnlyIfItIsBounded) {
  tb::Trace trace;
  trace.stream("x", tb::ANY).at(kOpenEnd - 1).comment(0, "a").at(kOpenEnd).comment(0, "b");
  OpenTrace open(trace);
  EXPECT_EQ(only(open.read({window(9, kOpenEnd)}), {"comment"}).size(), 2U);
  EXPECT_EQ(only(open.read({window(9, kOpenEnd - 1)}), {"comment"}).size(), 0U);
  EXPECT_EQ(only(open.read({window(9, 3)}), {"comment"}).size(), 2U);
}

TEST(KltHistory, OnlyTheOuterOfNestedBracketsIsShown) {
  tb::Trace trace;
  for (const char* name : {"a", "b"}) {
    trace.stream(name, tb::ANY).at(5).record(11).at(6).comment(0, name).at(7).record(27);
  }
  Recorder recorder;
  recorder.table.end_of_filter = nullptr;
  EXPECT_EQ(OpenTrace(trace).read(recorder), (Lines{"begin_of_history 5 1 0", "comment 6 0 'a'",
                                                    "comment 6 0 'b'", "end_of_history 7 1 0"}));
}

TEST(KltHistory, WhatIsLeftAheadOfTheWindowWarnsAndIsForgotten) {
  tb::Trace trace;
  trace.stream("f", FUNCTIONS | SCOPES, {0, 1})
      .at(1)
      .leave(0)
      .at(2)
      .enter(0, 1)
      .leave(1)
      .leaveScope(0, 3, 4)
      .at(9)
      .leave(0);
  OpenTrace open(trace);
  Messages messages;
  EXPECT_EQ(only(open.read({window(5, 20, 1, {0})}), {"function_history", "leave_function"}),
            (Lines{"function_history 5 0 1 [1] [0]", "leave_function 9 0 0"}));
  const std::string text = messages.take();
  EXPECT_NE(text.find("Encountered incorrect function stack (0 @ 1)."), std::string::npos) << text;
  EXPECT_NE(text.find("Leaving scope 3/4 which was never entered."), std::string::npos) << text;
  EXPECT_EQ(text.find("(1 @"), std::string::npos) << text;  // thread 1 isn't selected
}

TEST(KltHistory, HasRoomForAnyDepthAndNumber) {
  tb::Trace trace;
  tb::Stream& f = trace.stream("f", FUNCTIONS, {0}).at(1);
  constexpr size_t kDepth = 70000;  // more than a fill holds, and a stored count
  for (size_t i = 0; i < kDepth; ++i) f.enter(0, 7);
  f.at(9).leave(0);
  tb::Stream& m = trace.stream("m", MESSAGES, {0}).at(2);
  constexpr size_t kMessages = 300;  // more than one record of an anchor file names
  for (uint32_t i = 0; i < kMessages; ++i) m.message({.receiveTime = 100, .tag = i});
  m.at(3).comment(0, "").anchor().at(8).comment(0, "last");
  for (const tb::TraceFiles& files : {trace.files(), withoutAnchors(trace.files())}) {
    OpenTrace open(files);
    const Lines lines = open.read({window(5, 10, FUNCTIONS | MESSAGES)});
    const Lines stacks = only(lines, {"function_history"});
    ASSERT_EQ(stacks.size(), 1U);
    EXPECT_EQ(stacks[0].substr(0, 31), "function_history 5 0 70000 [7 7");
    EXPECT_EQ(only(lines, {"leave_function"}), Lines{"leave_function 9 0 0"});
    const Lines messages = only(lines, {"one_to_one_communication"});
    ASSERT_EQ(messages.size(), kMessages);
    EXPECT_EQ(messages.back(), "one_to_one_communication 2 0 100 0 0 0 299 0 0 0 0 0 0");
  }
}

TEST(KltHistory, ThreadsStandInTheOrderOfTheirTable) {
  KLT_FileHandle handle;
  handle.threadsPerProcess.assign(1022, 2);
  KLT_Context context;
  // Undeclared threads come after declared ones of their bucket. Which was met first doesn't
  // matter.
  const uint32_t undeclared = gtp(2041), another = gtp(3062);
  for (const uint32_t thread : {another, gtp(1), undeclared, gtp(1021), gtp(1020, 1), gtp(0),
                                gtp(1020), ~uint32_t{0}, gtp(5)}) {
    if (thread != gtp(5)) {
      KLT_ContextEnterFunction(context, thread, 1, 0, true);
    } else {
      (void)context.of(thread);  // has nothing to tell
    }
  }
  std::vector<uint32_t> order;
  for (const KLT_WillyState* state : context.ordered(handle)) order.push_back(state->gtp);
  EXPECT_EQ(order, (std::vector<uint32_t>{gtp(1020), undeclared, another, ~uint32_t{0}, gtp(0),
                                          gtp(1020, 1), gtp(1021), gtp(1)}));
}

// --- several requests ----------------------------------------------------------------------------

// Two threads in one component.
void fillTwo(tb::Trace& trace) {
  trace.processes({1, 1});
  tb::Stream& s = trace.stream("e", FUNCTIONS | SCOPES, {0, 1});
  s.at(1).enter(0, 10).enter(1, 11).enterScope(0, 2, 1).enterScope(1, 3, 1);
  s.at(10).enter(0, 12).enter(1, 13).at(15).leave(1).at(20).leave(0).at(25).leave(1);
  s.at(30).enter(0, 14).at(35).leave(0);
}

TEST(KltRequests, AdjacentOnesTellWhatIsAddedAndEndWhatIsDropped) {
  tb::Trace trace;
  fillTwo(trace);
  OpenTrace open(trace);
  // Same selection: as if it were one.
  EXPECT_EQ(difference(open.read({window(0, kOpenEnd)}),
                       open.read({window(0, 10), window(10, 20), window(20, kOpenEnd)})),
            "");
  const std::string bracket = " 12 1 0:1:1";
  // A thread and a category are added, then the same are dropped.
  EXPECT_EQ(
      open.read({window(5, 10, FUNCTIONS, {0}), window(10, 20, FUNCTIONS | SCOPES, {0, 1}),
                 window(20, 30, FUNCTIONS, {0})}),
      (Lines{"begin_of_history 5" + bracket, "function_history 5 0 1 [10] [0]",
             "end_of_history 5" + bracket, "begin_of_history 10" + bracket, "enter_scope 1 0 2 1 0",
             "function_history 10 1 1 [11] [0]", "enter_scope 1 1 3 1 0",
             "end_of_history 10" + bracket, "enter_function 10 0 12 0", "enter_function 10 1 13 0",
             "leave_function 15 1 0", "end_of_filter 20 12 1 1:1:1", "end_of_filter 20 8 0",
             "leave_function 20 0 0", "end_of_filter 30 4 1 0:0:1"}));
  // A thread that leaves is closed, so that it can be told afresh when it comes back.
  EXPECT_EQ(
      open.read({window(5, 10, FUNCTIONS), window(10, 15, FUNCTIONS, {0}), window(15, 20, SCOPES)}),
      (Lines{"begin_of_history 5" + bracket, "function_history 5 0 1 [10] [0]",
             "function_history 5 1 1 [11] [0]", "end_of_history 5" + bracket,
             "end_of_filter 10 4 1 1:1:1", "enter_function 10 0 12 0", "end_of_filter 15 4 0",
             "begin_of_history 15" + bracket, "enter_scope 1 0 2 1 0", "enter_scope 1 1 3 1 0",
             "end_of_history 15" + bracket, "end_of_filter 20 8 1 0:1:1"}));
}

TEST(KltRequests, WhatWasDeliveredIsNotToldAgainWhenSomethingIsAdded) {
  tb::Trace trace;
  tb::Stream& s = trace.stream("e", FUNCTIONS | MESSAGES, {0});
  s.at(1).enter(0, 10).at(6).message({.receiveTime = 90, .tag = 1}).at(12).leave(0);
  OpenTrace open(trace);
  const std::string bracket = " 132 1 0:0:1";
  EXPECT_EQ(
      open.read({window(5, 10, MESSAGES), window(10, 20, FUNCTIONS | MESSAGES)}),
      (Lines{"one_to_one_communication 6 0 90 0 0 0 1 0 0 0 0 0 0", "begin_of_history 10" + bracket,
             "function_history 10 0 1 [10] [0]", "end_of_history 10" + bracket,
             "leave_function 12 0 0", "end_of_filter 20 132 1 0:0:1"}));
  // Behind a gap it is.
  EXPECT_EQ(only(open.read({window(5, 10, MESSAGES), window(11, 20, MESSAGES)}),
                 {"one_to_one_communication"})
                .size(),
            2U);
}

TEST(KltRequests, AGapEndsAllAndTellsAllAgain) {
  tb::Trace trace;
  fillTwo(trace);
  OpenTrace open(trace);
  const std::string bracket = " 12 1 0:1:1";
  EXPECT_EQ(
      open.read({window(5, 8, FUNCTIONS), window(12, 14, FUNCTIONS), window(22, 26, FUNCTIONS)}),
      (Lines{"begin_of_history 5" + bracket, "function_history 5 0 1 [10] [0]",
             "function_history 5 1 1 [11] [0]", "end_of_history 5" + bracket,
             "end_of_filter 8 4 1 0:1:1", "begin_of_history 12" + bracket,
             "function_history 12 0 2 [10 12] [0 0]", "function_history 12 1 2 [11 13] [0 0]",
             "end_of_history 12" + bracket, "end_of_filter 14 4 1 0:1:1",
             "begin_of_history 22" + bracket, "function_history 22 0 1 [10] [0]",
             "function_history 22 1 1 [11] [0]", "end_of_history 22" + bracket,
             "leave_function 25 1 0", "end_of_filter 26 4 1 0:1:1"}));
}

// --- anchors and storage -------------------------------------------------------------------------

// A run with a bit of everything, which is never quiet. Counters share records and buckets.
class BusyTrace {
 public:
  explicit BusyTrace(unsigned flags, tb::Told told = tb::Told::Everything) : trace(flags) {
    trace.processes({2, 1, 1})
        .communicator(1, "some", {{0, 1, 1}})
        .communicator(2, "one", {{2, 2, 1}});
    functions(told);
    scopes(told);
    messages(told);
    counters(told);
    tb::Stream& x = trace.stream("x.0", tb::ANY, {0});
    for (int i = 0; i < 40; ++i) step(x).comment(0, std::to_string(i));
  }

  tb::Trace trace;
  std::vector<uint64_t> anchorTimes;

 private:
  static constexpr size_t kAnchorBytes = 300;

  unsigned up_to(unsigned n) { return static_cast<unsigned>(random_() % n); }
  uint32_t thread() {
    constexpr uint32_t threads[] = {0, 1, 2, gtp(0, 1)};
    return threads[up_to(4)];
  }
  tb::Stream& step(tb::Stream& s) {
    return s.at(s.time() + (up_to(4) == 0 ? 0 : up_to(90)) + (up_to(60) == 0 ? 70000U : 0));
  }
  void note(const tb::Stream& s) {
    for (const auto& [time, offset] : s.anchors()) anchorTimes.push_back(time);
  }

  void functions(tb::Told told) {
    for (const uint32_t first : {0U, 2U}) {  // the first with two threads
      tb::Stream& s = first == 0 ? trace.stream("f.0", FUNCTIONS, {0, gtp(0, 1)})
                                 : trace.stream("f.2", FUNCTIONS, {1, 2});
      s.anchorEvery(kAnchorBytes, told);
      for (int i = 0; i < 250; ++i) {
        const uint32_t who = up_to(2) == 0 ? (first == 0 ? 0U : 1U) : (first == 0 ? gtp(0, 1) : 2U);
        if (up_to(9) < 5) {
          step(s).enter(who, 10 + up_to(5), up_to(3));
          ++depth_[who];
        } else if (depth_[who] > 0) {
          step(s).leave(who, up_to(2));
          --depth_[who];
        }
      }
      note(s);
    }
  }
  void scopes(tb::Told told) {
    tb::Stream& s = trace.stream("s", SCOPES, {0, 1, 2}).anchorEvery(kAnchorBytes, told);
    std::vector<std::pair<uint32_t, uint32_t>> open;
    for (uint32_t i = 0; i < 120; ++i) {
      if (open.size() < 3 || up_to(2) == 0) {
        open.emplace_back(up_to(3), i % 7);
        step(s).enterScope(open.back().first, 4, open.back().second, up_to(2));
      } else {
        const auto which = open.begin() + up_to(static_cast<unsigned>(open.size()));
        step(s).leaveScope(which->first, 4, which->second);
        open.erase(which);
      }
    }
    note(s);
  }
  void messages(tb::Told told) {
    tb::Stream& s =
        trace.stream("m", MESSAGES | COLLOPS, {0, 1, 2, gtp(0, 1)}).anchorEvery(kAnchorBytes, told);
    for (uint32_t i = 0; i < 120; ++i) {
      const int64_t spans[] = {0, 5, 700, -700, 100000, tb::NO_RECEIVE, tb::NO_SEND};
      if (up_to(4) != 0) {
        step(s).message({.sender = thread(),
                         .receiver = thread(),
                         .receiveTime = spans[up_to(20) == 0 ? 5 + up_to(2) : up_to(5)],
                         .tag = i,
                         .senderScl = up_to(2)});
      } else {
        step(s).collective({.communicator = 1 + up_to(2),
                            .operation = i,
                            .start = {up_to(50), up_to(3) == 0 ? tb::NOT_STARTED : up_to(500)},
                            .duration = {up_to(300), 1}});
      }
    }
    note(s);
  }
  void counters(tb::Told told) {
    tb::Stream& s = trace.stream("c", COUNTERS, {0, 1}).anchorEvery(kAnchorBytes, told);
    for (uint64_t i = 0; i < 80; ++i) {
      step(s).counters(up_to(2), {{1 + up_to(5), i}, {12 + up_to(5), ~i}});
    }
    note(s);
  }

  std::mt19937 random_{42};
  std::map<uint32_t, int> depth_;
};

TEST(KltAnchors, AWindowAtAnyAnchorIsTheSameWithoutAnchors) {
  for (const tb::Told told : {tb::Told::Everything, tb::Told::NoScopes}) {
    const BusyTrace busy(0, told);
    EXPECT_GT(busy.anchorTimes.size(), 40U);
    OpenTrace anchored(busy.trace);
    OpenTrace plain(withoutAnchors(busy.trace.files()));
    Messages messages;  // whichever there are
    for (const uint64_t time : busy.anchorTimes) {
      for (const uint32_t categories :
           {1U, FUNCTIONS | SCOPES, uint32_t{COUNTERS}, MESSAGES | COLLOPS}) {
        const Requests requests[] = {{window(time - 1, time, categories, {0, 2})},
                                     {window(time, time + 400, categories)},
                                     {window(time + 1, kOpenEnd, categories, {1, 2})}};
        for (const Requests& request : requests) {
          ASSERT_EQ(difference(plain.read(request), anchored.read(request)), "")
              << time << " " << categories << " " << request[0].start;
        }
      }
    }
    EXPECT_EQ(messages.take(), "");
  }
}

// Up to four requests of random selections, some adjacent, some with gaps, some without length.
Requests randomRequests(std::mt19937& random, const std::vector<uint64_t>& instants) {
  Requests requests;
  std::vector<uint64_t> times;
  for (int i = 0; i < 8; ++i) times.push_back(instants[random() % instants.size()] + random() % 2);
  std::sort(times.begin(), times.end());
  const size_t count = 1 + random() % 4;
  for (size_t i = 0; i < count; ++i) {
    const uint32_t masks[] = {1,
                              FUNCTIONS,
                              FUNCTIONS | SCOPES,
                              MESSAGES,
                              COUNTERS | FUNCTIONS,
                              COLLOPS | SCOPES | FUNCTIONS};
    KLT_Request request = window(times[2 * i], times[2 * i + 1], masks[random() % 6]);
    if (i != 0 && random() % 2 == 0) request.start = requests.back().end;
    // Two of one instant would select what neither selects alone.
    const bool isSecond = i != 0 && requests.back().start == request.start;
    if (random() % 6 == 0 && !isSecond) request.end = request.start;
    if (random() % 8 == 0 && i + 1 == count) request.end = kOpenEnd;
    for (const int32_t thread : {0, 1, 2, 65536}) {
      if (random() % 3 != 0) request.threads.push_back({thread, thread, 1});
    }
    if (random() % 3 == 0) request.threads.clear();
    requests.push_back(request);
  }
  return requests;
}

std::string described(const Requests& requests) {
  std::string text;
  for (const KLT_Request& request : requests) {
    text += std::to_string(request.start) + ":" + std::to_string(request.end) + " mask " +
            std::to_string(request.categories) + " threads";
    for (const PAL_Triplet& thread : request.threads) text += " " + std::to_string(thread.first);
    text += "; ";
  }
  return text;
}

TEST(KltAnchors, NeitherSeekPointsNorCompressionChangeAnyRequests) {
  const BusyTrace busy(0);
  const BusyTrace deflated(3);
  OpenTrace anchored(busy.trace);
  OpenTrace plain(withoutAnchors(busy.trace.files()));
  OpenTrace compressed(deflated.trace);
  std::mt19937 random(5);
  Messages messages;
  for (int round = 0; round < 250; ++round) {
    const Requests requests = randomRequests(random, busy.anchorTimes);
    const Lines expected = plain.read(requests);
    ASSERT_EQ(difference(expected, anchored.read(requests)), "") << described(requests);
    ASSERT_EQ(difference(expected, compressed.read(requests)), "") << described(requests);
  }
  EXPECT_EQ(messages.take(), "");
}

// A consumer that keeps call stacks from what it is told, beside one that saw the whole trace.
class StackKeeper {
 public:
  explicit StackKeeper(const Lines& dump) {
    for (const std::string& line : only(dump, {"enter_function", "leave_function"})) {
      truth_[fieldOf(line, 2)].lines.push_back(line);
    }
  }

  // Empty if the line fits what is known.
  std::string take(const std::string& line) {
    const std::string name = line.substr(0, line.find(' '));
    if (name == "function_history") return restore(line);
    if (name == "end_of_filter") forget(line);
    if (name == "enter_function" || name == "leave_function") return event(line);
    return "";
  }

 private:
  using Stack = std::vector<uint64_t>;
  struct Truth {
    Lines lines;
    size_t next = 0;
    Stack stack;
  };

  static uint64_t fieldOf(const std::string& line, size_t index) {
    std::istringstream words(line);
    std::string word;
    for (size_t i = 0; i <= index; ++i) words >> word;
    return std::stoull(word);
  }
  static void apply(const std::string& line, Stack& stack) {
    if (line.starts_with("enter")) {
      stack.push_back(fieldOf(line, 3));
    } else if (!stack.empty()) {
      stack.pop_back();
    }
  }

  std::string restore(const std::string& line) {
    Stack& stack = known_[fieldOf(line, 2)];
    if (!stack.empty()) return "told again: " + line;
    std::istringstream words(line.substr(line.find('[') + 1));
    for (uint64_t function = 0; words >> function;) stack.push_back(function);
    return "";
  }
  // The categories are asked for no more, of the threads named or of all.
  void forget(const std::string& line) {
    if ((fieldOf(line, 2) & FUNCTIONS) == 0) return;
    if (fieldOf(line, 3) == 0) known_.clear();
    std::istringstream words(line);
    for (std::string word; words >> word;) {
      PAL_Triplet threads{};
      if (std::sscanf(word.c_str(), "%d:%d:%d", &threads.first, &threads.last, &threads.stride) !=
          3)
        continue;
      std::erase_if(known_, [&](const auto& entry) {
        return PAL_TripletsContains({&threads, 1}, static_cast<int32_t>(entry.first));
      });
    }
  }
  std::string event(const std::string& line) {
    const uint64_t thread = fieldOf(line, 2);
    Truth& truth = truth_[thread];
    while (truth.next < truth.lines.size() && truth.lines[truth.next] != line) {
      apply(truth.lines[truth.next++], truth.stack);
    }
    if (truth.next == truth.lines.size()) return "not in the trace, or twice: " + line;
    if (truth.stack != known_[thread]) return "wrong stack at: " + line;
    apply(truth.lines[truth.next++], truth.stack);
    known_[thread] = truth.stack;
    return "";
  }

  std::map<uint64_t, Truth> truth_;
  std::map<uint64_t, Stack> known_;
};

TEST(KltAnchors, AConsumerKnowsEveryStackAtEveryEvent) {
  const BusyTrace busy(0);
  OpenTrace open(busy.trace);
  const Lines dump = open.read();
  std::mt19937 random(9);
  size_t events = 0;
  for (int round = 0; round < 300; ++round) {
    const Requests requests = randomRequests(random, busy.anchorTimes);
    StackKeeper keeper(dump);
    for (const std::string& line : open.read(requests)) {
      ASSERT_EQ(keeper.take(line), "") << described(requests);
      events += line.starts_with("enter_function");
    }
  }
  EXPECT_GT(events, 5000U);
}

// The events alone, without what was told about the past.
Lines eventsOf(const Lines& lines) {
  Lines events;
  int depth = 0;
  for (const std::string& line : lines) {
    depth += line.starts_with("begin_of_history");
    if (depth == 0) events.push_back(line);
    depth -= line.starts_with("end_of_history");
  }
  return without(events, {"end_of_filter"});
}

// All lines that any of the requests alone draws, each as often as one of them has it.
Lines unionOf(OpenTrace& open, const Requests& requests, Lines (*part)(const Lines&)) {
  Lines all;
  for (const KLT_Request& request : requests) {
    Lines lines = part(open.read({request}));
    std::sort(lines.begin(), lines.end());
    Lines joined;
    std::set_union(all.begin(), all.end(), lines.begin(), lines.end(), std::back_inserter(joined));
    all = std::move(joined);
  }
  return all;
}

// Messages and collective operations, those under way at the start of a window as well.
Lines spansOf(const Lines& lines) {
  return only(lines, {"one_to_one_communication", "all_communication"});
}

TEST(KltRequests, DeliverTogetherWhatEachDeliversAlone) {
  const BusyTrace busy(0);
  OpenTrace anchored(busy.trace);
  OpenTrace plain(withoutAnchors(busy.trace.files()));
  std::mt19937 random(17);
  Recorder recorder;
  for (int round = 0; round < 300; ++round) {
    const Requests requests = randomRequests(random, busy.anchorTimes);
    for (OpenTrace* open : {&anchored, &plain}) {
      const auto sorted = [](Lines lines) {
        std::sort(lines.begin(), lines.end());
        return lines;
      };
      ASSERT_EQ(
          difference(unionOf(*open, requests, eventsOf), sorted(eventsOf(open->read(requests)))),
          "")
          << described(requests);
      const bool isSeries = requests.size() == 2 && requests[0].end == requests[1].start;
      if (isSeries) {
        ASSERT_EQ(
            difference(unionOf(*open, requests, spansOf), sorted(spansOf(open->read(requests)))),
            "")
            << described(requests);
      }
      const Lines once = open->read(recorder, requests, 1, KLT_MODE_EVENTS_ONCE);
      ASSERT_EQ(difference(unionOf(*open, requests, spansOf), sorted(spansOf(once))), "")
          << described(requests);
    }
  }
}

TEST(KltAnchors, WindowsThatTileTimeDeliverEachEventOnce) {
  const BusyTrace busy(0);
  OpenTrace open(busy.trace);
  const Lines dump = eventsOf(open.read({window(0, kOpenEnd)}));
  EXPECT_GT(dump.size(), 600U);
  std::mt19937 random(3);
  for (int round = 0; round < 40; ++round) {
    uint64_t a = busy.anchorTimes[random() % busy.anchorTimes.size()];
    uint64_t b = busy.anchorTimes[random() % busy.anchorTimes.size()] + random() % 2;
    if (a > b) std::swap(a, b);
    Lines pieces;
    for (const KLT_Request& piece : {window(0, a), window(a, b), window(b, kOpenEnd)}) {
      const Lines events = eventsOf(open.read({piece}));
      pieces.insert(pieces.end(), events.begin(), events.end());
    }
    // Of equal times the order between streams may change at a seam.
    Lines sorted = dump;
    std::sort(sorted.begin(), sorted.end());
    std::sort(pieces.begin(), pieces.end());
    ASSERT_EQ(difference(sorted, pieces), "") << a << " " << b;
    ASSERT_EQ(difference(open.read({window(0, kOpenEnd)}),
                         open.read({window(0, a), window(a, b), window(b, kOpenEnd)})),
              "")
        << a << " " << b;
  }
}

TEST(KltAnchors, SeekingSavesReading) {
  tb::Trace trace;
  tb::Stream& f = trace.stream("f", FUNCTIONS, {0}).anchorEvery(0x4000);
  for (uint64_t i = 1; i < 60000; ++i) f.at(i * 10).enter(0, 1).leave(0);
  tb::TraceFiles files = trace.files();
  files.flip(".f", 100, 0xff);  // ahead of the anchor: never met
  files[".f"][files[".f"].size() - 18] = '\x7f';
  OpenTrace open(files);
  EXPECT_EQ(only(open.read({window(300000, 300100)}), {"enter_function"}).size(), 10U);
  EXPECT_EQ(open.statuses, std::vector<int>{KLT_STATUS_FINISHED});
}

// --- anchors that lie ----------------------------------------------------------------------------

struct Hostile {
  const char* what;
  uint64_t file;  // 0: none, 1: the data file, 2: its anchor file, 3: the declarations
  uint64_t offset;
  const char* message;  // null: passed over in silence
};

TEST(KltAnchors, EntriesThatPointToNonsenseAreReportedAndSkipped) {
  const Hostile cases[] = {
      {"to be skipped", 1, ~uint64_t{0}, nullptr},
      {"no such file", 0, 0, "Found corrupted data while filtering"},
      {"the anchor file", 2, 0, "Found corrupted data while filtering"},
      {"definitions", 3, 0, "Found corrupted data while filtering"},
      {"the end of the file", 1, 61, "Found corrupted data while filtering"},
      {"beyond any file", 1, uint64_t{1} << 63, "Found corrupted data while filtering"},
      {"almost the end of time", 1, ~uint64_t{0} - 1, "Found corrupted data while filtering"},
      {"a comment", 1, 0, "Found corrupted data while filtering"},
      {"no record", 1, 3, "Found corrupted data while filtering"},
      {"an anchor", 1, 9, "Found corrupted data while filtering"},
      {"a history", 1, 26, "Found corrupted data while filtering"},
      {"cut off by the end", 1, 58, "truncated file"},
      {"a file that isn't there", 4, 0, "Could not open"},
  };
  for (const Hostile& c : cases) {
    SCOPED_TRACE(c.what);
    tb::Trace trace;
    trace.function(1, "f");
    tb::Stream& m = trace.stream("m", MESSAGES, {0});
    m.comment(0, "").record(9, {{"offset", 1}});
    m.record(46, {{"file", m.fileId()}, {"offset", 26}, {"prevtime", 0}});
    const uint64_t gone = trace.stream("gone", tb::ERRORS, {0}).fileId();
    const uint64_t files[] = {99, m.fileId(), m.fileId() + 1, 0x10001, gone};
    m.anchorRecord(46, {{"file", std::vector<uint64_t>(44, files[c.file])},
                        {"offset", std::vector<uint64_t>(44, c.offset)},
                        {"prevtime", std::vector<uint64_t>(44, 3)}});
    m.at(4).anchor(tb::Told::Nothing).at(0x20).comment(0, "9");
    m.bytes("\x1c");  // the start of an enter
    tb::TraceFiles parts = trace.files();
    parts.remove(".gone");
    OpenTrace plain(withoutAnchors(parts));
    OpenTrace open(parts);
    Messages ofPlain;
    const Lines expected = plain.read({window(5, 0x21, MESSAGES)});
    (void)ofPlain.take();
    Messages messages;
    const Lines lines = open.read({window(5, 0x21, MESSAGES)});
    const std::string text = messages.take();
    EXPECT_EQ(difference(expected, lines), "");
    EXPECT_EQ(only(lines, {"comment"}), Lines{"comment 32 0 '9'"});
    if (c.message == nullptr) {
      EXPECT_EQ(text.find("Found corrupted"), std::string::npos) << text;
    } else {
      EXPECT_NE(text.find(c.message), std::string::npos) << text;
    }
  }
}

TEST(KltAnchors, EntriesOfLaterRecordsAreLeftToTheStreams) {
  tb::Trace trace;
  tb::Stream& m = trace.stream("m", MESSAGES, {0});
  tb::Stream& n = trace.stream("n", MESSAGES, {0});
  m.at(1).message({.receiveTime = 50, .tag = 1});
  m.anchorRecord(46, {{"file", std::vector<uint64_t>{m.fileId(), m.fileId(), n.fileId()}},
                      {"offset", std::vector<uint64_t>{m.size(), 0, 0}},
                      {"prevtime", std::vector<uint64_t>{1, 0, 0}}});
  m.anchor(tb::Told::Nothing).at(12).message({.receiveTime = 50, .tag = 2});
  n.at(25).message({.receiveTime = 50, .tag = 3});
  OpenTrace plain(withoutAnchors(trace.files()));
  OpenTrace open(trace);
  for (const uint64_t start : {11U, 20U}) {
    const Lines lines = open.read({window(start, 60, MESSAGES)});
    EXPECT_EQ(difference(plain.read({window(start, 60, MESSAGES)}), lines), "") << start;
    EXPECT_EQ(only(lines, {"one_to_one_communication"}).size(), 3U);
  }
}

TEST(KltAnchors, ThoseThatCantBeTrueAreIgnored) {
  const std::vector<std::vector<std::pair<uint64_t, uint64_t>>> cases = {
      {{5, 1000}},         // behind the file's end
      {{5, 20}, {4, 40}},  // back in time
      {{5, 40}, {6, 20}},  // back in the file
      {{~uint64_t{0}, ~uint64_t{0}}},
  };
  for (const auto& anchors : cases) {
    tb::Trace trace;
    tb::Stream& f = trace.stream("f", FUNCTIONS, {0});
    for (const auto& [time, offset] : anchors) {
      f.anchorRecord(9, {{"time_prev", time}, {"offset", offset}});
    }
    for (uint64_t i = 1; i < 20; ++i) f.at(i).enter(0, 1);
    OpenTrace plain(withoutAnchors(trace.files()));
    OpenTrace open(trace);
    for (const KLT_Request& request : {window(0, 4), window(6, 8), window(10, kOpenEnd)}) {
      Messages messages;
      EXPECT_EQ(difference(plain.read({request}), open.read({request})), "");
      (void)messages.take();
    }
    OpenTrace again(trace);
    Messages messages;
    (void)again.read({window(6, 8)});
    EXPECT_NE(messages.take().find("Ignoring anchors in "), std::string::npos);
  }
}

TEST(KltAnchors, DamagedFilesOfThemCostNothingButTime) {
  const BusyTrace busy(0);
  OpenTrace plain(withoutAnchors(busy.trace.files()));
  const Requests requests = {window(busy.anchorTimes.back() / 2, kOpenEnd)};
  const Lines expected = plain.read(requests);
  const size_t bytes = busy.trace.files()[".m.anc"].size();
  for (const size_t at : {size_t{0}, bytes / 3, bytes - 17}) {
    tb::TraceFiles cut = busy.trace.files();
    cut.truncate(".m.anc", bytes - at);
    Messages messages;
    OpenTrace ended(cut);
    EXPECT_EQ(difference(expected, ended.read(requests)), "") << at;
  }
  tb::TraceFiles damaged = busy.trace.files();
  damaged[".m.anc"][bytes - 17] = '\x7f';
  OpenTrace open(damaged);
  Messages messages;
  EXPECT_EQ(difference(expected, open.read(requests)), "");
  EXPECT_NE(messages.take().find(".m.anc."), std::string::npos);
}

}  // namespace
