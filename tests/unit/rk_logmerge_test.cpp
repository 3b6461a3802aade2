// Matching of raw events: what comes out for given events, through the writer and back, and the
// same from a matcher that walks everything, on random events in an arena that overflows all the
// time.
#include "generic/merge/RK_logmerge.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <variant>
#include <vector>

#include "generic/options/RK_conf.h"
#include "klt/write/klt_write.h"
#include "tests/unit/klt_reading.h"
#include "util/pal_mem.h"

namespace {

using reading::LinePrinter;
using reading::Lines;
using Event = std::variant<KLTM_RawMessage, KLTM_RawCollop>;

constexpr uint32_t kNoScl = 0x7fffffff;
constexpr uint64_t kNotSeen = ~uint64_t{0};

// What the events of a test have in common.
struct Setting {
  std::map<uint32_t, std::vector<int32_t>> members;  // by communicator
  uint32_t processes = 4;
  uint64_t blockBytes = RK_Conf::mem_blocksize;

  [[nodiscard]] uint32_t bits() const { return processes <= 4 ? 2 : 3; }
  // The number of an event's type, process and thread.
  [[nodiscard]] uint32_t kind(uint32_t type, uint32_t process, uint32_t thread = 0) const {
    return type | process << 6 | thread << (6 + bits());
  }
  [[nodiscard]] uint32_t process(uint32_t kind) const { return kind >> 6 & ((1U << bits()) - 1); }
  [[nodiscard]] uint32_t gtp(uint32_t kind) const {
    return process(kind) | kind >> (6 + bits()) << 16;
  }
};

enum : uint32_t { kSend = 7, kReceive = 8, kCollop = 10 };

KLTM_RawMessage raw(uint32_t type, uint64_t time, uint32_t process, uint32_t other,
                    uint32_t tag = 1) {
  return {time, Setting().kind(type, process), other, tag, 8, 1, 13 + type, kNoScl};
}
KLTM_RawCollop part(uint64_t time, uint32_t process, uint32_t operation, uint32_t counter = 0,
                    uint32_t comm = 2, uint32_t root = 0) {
  return {time,      time + 5,     Setting().kind(kCollop, process),
          operation, comm,         counter,
          root,      10 + process, 20 + process,
          kNoScl};
}

// What is in a merged trace, how many messages are in its profiles, and how many bytes were
// allocated in all while the events were taken in.
uint64_t allocated;
struct Merged {
  Lines messages, collops;
  uint64_t profiled = 0;
  uint32_t messagesAdded = 0, collopsAdded = 0;
};

Merged merge(const Setting& setting, const std::vector<Event>& events) {
  const tb::TempDir directory;
  const std::string name = directory / "m.klt";
  const auto membersOf = [](void*, uint32_t, size_t* n) -> const uint32_t* {
    static const uint32_t kMembers[] = {0, 1, 2, 3};
    return *n = 4, kMembers;
  };
  const KLT_StatsParameters statistics{membersOf, nullptr, 0};
  KLT_WFileHandle* writer =
      KLT_WriterOpen(nullptr, name.c_str(), 1, KLT_FORM_PLAIN, 0, &statistics);
  Merged merged;
  KLTM_Matching matching;
  matching.declareProcesses(setting.processes);
  for (const auto& [id, members] : setting.members)
    matching.registerCommunicator(id, KLTT_MemberList(members));
  matching.start(writer, nullptr, setting.blockBytes);
  const PAL_AllocatorTable saved = PAL_allocators;
  PAL_allocators.malloc = [](size_t bytes) { return allocated += bytes, std::malloc(bytes); };
  allocated = 0;
  for (const Event& event : events) {
    if (const auto* message = std::get_if<KLTM_RawMessage>(&event)) matching.message(*message);
    if (const auto* collop = std::get_if<KLTM_RawCollop>(&event)) matching.collop(*collop);
  }
  PAL_allocators = saved;
  merged.messagesAdded = matching.messagesAdded();
  merged.collopsAdded = matching.collopsAdded();
  matching.finish();
  bool isComplete = false;
  EXPECT_EQ(KLT_WriterClose(writer, &isComplete), nullptr);
  EXPECT_TRUE(isComplete);

  KLT_FileHandle* handle = KLT_Open(name.c_str());
  reading::Recorder recorder;
  for (const uint32_t categories : {klt::kMessages | klt::kCollops, +klt::kStatistics}) {
    const KLT_Request request = reading::window(0, reading::kOpenEnd, categories);
    const KLT_Request* requests = &request;
    const reading::Reader reader(
        KLT_OpenReader(handle, KLT_MODE_EVENTS, 1, &requests, &recorder.table, 1));
    EXPECT_EQ(KLT_ReadEvents(reader.get(), -1), KLT_STATUS_FINISHED);
  }
  KLT_Close(handle);
  for (const std::string& line : recorder.lines) {
    if (line.starts_with("onetoone_profile ")) {
      size_t at = 0;
      for (int field = 0; field < 8; ++field) at = line.find(' ', at) + 1;
      merged.profiled += std::stoul(line.substr(at));
    } else if (line.find("_communication ") != std::string::npos) {
      (line.starts_with("one_to_one_") ? merged.messages : merged.collops).push_back(line);
    }
  }
  return merged;
}

// The matcher that walks everything, for one of the two kinds of event.
class Naive {
 public:
  struct Entry {
    size_t pending = 1;
    bool isSentFirst = false;
    std::optional<KLTM_RawMessage> sent, received;
    KLTM_RawCollop first;
    std::vector<std::pair<uint32_t, std::optional<KLTM_RawCollop>>> members;
  };

