// Matching of raw events: what comes out for given events, through the writer and back, and the
// same from a matcher that walks everything, on random events in an arena that overflows all the
// time.
#include "generic/RK_logmerge.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <numeric>
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
constexpr uint64_t kRoomy = RK_Conf::mem_blocksize;

using Members = std::map<uint32_t, std::vector<int32_t>>;  // by communicator

// What the events of these tests have in common.
struct Setting {
  uint32_t processes = 4;
  Members members = {{1, {0, 1, 2, 3}}};
  uint64_t blockBytes = kRoomy;
};

uint32_t processBits(const Setting& setting) { return setting.processes <= 4 ? 2 : 3; }

// The number of an event's type, process and thread.
uint32_t kindOf(uint32_t type, uint32_t process, uint32_t thread = 0, uint32_t bits = 2) {
  return type | process << 6 | thread << (6 + bits);
}
KLTM_RawMessage send(uint64_t time, uint32_t from, uint32_t to, uint32_t tag = 1,
                     uint32_t size = 8) {
  return {.time = time,
          .kind = kindOf(7, from),
          .other = to,
          .tag = tag,
          .size = size,
          .comm = 1,
          .function = 20,
          .scl = kNoScl};
}
KLTM_RawMessage receive(uint64_t time, uint32_t by, uint32_t from, uint32_t tag = 1,
                        uint32_t size = 8) {
  return {.time = time,
          .kind = kindOf(8, by),
          .other = from,
          .tag = tag,
          .size = size,
          .comm = 1,
          .function = 21,
          .scl = kNoScl};
}
KLTM_RawCollop part(uint64_t time, uint32_t process, uint32_t operation, uint32_t counter,
                    uint32_t comm = 1, uint32_t root = 0) {
  return {.time = time,
          .endtime = time + 5,
          .kind = kindOf(10, process),
          .operation = operation,
          .comm = comm,
          .counter = counter,
          .root = root,
          .send = 10 + process,
          .recv = 20 + process,
          .scl = kNoScl};
}

// What is in a merged trace.
struct Merged {
  Lines messages, collops;
  uint64_t profiled = 0;  // messages in the profiles
  uint32_t messagesAdded = 0, collopsAdded = 0;
  bool complete = false;
};

