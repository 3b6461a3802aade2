// Profiles of a trace, made while it is written: how often each function was called, each message
// route used, each collective operation run, and what it cost.
//
// Belongs to a writer, which enters what it writes; klt_write_stats writes the profiles. Times are
// held in ticks of the clock (time stamps shifted right by the event bits). Profiles are in the
// order in which their keys were first seen.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <vector>

#include "util/pal_hash.h"

// What a writer needs to know to make profiles.
struct KLT_StatsParameters {
  // The members of a communicator in rank order and their number, which stays as it is if the
  // communicator isn't known. Null for no members.
  const uint32_t* (*memberLookup)(void* context, uint32_t communicator, size_t* count) = nullptr;
  void* lookupContext = nullptr;
  uint32_t eventBits = 0;  // of the time stamps that are written
};

struct alignas(64) KLT_FunctionStat {
  struct Key {
    uint32_t gtp, function;
    bool operator==(const Key&) const = default;
  };
  Key key;
  uint32_t count = 0;
  uint64_t minSelf = ~uint64_t{0}, maxSelf = 0, totalSelf = 0;
  uint64_t minInclusive = ~uint64_t{0}, maxInclusive = 0, totalInclusive = 0;
};

struct KLT_MessageStat {
  struct Key {
    uint32_t sender, receiver, funcSender, funcReceiver, tag, comm, size;
    bool operator==(const Key&) const = default;
  };
  Key key;
  uint32_t count = 0;
  int64_t sum = 0;
  int64_t min = std::numeric_limits<int64_t>::max();
  int64_t max = std::numeric_limits<int64_t>::min();
};

struct KLT_CollectiveStat {
  struct Key {
    uint32_t type, root, comm;
    bool operator==(const Key&) const = default;
  };
  Key key;
  // By member.
  std::vector<uint32_t> exchanges, minSent, maxSent, sumSent, minReceived, maxReceived, sumReceived;
  std::vector<double> minRate, maxRate, sumRate;
  std::vector<uint64_t> minDuration, maxDuration, sumDuration;
};

// Profiles in order, found by the hash of their keys, most of the time without a look at another
// key.
template <class Stat>
class KLT_StatTable {
 public:
  using Key = typename Stat::Key;

  // The place of the key's profile, from 1; it is made if there is none.
  [[nodiscard, gnu::always_inline]] uint32_t place(const Key& key) {
    const uint32_t hash = hash_(std::bit_cast<Numbers>(key));
    if (!slots_.empty()) [[likely]] {
      const size_t mask = slots_.size() - 1;
      for (size_t at = hash & mask; slots_[at].place != 0; at = (at + 1) & mask) {
        const Slot& slot = slots_[at];
        if (slot.hash == hash && stats_[slot.place - 1].key == key) return slot.place;
      }
    }
    return add(key, hash);
  }
  // Whether that is the place of the key's profile. Any place may be asked about.
  [[nodiscard]] bool isAt(uint32_t place, const Key& key) const {
    return place - 1 < stats_.size() && stats_[place - 1].key == key;
  }
  [[nodiscard]] Stat& at(uint32_t place) { return stats_[place - 1]; }
  [[nodiscard]] std::vector<Stat>& all() { return stats_; }

 private:
  static constexpr size_t kNumbers = sizeof(Key) / sizeof(uint32_t);
  using Numbers = std::array<uint32_t, kNumbers>;
  struct Slot {
    uint32_t hash = 0;
    uint32_t place = 0;  // 0: free
  };

  [[gnu::cold]] uint32_t add(const Key& key, uint32_t hash) {
    constexpr size_t kFirst = 64;
    stats_.emplace_back().key = key;
    if (2 * stats_.size() > slots_.size()) {
      std::vector<Slot> old(std::max(kFirst, 4 * slots_.size()));
      old.swap(slots_);
      for (const Slot& slot : old) {
        if (slot.place != 0) put(slot);
      }
    }
    const auto place = static_cast<uint32_t>(stats_.size());
    put({hash, place});
    return place;
  }
  void put(const Slot& slot) {
    const size_t mask = slots_.size() - 1;
    size_t at = slot.hash & mask;
    while (slots_[at].place != 0) at = (at + 1) & mask;
    slots_[at] = slot;
  }

  PAL_Hash<kNumbers> hash_;
  std::vector<Stat> stats_;
  std::vector<Slot> slots_;  // a power of two, at most half full
};

struct KLT_FileStats {
  KLT_StatsParameters parameters;
  uint32_t eventBits = 0;
  KLT_StatTable<KLT_FunctionStat> functions;
  KLT_StatTable<KLT_MessageStat> messages;
  KLT_StatTable<KLT_CollectiveStat> collectives;
  std::vector<uint32_t> scratch;
  bool wrapped = false;  // sums of bytes have passed 32 bits, as reported

  // Time stamps and spans in ticks.
  [[nodiscard]] uint64_t ticks(uint64_t time) const { return time >> eventBits; }
  [[nodiscard]] int64_t ticks(int64_t span) const { return span >> eventBits; }
};

// Makes empty profiles.
[[nodiscard]] std::unique_ptr<KLT_FileStats> KLT_FileStatsInit(
    const KLT_StatsParameters& parameters);

// The place of a function's profile, made if there is none.
[[nodiscard]] uint32_t KLT_FunctionPlace(KLT_FileStats& stats, const KLT_FunctionStat::Key& key);
// Enters one call. `hint` is where the function's profile may be, at first 0; it receives where it
// is.
[[gnu::always_inline]] inline void KLT_FileStatsFunction(KLT_FileStats& stats,
                                                         const KLT_FunctionStat::Key& key,
                                                         uint64_t self, uint64_t inclusive,
                                                         uint32_t& hint) {
  if (!stats.functions.isAt(hint, key)) hint = KLT_FunctionPlace(stats, key);
  KLT_FunctionStat& stat = stats.functions.at(hint);
  ++stat.count;
  stat.minSelf = std::min(stat.minSelf, self);
  stat.maxSelf = std::max(stat.maxSelf, self);
  stat.totalSelf += self;
  stat.minInclusive = std::min(stat.minInclusive, inclusive);
  stat.maxInclusive = std::max(stat.maxInclusive, inclusive);
  stat.totalInclusive += inclusive;
}

// Enters one message.
void KLT_FileStatsMessage(KLT_FileStats& stats, const KLT_MessageStat::Key& key, int64_t duration);

// Enters one operation of `members` members. `sent` and `received` may be null; a side that is null
// counts 0 and leaves its extremes and sum alone.
void KLT_FileStatsCollective(KLT_FileStats& stats, const KLT_CollectiveStat::Key& key,
                             size_t members, const uint32_t* sent, const uint32_t* received,
                             const uint64_t* durations);

// Bytes by member where only the root's are known: `bytes` for the members equal to `root`, 0 for
// the others. Null, after a report, if the communicator isn't known. Valid until the next call.
[[nodiscard]] const uint32_t* KLT_FileStatsRootOnly(KLT_FileStats& stats, uint32_t communicator,
                                                    size_t members, uint32_t root, uint32_t bytes);
