// Combines the events of collective operations. See RK_logmerge_collops.h.
#include "generic/merge/RK_logmerge_collops.h"

#include <algorithm>

#include "generic/summary/kltt_summary.h"
#include "klt/write/klt_write.h"

namespace {

using Kind = klt::CollopKind;

constexpr uint32_t kLastOperation = 45;

// The kind of an operation, by the number that producers of traces use for it.
constexpr Kind kindOf(uint32_t operation) {
  if (operation == 0 || operation > kLastOperation) return Kind::kNone;
  if (operation <= 2) return Kind::kAll;  // barriers
  if (operation <= 4 || (operation >= 9 && operation <= 12))
    return Kind::kOneToAll;  // bcast, scatter
  if (operation <= 8 || (operation >= 33 && operation <= 35))
    return Kind::kAllToOne;  // gather, reduce
  return Kind::kAllToAll;
}

constexpr bool isRooted(Kind kind) { return kind == Kind::kOneToAll || kind == Kind::kAllToOne; }

bool hasSeen(const KLTM_Collop& collop, uint32_t member) { return collop.seen.contains(member); }

void fill(KLTM_Collop& collop, uint32_t member, const KLTM_RawCollop& event) {
  collop.seen.add({event.time, event.endtime, member, event.send, event.recv, event.scl}, collop.n);
}

uint64_t groupKey(uint32_t operation, uint32_t root) { return uint64_t{operation} << 32 | root; }

}  // namespace

// --- members that have come ---------------------------------------------------------------------

bool KLTM_SeenMembers::isInList(uint32_t rank) const {
  return std::any_of(members_.begin(), members_.end(),
                     [rank](const Member& m) { return m.rank == rank && m.time != kNotSeen; });
}

// Makes the list an array if it has become long. So the array is at most 64 times as large as the
// list, and the search of a list is short.
void KLTM_SeenMembers::growFor(uint32_t n) {
  constexpr uint32_t kFew = 8;
  constexpr uint32_t kLargestRatio = 64;
  if (n > kLargestRatio && members_.size() < kFew + n / kLargestRatio) return;
  std::vector<Member> list(n);
  list.swap(members_);
  for (uint32_t rank = 0; rank < n; ++rank) members_[rank].rank = rank;
  for (const Member& member : list) members_[member.rank] = member;
  isArray_ = true;
}

// --- open operations ----------------------------------------------------------------------------

void KLTM_OpenCollops::add(KLTM_Collop& collop) {
  constexpr size_t kFew = 8;
  if (count_ == 0)
    all_.clear();
  else if (all_.size() > kFew && count_ <= all_.size() / 2)
    std::erase_if(all_, [](const Reference& r) { return r.entry == nullptr; });
  all_.push_back({collop.sequence, &collop});
  ++count_;
}

void KLTM_OpenCollops::remove(const KLTM_Collop& collop) {
  all_[from(collop.sequence)].entry = nullptr;
  --count_;
}

size_t KLTM_OpenCollops::from(uint64_t sequence) const {
  const auto place =
      std::lower_bound(all_.begin(), all_.end(), sequence,
                       [](const Reference& r, uint64_t s) { return r.sequence < s; });
  return static_cast<size_t>(place - all_.begin());
}

// A list of many runs takes much of the trace, so that its members may be stored.
KLTM_CollopState::KLTM_CollopState(const KLTT_MemberList& list)
    : members(list), isRegular(list.runs() <= 4), isExpanded(list.runs() > 1024) {
  if (!isExpanded) return;
  KLTT_MemberList::Cursor member(list);
  uint32_t place = 0;
  for (uint32_t gtp = 0; member.next(&gtp);) {
    ++place;
    if (places.find(gtp) == 0) places.add(gtp, place);
  }
}

uint32_t KLTM_CollopState::indexInRuns(uint32_t process) {
  if (const uint32_t place = places.find(process)) return place - 1;
  const uint32_t rank = isExpanded ? KLTT_MemberList::kNoMember : members.indexOf(process);
  if (rank != KLTT_MemberList::kNoMember) places.add(process, rank + 1);
  return rank;
}

KLTM_CollopTable::KLTM_CollopTable(KLT_WFileHandle* writer, KLTT_Summary* summary,
                                   const KLTM_Communicators& communicators, uint64_t blockBytes)
    : writer_(writer), summary_(summary), communicators_(communicators), arena_(blockBytes) {}

// Null if the communicator is unknown or has no members. Each event is then an operation by itself.
KLTM_CollopState* KLTM_CollopTable::stateOf(uint32_t comm) {
  if (const uint32_t place = statePlaces_.find(comm)) return states_[place - 1].get();
  const KLTT_MemberList* members = communicators_.find(comm);
  if (members == nullptr || members->size() == 0) return nullptr;
  states_.push_back(std::make_unique<KLTM_CollopState>(*members));
  statePlaces_.add(comm, static_cast<uint32_t>(states_.size()));
  return states_.back().get();
}

