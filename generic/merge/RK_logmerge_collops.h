// Combines the events of a collective operation, one logged by each member of a communicator, into
// one record.
//
// An event belongs to the oldest operation of its communicator that still waits for its process and
// has the event's counter. If the producer didn't count (counter 0), operation and root must be
// equal instead. An event with a counter also shows that its process takes no part in older
// operations with another counter. Each of these that waits for the process then awaits one event
// less, and again one less with each further event of this kind.
//
// Both searches are short. Without counters, the operations with equal operation and root are in
// one list. A process always joins the oldest of them that waits for it, so its search starts at
// the operation that it joined last. With counters, a visited operation is the match, or awaits one
// event less, or has the process's event and isn't visited again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "generic/merge/RK_logmerge_arena.h"
#include "generic/merge/RK_logmerge_comms.h"
#include "klt/format/klt_values.h"
#include "klt/index/klt_idmap.h"
#include "util/pal_hash.h"

struct KLTT_Summary;

// The fields of a collop_raw_event. Only the process in `kind` is used.
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

// The members of an operation whose events have come. A communicator can have 65,535 members, so
// they are in a list while few have come, and then in an array with a place for each rank.
class KLTM_SeenMembers {
 public:
  static constexpr uint64_t kNotSeen = ~uint64_t{0};

  struct Member {
    uint64_t time = kNotSeen;  // an event with this time is taken for none
    uint64_t end = kNotSeen;
    uint32_t rank = 0;
    uint32_t send = 0;
    uint32_t recv = 0;
    uint32_t scl = klt::kNoScl;
  };

  [[nodiscard]] bool contains(uint32_t rank) const {
    return isArray_ ? members_[rank].time != kNotSeen : isInList(rank);
  }
  // `n` is the number of members of the communicator.
  void add(const Member& member, uint32_t n) {
    if (!isArray_) growFor(n);
    if (isArray_)
      members_[member.rank] = member;
    else
      members_.push_back(member);
  }
  // Those that haven't come may be among them. If there are two of a rank, the later one counts.
  [[nodiscard]] const std::vector<Member>& all() const { return members_; }

 private:
  [[nodiscard]] bool isInList(uint32_t rank) const;
  void growFor(uint32_t n);

  std::vector<Member> members_;
  bool isArray_ = false;
};

struct KLTM_Collop : KLTM_EntryHead {
  uint32_t operation = 0;
  uint32_t comm = 0;
  uint32_t counter = 0;
  uint32_t root = 0;
  uint32_t n = 0;
  bool hasRecord = false;  // the merged trace can hold a record of it
  KLTM_SeenMembers seen;
  KLTM_CollopState* state = nullptr;  // of its communicator; null if one event completes it
  KLTM_CollopGroup* group = nullptr;  // null until the communicator's operations are grouped

  // The share of the arena's capacity, with room for all members: it determines when records are
  // written.
  [[nodiscard]] uint64_t bytes() const { return bytes(n); }
  [[nodiscard]] static uint64_t bytes(uint32_t members) { return 88 + uint64_t{32} * members; }
};

// Incomplete operations in order of arrival. A completed operation leaves a gap, so that indices
// stay valid during a search. Gaps are removed when an operation is added.
class KLTM_OpenCollops {
 public:
  using Reference = KLTM_Arena<KLTM_Collop>::Reference;

  void add(KLTM_Collop& collop);
  void remove(const KLTM_Collop& collop);
  // The index of the first operation with this or a later sequence.
  [[nodiscard]] size_t from(uint64_t sequence) const;
  [[nodiscard]] size_t size() const { return all_.size(); }
  // Null at a gap.
  [[nodiscard]] KLTM_Collop* at(size_t index) const { return all_[index].entry; }
  [[nodiscard]] size_t count() const { return count_; }

 private:
  std::vector<Reference> all_;
  size_t count_ = 0;
};

// Members with ranks below this are found in an array, others by a hash.
inline constexpr uint32_t kKltmDirectRanks = 257;

