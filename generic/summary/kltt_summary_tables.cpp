// Sums of a bin by key. See kltt_summary_tables.h. The format of each record is given above the
// function that writes it; records are in host byte order and without padding.
#include "generic/summary/kltt_summary_tables.h"

#include <algorithm>
#include <bit>

#include "generic/summary/kltt_summary_events.h"
#include "generic/summary/kltt_summary_file.h"
#include "util/pal_error.h"

void KLTT_SumTables::addBytes(uint32_t& sum, uint32_t bytes) {
  if (__builtin_add_overflow(sum, bytes, &sum) && !wrapped_) {
    wrapped_ = true;
    PAL_Warning("sums of bytes in the summary data have passed 32 bits, they count modulo 2^32");
  }
}

// --- Collective operations ----------------------------------------------------------------------

KLTT_SumTables::Member KLTT_SumTables::memberOf(uint64_t time, uint32_t eventBits,
                                                const KLTT_SumMembers& members, uint32_t i) {
  const auto ticks = [eventBits, i](const uint64_t* array) {
    return array == nullptr ? 0 : array[i] >> eventBits;
  };
  const auto value = [i](const uint32_t* array) { return array == nullptr ? 0 : array[i]; };
  const uint64_t start = time + ticks(members.start_time);
  const uint64_t duration = ticks(members.delta);
  const uint32_t sent = value(members.send_size);
  const uint32_t received = value(members.receive_size);
  const double rate =
      (static_cast<double>(sent) + static_cast<double>(received)) / static_cast<double>(duration);
  return {.start = start,
          .end = start + duration,
          .sum = duration,
          .shortest = duration,
          .longest = duration,
          .lowestRate = rate,
          .highestRate = rate,
          .scl = value(members.scl),
          .sent = sent,
          .leastSent = sent,
          .mostSent = sent,
          .received = received,
          .leastReceived = received,
          .mostReceived = received};
}

// A member that doesn't take part has no start time and only zeros.
bool KLTT_SumTables::isSeen(const KLTT_SumMembers& members, uint32_t i) {
  const auto value = [i](const auto* array) { return array == nullptr ? 0 : array[i]; };
  return value(members.start_time) != ~uint64_t{0} || value(members.delta) != 0 ||
         value(members.send_size) != 0 || value(members.receive_size) != 0 ||
         value(members.scl) != 0;
}

void KLTT_SumTables::fold(Member& into, const Member& member) {
  into.start = std::min(into.start, member.start);
  into.end = std::max(into.end, member.end);
  into.sum += member.sum;
  into.shortest = std::min(into.shortest, member.shortest);
  into.longest = std::max(into.longest, member.longest);
  into.lowestRate = std::min(into.lowestRate, member.lowestRate);
  into.highestRate = std::max(into.highestRate, member.highestRate);
  if (into.scl == 0) into.scl = member.scl;
  addBytes(into.sent, member.sent);
  into.leastSent = std::min(into.leastSent, member.leastSent);
  into.mostSent = std::max(into.mostSent, member.mostSent);
  addBytes(into.received, member.received);
  into.leastReceived = std::min(into.leastReceived, member.leastReceived);
  into.mostReceived = std::max(into.mostReceived, member.mostReceived);
}

void KLTT_SumTables::CollectiveSums::seeAll() {
  std::vector<RankedMember> all;
  auto next = seen.begin();
  for (uint32_t i = 0; i < members; ++i) {
    const bool isSeen = next != seen.end() && next->rank == i;
    all.push_back(isSeen ? *next++ : RankedMember{i, unseen});
  }
  seen.swap(all);
}

