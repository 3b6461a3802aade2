// Matching of raw events: what comes out for given events, through the writer and back, and the
// same from a matcher that walks everything, on random events in an arena that overflows all the
// time.
#include "generic/RK_logmerge.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <variant>
#include <vector>

#include "generic/RK_conf.h"
#include "klt/klt_write.h"
#include "tests/unit/klt_reading.h"

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

// What is in a merged trace, and how many messages are in its profiles.
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
    *n = 4;
    return kMembers;
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
  for (const Event& event : events) {
    if (const auto* message = std::get_if<KLTM_RawMessage>(&event)) matching.message(*message);
    if (const auto* collop = std::get_if<KLTM_RawCollop>(&event)) matching.collop(*collop);
  }
  merged.messagesAdded = matching.messagesAdded();
  merged.collopsAdded = matching.collopsAdded();
  matching.finish();
  bool isComplete = false;
  EXPECT_EQ(KLT_WriterClose(writer, &isComplete), nullptr);
  EXPECT_TRUE(isComplete);

  KLT_FileHandle* handle = KLT_Open(name.c_str());
  for (const uint32_t categories :
       {uint32_t{klt::kMessages | klt::kCollops}, uint32_t{klt::kStatistics}}) {
    reading::Recorder recorder;
    const KLT_Request request = reading::window(0, reading::kOpenEnd, categories);
    const KLT_Request* requests = &request;
    const reading::Reader reader(
        KLT_OpenReader(handle, KLT_MODE_EVENTS, 1, &requests, &recorder.table, 1));
    EXPECT_EQ(KLT_ReadEvents(reader.get(), -1), KLT_STATUS_FINISHED);
    for (const std::string& line : recorder.lines) {
      if (line.starts_with("one_to_one_")) {
        merged.messages.push_back(line);
      } else if (line.starts_with("onetoone_profile ")) {
        size_t at = 0;
        for (int field = 0; field < 8; ++field) at = line.find(' ', at) + 1;
        merged.profiled += std::stoul(line.substr(at));
      } else if (line.find("_communication ") != std::string::npos) {
        merged.collops.push_back(line);
      }
    }
  }
  KLT_Close(handle);
  return merged;
}

// The matcher that walks everything, for one of the two kinds of event.
class Naive {
 public:
  explicit Naive(const Setting& setting) : setting_(setting), capacity_(setting.blockBytes) {}

  template <class E>
  void event(const E& e) {
    for (Entry& entry : arena_) {
      const int result = entry.pending == 0 ? kOther : match(entry, e);
      if (result == kOther) continue;
      entry.dirty = true;
      --entry.pending;
      if (result == kTaken) return;
    }
    Entry entry;
    entry.time = entry.lastTime = e.time;
    begin(entry, e);
    makeRoom(entry.bytes, e.time);
    used_ += entry.bytes;
    arena_.push_back(std::move(entry));
    ++added;
  }
  void finish() { flush(kNotSeen, true); }

  Lines records;
  uint32_t added = 0;
  uint64_t profiled = 0;
  int forced = 0, rewritten = 0;