// The operations of one kind on a communicator: those with equal operation and root.
struct KLTM_CollopGroup {
  KLTM_OpenCollops open;
  // For each member by rank, from 1, a sequence: no older operation waits for the member. Empty if
  // few operations are open.
  KLT_IdMap<uint64_t> reached{kKltmDirectRanks};
};

// The operations that the searches for one member's events with counters have visited.
struct KLTM_CollopWalk {
  uint64_t reached = 0;  // the sequence of the first operation not visited yet
  std::vector<KLTM_OpenCollops::Reference> skipped;  // visited, but not a match
  size_t first = 0;                                  // the index at which `skipped` begins
};

// A communicator and its open operations.
struct KLTM_CollopState {
  explicit KLTM_CollopState(const KLTT_MemberList& list);

  // The rank of the process; KLTT_MemberList::kNoMember if it isn't a member.
  [[nodiscard]] uint32_t indexOf(uint32_t process) {
    return isRegular ? members.indexOf(process) : indexInRuns(process);
  }

  const KLTT_MemberList& members;
  const bool isRegular;   // it has few runs
  const bool isExpanded;  // it has many runs
  KLT_IdIndex places;     // if it isn't regular: ranks, from 1, by process; all if it is expanded
  KLTM_OpenCollops open;
  KLT_IdMap<KLTM_CollopWalk> walks{kKltmDirectRanks};  // by the member's rank, from 1
  bool grouped = false;                                // an event without a counter has been seen
  PAL_HashMap<uint64_t, KLTM_CollopGroup> groups;

 private:
  [[nodiscard]] uint32_t indexInRuns(uint32_t process);
};

class KLTM_CollopTable {
 public:
  // The arguments are not owned; `summary` may be null. `communicators` must not change any more.
  // `blockBytes` as for KLTM_Arena.
  KLTM_CollopTable(KLT_WFileHandle* writer, KLTT_Summary* summary,
                   const KLTM_Communicators& communicators, uint64_t blockBytes);

  // Adds an event that `process` logged.
  void event(const KLTM_RawCollop& event, uint32_t process);
  void finish() { arena_.finish(*this); }
  // The number of operations so far.
  [[nodiscard]] uint32_t added() const { return added_; }
  // Events so far that no record can hold.
  [[nodiscard]] uint64_t unplaced() const { return unplaced_; }

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
  // Whether the merged trace can hold a record of the operation that the event begins.
  [[nodiscard]] bool hasRecord(const KLTM_CollopState* state, const KLTM_RawCollop& event) const;
  [[nodiscard]] KLTM_Collop* search(KLTM_CollopState& state, uint32_t member,
                                    const KLTM_RawCollop& event);
  [[nodiscard]] KLTM_Collop* searchKind(KLTM_CollopState& state, uint32_t member,
                                        const KLTM_RawCollop& event);
  [[nodiscard]] KLTM_Collop* searchCounter(KLTM_CollopState& state, uint32_t member,
                                           uint32_t counter);
  void add(KLTM_CollopState* state, uint32_t member, const KLTM_RawCollop& event);
  void decrementPending(KLTM_Collop& collop);
  static void group(KLTM_CollopState& state, KLTM_Collop& collop);
  // Fills `arrays_`; returns the root's rank.
  uint32_t collect(const KLTM_Collop& collop);
  void reportToSummary(const KLTM_Collop& collop);
  void writeRecord(KLTM_Collop& collop, uint32_t root);

  KLT_WFileHandle* writer_;
  KLTT_Summary* summary_;
  const KLTM_Communicators& communicators_;
  KLTM_Arena<KLTM_Collop> arena_;
  uint32_t added_ = 0;
  uint64_t unplaced_ = 0;
  KLT_IdIndex statePlaces_;                // from 1
  KLTM_CollopState* lastState_ = nullptr;  // of the communicator `lastComm_`
  uint32_t lastComm_ = 0;
  std::vector<std::unique_ptr<KLTM_CollopState>> states_;
  Arrays arrays_;
};