  explicit Naive(const Setting& setting) : setting_(setting) {}

  template <class E>
  void event(const E& e) {
    for (Entry& entry : entries) {
      const int result = entry.pending == 0 ? kOther : match(entry, e);
      if (result != kOther) --entry.pending;
      if (result == kTaken) return;
    }
    begin(entries.emplace_back(), e);
  }

  // With locations if it was written while it was open and they were possible then.
  [[nodiscard]] std::string messageRecord(const Entry& m, bool wasOpen) const {
    KLTM_RawMessage none;
    none.scl = kNoScl;
    const KLTM_RawMessage s = m.sent.value_or(none), r = m.received.value_or(none);
    const KLTM_RawMessage& known = m.sent ? s : r;
    const bool located =
        wasOpen ? !m.isSentFirst || s.scl != 0 : s.scl != 0 && (s.scl != kNoScl || r.scl != kNoScl);
    const int64_t span = !m.sent       ? tb::NO_SEND
                         : !m.received ? tb::NO_RECEIVE
                                       : static_cast<int64_t>(r.time - s.time);
    LinePrinter line("one_to_one_communication");
    const auto add = [&](auto... values) { (line.add(values), ...); };
    add(m.isSentFirst ? s.time : r.time, m.sent ? setting_.gtp(s.kind) : r.other, span,
        m.received ? setting_.gtp(r.kind) : s.other, known.comm, known.size, known.tag,
        located ? s.scl : 0, located ? r.scl : 0, 0, 0, s.function, r.function);
    return line.line;
  }

  // Empty for what isn't an operation.
  static std::string collopRecord(const Entry& c) {
    const uint32_t op = c.first.operation;
    const bool all = op == 1 || op == 2;
    const bool oneToAll = op == 3 || op == 4 || (op >= 9 && op <= 12);
    const bool allToOne = (op >= 5 && op <= 8) || (op >= 33 && op <= 35);
    if (op < 1 || op > 45) return "";
    std::vector<uint64_t> start, delta;
    std::vector<uint32_t> sent, received, scl;
    size_t root = 0;
    for (const auto& [gtp, e] : c.members) {
      if (gtp == c.first.root) root = start.size();
      start.push_back(e ? e->time - c.first.time : kNotSeen);
      delta.push_back(e ? e->endtime - e->time : 0);
      sent.push_back(e ? e->send : 0);
      received.push_back(e ? e->recv : 0);
      scl.push_back(e && e->scl != kNoScl ? e->scl : 0);
    }
    LinePrinter line(all        ? "all_communication"
                     : oneToAll ? "one_to_all_communication"
                     : allToOne ? "all_to_one_communication"
                                : "all_to_all_communication");
    const auto add = [&](auto... values) { (line.add(values), ...); };
    add(c.first.time);
    if (oneToAll || allToOne) add(c.first.root, oneToAll ? sent[root] : received[root]);
    add(c.first.comm, op, c.members.size(), start.data(), delta.data());
    if (!all && !oneToAll) add(sent.data());
    if (!all && !allToOne) add(received.data());
    add(scl.data());
    return line.line;
  }

