// The analysis on built traces: waits that are known in ticks, and sums on random calls.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "analyze/pass/kla_pass.h"
#include "analyze/tables/kla_profile.h"
#include "analyze/tables/kla_table.h"
#include "analyze/tables/kla_text.h"
#include "tests/builder/trace_builder.h"

namespace {

constexpr uint32_t kMain = 1, kSend = 2, kReceive = 3, kBarrier = 4, kWaitall = 5;

// A trace of four processes whose calls are given as (process, function, enter, leave).
class BuiltRun {
 public:
  BuiltRun() {
    trace_.clock(1e-6, 0).processes({1, 1, 1, 1}).defineClass(1, "MPI");
    trace_.function(kMain, "main").function(kSend, "MPI_Send").function(kReceive, "receive", 1);
    trace_.function(kBarrier, "MPI_Barrier").function(kWaitall, "MPI_Waitall");
    trace_.communicator(1, "world", {{0, 3, 1}}).operation(9, "barrier", 4);
    for (uint32_t p = 0; p < 4; ++p) {
      streams_.push_back(&trace_.stream("f." + std::to_string(p), tb::FUNCTIONS, {p}));
      streams_.back()->at(0).enter(p, kMain);
    }
    messages_ = &trace_.stream("msg", tb::MESSAGES, {0, 1, 2, 3});
    operations_ = &trace_.stream("cop", tb::COLLOPS, {0, 1, 2, 3});
  }

  BuiltRun& call(uint32_t process, uint32_t function, uint64_t enter, uint64_t leave) {
    streams_[process]->at(enter).enter(process, function).at(leave).leave(process);
    return *this;
  }
  BuiltRun& message(uint32_t from, uint64_t sent, uint32_t to, uint64_t received,
                    uint32_t by = kReceive) {
    messages_->at(sent).message({.sender = from,
                                 .receiver = to,
                                 .receiveTime = static_cast<int64_t>(received - sent),
                                 .communicator = 1,
                                 .size = 8,
                                 .tag = 1,
                                 .senderFunction = kSend,
                                 .receiverFunction = by});
    return *this;
  }
  // Starts and ends of all processes; ~0 for one that is unknown. `root`: of OneToAll and AllToOne.
  BuiltRun& operation(tb::Shape shape, const std::vector<uint64_t>& starts,
                      const std::vector<uint64_t>& ends, uint32_t root = 0) {
    const uint64_t time = *std::min_element(starts.begin(), starts.end());
    std::vector<uint64_t> relative, durations;
    for (size_t i = 0; i < starts.size(); ++i) {
      const bool isKnown = starts[i] != tb::kNotStarted;
      relative.push_back(isKnown ? starts[i] - time : tb::kNotStarted);
      durations.push_back(isKnown ? ends[i] - starts[i] : 0);
    }
    const char* name =
        shape == tb::Shape::OneToAll ? "one_to_all_communication" : "all_to_one_communication";
    if (shape == tb::Shape::OneToAll || shape == tb::Shape::AllToOne) {
      const bool sends = shape == tb::Shape::OneToAll;
      operations_->at(time).record(
          name, {{sends ? "sender_gtp" : "receiver_gtp", root},
                 {"communicator", 1},
                 {"type", 9},
                 {"start_time", relative},
                 {"delta", durations},
                 {sends ? "receive_size" : "send_size", std::vector<uint32_t>(starts.size(), 8)}});
    } else {
      const std::vector<uint32_t> bytes(starts.size(), 8);
      operations_->at(time).collective({shape, 1, 9, relative, durations, bytes, bytes});
    }
    return *this;
  }

