// Matching of raw events, which are written and read again: random events in an arena that is often
// full, compared with a simple matcher, and a large number of events.
#include "generic/merge/RK_logmerge.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
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

using reading::Lines;
using Event = std::variant<KLTM_RawMessage, KLTM_RawCollop>;

constexpr uint32_t kNoScl = 0x7fffffff;
constexpr uint64_t kNotSeen = ~uint64_t{0};

enum : uint32_t { kSend = 7, kReceive = 8, kCollop = 10 };

// An event's type, process and thread as one number, and back. There are 8 processes.
uint32_t kindOf(uint32_t type, uint32_t process, uint32_t thread = 0) {
  return type | process << 6 | thread << 9;
}
uint32_t processOf(uint32_t kind) { return kind >> 6 & 7; }
uint32_t gtpOf(uint32_t kind) { return processOf(kind) | kind >> 9 << 16; }

KLTM_RawMessage raw(uint32_t type, uint64_t time, uint32_t process, uint32_t other,
                    uint32_t tag = 1) {
  return {time, kindOf(type, process), other, tag, 8, 1, 13 + type, kNoScl};
}
KLTM_RawCollop part(uint64_t time, uint32_t process, uint32_t operation, uint32_t counter,
                    uint32_t comm, uint32_t root = 0) {
  return {time,      time + 5,     kindOf(kCollop, process),
          operation, comm,         counter,
          root,      10 + process, 20 + process,
          kNoScl};
}

// Lists of members are made of whole triplets.
TEST(Logmerge, MembersAreTheFirstNumbersOfTheirTriplets) {
  std::mt19937 random(3);
  const auto number = [&] { return static_cast<int32_t>(random() % 7) - 3; };
  for (int round = 0; round < 2000; ++round) {
    PAL_Triplets triplets(1 + random() % 4);
    for (auto& [first, last, stride] : triplets) {
      first = number();
      stride = number() | 1;
      last = first + static_cast<int32_t>(random() % 4) * stride;
    }
    std::vector<int32_t> expected = PAL_TripletsExpand(triplets), members;
    expected.resize(std::min<size_t>(expected.size(), 1 + random() % 12));
    const KLTT_MemberList list(triplets, static_cast<uint32_t>(expected.size()));
    KLTT_MemberList::Cursor cursor(list);
    for (uint32_t gtp = 0; cursor.next(&gtp);) members.push_back(static_cast<int32_t>(gtp));
    ASSERT_EQ(members, expected) << round;
  }
}

using Members = std::map<uint32_t, std::vector<int32_t>>;  // by communicator

// The records of a merged trace, and the number of messages in its profiles.
struct Merged {
  Lines messages, collops;
  uint64_t profiled = 0;
};

Merged merge(const Members& communicators, const std::vector<Event>& events,
             uint64_t blockBytes = RK_Conf::kMemBlockBytes) {
  const tb::TempDir directory;
  const std::string name = directory / "m.klt";
  const auto membersOf = [](void*, uint32_t, size_t, size_t* n) -> const uint32_t* {
    static const uint32_t kMembers[] = {0, 1, 2, 3};
    return *n = 4, kMembers;
  };
  const KLT_StatsParameters statistics{membersOf, nullptr, 0};
  KLT_WFileHandle* writer =
      KLT_WriterOpen(nullptr, name.c_str(), 1, KLT_FORM_PLAIN, 0, &statistics);
  KLTM_Matching matching;
  KLTM_DeclareProcesses(matching, 8);
  for (const auto& [id, members] : communicators) {
    PAL_Triplets list;
    for (const int32_t member : members) list.push_back({member, member, 1});
    KLTM_RegisterCommunicator(matching, id, KLTT_MemberList(list));
  }
  KLTM_MatchStart(matching, writer, nullptr, blockBytes);
  for (const Event& event : events) {
    if (const auto* message = std::get_if<KLTM_RawMessage>(&event))
      KLTM_MatchMessage(matching, *message);
    if (const auto* collop = std::get_if<KLTM_RawCollop>(&event))
      KLTM_MatchCollective(matching, *collop);
  }
  KLTM_MatchFinish(matching);
  bool isComplete = false;
  EXPECT_EQ(KLT_WriterClose(writer, &isComplete), nullptr);
  EXPECT_TRUE(isComplete);
  Merged merged;
  for (const std::string& line : reading::linesOf(name)) {
    unsigned count = 0;
    const char* profile = "onetoone_profile %*u %*u %*u %*u %*u %*u %*u %u";
    if (std::sscanf(line.c_str(), profile, &count) == 1) {
      merged.profiled += count;
    } else if (line.find("_communication ") != std::string::npos) {
      (line.starts_with("one_to_one_") ? merged.messages : merged.collops).push_back(line);
    }
  }
  return merged;
}