  std::vector<Entry> entries;  // by their first events

 private:
  enum { kOther, kWontCome, kTaken };

  static bool sends(const KLTM_RawMessage& e) { return (e.kind & 63) == kSend; }

  int match(Entry& m, const KLTM_RawMessage& e) const {
    const KLTM_RawMessage& known = m.sent ? *m.sent : *m.received;
    if (known.tag != e.tag || known.comm != e.comm || known.size != e.size ||
        sends(known) == sends(e) || (known.other & 0xffff) != setting_.process(e.kind) ||
        e.other != setting_.process(known.kind)) {
      return kOther;
    }
    (sends(e) ? m.sent : m.received) = e;
    return kTaken;
  }
  static void begin(Entry& m, const KLTM_RawMessage& e) {
    m.isSentFirst = sends(e);
    (sends(e) ? m.sent : m.received) = e;
  }

  auto memberOf(Entry& c, const KLTM_RawCollop& e) const {
    return std::find_if(c.members.begin(), c.members.end(),
                        [&](const auto& m) { return m.first == setting_.process(e.kind); });
  }
  int match(Entry& c, const KLTM_RawCollop& e) const {
    const auto member = memberOf(c, e);
    if (c.first.comm != e.comm || member == c.members.end() || member->second) return kOther;
    if (e.counter != 0 && c.first.counter != e.counter) return kWontCome;
    if (e.counter == 0 && (c.first.root != e.root || c.first.operation != e.operation))
      return kOther;
    member->second = e;
    return kTaken;
  }
  void begin(Entry& c, const KLTM_RawCollop& e) const {
    c.first = e;
    if (const auto known = setting_.members.find(e.comm); known != setting_.members.end())
      for (const int32_t gtp : known->second) c.members.emplace_back(gtp, std::nullopt);
    if (c.members.empty()) c.members.emplace_back();
    const auto member = memberOf(c, e);
    (member == c.members.end() ? c.members.front() : *member).second = e;
    c.pending = c.members.size() - 1;
  }