void KLTT_SumTables::collective(uint64_t time, uint32_t root, uint32_t communicator, uint32_t type,
                                uint32_t eventBits, const KLTT_SumMembers& members) {
  const auto [sums, isNew] = collectives_[{communicator, type, root}];
  ++sums.count;
  sums.time = isNew ? time : std::min(sums.time, time);
  // Only as many members are counted for a key as its first operation has.
  if (isNew) sums.members = members.n;
  if (members.n < sums.members) sums.seeAll();
  std::vector<RankedMember>& seen = sums.seen;
  const Member unseen = sums.unseen;
  const size_t known = seen.size();
  size_t at = 0;
  for (uint32_t i = 0; i < std::min(sums.members, members.n); ++i) {
    const Member member = memberOf(time, eventBits, members, i);
    Member* into = &sums.unseen;
    if (at < known && seen[at].rank == i) {
      into = &seen[at++].sums;
    } else if (isSeen(members, i)) {
      seen.push_back({i, unseen});
      into = &seen.back().sums;
    } else {
      *into = unseen;  // which all others share
    }
    if (isNew)
      *into = member;
    else
      fold(*into, member);
  }
  std::inplace_merge(seen.begin(), seen.begin() + static_cast<std::ptrdiff_t>(known), seen.end(),
                     [](const RankedMember& a, const RankedMember& b) { return a.rank < b.rank; });
}

// u64 earliest time; u32 communicator, type, root, operations, members, 0; and for each member
// u32 0, scl; u64 earliest start, latest end, total, shortest and longest duration;
// f64 lowest and highest rate; u32 total, fewest and most bytes sent, the same received.
void KLTT_SumTables::flushCollectives(KLTT_SumFile& file) {
  if (collectives_.empty()) return;
  const auto hash = [](const auto& key) { return key[0] + 4 * key[2] + 2 * key[1]; };
  collectives_.walk(hash, [&](const auto& entry) {
    const auto& [key, sums] = entry;
    file.put(sums.time);
    for (const uint32_t word : key) file.put(word);
    file.put(sums.count);
    file.put(sums.members);
    file.put(uint32_t{0});
    auto next = sums.seen.begin();
    for (uint32_t i = 0; i < sums.members; ++i) {
      const bool isSeen = next != sums.seen.end() && next->rank == i;
      const Member& m = isSeen ? next++->sums : sums.unseen;
      file.put(uint32_t{0});
      file.put(m.scl);
      for (const uint64_t time : {m.start, m.end, m.sum, m.shortest, m.longest}) file.put(time);
      file.put(m.lowestRate);
      file.put(m.highestRate);
      for (const uint32_t bytes :
           {m.sent, m.leastSent, m.mostSent, m.received, m.leastReceived, m.mostReceived}) {
        file.put(bytes);
      }
    }
  });
  file.endBlock(collectives_.size());
  collectives_.clear();
}

// --- Messages -----------------------------------------------------------------------------------

void KLTT_SumTables::message(const KLTT_SumMessage& m) {
  const MessageTable::Key key = {m.sender, m.receiver,       m.communicator,    m.size,
                                 m.tag,    m.senderFunction, m.receiverFunction};
  using Waiting = WaitingMessage;
  waiting_.add(
      {m, key, messages_.hashOf(key)}, [this](const Waiting& w) { messages_.fetchSlot(w.hash); },
      [this](const Waiting& w) { messages_.fetchEntry(w.hash); },
      [this](const Waiting& w) { addMessage(w); });
}

void KLTT_SumTables::addMessage(const WaitingMessage& waiting) {
  const KLTT_SumMessage& m = waiting.message;
  const auto [sums, isNew] = messages_.at(waiting.key, waiting.hash);
  ++sums.count;
  sums.times += m.time;
  sums.durations += static_cast<uint64_t>(m.duration);
  sums.shortest = isNew ? m.duration : std::min(sums.shortest, m.duration);
  sums.longest = isNew ? m.duration : std::max(sums.longest, m.duration);
  addBytes(sums.bytes, m.size);
  if (sums.senderScl == 0) sums.senderScl = m.senderScl;
  if (sums.receiverScl == 0) sums.receiverScl = m.receiverScl;
}