  // The waits, as "kind process function cause: count x, ticks", sorted.
  std::vector<std::string> waits(kla::Window window = {}) {
    for (uint32_t p = 0; p < 4; ++p) streams_[p]->at(1000).leave(p);
    const tb::TempDir directory;
    const KLT_OwnedTrace open(KLT_Open(trace_.files().writePlain(directory).c_str()));
    kla::Analysis analysis(open.get());
    EXPECT_TRUE(analysis.readDefinitions());
    if (window.end != kla::kNever) analysis.select(window);
    EXPECT_EQ(analysis.run({.messages = true, .collectives = true, .waits = true}),
              KLT_STATUS_FINISHED);
    std::vector<std::string> lines;
    for (const kla::Waits::Row& row : analysis.waits.rows()) {
      const auto label = [&](uint32_t thread) {
        return thread == kla::kNone ? "-" : kla::threadLabel(analysis.calls[thread].gtp());
      };
      lines.push_back(std::string(kla::kWaitKinds[static_cast<size_t>(row.kind)]) + " " +
                      label(row.thread) + " " + analysis.definitions.functions[row.function].name +
                      " " + label(row.cause) + ": " + std::to_string(row.count) + " x, " +
                      std::to_string(row.ticks));
    }
    std::sort(lines.begin(), lines.end());
    return lines;
  }