  const Setting& setting_;
};

TEST(Logmerge, EventsBecomeTheseRecords) {
  const std::string never = std::to_string(kNotSeen), unsent = std::to_string(tb::NO_RECEIVE);
  const struct {
    Setting setting;
    std::vector<Event> events;
    Lines records;
  } rows[] = {
      // Whichever comes first; oldest with oldest.
      {{},
       {raw(kSend, 100, 0, 1), raw(kSend, 101, 0, 1), raw(kReceive, 103, 1, 0),
        raw(kReceive, 200, 2, 3), raw(kSend, 230, 3, 2)},
       {"one_to_one_communication 100 0 3 1 1 8 1 0 0 0 0 20 21",
        "one_to_one_communication 101 0 " + unsent + " 1 1 8 1 2147483647 2147483647 0 0 20 0",
        "one_to_one_communication 200 3 -30 2 1 8 1 0 0 0 0 20 21"}},
      // Each form of operation; without counters, operation and root tell them apart.
      {{{{2, {0, 1}}}},
       {part(100, 1, 1), part(101, 1, 3, 0, 2, 1), part(102, 1, 5, 0, 2, 1), part(103, 1, 36),
        part(110, 0, 36), part(111, 0, 5, 0, 2, 1), part(112, 0, 3, 0, 2, 1), part(113, 0, 1)},
       {"all_communication 100 2 1 2 [13 0] [5 5] [0 0]",
        "one_to_all_communication 101 1 11 2 3 2 [11 0] [5 5] [20 21] [0 0]",
        "all_to_one_communication 102 1 21 2 5 2 [9 0] [5 5] [10 11] [0 0]",
        "all_to_all_communication 103 2 36 2 [7 0] [5 5] [10 11] [20 21] [0 0]"}},
      // Process 1 shows up with counter 7 twice: the operation with counter 5 has nobody left to
      // wait for although two members haven't come, and process 2 then makes one of its own.
      {{{{2, {0, 1, 2}}}},
       {part(1, 0, 1, 5), part(2, 1, 1, 7), part(3, 1, 1, 8), part(4, 2, 1, 5)},
       {"all_communication 1 2 1 3 [0 " + never + " " + never + "] [5 0 0] [0 0 0]",
        "all_communication 2 2 1 3 [" + never + " 0 " + never + "] [0 5 0] [0 0 0]",
        "all_communication 3 2 1 3 [" + never + " 0 " + never + "] [0 5 0] [0 0 0]",
        "all_communication 4 2 1 3 [" + never + " " + never + " 0] [0 0 5] [0 0 0]"}},
      // A stranger takes the first member's place, the second joins it; nobody is a member; not
      // defined; not an operation.
      {{{{2, {0, 1}}, {3, {}}}},
       {part(1, 3, 1), part(2, 1, 1), part(3, 1, 1, 0, 3), part(4, 1, 1, 0, 99), part(5, 1, 200)},
       {"all_communication 1 2 1 2 [0 1] [5 5] [0 0]", "all_communication 3 3 1 1 [0] [5] [0]",
        "all_communication 4 99 1 1 [0] [5] [0]"}},
  };
  for (const auto& row : rows) {
    const Merged merged = merge(row.setting, row.events);
    Lines records = merged.messages;
    records.insert(records.end(), merged.collops.begin(), merged.collops.end());
    EXPECT_EQ(reading::difference(row.records, records), "");
  }
}

// The arena overflows all the time: what is still open is written, and written again.
TEST(Logmerge, RandomEventsAsTheWalkingMatcherHasThem) {
  for (uint32_t seed = 1; seed <= 24; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 engine(seed);
    const auto below = [&](uint32_t bound) { return static_cast<uint32_t>(engine() % bound); };
    const auto of = [&](std::initializer_list<uint32_t> choices) {
      return *(choices.begin() + below(static_cast<uint32_t>(choices.size())));
    };
    // Of all forms: regular, downwards, with a process twice, in pieces, alone, nobody.
    const Setting setting{{{1, {0, 1, 2, 3, 4, 5, 6}},
                           {2, {4, 2, 0}},
                           {3, {1, 1, 3}},
                           {4, {}},
                           {5, {6}},
                           {6, {0, 3, 1, 6, 4, 2}},
                           {7, {2, 0x10001, 5}}},
                          7,
                          of({500, 2048, 20000})};
    const uint32_t tags = of({1, 3, 40}), counting = seed % 3;  // never, always, now and then
    std::vector<uint32_t> counters(7, 1);
    std::vector<Event> events;
    Naive messages(setting), collops(setting);
    uint64_t time = 0;
    for (int i = 0; i < 4000; ++i) {
      time += of({0, 1, 7, 70000});
      KLTM_RawMessage m = raw(of({kSend, kSend, kReceive, kReceive, kReceive, 33}), time, 0, 0);
      m.kind = setting.kind(m.kind, below(3), below(2));
      m.other = below(3) | (below(50) == 0 ? 0x10000 : 0);
      m.tag = below(20) == 0 ? 70000 : below(tags);
      m.size = below(2);
      m.comm = 1 + below(2);
      m.scl = of({0, kNoScl, kNoScl, 4});
      messages.event(m);
      events.emplace_back(m);
      const uint32_t process = below(7);
      KLTM_RawCollop c = part(time, process, of({1, 3, 5, 36, 99}), 0,
                              of({1, 1, 1, 2, 3, 4, 5, 6, 7, 8}), below(2));
      c.kind = setting.kind(kCollop, process, below(2));
      c.endtime = time + of({0, 5, 100000});
      c.scl = of({0, kNoScl, 4});
      if (counting == 1 || (counting == 2 && below(2) == 0)) {
        c.counter = counters[process] + below(2);
        counters[process] += below(2);
      }
      collops.event(c);
      events.emplace_back(c);
    }
    const Merged merged = merge(setting, events);
    uint64_t complete = 0;
    ASSERT_EQ(merged.messages.size(), messages.entries.size());
    for (size_t i = 0; i < merged.messages.size(); ++i) {
      const Naive::Entry& m = messages.entries[i];
      complete += m.pending == 0;
      if (merged.messages[i] == messages.messageRecord(m, true)) continue;
      ASSERT_EQ(merged.messages[i], messages.messageRecord(m, m.pending > 0)) << i;
    }
    Lines operations;
    for (const Naive::Entry& c : collops.entries) operations.push_back(Naive::collopRecord(c));
    std::erase(operations, "");
    EXPECT_EQ(reading::difference(operations, merged.collops), "");
    EXPECT_EQ(merged.messagesAdded, messages.entries.size());
    EXPECT_EQ(merged.collopsAdded, collops.entries.size());
    EXPECT_EQ(merged.profiled, complete);
  }
}

TEST(Logmerge, WhatIsOverLeavesItsMemoryToWhatComes) {
  std::vector<Event> events;
  for (uint64_t time = 0; time < 200000; time += 2) {
    events.emplace_back(raw(kSend, time, 0, 1));
    events.emplace_back(raw(kReceive, time + 1, 1, 0));
  }
  EXPECT_EQ(merge({{}, 4, 4096}, events).messages.size(), 100000U);
  EXPECT_LT(allocated, 1U << 20);
}

// Nothing of this fits into the arena or the writer's buffer: records are written open, then again,
// in front of the flushed position and behind it, some without the location they were to have. An
// event may look neither at all that wait for its key nor at all operations that one process, far
// ahead of the others, has begun, with counters and without.
TEST(Logmerge, MuchThatIsOpenIsWrittenOnceEachAndCostsNoMore) {
  constexpr uint32_t kMany = 300000, kAhead = 30000;
  std::vector<Event> events;
  for (uint32_t i = 0; i < kMany; ++i)
    events.emplace_back(raw(kReceive, i, 1, 0, i < kMany / 2 ? i / 3 : 0));
  for (uint32_t i = kMany; i-- > 0;) {
    KLTM_RawMessage sent = raw(kSend, 2 * kMany - i, 0, 1, i < kMany / 2 ? i / 3 : 0);
    sent.scl = i % 2 == 0 ? 0 : 5;
    events.emplace_back(sent);
  }
  for (const uint32_t process : {0U, 1U, 2U, 3U}) {
    for (uint32_t i = 0; i < kAhead; ++i) {
      const uint64_t time = uint64_t{kMany} * 9 + events.size();
      events.emplace_back(part(time, process, 36, i + 1, 2, i % 2));
      events.emplace_back(part(time, process, 36, 0, 3, i % 2));
    }
  }
  const Merged merged = merge({{{2, {0, 1, 2, 3}}, {3, {0, 1, 2, 3}}}}, events);
  EXPECT_EQ(merged.messages.size(), kMany);
  EXPECT_EQ(merged.messagesAdded, kMany);
  EXPECT_EQ(merged.profiled, kMany);
  EXPECT_EQ(merged.collops.size(), 2 * kAhead);
  for (const Lines& lines : {merged.messages, merged.collops}) {
    for (const std::string& line : lines) {
      ASSERT_EQ(line.find(std::to_string(tb::NO_SEND)), std::string::npos) << line;
      ASSERT_EQ(line.find(std::to_string(kNotSeen)), std::string::npos) << line;
    }
  }
}

}  // namespace