// u32 messages; u64 sum of their times; i64 sum of durations, shortest, longest; u32 sender,
// receiver, communicator, tag, size, sum of sizes, function of sender and receiver, scl of both.
void KLTT_SumTables::flushMessages(KLTT_SumFile& file) {
  waiting_.flush([this](const WaitingMessage& waiting) { addMessage(waiting); });
  if (messages_.empty()) return;
  const auto hash = [](const auto& key) {
    const auto [sender, receiver, communicator, size, tag, senderFunction, receiverFunction] = key;
    return sender + 256 * communicator + 16 * size + 4096 * tag + 65536 * receiver +
           1048576 * senderFunction + 16777216 * receiverFunction;
  };
  messages_.walk(hash, [&](const auto& entry) {
    const auto [sender, receiver, communicator, size, tag, senderFunction, receiverFunction] =
        entry.key;
    const MessageSums& sums = entry.value;
    file.put(sums.count);
    for (const uint64_t time : {sums.times, sums.durations}) file.put(time);
    for (const int64_t duration : {sums.shortest, sums.longest}) file.put(duration);
    for (const uint32_t word :
         {sender, receiver, communicator, tag, size, sums.bytes, senderFunction, receiverFunction,
          sums.senderScl, sums.receiverScl}) {
      file.put(word);
    }
  });
  file.endBlock(messages_.size());
  messages_.clear();
}

// --- Counters -----------------------------------------------------------------------------------

void KLTT_SumTables::defineCounter(uint32_t id, uint32_t type) {
  uint32_t index = counterIndex_.find(id);
  if (index == 0) {
    counterFlags_.push_back(0);
    index = static_cast<uint32_t>(counterFlags_.size());
    counterIndex_.add(id, index);
  }
  counterFlags_[index - 1] = static_cast<uint8_t>(type);
}

void KLTT_SumTables::counter(uint64_t time, uint32_t thread, uint32_t id, uint64_t bits) {
  const uint32_t index = counterIndex_.find(id);
  const bool isInteger = index != 0 && (counterFlags_[index - 1] & 1) != 0;
  const double value =
      isInteger ? static_cast<double>(static_cast<int64_t>(bits)) : std::bit_cast<double>(bits);
  const auto [sums, isNew] = counters_[{thread, id}];
  if (isNew) {
    sums.first = time;
    sums.lowest = sums.highest = sums.mean = value;
  } else {
    // One rate for each two consecutive samples: `count` doesn't include this sample yet.
    const double rates = sums.count;
    const double rate =
        (value - sums.lastValue) / static_cast<double>(static_cast<int64_t>(time - sums.last));
    sums.lowest = std::min(sums.lowest, value);
    sums.highest = std::max(sums.highest, value);
    sums.mean = (sums.mean * rates + value) / (rates + 1);
    if (sums.count == 1) {
      sums.lowestRate = sums.highestRate = sums.meanRate = rate;
    } else {
      sums.lowestRate = std::min(sums.lowestRate, rate);
      sums.highestRate = std::max(sums.highestRate, rate);
      sums.meanRate = (rate + (rates - 1) * sums.meanRate) / rates;
    }
  }
  ++sums.count;
  sums.last = time;
  sums.lastValue = value;
}

// u32 counter; u64 time of the first and last sample; u32 thread, samples; f64 lowest, highest and
// mean value, lowest, highest and mean rate.
void KLTT_SumTables::flushCounters(KLTT_SumFile& file) {
  if (counters_.empty()) return;
  const auto hash = [](const auto& key) { return key[0] + 2 * key[1]; };
  counters_.walk(hash, [&](const auto& entry) {
    const auto& [key, sums] = entry;
    file.put(key[1]);
    file.put(sums.first);
    file.put(sums.last);
    file.put(key[0]);
    file.put(sums.count);
    for (const double value :
         {sums.lowest, sums.highest, sums.mean, sums.lowestRate, sums.highestRate, sums.meanRate}) {
      file.put(value);
    }
  });
  file.endBlock(counters_.size());
  counters_.clear();
}