// There is no record for an operation of an unknown kind, and readers refuse operations whose
// communicator has no members. A rooted operation on an unknown communicator is written: computing
// its profile ends the process with a message.
bool KLTM_CollopTable::hasRecord(const KLTM_CollopState* state, const KLTM_RawCollop& event) const {
  const Kind kind = kindOf(event.operation);
  if (kind == Kind::kNone) return false;
  return state != nullptr || (isRooted(kind) && communicators_.find(event.comm) == nullptr);
}

// --- matching -----------------------------------------------------------------------------------

void KLTM_CollopTable::event(const KLTM_RawCollop& event, uint32_t process) {
  if (event.comm != lastComm_) {
    lastState_ = stateOf(event.comm);
    lastComm_ = event.comm;
  }
  KLTM_CollopState* state = lastState_;
  uint32_t member = state == nullptr ? 0 : state->indexOf(process);
  if (state != nullptr && member != KLTT_MemberList::kNoMember) {
    if (KLTM_Collop* collop = search(*state, member, event)) {
      fill(*collop, member, event);
      if (!collop->hasRecord) ++unplaced_;
      collop->lastTime = std::max(collop->lastTime, event.endtime);
      decrementPending(*collop);
      return;
    }
  }
  // A process that isn't a member counts as the first member.
  if (member == KLTT_MemberList::kNoMember) member = 0;
  add(state, member, event);
}

KLTM_Collop* KLTM_CollopTable::search(KLTM_CollopState& state, uint32_t member,
                                      const KLTM_RawCollop& event) {
  if (event.counter != 0) return searchCounter(state, member, event.counter);
  return searchKind(state, member, event);
}

KLTM_Collop* KLTM_CollopTable::searchKind(KLTM_CollopState& state, uint32_t member,
                                          const KLTM_RawCollop& event) {
  constexpr size_t kFew = 8;
  if (!state.grouped) {
    state.grouped = true;
    for (size_t i = 0; i < state.open.size(); ++i) {
      if (KLTM_Collop* collop = state.open.at(i)) group(state, *collop);
    }
  }
  const auto found = state.groups.find(groupKey(event.operation, event.root));
  if (found == state.groups.end()) return nullptr;
  KLTM_CollopGroup& kind = found->second;
  if (kind.open.count() == 0) return nullptr;
  const bool few = kind.open.size() <= kFew && kind.reached.empty();
  uint64_t* reached = few ? nullptr : &kind.reached[member + 1];
  for (size_t i = few ? 0 : kind.open.from(*reached); i < kind.open.size(); ++i) {
    KLTM_Collop* collop = kind.open.at(i);
    if (collop == nullptr || hasSeen(*collop, member)) continue;
    if (!few) *reached = collop->sequence;
    return collop;
  }
  if (!few) *reached = arena_.lastSequence() + 1;
  return nullptr;
}

KLTM_Collop* KLTM_CollopTable::searchCounter(KLTM_CollopState& state, uint32_t member,
                                             uint32_t counter) {
  KLTM_CollopWalk& walk = state.walks[member + 1];
  KLTM_Collop* found = nullptr;

  // First the operations that were skipped before. Operations that still wait are moved towards the
  // end of the list, the others are removed.
  size_t next = walk.first;
  size_t kept = 0;
  for (; next < walk.skipped.size() && found == nullptr; ++next) {
    const KLTM_OpenCollops::Reference skipped = walk.skipped[next];
    if (!skipped.open() || hasSeen(*skipped.entry, member)) continue;
    if (skipped.entry->counter == counter) {
      found = skipped.entry;
      continue;
    }
    decrementPending(*skipped.entry);
    if (skipped.entry->pending > 0) walk.skipped[walk.first + kept++] = skipped;
  }
  const auto begin = walk.skipped.begin() + static_cast<std::ptrdiff_t>(walk.first);
  std::move_backward(begin, begin + static_cast<std::ptrdiff_t>(kept),
                     walk.skipped.begin() + static_cast<std::ptrdiff_t>(next));
  walk.first = next - kept;
  if (found != nullptr) return found;

  if (walk.first > 0) {
    walk.skipped.erase(walk.skipped.begin(),
                       walk.skipped.begin() + static_cast<std::ptrdiff_t>(walk.first));
    walk.first = 0;
  }
  for (size_t i = state.open.from(walk.reached); i < state.open.size(); ++i) {
    KLTM_Collop* collop = state.open.at(i);
    if (collop == nullptr) continue;
    walk.reached = collop->sequence + 1;
    if (hasSeen(*collop, member)) continue;
    if (collop->counter == counter) return collop;
    decrementPending(*collop);
    if (collop->pending > 0) walk.skipped.push_back({collop->sequence, collop});
  }
  return nullptr;
}

void KLTM_CollopTable::decrementPending(KLTM_Collop& collop) {
  arena_.decrementPending(collop);
  if (collop.pending > 0) return;
  collop.state->open.remove(collop);
  if (collop.group == nullptr) return;
  collop.group->open.remove(collop);
  if (collop.group->open.count() > 0) return;
  collop.group->reached = KLT_IdMap<uint64_t>(kKltmDirectRanks);
}