 private:
  tb::Trace trace_;
  std::vector<tb::Stream*> streams_;
  tb::Stream* messages_;
  tb::Stream* operations_;
};

struct Case {
  const char* name;
  std::function<void(BuiltRun&)> build;
  std::vector<std::string> waits;
  kla::Window window = {};
};

void lateSender(BuiltRun& run) {
  run.call(1, kReceive, 100, 200).call(0, kSend, 150, 180).message(0, 160, 1, 190);
}
void lateReceiver(BuiltRun& run) {
  run.call(0, kSend, 100, 300).call(1, kReceive, 250, 320).message(0, 110, 1, 300);
}
void barrier(BuiltRun& run) {
  for (uint32_t p = 0; p < 4; ++p) run.call(p, kBarrier, 102 + 10 * p, 148 + p);
  run.operation(tb::Shape::All, {100, 110, 120, 130}, {150, 151, 152, 153});
}

TEST(KlaWaits, AreThoseOfTheirDefinitions) {
  const std::vector<Case> cases{
      {"late sender", &lateSender, {"late_sender 1 receive 0: 1 x, 50"}},
      {"in a window", &lateSender, {"late_sender 1 receive 0: 1 x, 30"}, {120, 1000}},
      {"receive after the window", &lateSender, {}, {0, 185}},
      {"late receiver", &lateReceiver, {"late_receiver 0 MPI_Send 1: 1 x, 150"}},
      {"part of a late receiver",
       &lateReceiver,
       {"late_receiver 0 MPI_Send 1: 1 x, 145"},
       {105, 900}},
      {"send returns before the receive begins",
       [](BuiltRun& r) {
         r.call(0, kSend, 100, 250).call(1, kReceive, 250, 320).message(0, 110, 1, 300);
       },
       {}},
      {"nobody waits",
       [](BuiltRun& r) {
         r.call(0, kSend, 100, 110).call(1, kReceive, 100, 120).message(0, 105, 1, 115);
       },
       {}},
      {"wrong order",
       [](BuiltRun& r) {
         r.call(0, kSend, 100, 110).call(2, kSend, 150, 160);
         r.call(1, kReceive, 120, 200).call(1, kReceive, 210, 220);
         r.message(0, 105, 1, 215).message(2, 155, 1, 190);
       },
       {"wrong_order 1 receive 2: 1 x, 30"}},
      {"a call that completes several messages waits once",
       [](BuiltRun& r) {
         r.call(1, kWaitall, 100, 300).call(0, kSend, 150, 160).call(2, kSend, 220, 230);
         r.message(0, 155, 1, 240, kWaitall).message(2, 225, 1, 250, kWaitall);
       },
       {"late_sender 1 MPI_Waitall 0: 1 x, 50", "late_sender 1 MPI_Waitall 2: 1 x, 70"}},
      {"a send at the end of one call and the start of the next",
       [](BuiltRun& r) {
         r.call(0, kSend, 100, 150).call(0, kSend, 150, 180).call(1, kReceive, 120, 200);
         r.message(0, 150, 1, 190);
       },
       {"late_sender 1 receive 0: 1 x, 30"}},
      {"received before it was sent",
       [](BuiltRun& r) {
         r.call(1, kReceive, 100, 140).call(0, kSend, 150, 180);
         r.message(0, 160, 1, 130);
       },
       {}},
      {"received outside of MPI",
       [](BuiltRun& r) { r.call(0, kSend, 150, 180).message(0, 160, 1, 190, kMain); },
       {}},
      {"barrier",
       &barrier,
       {"barrier 0 MPI_Barrier 3: 1 x, 30", "barrier 1 MPI_Barrier 3: 1 x, 20",
        "barrier 2 MPI_Barrier 3: 1 x, 10", "completion 1 MPI_Barrier -: 1 x, 1",
        "completion 2 MPI_Barrier -: 1 x, 2", "completion 3 MPI_Barrier -: 1 x, 3"}},
      {"barrier across the start of a window",
       &barrier,
       {"barrier 0 MPI_Barrier 3: 1 x, 5", "barrier 1 MPI_Barrier 3: 1 x, 5",
        "barrier 2 MPI_Barrier 3: 1 x, 5", "completion 1 MPI_Barrier -: 1 x, 1",
        "completion 2 MPI_Barrier -: 1 x, 1", "completion 3 MPI_Barrier -: 1 x, 1"},
       {125, 151}},
      {"barrier with an unknown member",
       [](BuiltRun& r) {
         r.operation(tb::Shape::All, {100, tb::kNotStarted, 120, 130}, {150, 0, 152, 153});
       },
       {}},
      {"n x n, outside of all calls",
       [](BuiltRun& r) {
         r.operation(tb::Shape::AllToAll, {10, 14, 10, 10}, {20, 20, 20, 20});
       },
       {"nxn 0 barrier 1: 1 x, 4", "nxn 2 barrier 1: 1 x, 4", "nxn 3 barrier 1: 1 x, 4"}},
      {"late broadcast",
       [](BuiltRun& r) {
         r.operation(tb::Shape::OneToAll, {10, 40, 20, 50}, {35, 45, 60, 60}, 1);
       },
       {"late_broadcast 0 barrier 1: 1 x, 25", "late_broadcast 2 barrier 1: 1 x, 20"}},
      {"early reduce",
       [](BuiltRun& r) {
         r.operation(tb::Shape::AllToOne, {40, 35, 10, 50}, {60, 45, 90, 55}, 2);
       },
       {"early_reduce 2 barrier 3: 1 x, 40"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    BuiltRun run;
    c.build(run);
    EXPECT_EQ(run.waits(c.window), c.waits);
  }
}

// Calls, inclusive and exclusive time by function.
using Sums = std::map<uint32_t, std::array<uint64_t, 3>>;

void addTo(Sums& sums, const kla::ProfileRow& row, bool isOutermost) {
  std::array<uint64_t, 3>& own = sums[row.function + 1];
  own[0] += row.calls;
  if (isOutermost) own[1] += static_cast<uint64_t>(row.inclusive);
  own[2] += static_cast<uint64_t>(row.exclusive);
}

Sums sumsOfFunctions(const kla::Analysis& analysis) {
  Sums sums;
  for (const kla::ProfileRow& row : kla::functionProfile(analysis)) addTo(sums, row, true);
  return sums;
}

Sums sumsOfPaths(const kla::Analysis& analysis) {
  const kla::PathProfile profile = kla::pathProfile(analysis);
  Sums sums;
  for (uint32_t row = 0; row < profile.rows.size(); ++row) {
    bool isOutermost = true;
    for (uint32_t at = row; at != 0;) {
      at = static_cast<uint32_t>(profile.paths[at - 1] >> 32);
      isOutermost &= at == 0 || profile.rows[at].function != profile.rows[row].function;
    }
    addTo(sums, profile.rows[row], isOutermost);
  }
  return sums;
}

// Random nested calls, also recursive ones. A model sums up each tick for the function that is
// innermost, and once for each function that is open.
TEST(KlaCalls, SumsAreExactOnRandomTraces) {
  constexpr uint32_t kFunctions = 5;
  for (uint32_t seed = 0; seed < 20; ++seed) {
    std::mt19937 random(seed);
    tb::Trace trace;
    trace.clock(1e-9, 0).processes({2, 1});
    for (uint32_t f = 1; f <= kFunctions; ++f) trace.function(f, "f" + std::to_string(f));
    Sums expected;
    uint64_t end = 0, start = ~uint64_t{0};
    for (const uint32_t gtp : {tb::gtp(0), tb::gtp(0, 1), tb::gtp(1)}) {
      tb::Stream& stream = trace.stream("f." + std::to_string(gtp), tb::FUNCTIONS, {gtp});
      std::vector<uint32_t> stack;
      uint64_t time = 100 + random() % 50;
      for (int i = 0; i < 400 || !stack.empty(); ++i) {
        const uint64_t step = random() % 4;
        if (!stack.empty()) expected[stack.back()][2] += step;
        for (const uint32_t f : std::set<uint32_t>(stack.begin(), stack.end()))
          expected[f][1] += step;
        stream.at(time += step);
        start = std::min(start, time);
        if (stack.empty() || (i < 400 && random() % 2 == 0)) {
          stack.push_back(1 + static_cast<uint32_t>(random() % kFunctions));
          ++expected[stack.back()][0];
          stream.enter(gtp, stack.back());
        } else {
          stack.pop_back();
          stream.leave(gtp);
        }
      }
      end = std::max(end, time);
    }
    const tb::TempDir directory;
    const KLT_OwnedTrace open(KLT_Open(trace.files().writePlain(directory).c_str()));
    kla::Analysis analysis(open.get());
    ASSERT_TRUE(analysis.readDefinitions());
    ASSERT_EQ(analysis.run({.paths = true}), KLT_STATUS_FINISHED);
    ASSERT_EQ(std::tuple(analysis.span().start, analysis.span().end), std::tuple(start, end));
    uint64_t inCalls = 0;
    for (const auto& [function, sums] : expected) inCalls += sums[2];
    const uint64_t outside = 3 * (end - start) - inCalls;
    expected[kla::kNone + 1] = {0, outside, outside};
    EXPECT_EQ(sumsOfFunctions(analysis), expected);
    EXPECT_EQ(sumsOfPaths(analysis), expected);
  }
}

TEST(KlaTable, TimesHaveTheDigitsOfTheExactForm) {
  std::mt19937_64 random(1);
  for (const double resolution : {1.0, 0.25, 1e-3, 1.5e-6, 1e-9 / 8192, 3.7e-9, 1e-9}) {
    for (int i = 0; i < 3000; ++i) {
      const kla::Sum ticks = kla::Sum{random() >> random() % 64} << (i % 50 == 0 ? 40 : 0);
      std::array<char, 100> exact{};
      std::snprintf(exact.data(), exact.size(), "%.*Lf", kla::decimalsOf(resolution),
                    static_cast<long double>(ticks) * resolution);
      EXPECT_EQ(kla::secondsText(ticks, resolution), exact.data());
    }
  }
  EXPECT_EQ(kla::secondsText(0, 1e-6), "0.000000");
}

TEST(KlaText, CutsAndEscapes) {
  EXPECT_EQ(kla::cutMiddle("abcdefghij", 5), "ab…ij");
  EXPECT_EQ(kla::cutMiddle("äöüßéè", 4), "äö…è");
  EXPECT_EQ(kla::cutMiddle("short", 5), "short");
  const std::vector<std::tuple<std::string, std::string, std::string>> cases{
      {"plain é", "plain é", "\"plain é\""},
      {"a\x1b[1m\n", "a\\x1b[1m\\x0a", "\"a\\u001b[1m\\u000a\""},
      {"\xff\xc0\x80", "\\xff\\xc0\\x80", "\"\\ufffd\\ufffd\\ufffd\""},
      {"\xed\xa0\x80", "\\xed\\xa0\\x80", "\"\\ufffd\\ufffd\\ufffd\""},
      {"\u202e", "\\xe2\\x80\\xae", "\"\u202e\""},
      {"</script>\"\\", "</script>\"\\", "\"\\u003c/script>\\\"\\\\\""},
  };
  for (const auto& [text, printable, json] : cases) {
    EXPECT_EQ(kla::printable(text), printable);
    EXPECT_EQ(kla::jsonString(text), json);
  }
}

}  // namespace