 private:
  struct Entry {
    uint64_t bytes = 0, time = 0, lastTime = 0;
    size_t pending = 1, record = 0;  // place among the records, from 1
    bool written = false, dirty = true, located = false;
    std::optional<KLTM_RawMessage> sent, received;
    KLTM_RawCollop first;
    std::vector<std::pair<uint32_t, std::optional<KLTM_RawCollop>>> members;
  };
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
    m.lastTime = e.time;
    return kTaken;
  }
  void begin(Entry& m, const KLTM_RawMessage& e) const {
    m.bytes = 128;
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
    c.lastTime = std::max(c.lastTime, e.endtime);
    return kTaken;
  }
  void begin(Entry& c, const KLTM_RawCollop& e) const {
    c.first = e;
    c.lastTime = e.endtime;
    if (const auto known = setting_.members.find(e.comm); known != setting_.members.end())
      for (const int32_t gtp : known->second) c.members.emplace_back(gtp, std::nullopt);
    if (c.members.empty()) c.members.emplace_back();
    const auto member = memberOf(c, e);
    (member == c.members.end() ? c.members.front() : *member).second = e;
    c.pending = c.members.size() - 1;
    c.bytes = 88 + 32 * c.members.size();
  }

  void makeRoom(uint64_t bytes, uint64_t now) {
    if (used_ + bytes <= capacity_) return;
    flush(now, false);
    if (used_ + bytes <= capacity_) return;
    flush(now, true);
    ++forced;
    if (used_ <= capacity_ / 2 && used_ + bytes <= capacity_) return;
    capacity_ = std::max({2 * capacity_, capacity_ + setting_.blockBytes, used_ + bytes});
  }

  void flush(uint64_t limit, bool force) {
    std::vector<Entry> stay;
    bool stopped = false;
    for (Entry& entry : arena_) {
      stopped |= entry.pending > 0 && !entry.written && !force;
      if (!stopped && entry.dirty && (entry.pending == 0 || force)) write(entry);
      if (!stopped && entry.pending == 0 && entry.lastTime <= limit)
        used_ -= entry.bytes;
      else
        stay.push_back(std::move(entry));
    }
    arena_ = std::move(stay);
  }

  void write(Entry& entry) {
    const std::string record = entry.members.empty() ? messageRecord(entry) : collopRecord(entry);
    if (!record.empty() && entry.written) {
      records[entry.record - 1] = record;
      ++rewritten;
    } else if (!record.empty()) {
      records.push_back(record);
      entry.record = records.size();
    }
    if ((entry.written || entry.pending == 0) && entry.sent && entry.received) ++profiled;
    entry.written = true;
    entry.dirty = false;
  }

  std::string messageRecord(Entry& m) const {
    KLTM_RawMessage none;
    none.scl = kNoScl;
    const KLTM_RawMessage s = m.sent.value_or(none), r = m.received.value_or(none);
    const KLTM_RawMessage& known = m.sent ? s : r;
    if (!m.written) m.located = (m.pending > 0 || s.scl != kNoScl || r.scl != kNoScl) && s.scl != 0;
    const int64_t span = !m.sent       ? tb::NO_SEND
                         : !m.received ? tb::NO_RECEIVE
                                       : static_cast<int64_t>(r.time - s.time);
    LinePrinter line("one_to_one_communication");
    const auto add = [&](auto... values) { (line.add(values), ...); };
    add(m.time, m.sent ? setting_.gtp(s.kind) : r.other, span,
        m.received ? setting_.gtp(r.kind) : s.other, known.comm, known.size, known.tag,
        m.located ? s.scl : 0, m.located ? r.scl : 0, 0, 0, s.function, r.function);
    return line.line;
  }

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
      start.push_back(e ? e->time - c.time : kNotSeen);
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
    add(c.time);
    if (oneToAll || allToOne) add(c.first.root, oneToAll ? sent[root] : received[root]);
    add(c.first.comm, op, c.members.size(), start.data(), delta.data());
    if (!all && !oneToAll) add(sent.data());
    if (!all && !allToOne) add(received.data());
    add(scl.data());
    return line.line;
  }

  const Setting& setting_;
  std::vector<Entry> arena_;
  uint64_t capacity_, used_ = 0;
};

// Compares the two; random events have to overflow the arena and to reach what was written.
void compareWithNaive(const Setting& setting, const std::vector<Event>& events) {
  Naive messages(setting), collops(setting);
  for (const Event& event : events) {
    if (const auto* message = std::get_if<KLTM_RawMessage>(&event)) messages.event(*message);
    if (const auto* collop = std::get_if<KLTM_RawCollop>(&event)) collops.event(*collop);
  }
  messages.finish();
  collops.finish();
  const Merged merged = merge(setting, events);
  EXPECT_EQ(reading::difference(messages.records, merged.messages), "");
  EXPECT_EQ(reading::difference(collops.records, merged.collops), "");
  EXPECT_EQ(merged.messagesAdded, messages.added);
  EXPECT_EQ(merged.collopsAdded, collops.added);
  EXPECT_EQ(merged.profiled, messages.profiled);
  EXPECT_GT(messages.forced + collops.forced, 0);
  EXPECT_GT(messages.rewritten + collops.rewritten, 0);
}

