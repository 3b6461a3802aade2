// Opens traces and reads their records: which traces are accepted, the order of records, the
// statuses of a pass, and damaged components.
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
#include "util/pal_util.h"

namespace {

using namespace reading;
using namespace tb;
using Statuses = std::vector<int>;

constexpr int kFinished = KLT_STATUS_FINISHED;
constexpr int kContinuing = KLT_STATUS_CONTINUING;
constexpr int kAborting = KLT_STATUS_ABORTING;
constexpr int kDamaged = KLT_STATUS_CORRUPTED;
constexpr int kTime = KLT_STATUS_TIME;

// --- opening -------------------------------------------------------------------------------------

TEST(KltOpen, RefusesUnsafeSuffixes) {
  const std::string suffixes[] = {"f", "", "a\n", "/../x", {"a\0b", 3}};
  for (const std::string& suffix : suffixes) {
    SCOPED_TRACE(suffix);
    Trace trace;
    trace.extraIndex().record(33, {{"id", 5}, {"filetype", 1}, {"suffix", suffix}});
    Messages messages;
    const OpenTrace open(trace);
    EXPECT_EQ(open.handle() != nullptr, suffix == "f");
    EXPECT_EQ(messages.take(), suffix == "f" ? "" : "ERROR: Corrupted data\n");
  }
}

// --- order ---------------------------------------------------------------------------------------

using Record = std::pair<uint64_t, std::string>;  // its time, and the line of its handler
using Records = std::vector<Record>;

// Fills a stream with calls, and, unless `most` is 0, with comments of less than that size.
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

// The order of the records by the rules. A reader that stops after every `stopEach` records begins
// a new turn each time.
Lines expectedOrder(const std::vector<Records>& streams, size_t stopEach = 0) {
  Lines result;
  std::vector<std::span<const Record>> left(streams.begin(), streams.end());
  const auto remove = [&](size_t i) {
    std::swap(left[i], left.back());
    left.pop_back();
  };
  for (size_t i = 0; i < left.size();) left[i].empty() ? remove(i) : (void)++i;
  // The first stream with the lowest time, except `other`.
  const auto lowestExcept = [&](size_t other) {
    size_t lowest = left.size();
    for (size_t i = 0; i < left.size(); ++i) {
      if (i == other) continue;
      if (lowest == left.size() || left[i][0].first < left[lowest][0].first) lowest = i;
    }
    return lowest;
  };
  // False if the turn is over: the stream has ended, or the reader stops.
  const auto serve = [&](size_t i, uint64_t limit) {
    while (left[i][0].first <= limit) {
      result.push_back(left[i][0].second);
      left[i] = left[i].subspan(1);
      if (left[i].empty()) {
        remove(i);
        return false;
      }
      if (stopEach != 0 && result.size() % stopEach == 0) return false;
    }
    return true;
  };
  while (!left.empty()) {
    const size_t best = lowestExcept(left.size());
    const size_t second = lowestExcept(best);
    const uint64_t limit = second == left.size() ? ~uint64_t{0} : left[second][0].first;
    if (serve(best, limit)) (void)serve(second, limit);
  }
  return result;
}

// The order in which the reader delivers. A handler stops it after every `stopEach` records; a time
// limit of 0 stops it at each check of the clock.
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

// From 256 streams on, records are collected in slices and sorted. Many times are equal, and many
// turns continue from one slice to the next, or after the last slice.
TEST(KltOrder, FollowsTheRulesForAnyTimes) {
  std::mt19937 random(13);
  constexpr size_t kCrowds[] = {31, 32, 33, 200};  // equal times; a slice has room for 32
  constexpr uint64_t kSpreads[] = {40, 300, 5000, uint64_t{1} << 40};
  for (size_t round = 0; round < 70; ++round) {
    SCOPED_TRACE(round);
    const bool isCrowd = round < 4, areMany = round < 30;
    const size_t count = isCrowd ? 256 : areMany ? 250 + random() % 80 : 1 + random() % 7;
    const size_t busy = round % 2 == 0 ? count : 2 + random() % 5;  // the others are empty
    const uint64_t spread = areMany ? kSpreads[random() % 4] : 9;
    const uint64_t early = random() % 2 == 0 ? spread / 8 + 1 : spread;  // some may end earlier
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
    PAL_fast = round % 2 == 0 ? PAL_Fast::kIfUseful : PAL_Fast::kAlways;
    OpenTrace open(trace);
    Messages messages;
    const size_t stopEach = round % 3 == 0 ? 1 + random() % 5 : 0;
    ASSERT_EQ(difference(expectedOrder(streams, stopEach), deliveredOrder(open, stopEach, -1)), "");
    ASSERT_EQ(difference(expectedOrder(streams), deliveredOrder(open, 0, 0)), "");
  }
  PAL_fast = PAL_Fast::kIfUseful;
}

// --- statuses ------------------------------------------------------------------------------------

TEST(KltStatus, StreamsHaveTurnsAndFailedOnesDontEndTheOthers) {
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
      // Without time order, five records of each stream, then all others. When a stream ends, the
      // last one moves to its position.
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
}

// --- damage --------------------------------------------------------------------------------------

// Calls and comments use two paths of the filter. The reported offset of the damage doesn't depend
// on how the component is stored.
TEST(KltDamage, RecordsThatAFillCollectedBeforeTheDamageAreLost) {
  for (const bool areCalls : {true, false}) {
    const size_t bytes = areCalls ? 11 : 20;
    // A fill ends where the next record and its overhead may not fit.
    const size_t perFill = (0x10000 - 11 - (bytes - 1)) / bytes + 1;
    // The filter also decodes the record that doesn't fit any more.
    for (const size_t records : {perFill, perFill + 1, 9 * perFill, 9 * perFill + 1}) {
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
        EXPECT_EQ(open.read().size(), (records - 1) / perFill * perFill + 2);
        EXPECT_EQ(open.statuses, (Statuses{kContinuing, kFinished}));
        // Without time order all records before it are delivered, and an end_of_filter.
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

TEST(KltDamage, ATruncatedComponentDeliversTheRecordsBefore) {
  constexpr size_t kRecords = 40000;
  for (const unsigned flags : {1U, 3U}) {
    Trace trace(flags);
    Stream& f = trace.stream("f", FUNCTIONS, {0});
    for (uint32_t i = 1; i <= kRecords; ++i) f.at(i).enter(0, i * 7919);
    const Lines whole = only(OpenTrace(trace).read(), {"enter_function"});
    ASSERT_EQ(whole.size(), kRecords);
    const size_t stored = trace.files()[".f"].size();
    for (const size_t left : {stored - 1, stored - 8, stored / 2 - 1, size_t{9}, size_t{8}}) {
      SCOPED_TRACE("flags " + std::to_string(flags) + ", " + std::to_string(left) + " bytes");
      OpenTrace open(trace.files().truncate(".f", stored - left));
      Messages messages;
      const Lines lines = only(open.read(), {"enter_function"});
      ASSERT_LE(lines.size(), kRecords);
      EXPECT_TRUE(std::equal(lines.begin(), lines.end(), whole.begin()));
      EXPECT_EQ(open.lostData, lines.size() < kRecords);
    }
    if (flags == 1) continue;
    // An impossible length is ignored, one in the other byte order is used.
    for (const char* length : {"\xff\xff\xff\xff\xff\xff\xff\x7f", "\0\0\0\0\0\xaa\xbb\xcc"}) {
      const Messages messages;
      TraceFiles files = trace.files();
      OpenTrace open((files[".f"].replace(0, 8, length, 8), files));
      EXPECT_EQ(difference(whole, only(open.read(), {"enter_function"})), "");
    }
  }
}

}  // namespace
