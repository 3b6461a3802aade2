// KLTT_SumTables sums up a bin's collective operations, messages and counter samples by key.
//
// Each table is written and cleared at the end of the bin. A file has the keys in the order of a
// hash table with 31 chains (pal_hash.h). Times and durations are in ticks; only the arrays of
// KLTT_SumMembers contain differences of raw times, which collective() shifts by the event bits.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <numeric>
#include <utility>
#include <vector>

#include "generic/summary/kltt_summary_events.h"
#include "klt/index/klt_idmap.h"
#include "util/pal_hash.h"

class KLTT_SumFile;
struct KLTT_SumMembers;

// The number of chains of the hash table that defines the order of keys in the files.
inline constexpr uint32_t kKlttSumBuckets = 31;

// The values of a bin by a key of `Words` numbers.
template <size_t Words, class Value>
class KLTT_BinTable {
 public:
  using Key = std::array<uint32_t, Words>;
  struct Entry {
    Key key;
    Value value;
  };

  // The value of `key`, and whether it is new. The reference is valid until clear().
  std::pair<Value&, bool> operator[](const Key& key) { return at(key, hashOf(key)); }
  std::pair<Value&, bool> at(const Key& key, uint32_t hash) {
    const uint32_t known =
        index_.find(hash, [&](uint32_t number) { return same(entries_[number - 1].key, key); });
    if (known != 0) return {entries_[known - 1].value, false};
    Entry& entry = entries_.add({key, Value{}});
    index_.add(hash, static_cast<uint32_t>(entries_.size()));
    return {entry.value, true};
  }
  [[nodiscard]] uint32_t hashOf(const Key& key) const { return index_.hashOf(key); }
  // Start to fetch what at() needs for this hash: the slot, and later the entry.
  void fetchSlot(uint32_t hash) const { index_.fetch(hash); }
  void fetchEntry(uint32_t hash) const {
    if (const uint32_t number = index_.guess(hash)) __builtin_prefetch(&entries_[number - 1], 1);
  }

  [[nodiscard]] bool empty() const { return entries_.empty(); }
  [[nodiscard]] size_t size() const { return entries_.size(); }

  // Calls visit(entry) for all entries in the order of the chains; hashOf(key) determines the
  // chain.
  template <class HashOf, class Visit>
  void walk(HashOf hashOf, Visit visit) {
    std::vector<uint32_t> order(entries_.size());
    std::iota(order.begin(), order.end(), uint32_t{0});
    PAL_SortByBucket(order, kKlttSumBuckets, [&](uint32_t i) { return hashOf(entries_[i].key); });
    for (const uint32_t i : order) visit(entries_[i]);
  }

  void clear() {
    entries_.clear();
    index_.clear();
  }

 private:
  // Faster than memcmp for a few words.
  static bool same(const Key& a, const Key& b) {
    uint32_t differing = 0;
    for (size_t i = 0; i < Words; ++i) differing |= a[i] ^ b[i];
    return differing == 0;
  }

  PAL_Chunks<Entry> entries_;  // in the order of insertion
  PAL_KeyIndex<Words> index_;
};

class KLTT_SumTables {
 public:
  void collective(uint64_t time, uint32_t root, uint32_t communicator, uint32_t type,
                  uint32_t eventBits, const KLTT_SumMembers& members);

  // The duration is negative if the receive was first, or if a side isn't known. The sums change
  // after some more messages, or by flushMessages().
  void message(const KLTT_SumMessage& message);

  void defineCounter(uint32_t id, uint32_t type);
  // `bits` is a signed integer or a double, according to the counter's definition.
  void counter(uint64_t time, uint32_t thread, uint32_t id, uint64_t bits);

  // Each writes a block, unless its table is empty, and clears the table.
  void flushCollectives(KLTT_SumFile& file);
  void flushMessages(KLTT_SumFile& file);
  void flushCounters(KLTT_SumFile& file);

 private:
  // A member's part in one operation, or in all operations of a bin that have the same key.
  struct Member {
    uint64_t start, end, sum, shortest, longest;
    double lowestRate, highestRate;
    uint32_t scl;
    uint32_t sent, leastSent, mostSent;
    uint32_t received, leastReceived, mostReceived;
  };
  struct RankedMember {
    uint32_t rank;
    Member sums;
  };
  // Members that have taken part in no operation have equal sums, so that they are stored once.
  struct CollectiveSums {
    void seeAll();

    uint64_t time = 0;
    uint32_t count = 0;
    uint32_t members = 0;
    std::vector<RankedMember> seen;  // by rank
    Member unseen{};                 // of each of the others
  };
  struct MessageSums {
    uint32_t count = 0;
    uint32_t bytes = 0;
    uint64_t times = 0;
    uint64_t durations = 0;  // modulo 2^64
    int64_t shortest = 0, longest = 0;
    uint32_t senderScl = 0, receiverScl = 0;
  };
  struct CounterSums {
    uint64_t first = 0, last = 0;
    uint32_t count = 0;
    double lowest = 0, highest = 0, mean = 0;
    double lowestRate = 0, highestRate = 0, meanRate = 0;
    double lastValue = 0;
  };

  using MessageTable = KLTT_BinTable<7, MessageSums>;
  struct WaitingMessage {
    KLTT_SumMessage message;
    MessageTable::Key key{};
    uint32_t hash = 0;
  };

  void addMessage(const WaitingMessage& waiting);
  [[nodiscard]] static Member memberOf(uint64_t time, uint32_t eventBits,
                                       const KLTT_SumMembers& members, uint32_t i);
  [[nodiscard]] static bool isSeen(const KLTT_SumMembers& members, uint32_t i);
  void fold(Member& into, const Member& member);
  void addBytes(uint32_t& sum, uint32_t bytes);

  KLTT_BinTable<3, CollectiveSums> collectives_;  // communicator, type, root
  // Sender, receiver, communicator, size, tag, function of sender and of receiver.
  MessageTable messages_;
  PAL_FetchQueue<WaitingMessage> waiting_;
  KLTT_BinTable<2, CounterSums> counters_;  // thread, counter
  KLT_IdIndex counterIndex_{65536};
  std::vector<uint8_t> counterFlags_;
  bool wrapped_ = false;
};