Merged merge(const Setting& setting, const std::vector<Event>& events) {
  const tb::TempDir directory;
  const std::string name = directory / "m.klt";
  const KLT_StatsParameters statistics{[](void*, uint32_t, size_t* n) -> const uint32_t* {
                                         static const uint32_t kMembers[] = {0, 1, 2, 3};
                                         *n = 4;
                                         return kMembers;
                                       },
                                       nullptr, 0};
  KLT_WFileHandle* writer =
      KLT_WriterOpen(nullptr, name.c_str(), 1, KLT_FORM_PLAIN, 0, &statistics);
  Merged merged;
  KLTM_Matching matching;
  matching.declareProcesses(setting.processes);
  for (const auto& [id, members] : setting.members) {
    matching.registerCommunicator(id, KLTT_MemberList(members));
  }
  matching.start(writer, nullptr, setting.blockBytes);
  for (const Event& event : events) {
    if (const auto* message = std::get_if<KLTM_RawMessage>(&event)) matching.message(*message);
    if (const auto* collop = std::get_if<KLTM_RawCollop>(&event)) matching.collop(*collop);
  }
  merged.messagesAdded = matching.messagesAdded();
  merged.collopsAdded = matching.collopsAdded();
  matching.finish();
  EXPECT_EQ(KLT_WriterClose(writer, &merged.complete), nullptr);

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

std::string message(uint64_t time, uint32_t sender, int64_t receiveTime, uint32_t receiver,
                    uint32_t comm, uint32_t size, uint32_t tag, uint32_t senderScl,
                    uint32_t receiverScl, uint32_t senderFunction, uint32_t receiverFunction) {
  LinePrinter line("one_to_one_communication");
  const auto add = [&](auto... values) { (line.add(values), ...); };
  add(time, sender, receiveTime, receiver, comm, size, tag, senderScl, receiverScl, 0, 0,
      senderFunction, receiverFunction);
  return line.line;
}

// --- the matcher that walks everything
// ------------------------------------------------------------

struct NaiveSide {
  uint64_t time = kNotSeen;
  uint32_t gtp = 0, scl = kNoScl, function = 0;
};
struct NaiveMember {
  uint32_t process = 0;
  uint64_t time = kNotSeen, end = kNotSeen;
  uint32_t send = 0, recv = 0, scl = kNoScl;
};
struct NaiveEntry {
  uint64_t bytes = 0, time = 0, lastTime = 0;
  uint32_t pending = 0;
  bool written = false, dirty = true, located = false;
  size_t record = 0;  // place among the records, from 1
  uint32_t size = 0, comm = 0, tag = 0, operation = 0, counter = 0, root = 0;
  NaiveSide sender, receiver;
  std::vector<NaiveMember> members;
};

class Naive {
 public:
  explicit Naive(const Setting& setting) : setting_(setting), capacity_(setting.blockBytes) {}

  void event(const Event& event) {
    const uint64_t time = std::visit([](const auto& e) { return e.time; }, event);
    for (NaiveEntry& entry : arena_) {
      if (entry.pending == 0) continue;
      const int result = std::visit([&](const auto& e) { return match(entry, e); }, event);
      if (result == 0) continue;
      entry.dirty = true;
      --entry.pending;
      if (result == 2) return;
    }
    NaiveEntry entry = std::visit([&](const auto& e) { return made(e); }, event);
    makeRoom(entry.bytes, time);
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
  static uint32_t low(uint32_t gtp) { return gtp & 0xffff; }
  [[nodiscard]] uint32_t process(uint32_t kind) const {
    return kind >> 6 & ((1U << processBits(setting_)) - 1);
  }
  [[nodiscard]] uint32_t gtp(uint32_t kind) const {
    return process(kind) | kind >> (6 + processBits(setting_)) << 16;
  }
  static bool sends(const KLTM_RawMessage& e) { return (e.kind & 63) == 7; }

  [[nodiscard]] NaiveSide side(const KLTM_RawMessage& e) const {
    return {e.time, gtp(e.kind), e.scl, e.function};
  }

  int match(NaiveEntry& m, const KLTM_RawMessage& e) const {
    NaiveSide& own = sends(e) ? m.sender : m.receiver;
    const uint32_t sender = sends(e) ? process(e.kind) : e.other;
    const uint32_t receiver = sends(e) ? e.other : process(e.kind);
    if (m.tag != e.tag || m.comm != e.comm || m.size != e.size || own.time != kNotSeen ||
        low(m.sender.gtp) != sender || low(m.receiver.gtp) != receiver) {
      return 0;
    }
    own = side(e);
    m.lastTime = e.time;
    return 2;
  }

  int match(NaiveEntry& c, const KLTM_RawCollop& e) const {
    const auto member = std::find_if(c.members.begin(), c.members.end(), [&](const NaiveMember& m) {
      return m.process == process(e.kind);
    });
    if (c.comm != e.comm || member == c.members.end() || member->time != kNotSeen) return 0;
    if (e.counter == 0 && (c.root != e.root || c.operation != e.operation)) return 0;
    if (e.counter != 0 && c.counter != e.counter) return 1;
    *member = {member->process, e.time, e.endtime, e.send, e.recv, e.scl};
    c.lastTime = std::max(c.lastTime, e.endtime);
    return 2;
  }

  [[nodiscard]] NaiveEntry made(const KLTM_RawMessage& e) const {
    NaiveEntry m;
    m.bytes = 128;
    m.time = m.lastTime = e.time;
    m.pending = 1;
    m.size = e.size;
    m.comm = e.comm;
    m.tag = e.tag;
    (sends(e) ? m.sender : m.receiver) = side(e);
    (sends(e) ? m.receiver : m.sender).gtp = e.other;
    return m;
  }

  [[nodiscard]] NaiveEntry made(const KLTM_RawCollop& e) const {
    NaiveEntry c;
    c.time = e.time;
    c.lastTime = e.endtime;
    c.comm = e.comm;
    c.operation = e.operation;
    c.counter = e.counter;
    c.root = e.root;
    const auto known = setting_.members.find(e.comm);
    if (known != setting_.members.end()) {
      for (const int32_t gtp : known->second) c.members.push_back({static_cast<uint32_t>(gtp)});
    }
    if (c.members.empty()) c.members.emplace_back();
    size_t at = 0;
    for (size_t i = c.members.size(); i-- > 0;) {
      if (c.members[i].process == process(e.kind)) at = i;
    }
    c.members[at] = {c.members[at].process, e.time, e.endtime, e.send, e.recv, e.scl};
    c.pending = static_cast<uint32_t>(c.members.size()) - 1;
    c.bytes = 88 + 32 * c.members.size();
    return c;
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
    std::vector<NaiveEntry> stay;
    bool stopped = false;
    for (NaiveEntry& entry : arena_) {
      stopped |= entry.pending > 0 && !entry.written && !force;
      if (!stopped && entry.dirty && (entry.pending == 0 || force)) write(entry);
      if (!stopped && entry.pending == 0 && entry.lastTime <= limit)
        used_ -= entry.bytes;
      else
        stay.push_back(std::move(entry));
    }
    arena_ = std::move(stay);
  }

  void write(NaiveEntry& entry) {
    const bool first = !entry.written;
    std::string record = entry.members.empty() ? messageRecord(entry) : collopRecord(entry);
    if (record.empty()) {
    } else if (first) {
      records.push_back(record);
      entry.record = records.size();
    } else {
      records[entry.record - 1] = record;
      ++rewritten;
    }
    const bool known = entry.sender.time != kNotSeen && entry.receiver.time != kNotSeen;
    if (entry.members.empty() && (!first || entry.pending == 0) && known) ++profiled;
    entry.written = true;
    entry.dirty = false;
  }

  static std::string messageRecord(NaiveEntry& m) {
    const NaiveSide& s = m.sender;
    const NaiveSide& r = m.receiver;
    if (!m.written) {
      m.located = (m.pending > 0 || s.scl != kNoScl || r.scl != kNoScl) && s.scl != 0;
    }
    int64_t span = static_cast<int64_t>(r.time - s.time);
    if (s.time == kNotSeen) span = tb::NO_SEND;
    if (r.time == kNotSeen) span = tb::NO_RECEIVE;
    return message(m.time, s.gtp, span, r.gtp, m.comm, m.size, m.tag, m.located ? s.scl : 0,
                   m.located ? r.scl : 0, s.function, r.function);
  }

  static std::string collopRecord(const NaiveEntry& c) {
    const uint32_t op = c.operation;
    const bool all = op == 1 || op == 2;
    const bool oneToAll = op == 3 || op == 4 || (op >= 9 && op <= 12);
    const bool allToOne = (op >= 5 && op <= 8) || (op >= 33 && op <= 35);
    if (op < 1 || op > 45) return "";
    std::vector<uint64_t> start, delta;
    std::vector<uint32_t> sent, received, scl;
    uint32_t root = 0;
    for (size_t i = 0; i < c.members.size(); ++i) {
      const NaiveMember& m = c.members[i];
      const bool seen = m.time != kNotSeen;
      start.push_back(seen ? m.time - c.time : kNotSeen);
      delta.push_back(seen ? m.end - m.time : 0);
      sent.push_back(m.send);
      received.push_back(m.recv);
      scl.push_back(m.scl == kNoScl ? 0 : m.scl);
      if (m.process == c.root) root = static_cast<uint32_t>(i);
    }
    LinePrinter line(all        ? "all_communication"
                     : oneToAll ? "one_to_all_communication"
                     : allToOne ? "all_to_one_communication"
                                : "all_to_all_communication");
    const auto add = [&](auto... values) { (line.add(values), ...); };
    add(c.time);
    if (oneToAll) add(c.root, sent[root]);
    if (allToOne) add(c.root, received[root]);
    add(c.comm, op, c.members.size(), start.data(), delta.data());
    if (!all && !oneToAll) add(sent.data());
    if (!all && !allToOne) add(received.data());
    add(scl.data());
    return line.line;
  }

  const Setting& setting_;
  std::vector<NaiveEntry> arena_;
  uint64_t capacity_, used_ = 0;
};

void compareWithNaive(const Setting& setting, const std::vector<Event>& events, Naive& messages,
                      Naive& collops) {
  for (const Event& event : events) {
    (std::holds_alternative<KLTM_RawMessage>(event) ? messages : collops).event(event);
  }
  messages.finish();
  collops.finish();
  const Merged merged = merge(setting, events);
  EXPECT_TRUE(merged.complete);
  EXPECT_EQ(reading::difference(messages.records, merged.messages), "");
  EXPECT_EQ(reading::difference(collops.records, merged.collops), "");
  EXPECT_EQ(merged.messagesAdded, messages.added);
  EXPECT_EQ(merged.collopsAdded, collops.added);
  EXPECT_EQ(merged.profiled, messages.profiled);
}

// Numbers below a bound, the same in every run.
class Random {
 public:
  explicit Random(uint32_t seed) : engine_(seed) {}
  uint32_t below(uint32_t bound) { return static_cast<uint32_t>(engine_() % bound); }
  template <class T>
  T of(std::initializer_list<T> choices) {
    return *(choices.begin() + below(static_cast<uint32_t>(choices.size())));
  }

 private:
  std::mt19937 engine_;
};

}  // namespace

// --- messages
// -------------------------------------------------------------------------------------

TEST(LogmergeMessages, SendAndReceiveBecomeOneRecordWhicheverComesFirst) {
  const Merged merged =
      merge({}, {send(100, 0, 1), receive(103, 1, 0), receive(200, 2, 3), send(230, 3, 2)});
  EXPECT_EQ(merged.messages, (Lines{message(100, 0, 3, 1, 1, 8, 1, 0, 0, 20, 21),
                                    message(200, 3, -30, 2, 1, 8, 1, 0, 0, 20, 21)}));
  EXPECT_EQ(merged.messagesAdded, 2U);
  EXPECT_EQ(merged.profiled, 2U);
}

TEST(LogmergeMessages, EqualKeysPairOldestWithOldest) {
  const Merged merged = merge(
      {}, {send(1, 0, 1), send(2, 0, 1), send(3, 0, 1), receive(10, 1, 0), receive(20, 1, 0)});
  EXPECT_EQ(merged.messages,
            (Lines{message(1, 0, 9, 1, 1, 8, 1, 0, 0, 20, 21),
                   message(2, 0, 18, 1, 1, 8, 1, 0, 0, 20, 21),
                   message(3, 0, tb::NO_RECEIVE, 1, 1, 8, 1, kNoScl, kNoScl, 20, 0)}));
}

TEST(LogmergeMessages, AnyDifferenceLeavesBothSidesAlone) {
  KLTM_RawMessage otherComm = receive(9, 1, 0);
  otherComm.comm = 2;
  for (const KLTM_RawMessage& stranger :
       {receive(9, 1, 0, 1, 9), receive(9, 1, 0, 2), receive(9, 2, 0), receive(9, 1, 3), otherComm,
        receive(9, 1, 0x10000)}) {
    const Merged merged = merge({}, {send(5, 0, 1), stranger});
    ASSERT_EQ(merged.messages.size(), 2U);
    EXPECT_EQ(merged.messages[0], message(5, 0, tb::NO_RECEIVE, 1, 1, 8, 1, kNoScl, kNoScl, 20, 0));
    EXPECT_NE(merged.messages[1].find(std::to_string(tb::NO_SEND)), std::string::npos);
    EXPECT_EQ(merged.profiled, 0U);
  }
}

TEST(LogmergeMessages, ThreadsAreToldButNotCompared) {
  KLTM_RawMessage sent = send(5, 2, 1);
  sent.kind = kindOf(7, 2, 3);
  KLTM_RawMessage received = receive(6, 1, 2);
  received.kind = kindOf(8, 1, 9);
  const Merged merged = merge({}, {sent, received});
  EXPECT_EQ(merged.messages, Lines{message(5, 0x30002, 1, 0x90001, 1, 8, 1, 0, 0, 20, 21)});
}

TEST(LogmergeMessages, WideFieldsForManyProcesses) {
  Setting setting;
  setting.processes = 5;
  KLTM_RawMessage sent = send(5, 0, 1);
  sent.kind = kindOf(7, 4, 1, 3);
  const Merged merged = merge(setting, {sent});
  EXPECT_EQ(merged.messages,
            Lines{message(5, 0x10004, tb::NO_RECEIVE, 1, 1, 8, 1, kNoScl, kNoScl, 20, 0)});
}

TEST(LogmergeMessages, LocationsAndLargeTagsChooseTheRow) {
  const auto pair = [](uint32_t tag, uint32_t senderScl, uint32_t receiverScl) {
    KLTM_RawMessage sent = send(5, 0, 1, tag);
    KLTM_RawMessage received = receive(6, 1, 0, tag);
    sent.scl = senderScl;
    received.scl = receiverScl;
    return merge({}, {sent, received}).messages.at(0);
  };
  for (const uint32_t tag : {0xffffU, 0x10000U}) {
    EXPECT_EQ(pair(tag, 7, 8), message(5, 0, 1, 1, 1, 8, tag, 7, 8, 20, 21));
    EXPECT_EQ(pair(tag, kNoScl, 8), message(5, 0, 1, 1, 1, 8, tag, kNoScl, 8, 20, 21));
    EXPECT_EQ(pair(tag, 0, 8), message(5, 0, 1, 1, 1, 8, tag, 0, 0, 20, 21));
    EXPECT_EQ(pair(tag, kNoScl, kNoScl), message(5, 0, 1, 1, 1, 8, tag, 0, 0, 20, 21));
  }
}

// Nothing of this fits into the arena or the writer's buffer: records are written open, then again,
// in front of the flushed position and behind it, some without the location they were to have.
TEST(LogmergeMessages, ReceivesWithoutEndAreWrittenOnceEach) {
  constexpr uint32_t kMany = 300000;
  std::vector<Event> events;
  for (uint32_t i = 0; i < kMany; ++i) events.emplace_back(receive(i, 1, 0, i / 3));
  for (uint32_t i = kMany; i-- > 0;) {
    KLTM_RawMessage sent = send(2 * kMany - i, 0, 1, i / 3);
    sent.scl = i % 2 == 0 ? 0 : 5;
    events.emplace_back(sent);
  }
  const Merged merged = merge({}, events);
  EXPECT_TRUE(merged.complete);
  ASSERT_EQ(merged.messages.size(), kMany);
  EXPECT_EQ(merged.messagesAdded, kMany);
  EXPECT_EQ(merged.profiled, kMany);
  for (const std::string& line : merged.messages) {
    ASSERT_EQ(line.find(std::to_string(tb::NO_SEND)), std::string::npos) << line;
  }
}

// An event per equal key must not look at all the others.
TEST(LogmergeMessages, ManyOpenOnOneKeyCostNoMoreThanFew) {
  constexpr uint32_t kMany = 200000;
  std::vector<Event> events;
  for (uint32_t i = 0; i < kMany; ++i) events.emplace_back(receive(i, 1, 0));
  for (uint32_t i = 0; i < kMany; ++i) events.emplace_back(receive(kMany + i, 2, 0, 1 + i % 2));
  for (uint32_t i = 0; i < kMany; ++i) events.emplace_back(send(2 * kMany + i, 0, 1));
  const Merged merged = merge({}, events);
  EXPECT_EQ(merged.messages.size(), 2 * kMany);
  EXPECT_EQ(merged.messages.at(7),
            message(7, 0, -int64_t{2} * kMany, 1, 1, 8, 1, kNoScl, kNoScl, 20, 21));
}

TEST(LogmergeMessages, RandomEventsAsTheWalkingMatcherHasThem) {
  for (uint32_t seed = 1; seed <= 12; ++seed) {
    SCOPED_TRACE(seed);
    Random random(seed);
    Setting setting;
    setting.blockBytes = random.of({500U, 1024U, 4096U, 20000U});
    const uint32_t tags = random.of({1U, 3U, 40U});
    std::vector<Event> events;
    uint64_t time = 0;
    for (int i = 0; i < 6000; ++i) {
      time += random.of({0U, 1U, 7U, 70000U});
      KLTM_RawMessage e;
      e.time = time;
      e.kind = kindOf(random.of({7U, 7U, 8U, 8U, 8U, 33U}), random.below(3), random.below(2));
      e.other = random.below(3) | (random.below(50) == 0 ? 0x10000 : 0);
      e.tag = random.below(20) == 0 ? 70000 : random.below(tags);
      e.size = random.below(2);
      e.comm = 1 + random.below(2);
      e.function = random.below(9);
      e.scl = random.of({0U, kNoScl, kNoScl, 4U});
      events.emplace_back(e);
    }
    Naive messages(setting), collops(setting);
    compareWithNaive(setting, events, messages, collops);
    EXPECT_GT(messages.forced, 0);
    EXPECT_GT(messages.rewritten, 0);
  }
}

// --- collective operations
// ------------------------------------------------------------------------

TEST(LogmergeCollops, PartsBecomeOneRecordOfTheirShape) {
  constexpr uint32_t kBarrier = 1, kBcast = 3, kGather = 5, kAllreduce = 36;
  std::vector<Event> events;
  uint64_t time = 100;
  for (const uint32_t operation : {kBarrier, kBcast, kGather, kAllreduce}) {
    for (const uint32_t process : {1U, 0U}) {
      events.emplace_back(part(time, process, operation, 0, 2, 1));
      time += 10;
    }
  }
  Setting setting;
  setting.members = {{2, {0, 1}}};
  const Merged merged = merge(setting, events);
  EXPECT_EQ(merged.collops,
            (Lines{"all_communication 100 2 1 2 [10 0] [5 5] [0 0]",
                   "one_to_all_communication 120 1 11 2 3 2 [10 0] [5 5] [20 21] [0 0]",
                   "all_to_one_communication 140 1 21 2 5 2 [10 0] [5 5] [10 11] [0 0]",
                   "all_to_all_communication 160 2 36 2 [10 0] [5 5] [10 11] [20 21] [0 0]"}));
  EXPECT_EQ(merged.collopsAdded, 4U);
}

TEST(LogmergeCollops, WithoutCountersRootAndOperationTellOperationsApart) {
  Setting setting;
  setting.members = {{2, {0, 1}}};
  const Merged merged =
      merge(setting, {part(1, 0, 3, 0, 2, 0), part(2, 0, 3, 0, 2, 1), part(3, 0, 3, 0, 2, 0),
                      part(4, 1, 3, 0, 2, 1), part(5, 1, 3, 0, 2, 0), part(6, 1, 3, 0, 2, 0)});
  EXPECT_EQ(merged.collops,
            (Lines{"one_to_all_communication 1 0 10 2 3 2 [0 4] [5 5] [20 21] [0 0]",
                   "one_to_all_communication 2 1 11 2 3 2 [0 2] [5 5] [20 21] [0 0]",
                   "one_to_all_communication 3 0 10 2 3 2 [0 3] [5 5] [20 21] [0 0]"}));
}

// Process 1 shows up with counter 7 twice: the operation with counter 5 has nobody left to wait for
// although two members haven't come, and process 2 then makes an operation of its own.
TEST(LogmergeCollops, AnotherCounterLowersWhatOlderOperationsWaitFor) {
  Setting setting;
  setting.members = {{2, {0, 1, 2}}};
  const std::vector<Event> events = {part(1, 0, 1, 5, 2), part(2, 1, 1, 7, 2), part(3, 1, 1, 8, 2),
                                     part(4, 2, 1, 5, 2)};
  Naive messages(setting), collops(setting);
  compareWithNaive(setting, events, messages, collops);
  EXPECT_EQ(collops.added, 4U);
  EXPECT_EQ(collops.records.front(), "all_communication 1 2 1 3 [0 " + std::to_string(kNotSeen) +
                                         ' ' + std::to_string(kNotSeen) + "] [5 0 0] [0 0 0]");
}

TEST(LogmergeCollops, StrangersAndUnknownCommunicators) {
  Setting setting;
  setting.members = {{2, {0, 1}}, {3, {}}};
  const Merged merged = merge(setting, {part(1, 3, 1, 0, 2),    // takes the first member's place
                                        part(2, 1, 1, 0, 2),    // joins it
                                        part(3, 1, 1, 0, 3),    // nobody is a member
                                        part(4, 1, 1, 0, 99),   // not defined
                                        part(5, 1, 200, 0, 2),  // not an operation: no record
                                        part(6, 0, 200, 0, 2)});
  EXPECT_EQ(merged.collops, (Lines{"all_communication 1 2 1 2 [0 1] [5 5] [0 0]",
                                   "all_communication 3 3 1 1 [0] [5] [0]",
                                   "all_communication 4 99 1 1 [0] [5] [0]"}));
  EXPECT_EQ(merged.collopsAdded, 4U);
}

TEST(LogmergeCollops, RandomEventsAsTheWalkingMatcherHasThem) {
  for (uint32_t seed = 1; seed <= 24; ++seed) {
    SCOPED_TRACE(seed);
    Random random(seed);
    Setting setting;
    setting.processes = 7;
    setting.blockBytes = random.of({500U, 2048U, 20000U});
    // Of all forms: regular, downwards, with a process twice, in pieces, alone, nobody.
    setting.members = {
        {1, {0, 1, 2, 3, 4, 5, 6}}, {2, {4, 2, 0}},      {3, {1, 1, 3}}, {4, {}}, {5, {6}},
        {6, {0, 3, 1, 6, 4, 2}},    {7, {2, 0x10001, 5}}};
    const uint32_t counting = seed % 3;  // never, always, now and then
    std::vector<uint32_t> counters(7, 1);
    std::vector<Event> events;
    uint64_t time = 0;
    for (int i = 0; i < 4000; ++i) {
      time += random.of({0U, 1U, 7U, 70000U});
      const uint32_t process = random.below(7);
      KLTM_RawCollop e = part(time, process, random.of({1U, 3U, 5U, 36U, 99U}), 0,
                              random.of({1U, 1U, 1U, 2U, 3U, 4U, 5U, 6U, 7U, 8U}), random.below(2));
      e.kind = kindOf(10, process, random.below(2), 3);
      e.endtime = time + random.of({0U, 5U, 100000U});
      e.scl = random.of({0U, kNoScl, 4U});
      if (counting == 1 || (counting == 2 && random.below(2) == 0)) {
        e.counter = counters[process] + random.below(2);
        counters[process] += random.below(2);
      }
      events.emplace_back(e);
    }
    Naive messages(setting), collops(setting);
    compareWithNaive(setting, events, messages, collops);
    EXPECT_GT(collops.forced, 0);
    EXPECT_GT(collops.rewritten, 0);
  }
}

// One process runs far ahead of all others, in each way of telling operations apart; those that
// follow must not walk what they have seen, nor what isn't theirs.
TEST(LogmergeCollops, OneProcessFarAheadCostsNoMore) {
  constexpr uint32_t kMany = 30000;
  for (const bool counting : {false, true}) {
    Setting setting;
    setting.members = {{1, {0, 1, 2, 3}}};
    std::vector<Event> events;
    uint64_t time = 0;
    for (const uint32_t process : {0U, 1U, 2U, 3U}) {
      for (uint32_t i = 0; i < kMany; ++i) {
        events.emplace_back(part(++time, process, 36, counting ? i + 1 : 0, 1, i % 2));
      }
    }
    const Merged merged = merge(setting, events);
    ASSERT_EQ(merged.collops.size(), kMany);
    for (const std::string& line : merged.collops) {
      ASSERT_EQ(line.find(std::to_string(kNotSeen)), std::string::npos) << line;
    }
  }
}
