// Computes the profiles of a trace while it is written: numbers and durations of function calls,
// messages and collective operations. There is one profile for each Key.
//
// Owned by a writer, which adds each record; klt_write_stats writes the profiles. Times are in
// ticks of the clock (time stamps shifted right by the event bits). Profiles are in the order in
// which their keys were added.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

#include "util/pal_hash.h"

// Parameters of the profiles.
struct KLT_StatsParameters {
  // Returns the first `most` members of a communicator in rank order, or null if it has none. Sets
  // `count` to their number only if the communicator is known.
  const uint32_t* (*memberLookup)(void* context, uint32_t communicator, size_t most,
                                  size_t* count) = nullptr;
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

// Profiles in order of insertion.
template <class Stat>
class KLT_StatTable {
 public:
  using Key = typename Stat::Key;

  // The place (index plus 1) of the key's profile, which is created if there is none.
  [[nodiscard]] uint32_t place(const Key& key) { return place(key, hashOf(key)); }
  [[nodiscard, gnu::always_inline]] uint32_t place(const Key& key, uint32_t hash) {
    const uint32_t known =
        index_.find(hash, [&](uint32_t place) { return stats_[place - 1].key == key; });
    return known != 0 ? known : add(key, hash);
  }
  [[nodiscard]] uint32_t hashOf(const Key& key) const {
    return index_.hashOf(std::bit_cast<Numbers>(key));
  }
  // Start to fetch what place() needs for this hash: the slot, and later the profile.
  void fetchSlot(uint32_t hash) const { index_.fetch(hash); }
  void fetchEntry(uint32_t hash) const {
    if (const uint32_t place = index_.guess(hash)) __builtin_prefetch(&stats_[place - 1], 1);
  }
  // Whether `place` is the place of the key's profile. Any number is allowed.
  [[nodiscard]] bool isAt(uint32_t place, const Key& key) const {
    return place - 1 < stats_.size() && stats_[place - 1].key == key;
  }
  [[nodiscard]] Stat& at(uint32_t place) { return stats_[place - 1]; }
  [[nodiscard]] size_t size() const { return stats_.size(); }

 private:
  static constexpr size_t kNumbers = sizeof(Key) / sizeof(uint32_t);
  using Numbers = std::array<uint32_t, kNumbers>;

  [[gnu::cold]] uint32_t add(const Key& key, uint32_t hash) {
    Stat stat;
    stat.key = key;
    stats_.add(std::move(stat));
    const auto place = static_cast<uint32_t>(stats_.size());
    index_.add(hash, place);
    return place;
  }

  PAL_Chunks<Stat> stats_;
  PAL_KeyIndex<kNumbers> index_;
};

// A message that waits for its profile.
struct KLT_MessageDuration {
  KLT_MessageStat::Key key;
  uint32_t hash;
  int64_t duration;
};

struct KLT_FileStats {
  KLT_StatsParameters parameters;
  uint32_t eventBits = 0;
  KLT_StatTable<KLT_FunctionStat> functions;
  KLT_StatTable<KLT_MessageStat> messages;
  KLT_StatTable<KLT_CollectiveStat> collectives;
  PAL_FetchQueue<KLT_MessageDuration> waiting;
  std::vector<uint32_t> scratch;
  bool wrapped = false;  // a sum of bytes has exceeded 32 bits, which has been reported
  std::vector<uint32_t> functionOrder;  // the places of `functions` in the order of the output
  bool defersFunctions = false;         // new profiles aren't added to `functionOrder`

  // Converts time stamps and spans to ticks.
  [[nodiscard]] uint64_t ticks(uint64_t time) const { return time >> eventBits; }
  [[nodiscard]] int64_t ticks(int64_t span) const { return span >> eventBits; }
};

// Creates empty profiles.
[[nodiscard]] std::unique_ptr<KLT_FileStats> KLT_FileStatsInit(
    const KLT_StatsParameters& parameters);

// The place of a function's profile, which is created if there is none.
[[nodiscard]] uint32_t KLT_FunctionPlace(KLT_FileStats& stats, const KLT_FunctionStat::Key& key);

// The places of the profiles of a thread's functions, by the low bits of the function. The table
// grows when functions often share an entry, in proportion to the calls. With a table of fixed size
// an extraction of 200 functions takes 1.08 times as long.
class KLT_ProfileHints {
 public:
  // The place of the function's profile, as KLT_FunctionPlace returns it. The key has the thread of
  // these hints.
  [[nodiscard, gnu::always_inline]] uint32_t place(KLT_FileStats& stats,
                                                   const KLT_FunctionStat::Key& key) {
    const uint32_t hint =
        more_ == nullptr ? few_[key.function % kFew] : more_[key.function & mask_];
    return stats.functions.isAt(hint, key) ? hint : search(stats, key);
  }

 private:
  static constexpr uint32_t kFew = 4;
  static constexpr uint32_t kMost = 4096;

  uint32_t search(KLT_FileStats& stats, const KLT_FunctionStat::Key& key);
  void grow();

  std::array<uint32_t, kFew> few_{};
  uint32_t mask_ = kFew - 1;
  uint32_t searches_ = 0;  // since the table has its size
  std::unique_ptr<uint32_t[]> more_;
};

// Adds one call of the thread to which `hints` belong.
[[gnu::always_inline]] inline void KLT_FileStatsFunction(KLT_FileStats& stats,
                                                         const KLT_FunctionStat::Key& key,
                                                         uint64_t self, uint64_t inclusive,
                                                         KLT_ProfileHints& hints) {
  KLT_FunctionStat& stat = stats.functions.at(hints.place(stats, key));
  ++stat.count;
  stat.minSelf = std::min(stat.minSelf, self);
  stat.maxSelf = std::max(stat.maxSelf, self);
  stat.totalSelf += self;
  stat.minInclusive = std::min(stat.minInclusive, inclusive);
  stat.maxInclusive = std::max(stat.maxInclusive, inclusive);
  stat.totalInclusive += inclusive;
}

// Adds one message. Its profile changes after some more messages, or by KLT_FileStatsFlush.
void KLT_FileStatsMessage(KLT_FileStats& stats, const KLT_MessageStat::Key& key, int64_t duration);
void KLT_FileStatsFlush(KLT_FileStats& stats);

// Adds one operation of `members` members. `sent` or `received` may be null: that side counts as 0
// bytes for the rate, and its minimum, maximum and sum don't change.
void KLT_FileStatsCollective(KLT_FileStats& stats, const KLT_CollectiveStat::Key& key,
                             size_t members, const uint32_t* sent, const uint32_t* received,
                             const uint64_t* durations);

// Bytes by member if only the root's are known: `bytes` for the member `root`, 0 for the others.
// Null, after a report, if the communicator isn't known. Valid until the next call.
[[nodiscard]] const uint32_t* KLT_FileStatsRootOnly(KLT_FileStats& stats, uint32_t communicator,
                                                    size_t members, uint32_t root, uint32_t bytes);
