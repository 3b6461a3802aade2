// Profiles of a trace, made while it is written: how often each function was called, each message
// route used, each collective operation run, and what it cost.
//
// Belongs to a writer. Times are held in ticks of the clock (time stamps shifted right by the event
// bits) and shifted back when the profiles are written. Profiles come out in the order in which
// their keys were first seen.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <unordered_map>
#include <vector>

#include "util/pal_hash.h"

struct KLT_WFileHandle;

// What a writer needs to know to make profiles.
struct KLT_StatsParameters {
  // The members of a communicator in rank order and their number, which stays as it is if the
  // communicator isn't known. Null for no members.
  const uint32_t* (*memberLookup)(void* context, uint32_t communicator, size_t* count) = nullptr;
  void* lookupContext = nullptr;
  uint32_t eventBits = 0;  // of the time stamps that are written
};

class KLT_FileStats {
 public:
  explicit KLT_FileStats(const KLT_StatsParameters& parameters);

  // The time stamp in ticks.
  [[nodiscard]] uint64_t ticks(uint64_t time) const { return time >> eventBits_; }
  [[nodiscard]] int64_t ticks(int64_t span) const { return span >> eventBits_; }

  // One call. `hint` is where the function's profile may be, at first 0; it receives where it is.
  void function(uint32_t gtp, uint32_t function, uint64_t self, uint64_t inclusive,
                uint32_t& hint) {
    if (hint - 1 >= functions_.size() || !functions_[hint - 1].isOf(gtp, function)) {
      hint = functionPlace(gtp, function);
    }
    FunctionStat& stat = functions_[hint - 1];
    ++stat.count;
    stat.minSelf = std::min(stat.minSelf, self);
    stat.maxSelf = std::max(stat.maxSelf, self);
    stat.totalSelf += self;
    stat.minInclusive = std::min(stat.minInclusive, inclusive);
    stat.maxInclusive = std::max(stat.maxInclusive, inclusive);
    stat.totalInclusive += inclusive;
  }

  struct Message {
    uint32_t sender, receiver, funcSender, funcReceiver, tag, comm, size;
    bool operator==(const Message&) const = default;
  };
  void message(const Message& key, int64_t duration);

  // One operation of `n` members. `sent` and `received` may be null; a side that is null counts 0
  // and leaves its extremes and sum alone.
  void collective(uint32_t type, uint32_t root, uint32_t comm, size_t n, const uint32_t* sent,
                  const uint32_t* received, const uint64_t* durations);

  // Bytes by member where only the root's are known: `bytes` for the members equal to `root`, 0
  // for the others. Null, after a report, if the communicator isn't known. Valid until the next
  // call.
  [[nodiscard]] const uint32_t* rootOnly(uint32_t communicator, size_t n, uint32_t root,
                                         uint32_t bytes);

  // Writes the profiles through `writer`. False if a write failed.
  bool write(KLT_WFileHandle* writer);

 private:
  struct alignas(64) FunctionStat {
    uint32_t gtp, function, count = 0;
    uint64_t minSelf = ~uint64_t{0}, maxSelf = 0, totalSelf = 0;
    uint64_t minInclusive = ~uint64_t{0}, maxInclusive = 0, totalInclusive = 0;
    [[nodiscard]] bool isOf(uint32_t thread, uint32_t id) const {
      return gtp == thread && function == id;
    }
  };
  struct MessageStat {
    Message key;
    uint32_t count = 0;
    int64_t sum = 0;
    int64_t min = std::numeric_limits<int64_t>::max();
    int64_t max = std::numeric_limits<int64_t>::min();
  };
  // Finds the entries of a list by the hash of their keys, most of the time without a look at
  // another key.
  class Table {
   public:
    // The place from 1 of the entry for which `isIt(place)` holds, among those with that hash; 0 if
    // there is none.
    template <class IsIt>
    [[nodiscard]] uint32_t find(uint32_t hash, const IsIt& isIt) const {
      if (slots_.empty()) return 0;
      const size_t mask = slots_.size() - 1;
      for (size_t at = hash & mask; slots_[at].place != 0; at = (at + 1) & mask) {
        if (slots_[at].hash == hash && isIt(slots_[at].place)) return slots_[at].place;
      }
      return 0;
    }
    // Adds the next entry, which gets the place behind the last one.
    void add(uint32_t hash);

   private:
    struct Slot {
      uint32_t hash = 0;
      uint32_t place = 0;  // 0: free
    };
    void put(const Slot& slot);

    std::vector<Slot> slots_;  // a power of two, at most half full
    uint32_t count_ = 0;
  };
  struct CollectiveStat {
    uint32_t type, root, comm;
    std::vector<uint32_t> exchanges, minSent, maxSent, sumSent, minReceived, maxReceived,
        sumReceived;
    std::vector<double> minRate, maxRate, sumRate;
    std::vector<uint64_t> minDuration, maxDuration, sumDuration;
    void resize(size_t n);
  };

  // The place from 1 of a function's profile, made if there is none.
  uint32_t functionPlace(uint32_t gtp, uint32_t function);
  // The place from 1 of the new profile of messages whose hash that is.
  [[gnu::cold]] uint32_t addMessage(const Message& key, uint32_t hash);
  void enterMember(CollectiveStat& stat, size_t i, const uint32_t* sent, const uint32_t* received,
                   uint64_t duration);
  void addBytes(uint32_t& sum, uint32_t bytes);
  bool writeMessages(KLT_WFileHandle* writer);
  bool writeCollectives(KLT_WFileHandle* writer);
  bool writeFunctions(KLT_WFileHandle* writer);

  KLT_StatsParameters parameters_;
  unsigned eventBits_;
  PAL_Hash<2> functionHash_;
  PAL_Hash<7> messageHash_;
  std::vector<FunctionStat> functions_;
  Table functionPlaces_;
  std::vector<MessageStat> messages_;
  Table messagePlaces_;
  std::vector<CollectiveStat> collectives_;
  std::unordered_map<std::string, size_t> collectivePlaces_;
  std::vector<uint32_t> scratch_;
  bool wrapped_ = false;
};
