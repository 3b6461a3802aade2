// Opening traces and running their records through handlers: what is accepted, in which order
// streams are served, what handlers get, and how a pass ends when something is wrong.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "klt/index/klt_intern.h"
#include "klt/stream/klt_stream.h"
#include "tests/unit/klt_reading.h"

namespace {

using namespace reading;  // the words that these tests are made of
using namespace tb;
using Statuses = std::vector<int>;

constexpr int kFinished = KLT_STATUS_FINISHED;
constexpr int kContinuing = KLT_STATUS_CONTINUING;
constexpr int kAborting = KLT_STATUS_ABORTING;
constexpr int kDamaged = KLT_STATUS_CORRUPTED;
constexpr int kTime = KLT_STATUS_TIME;

// --- opening and definitions ---------------------------------------------------------------------

TEST(KltOpen, ComponentsHaveNamesOfTheirOwn) {
  const std::string suffixes[] = {"f", "", "a\n", "/../x", {"a\0b", 3}};
  for (const std::string& suffix : suffixes) {
    SCOPED_TRACE(suffix);
    Trace trace;
    trace.extraIndex().record(33, {{"id", 5}, {"filetype", 1}, {"suffix", suffix}});
    TraceFiles files = trace.files();
    files[" "][7] = '\xff';  // all flags
    Messages messages;
    const OpenTrace open(files);
    EXPECT_EQ(open.handle() != nullptr, suffix == "f");
    EXPECT_EQ(messages.take(), suffix == "f" ? "" : "ERROR: Corrupted data\n");
    EXPECT_TRUE(open.handle() == nullptr || open.handle()->flags == 0xff);
  }
}

TEST(KltDeliver, DefinitionsHaveTheFirstTextOfEachIdAndNullForNone) {
  Trace trace;
  trace.communicator(5, "world", {{4, 0, -2}, {-1, -1, 1}}, 3);
  trace.define("group_definition",
               {{"id", 6}, {"name", "g"}, {"willies_gtp", std::vector{0U, gtp(1, 2)}}});
  trace.declarations().record(20, {{"id", 9}, {"type", 2}, {"do_diff", 5}, {"upper_bound", 1}});
  trace.declarations().record(24, {{"id", 1},
                                   {"name", trace.text("first")},
                                   {"label", std::vector<uint32_t>{trace.text("l"), 99}},
                                   {"unit", std::vector<uint32_t>{0, trace.text("u")}}});
  trace.extraIndex().record(69, {{"id", trace.text("first")}, {"string", "second"}});
  trace.extraIndex().record(69, {{"id", 0}, {"string", "none"}});
  const Lines expected = {
      "communicator_definition 5 'world' 2 4:0:-2 -1:-1:1 3",
      "group_definition 6 'g' 2 [0 131073]",
      "counter_definition 9 (null) 130 [0 1] 0 0 ''",
      "custom_statistics_definition 1 'first' 2 'l' (null) (null) 'u'",
  };
  EXPECT_EQ(difference(expected, OpenTrace(trace).definitions), "");
}

TEST(KltDeliver, StructureInADataComponentChangesNothing) {
  Trace trace;
  Stream& f = trace.stream("f", FUNCTIONS | 0x800, {0});
  f.at(3).record(9, {{"offset", 1}}).record(46, {{"file", 1}, {"offset", 0}, {"prevtime", 7}});
  f.record(21, {{"counters", 1}, {"values", 2}}).record(33, {{"id", 1000}, {"suffix", "x"}});
  f.record(10, {{"anchor_file", 1000}, {"data_file", 1000}, {"categories", 4}}).enter(0, 7);
  f.bytes(Layout().block().substr(0, 40));  // a layout, which does harm
  OpenTrace open(trace);
  const size_t components = open.handle()->components.size();
  Messages messages;
  EXPECT_EQ(open.read({}, 0),
            (Lines{"enter_function 3 0 7 0", "end_of_filter 18446744073709551615 2052 1 0:0:1"}));
  EXPECT_EQ(open.statuses, (Statuses{kDamaged, kFinished}));
  EXPECT_NE(messages.take().find("f (rectype 0, offset "), std::string::npos);
  EXPECT_EQ(open.handle()->components.size(), components);
  EXPECT_EQ(open.handle()->files.find(1000), nullptr);
}

// --- order ---------------------------------------------------------------------------------------

using Record = std::pair<uint64_t, std::string>;  // its time, and the line of its handler
using Records = std::vector<Record>;

// Fills a stream with calls, and, unless `most` is 0, with comments of up to that size.
Records fill(Stream& stream, const std::vector<uint64_t>& times, uint32_t thread, size_t most) {
  Records records;
  for (const uint64_t time : times) {
    const size_t n = records.size();
    const std::string place = std::to_string(time) + " " + std::to_string(thread) + " ";
    const std::string text(most == 0 ? 0 : n * 7919 % most, 'x');
    const bool isCall = most == 0 || n % 3 == 0;
    stream.at(time);
    isCall ? stream.enter(thread, static_cast<uint32_t>(n)) : stream.comment(thread, text);
    records.emplace_back(time, isCall ? "enter_function " + place + std::to_string(n) + " 0"
                                      : "comment " + place + "'" + text + "'");
  }
  return records;
}

// What the rules make of the streams. A reader that stops after every `stopEach` records begins a
// new turn each time.
Lines servedOrder(const std::vector<Records>& streams, size_t stopEach = 0) {
  Lines result;
  std::vector<std::span<const Record>> left(streams.begin(), streams.end());
  const auto leave = [&](size_t i) {
    std::swap(left[i], left.back());
    left.pop_back();
  };
  for (size_t i = 0; i < left.size();) left[i].empty() ? leave(i) : (void)++i;
  // The first of those with the lowest time, but for one.
  const auto lowestBut = [&](size_t other) {
    size_t lowest = left.size();
    for (size_t i = 0; i < left.size(); ++i) {
      if (i == other) continue;
      if (lowest == left.size() || left[i][0].first < left[lowest][0].first) lowest = i;
    }
    return lowest;
  };
  // False if the turn is over with the stream: it has ended, or the reader stops.
  const auto serve = [&](size_t i, uint64_t limit) {
    while (left[i][0].first <= limit) {
      result.push_back(left[i][0].second);
      left[i] = left[i].subspan(1);
      if (left[i].empty()) {
        leave(i);
        return false;
      }
      if (stopEach != 0 && result.size() % stopEach == 0) return false;
    }
    return true;
  };
  while (!left.empty()) {
    const size_t best = lowestBut(left.size());
    const size_t second = lowestBut(best);
    const uint64_t limit = second == left.size() ? ~uint64_t{0} : left[second][0].first;
    if (serve(best, limit)) (void)serve(second, limit);
  }
  return result;
}

// What the reader delivers. Its handler stops it after every `stopEach` records; a limit of 0 stops
// it at each look at the clock.
Lines deliveredOrder(const OpenTrace& open, size_t stopEach, int timeoutMs, int serial = 1) {
  Recorder recorder;
  recorder.table.end_of_filter = nullptr;
  const Reader reader = open.reader(recorder.table, {}, serial);
  EXPECT_EQ(KLT_ReaderStatus(reader.get()), KLT_STATUS_BUILT);
  double progress = 0;
  for (int status = 0; status != kFinished && status != kAborting;) {
    if (stopEach != 0) recorder.stopAt = recorder.lines.size() + stopEach;
    status = KLT_ReadEvents(reader.get(), timeoutMs);
    const bool stopped = stopEach != 0 && recorder.lines.size() == recorder.stopAt;
    EXPECT_EQ(status == KLT_STATUS_HANDLER, stopped);
    EXPECT_GE(KLT_Progress(reader.get()), progress);
    progress = KLT_Progress(reader.get());
  }
  EXPECT_EQ(progress, 1.0);
  return std::move(recorder.lines);
}

// From 256 streams on, records up to a near time are gathered and sorted. Equal times are many, and
// turns that last from one such slice to the next, or into what follows the last of them.
TEST(KltOrder, FollowsTheRulesForAnyTimes) {
  std::mt19937 random(13);
  constexpr size_t kCrowds[] = {31, 32, 33, 200};  // of one time; a slice has room for 32
  constexpr uint64_t kSpreads[] = {40, 300, 5000, uint64_t{1} << 40};
  for (size_t round = 0; round < 70; ++round) {
    SCOPED_TRACE(round);
    const bool isCrowd = round < 4, areMany = round < 30;
    const size_t count = isCrowd ? 256 : areMany ? 250 + random() % 80 : 1 + random() % 7;
    const size_t busy = round % 2 == 0 ? count : 2 + random() % 5;  // the others only end
    const uint64_t spread = areMany ? kSpreads[random() % 4] : 9;
    const uint64_t early = random() % 2 == 0 ? spread / 8 + 1 : spread;  // some may end sooner
    const size_t most = !isCrowd && round % 4 == 3 ? 100 + random() % 2000 : 0;
    Trace trace;
    std::vector<Records> streams;
    for (size_t i = 0; i < count; ++i) {
      const uint64_t end = random() % 16 == 0 ? early : spread;
      const size_t records = random() % (busy < count || i % 32 == 0 ? 200 : 12);
      std::vector<uint64_t> times(isCrowd ? kCrowds[round] : i < busy ? records : 0, 10);
      for (uint64_t& time : times) time = isCrowd ? 10 : random() % end;
      if (round % 6 != 5 || random() % 8 != 0) std::sort(times.begin(), times.end());
      if (isCrowd || (areMany && end == spread)) times.push_back(spread + random() % 3);
      Stream& stream = trace.stream("x." + std::to_string(i), ANY);
      const bool isBad = !isCrowd && i % 50 == 49;
      if (isBad) stream.bytes("\x7f");
      streams.push_back(fill(stream, times, static_cast<uint32_t>(i), most));
      if (isBad) streams.back().clear();
      if (i % 50 == 48) stream.bytes("\x12");  // ends inside a record
    }
    OpenTrace open(trace);
    Messages messages;
    const size_t stopEach = round % 3 == 0 ? 1 + random() % 5 : 0;
    ASSERT_EQ(difference(servedOrder(streams, stopEach), deliveredOrder(open, stopEach, -1)), "");
    ASSERT_EQ(difference(servedOrder(streams), deliveredOrder(open, 0, 0)), "");
  }
}

// --- statuses ------------------------------------------------------------------------------------

TEST(KltStatus, StreamsTakeTurnsAndThoseThatFailLeaveTheOthersGoingOn) {
  Trace trace;
  uint64_t time = 0;
  for (const auto& [name, records] : {std::pair{"a", 8}, {"b", 1}, {"c", 12}}) {
    Stream& stream = trace.stream(name, ANY);
    for (int i = 0; i < records; ++i) stream.at(++time).comment(0, name);
  }
  struct Case {
    std::string damaged;
    int serial;
    const char* delivered;  // the streams of the records
    Statuses statuses;
  };
  const Case cases[] = {
      // Without time order, five records of each, then as much as there is. The stream that ends
      // gives its place to the last one.
      {"", 0, "aaaaabcccccaaaccccccc", {kTime, kFinished}},
      // A damaged stream ends the call. Only the first turn of a stream is short.
      {"b", 0, "aaaaaaaacccccccccccc", {kDamaged, kTime, kFinished}},
      {"bc", 1, "aaaaaaaa", {kContinuing, kContinuing, kFinished}},
      {"abc", 1, "", {kContinuing, kContinuing, kAborting}},
  };
  for (const auto& [damaged, serial, delivered, statuses] : cases) {
    SCOPED_TRACE(damaged);
    TraceFiles files = trace.files();
    for (const char name : damaged) files["." + std::string(1, name)][0] = '\x7f';
    OpenTrace open(files);
    Messages messages;
    std::string names;
    for (const std::string& line : only(open.read({}, serial), {"comment"})) {
      names += line[line.size() - 2];
    }
    EXPECT_EQ(names, delivered);
    EXPECT_EQ(open.statuses, statuses);
  }
  const OpenTrace open(trace);
  for (size_t stop = 1; stop <= 21; ++stop) {
    EXPECT_EQ(deliveredOrder(open, stop, -1, 0).size(), 21U);
  }
}

TEST(KltStatus, TheTimeCountsWhenAStreamLeavesToo) {
  Trace trace;
  trace.stream("a", ANY).at(1).comment(1, "");  // leaves as the first of its turn
  trace.stream("b", ANY).at(3).comment(1, "");  // as the second, after the record at 2
  trace.stream("c", ANY).at(2).comment(1, "").at(4).comment(1, "");  // as the last
  trace.stream("d", ANY).at(1).comment(9, "");                       // delivers nothing
  OpenTrace open(trace);
  Recorder recorder;
  recorder.table.end_of_filter = nullptr;
  const Reader reader = open.reader(recorder.table, {window(0, 1000, 1, {0, 1})});
  std::vector<size_t> delivered;
  while (KLT_ReadEvents(reader.get(), 0) == kTime) delivered.push_back(recorder.lines.size());
  EXPECT_EQ(delivered, (std::vector<size_t>{0, 0, 0, 0, 1, 3, 4}));
  EXPECT_EQ(KLT_ReaderStatus(reader.get()), kFinished);
}

// --- damage --------------------------------------------------------------------------------------

// Calls and comments take two ways through the filter. Where the damage is named doesn't depend on
// how the component is stored.
TEST(KltDamage, WhatAFillGatheredAheadOfTheDamageIsLost) {
  for (const bool areCalls : {true, false}) {
    const size_t bytes = areCalls ? 11 : 20;
    // Fills end where the next record and what goes with it may not fit.
    const size_t ofAFill = (0x10000 - 11 - (bytes - 1)) / bytes + 1;
    // The record that doesn't fit any more is looked at, too.
    for (const size_t records : {ofAFill, ofAFill + 1, 9 * ofAFill, 9 * ofAFill + 1}) {
      std::set<std::string> places;
      for (const unsigned flags : {1U, 3U}) {
        SCOPED_TRACE(std::to_string(records) + " records, flags " + std::to_string(flags));
        Trace trace(flags);
        Stream& a = trace.stream("a", FUNCTIONS);
        for (size_t i = 1; i <= records; ++i) {
          a.at(i);
          areCalls ? a.enter(0, 1) : a.comment(0, "eleven char");
        }
        ASSERT_EQ(a.size(), records * bytes);
        a.bytes("\x7f");
        trace.stream("b", ANY).at(1).comment(0, "b");
        OpenTrace open(trace);
        Messages messages;
        EXPECT_EQ(open.read().size(), (records - 1) / ofAFill * ofAFill + 2);
        EXPECT_EQ(open.statuses, (Statuses{kContinuing, kFinished}));
        // Without time order all that came ahead of it is told, and the filter is closed.
        EXPECT_EQ(open.read({}, 0).size(), records + 3);
        const std::string text = messages.take();
        const size_t place = text.find(".a (rectype 127, offset ");
        ASSERT_NE(place, text.npos);
        places.insert(text.substr(place, text.find(')', place) - place));
      }
      EXPECT_EQ(places.size(), 1U);
    }
  }
}

TEST(KltDamage, AComponentThatEndsEarlyGivesWhatCameBefore) {
  constexpr size_t kRecords = 40000;
  for (const unsigned flags : {1U, 3U}) {
    Trace trace(flags);
    Stream& f = trace.stream("f", FUNCTIONS, {0});
    for (uint32_t i = 1; i <= kRecords; ++i) f.at(i).enter(0, i * 7919);
    const Lines whole = only(OpenTrace(trace).read(), {"enter_function"});
    ASSERT_EQ(whole.size(), kRecords);
    const size_t stored = trace.files()[".f"].size(), ofRecord = f.size() / kRecords;
    for (const size_t left : {stored - 1, stored - 8, stored / 2 - 1, size_t{9}, size_t{8}}) {
      SCOPED_TRACE("flags " + std::to_string(flags) + ", " + std::to_string(left) + " bytes");
      OpenTrace open(trace.files().truncate(".f", stored - left));
      Messages messages;
      const Lines lines = only(open.read(), {"enter_function"});
      const std::string text = messages.take();
      ASSERT_LE(lines.size(), kRecords);
      EXPECT_TRUE(std::equal(lines.begin(), lines.end(), whole.begin()));
      EXPECT_EQ(open.lostData, lines.size() < kRecords);
      const size_t told = text.find(".f, ");
      EXPECT_EQ(told, text.rfind(".f, "));
      if (told == text.npos || left < 10) continue;
      // Of a plain component what its record lacks, of a compressed one what its length promises.
      const size_t missing = std::stoul(text.substr(told + 4));
      const size_t complete = flags == 1 ? left + missing - ofRecord : f.size() - missing;
      EXPECT_EQ(complete / ofRecord, lines.size());
    }
    if (flags == 1) continue;
    // A length that can't be true is of no use, one in the other byte order is.
    for (const char* length : {"\xff\xff\xff\xff\xff\xff\xff\x7f", "\0\0\0\0\0\xaa\xbb\xcc"}) {
      const Messages messages;
      TraceFiles files = trace.files();
      OpenTrace open((files[".f"].replace(0, 8, length, 8), files));
      EXPECT_EQ(difference(whole, only(open.read(), {"enter_function"})), "");
    }
  }
}

}  // namespace
