// Collective operations in the making: what the members of a communicator have logged, each for
// itself, is brought together.
//
// An event belongs to the oldest operation of its communicator that still waits for its process and
// has the event's counter or, where the producer didn't count (0), its operation and root. A
// process that shows up with a counter won't come to the older operations with another one that
// wait for it: each of them waits for one event less, again with every such event.
//
// Neither search walks operations in vain. Without counters every kind of operation is a list of
// its own, in which a process always takes the oldest that waits for it, so it never has to look at
// what lies before its last one. With counters every operation that is met waits for one event
// less, is the one looked for, or has seen the process and isn't met again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "generic/merge/RK_logmerge_arena.h"
#include "generic/merge/RK_logmerge_comms.h"
#include "klt/format/klt_values.h"
#include "klt/index/klt_idmap.h"

struct KLTT_Summary;

// A collop_raw_event; of `kind` only the process counts.
struct KLTM_RawCollop {
  uint64_t time = 0;
  uint64_t endtime = 0;
  uint32_t kind = 0;
  uint32_t operation = 0;
  uint32_t comm = 0;
  uint32_t counter = 0;
  uint32_t root = 0;
  uint32_t send = 0;
  uint32_t recv = 0;
  uint32_t scl = 0;
};

struct KLTM_CollopGroup;
struct KLTM_CollopState;

struct KLTM_Collop : KLTM_EntryHead {
  static constexpr uint64_t kNotSeen = ~uint64_t{0};

  struct Member {
    uint64_t time = kNotSeen;
    uint64_t end = kNotSeen;
    uint32_t send = 0;
    uint32_t recv = 0;
    uint32_t scl = klt::kNoScl;
  };

  uint32_t operation = 0;
  uint32_t comm = 0;
  uint32_t counter = 0;
  uint32_t root = 0;
  uint32_t n = 0;
  std::unique_ptr<Member[]> members;
  KLTM_CollopState* state = nullptr;  // of its communicator; null if it was complete at once
  KLTM_CollopGroup* group = nullptr;  // null while nobody searches without counters

  // Padded to a multiple of 8.
  [[nodiscard]] uint64_t bytes() const { return bytes(n); }
  [[nodiscard]] static uint64_t bytes(uint32_t members) { return 88 + uint64_t{32} * members; }
};

// Incomplete operations in order of arrival. One that completes leaves a gap, which goes when the
// next one is added, so that a walk isn't disturbed.
class KLTM_OpenCollops {
 public:
  using Reference = KLTM_Arena<KLTM_Collop>::Reference;

  void add(KLTM_Collop& collop);
  void remove(const KLTM_Collop& collop);
  // Index of the first one with this sequence or a later one.
  [[nodiscard]] size_t from(uint64_t sequence) const;
  [[nodiscard]] size_t size() const { return all_.size(); }
  // Null in a gap.
  [[nodiscard]] KLTM_Collop* at(size_t index) const { return all_[index].entry; }
  [[nodiscard]] size_t count() const { return count_; }

 private:
  std::vector<Reference> all_;
  size_t count_ = 0;
};

// Operations of one kind on a communicator: equal operation and root.
struct KLTM_CollopGroup {
  KLTM_OpenCollops open;
  std::vector<uint64_t> reached;  // by member: no older one waits for it; empty while few are open
};

// How far one member's events with counters have come.
struct KLTM_CollopWalk {
  uint64_t reached = 0;                             // sequence of the first operation not met yet
  std::vector<KLTM_OpenCollops::Reference> missed;  // met before that, and not taken
  size_t first = 0;                                 // the beginning of `missed`
};

// A communicator with what is open on it.
struct KLTM_CollopState {
  explicit KLTM_CollopState(const KLTT_MemberList& list);

  [[nodiscard]] uint32_t indexOf(uint32_t process) const;

  const KLTT_MemberList& members;
  KLT_IdIndex places;  // of members, from 1, where the list isn't regular
  KLTM_OpenCollops open;
  std::vector<KLTM_CollopWalk> walks;  // by member; empty before the first event with a counter
  bool grouped = false;                // an event without a counter has been seen
  std::unordered_map<uint64_t, KLTM_CollopGroup> groups;
};

class KLTM_CollopTable {
 public:
  // Nothing is owned; `summary` may be null. `communicators` don't change any more.
  // `blockBytes` as in KLTM_Arena.
  KLTM_CollopTable(KLT_WFileHandle* writer, KLTT_Summary* summary,
                   const KLTM_Communicators& communicators, uint64_t blockBytes);

  // `process` has logged the event.
  void event(const KLTM_RawCollop& event, uint32_t process);
  void finish() { arena_.finish(*this); }
  // Operations begun so far.
  [[nodiscard]] uint32_t added() const { return added_; }

 private:
  friend class KLTM_Arena<KLTM_Collop>;

  // The arrays of a record.
  struct Arrays {
    std::vector<uint64_t> start, delta;
    std::vector<uint32_t> sent, received, scl;
  };

  void write(KLTM_Collop& collop);
  void release(KLTM_Collop& /*collop*/) {}

  [[nodiscard]] KLTM_CollopState* stateOf(uint32_t comm);
  [[nodiscard]] KLTM_Collop* search(KLTM_CollopState& state, uint32_t member,
                                    const KLTM_RawCollop& event);
  [[nodiscard]] KLTM_Collop* searchKind(KLTM_CollopState& state, uint32_t member,
                                        const KLTM_RawCollop& event);
  [[nodiscard]] KLTM_Collop* searchCounter(KLTM_CollopState& state, uint32_t member,
                                           uint32_t counter);
  void add(KLTM_CollopState* state, uint32_t member, const KLTM_RawCollop& event);
  void settle(KLTM_Collop& collop);
  static void group(KLTM_CollopState& state, KLTM_Collop& collop);
  // Fills `arrays_`; returns the place of the root among the members.
  uint32_t collect(const KLTM_Collop& collop);
  void tell(const KLTM_Collop& collop);
  void writeRecord(KLTM_Collop& collop, uint32_t root);

  KLT_WFileHandle* writer_;
  KLTT_Summary* summary_;
  const KLTM_Communicators& communicators_;
  KLTM_Arena<KLTM_Collop> arena_;
  uint32_t added_ = 0;
  KLT_IdIndex statePlaces_;  // from 1
  std::vector<std::unique_ptr<KLTM_CollopState>> states_;
  Arrays arrays_;
};