// A simple matcher for messages or operations, which compares each event with every entry.
class Model {
 public:
  struct Entry {
    size_t pending = 1;
    bool isSentFirst = false;
    std::optional<KLTM_RawMessage> sent, received;
    KLTM_RawCollop first;
    std::vector<std::pair<uint32_t, std::optional<KLTM_RawCollop>>> members;
  };

  explicit Model(const Members& communicators) : communicators_(communicators) {}

  template <class E>
  void event(const E& e) {
    for (Entry& entry : entries) {
      const int result = entry.pending == 0 ? kNoMatch : match(entry, e);
      if (result != kNoMatch) --entry.pending;
      if (result == kMatched) return;
    }
    begin(entries.emplace_back(), e);
  }

  // `wasOpen`: first written with one side only, so with locations unless the sender has none.
  static std::string messageRecord(const Entry& m, bool wasOpen) {
    const KLTM_RawMessage none{.scl = kNoScl}, s = m.sent.value_or(none),
                                               r = m.received.value_or(none);
    const KLTM_RawMessage& known = m.sent ? s : r;
    const bool located =
        wasOpen ? !m.isSentFirst || s.scl != 0 : s.scl != 0 && (s.scl != kNoScl || r.scl != kNoScl);
    const int64_t span = !m.sent       ? tb::kNoSend
                         : !m.received ? tb::kNoReceive
                                       : static_cast<int64_t>(r.time - s.time);
    std::string line("one_to_one_communication");
    size_t count = 0;
    const auto add = [&](auto... values) { (reading::Recorder::add(line, count, values), ...); };
    add(m.isSentFirst ? s.time : r.time, m.sent ? gtpOf(s.kind) : r.other, span,
        m.received ? gtpOf(r.kind) : s.other, known.comm, known.size, known.tag,
        located ? s.scl : 0, located ? r.scl : 0, 0, 0, s.function, r.function);
    return line;
  }

  // Empty if the operation has no record.
  [[nodiscard]] std::string collopRecord(const Entry& c) const {
    const uint32_t op = c.first.operation;
    const bool all = op == 1 || op == 2;
    const bool oneToAll = op == 3 || op == 4 || (op >= 9 && op <= 12);
    const bool allToOne = (op >= 5 && op <= 8) || (op >= 33 && op <= 35);
    if (op < 1 || op > 45) return "";
    // Readers refuse such records. With a root and an unknown communicator a real merge ends here.
    const auto known = communicators_.find(c.first.comm);
    if (known == communicators_.end() ? !oneToAll && !allToOne : known->second.empty()) return "";
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
    std::string line(all        ? "all_communication"
                     : oneToAll ? "one_to_all_communication"
                     : allToOne ? "all_to_one_communication"
                                : "all_to_all_communication");
    size_t count = 0;
    const auto add = [&](auto... values) { (reading::Recorder::add(line, count, values), ...); };
    add(c.first.time);
    if (oneToAll || allToOne) add(c.first.root, oneToAll ? sent[root] : received[root]);
    add(c.first.comm, op, c.members.size(), start.data(), delta.data());
    if (!all && !oneToAll) add(sent.data());
    if (!all && !allToOne) add(received.data());
    add(scl.data());
    return line;
  }

  std::vector<Entry> entries;  // in the order of their first events

 private:
  enum { kNoMatch, kOneLess, kMatched };

  static bool sends(const KLTM_RawMessage& e) { return (e.kind & 63) == kSend; }

  static int match(Entry& m, const KLTM_RawMessage& e) {
    const KLTM_RawMessage& known = m.sent ? *m.sent : *m.received;
    if (known.tag != e.tag || known.comm != e.comm || known.size != e.size ||
        sends(known) == sends(e) || (known.other & 0xffff) != processOf(e.kind) ||
        e.other != processOf(known.kind)) {
      return kNoMatch;
    }
    (sends(e) ? m.sent : m.received) = e;
    return kMatched;
  }
  static void begin(Entry& m, const KLTM_RawMessage& e) {
    m.isSentFirst = sends(e);
    (sends(e) ? m.sent : m.received) = e;
  }