// Numbers below a bound, the same in every run.
struct Random {
  uint32_t below(uint32_t bound) { return static_cast<uint32_t>(engine() % bound); }
  template <class T>
  T of(std::initializer_list<T> choices) {
    return *(choices.begin() + below(static_cast<uint32_t>(choices.size())));
  }
  std::mt19937 engine;
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
      // Each form of operation.
      {{{{2, {0, 1}}}},
       {part(100, 1, 1, 0, 2, 1), part(110, 0, 1, 0, 2, 1), part(120, 1, 3, 0, 2, 1),
        part(130, 0, 3, 0, 2, 1), part(140, 1, 5, 0, 2, 1), part(150, 0, 5, 0, 2, 1),
        part(160, 1, 36, 0, 2, 1), part(170, 0, 36, 0, 2, 1)},
       {"all_communication 100 2 1 2 [10 0] [5 5] [0 0]",
        "one_to_all_communication 120 1 11 2 3 2 [10 0] [5 5] [20 21] [0 0]",
        "all_to_one_communication 140 1 21 2 5 2 [10 0] [5 5] [10 11] [0 0]",
        "all_to_all_communication 160 2 36 2 [10 0] [5 5] [10 11] [20 21] [0 0]"}},
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

TEST(Logmerge, RandomMessagesAsTheWalkingMatcherHasThem) {
  for (uint32_t seed = 1; seed <= 12; ++seed) {
    SCOPED_TRACE(seed);
    Random random{std::mt19937(seed)};
    const Setting setting{{}, 4 + seed % 2, random.of({500U, 1024U, 4096U, 20000U})};
    const uint32_t tags = random.of({1U, 3U, 40U});
    std::vector<Event> events;
    uint64_t time = 0;
    for (int i = 0; i < 6000; ++i) {
      time += random.of({0U, 1U, 7U, 70000U});
      KLTM_RawMessage e;
      e.time = time;
      e.kind = setting.kind(random.of({7U, 7U, 8U, 8U, 8U, 33U}), random.below(3), random.below(2));
      e.other = random.below(3) | (random.below(50) == 0 ? 0x10000 : 0);
      e.tag = random.below(20) == 0 ? 70000 : random.below(tags);
      e.size = random.below(2);
      e.comm = 1 + random.below(2);
      e.function = random.below(9);
      e.scl = random.of({0U, kNoScl, kNoScl, 4U});
      events.emplace_back(e);
    }
    compareWithNaive(setting, events);
  }
}

TEST(Logmerge, RandomCollopsAsTheWalkingMatcherHasThem) {
  for (uint32_t seed = 1; seed <= 24; ++seed) {
    SCOPED_TRACE(seed);
    Random random{std::mt19937(seed)};
    // Of all forms: regular, downwards, with a process twice, in pieces, alone, nobody.
    const Setting setting{{{1, {0, 1, 2, 3, 4, 5, 6}},
                           {2, {4, 2, 0}},
                           {3, {1, 1, 3}},
                           {4, {}},
                           {5, {6}},
                           {6, {0, 3, 1, 6, 4, 2}},
                           {7, {2, 0x10001, 5}}},
                          7,
                          random.of({500U, 2048U, 20000U})};
    const uint32_t counting = seed % 3;  // never, always, now and then
    std::vector<uint32_t> counters(7, 1);
    std::vector<Event> events;
    uint64_t time = 0;
    for (int i = 0; i < 4000; ++i) {
      time += random.of({0U, 1U, 7U, 70000U});
      const uint32_t process = random.below(7);
      KLTM_RawCollop e = part(time, process, random.of({1U, 3U, 5U, 36U, 99U}), 0,
                              random.of({1U, 1U, 1U, 2U, 3U, 4U, 5U, 6U, 7U, 8U}), random.below(2));
      e.kind = setting.kind(kCollop, process, random.below(2));
      e.endtime = time + random.of({0U, 5U, 100000U});
      e.scl = random.of({0U, kNoScl, 4U});
      if (counting == 1 || (counting == 2 && random.below(2) == 0)) {
        e.counter = counters[process] + random.below(2);
        counters[process] += random.below(2);
      }
      events.emplace_back(e);
    }
    compareWithNaive(setting, events);
  }
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