void KLTM_CollopTable::add(KLTM_CollopState* state, uint32_t member, const KLTM_RawCollop& event) {
  const uint32_t n = state == nullptr ? 1 : state->members.size();
  KLTM_Collop& collop = arena_.append(*this, KLTM_Collop::bytes(n), event.time);
  ++added_;
  collop.time = event.time;
  collop.lastTime = event.endtime;
  collop.pending = n - 1;
  collop.operation = event.operation;
  collop.comm = event.comm;
  collop.counter = event.counter;
  collop.root = event.root;
  collop.hasRecord = hasRecord(state, event);
  if (!collop.hasRecord) ++unplaced_;
  collop.n = n;
  fill(collop, member, event);
  if (n == 1) return;
  collop.state = state;
  state->open.add(collop);
  if (state->grouped) group(*state, collop);
}

void KLTM_CollopTable::group(KLTM_CollopState& state, KLTM_Collop& collop) {
  // A trace can have any number of roots, so groups without open operations are removed.
  constexpr size_t kMany = 1024;
  if (state.groups.size() >= kMany && state.groups.size() >= 2 * state.open.count()) {
    std::erase_if(state.groups, [](const auto& kind) { return kind.second.open.count() == 0; });
  }
  collop.group = &state.groups[groupKey(collop.operation, collop.root)];
  collop.group->open.add(collop);
}

// --- writing ------------------------------------------------------------------------------------

uint32_t KLTM_CollopTable::collect(const KLTM_Collop& collop) {
  const uint32_t n = collop.n;
  arrays_.start.assign(n, KLTM_SeenMembers::kNotSeen);
  arrays_.delta.assign(n, 0);
  arrays_.sent.assign(n, 0);
  arrays_.received.assign(n, 0);
  arrays_.scl.assign(n, 0);
  for (const KLTM_SeenMembers::Member& member : collop.seen.all()) {
    const uint32_t i = member.rank;
    if (member.time != KLTM_SeenMembers::kNotSeen) {
      arrays_.start[i] = member.time - collop.time;
      arrays_.delta[i] = member.end - member.time;
    }
    arrays_.sent[i] = member.send;
    arrays_.received[i] = member.recv;
    arrays_.scl[i] = member.scl == klt::kNoScl ? 0 : member.scl;
  }
  if (collop.state == nullptr) return 0;
  uint32_t root = 0;
  uint32_t i = 0;
  KLTT_MemberList::Cursor member(collop.state->members);
  for (uint32_t gtp = 0; member.next(&gtp); ++i) {
    if (gtp == collop.root) root = i;
  }
  return root;
}

void KLTM_CollopTable::reportToSummary(const KLTM_Collop& collop) {
  const Kind kind = kindOf(collop.operation);
  summary_->collective_event(collop.time, isRooted(kind) ? collop.root : klt::kNoRoot, collop.comm,
                             collop.operation,
                             {.n = collop.n,
                              .start_time = arrays_.start.data(),
                              .delta = arrays_.delta.data(),
                              .send_size = arrays_.sent.data(),
                              .receive_size = arrays_.received.data(),
                              .scl = arrays_.scl.data()});
}

void KLTM_CollopTable::write(KLTM_Collop& collop) {
  const uint32_t root = collect(collop);
  if (summary_ != nullptr) reportToSummary(collop);
  if (collop.hasRecord) writeRecord(collop, root);
}

// Always writes source locations, so that a rewritten record has the same length.
void KLTM_CollopTable::writeRecord(KLTM_Collop& c, uint32_t root) {
  KLT_UpdateSlot* slot = c.pending > 0 || c.slot.position != 0 ? &c.slot : nullptr;
  const uint64_t* start = arrays_.start.data();
  const uint64_t* delta = arrays_.delta.data();
  const uint32_t* sent = arrays_.sent.data();
  const uint32_t* received = arrays_.received.data();
  const uint32_t* scl = arrays_.scl.data();
  switch (kindOf(c.operation)) {
    case Kind::kOneToAll:
      KLT_Write<KLT_Row::oneToAllCommunicationScl>(writer_, slot, c.time, c.root, sent[root],
                                                   c.comm, c.operation, c.n, start, delta, received,
                                                   scl);
      break;
    case Kind::kAllToOne:
      KLT_Write<KLT_Row::allToOneCommunicationScl>(writer_, slot, c.time, c.root, received[root],
                                                   c.comm, c.operation, c.n, start, delta, sent,
                                                   scl);
      break;
    case Kind::kAllToAll:
      KLT_Write<KLT_Row::allToAllCommunicationScl>(writer_, slot, c.time, c.comm, c.operation, c.n,
                                                   start, delta, sent, received, scl);
      break;
    case Kind::kAll:
      KLT_Write<KLT_Row::allCommunicationScl>(writer_, slot, c.time, c.comm, c.operation, c.n,
                                              start, delta, scl);
      break;
    case Kind::kNone:  // there is no record type for it
      break;
  }
}