  static auto memberOf(Entry& c, const KLTM_RawCollop& e) {
    return std::find_if(c.members.begin(), c.members.end(),
                        [&](const auto& m) { return m.first == processOf(e.kind); });
  }
  static int match(Entry& c, const KLTM_RawCollop& e) {
    const auto member = memberOf(c, e);
    if (c.first.comm != e.comm || member == c.members.end() || member->second) return kNoMatch;
    if (e.counter != 0 && c.first.counter != e.counter) return kOneLess;
    if (e.counter == 0 && (c.first.root != e.root || c.first.operation != e.operation))
      return kNoMatch;
    member->second = e;
    return kMatched;
  }
  void begin(Entry& c, const KLTM_RawCollop& e) const {
    c.first = e;
    if (const auto known = communicators_.find(e.comm); known != communicators_.end())
      for (const int32_t gtp : known->second) c.members.emplace_back(gtp, std::nullopt);
    if (c.members.empty()) c.members.emplace_back();
    const auto member = memberOf(c, e);
    (member == c.members.end() ? c.members.front() : *member).second = e;
    c.pending = c.members.size() - 1;
  }

  const Members& communicators_;
};

// The arena is often full: incomplete records are written, and written again later.
TEST(Logmerge, RandomEventsMatchAsInTheModel) {
  for (uint32_t seed = 1; seed <= 24; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 engine(seed);
    const auto below = [&](uint32_t bound) { return static_cast<uint32_t>(engine() % bound); };
    const auto of = [&](std::initializer_list<uint32_t> choices) {
      return *(choices.begin() + below(static_cast<uint32_t>(choices.size())));
    };
    // Members: regular, descending, with a repeated process, none, one, several runs.
    const Members communicators{
        {1, {0, 1, 2, 3, 4, 5, 6}}, {2, {4, 2, 0}},      {3, {1, 1, 3}}, {4, {}}, {5, {6}},
        {6, {0, 3, 1, 6, 4, 2}},    {7, {2, 0x10001, 5}}};
    const uint32_t blockBytes = of({500, 2048, 20000});
    const uint32_t tags = of({1, 3, 40}), counting = seed % 3;  // never, always, sometimes
    std::vector<uint32_t> counters(7, 1);
    std::vector<Event> events;
    Model messages(communicators), collops(communicators);
    uint64_t time = 0;
    for (int i = 0; i < 4000; ++i) {
      time += of({0, 1, 7, 70000});
      KLTM_RawMessage m = raw(of({kSend, kSend, kReceive, kReceive, kReceive, 33}), time, 0, 0);
      m.kind = kindOf(m.kind, below(3), below(2));
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
      c.kind = kindOf(kCollop, process, below(2));
      c.endtime = time + of({0, 5, 100000});
      c.scl = of({0, kNoScl, 4});
      if (counting == 1 || (counting == 2 && below(2) == 0)) {
        c.counter = counters[process] + below(2);
        counters[process] += below(2);
      }
      collops.event(c);
      events.emplace_back(c);
    }
    const Merged merged = merge(communicators, events, blockBytes);
    uint64_t complete = 0;
    ASSERT_EQ(merged.messages.size(), messages.entries.size());
    for (size_t i = 0; i < merged.messages.size(); ++i) {
      const Model::Entry& m = messages.entries[i];
      complete += m.pending == 0;
      if (merged.messages[i] == Model::messageRecord(m, true)) continue;
      ASSERT_EQ(merged.messages[i], Model::messageRecord(m, m.pending > 0)) << i;
    }
    Lines operations;
    for (const Model::Entry& c : collops.entries) operations.push_back(collops.collopRecord(c));
    std::erase(operations, "");
    EXPECT_EQ(reading::difference(operations, merged.collops), "");
    EXPECT_EQ(merged.profiled, complete);
  }
}

// These events don't fit in the arena or the writer's buffer. So incomplete records are written,
// and written again in the file or the buffer, some without their location. A search must not visit
// all messages with its key, or all operations that one process has begun before the others, with
// or without counters.
TEST(Logmerge, ManyIncompleteRecordsAreWrittenOnceWithoutLongSearches) {
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
  const Merged merged = merge({{2, {0, 1, 2, 3}}, {3, {0, 1, 2, 3}}}, events);
  EXPECT_EQ(merged.messages.size(), kMany);
  EXPECT_EQ(merged.profiled, kMany);
  EXPECT_EQ(merged.collops.size(), 2 * kAhead);
  for (const auto& [lines, open] : {std::pair{&merged.messages, std::to_string(tb::kNoSend)},
                                    {&merged.collops, std::to_string(kNotSeen)}})
    for (const std::string& line : *lines) ASSERT_EQ(line.find(open), std::string::npos) << line;
}

}  // namespace
