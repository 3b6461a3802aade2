// Stores communicators. See RK_logmerge_comms.h.
#include "generic/merge/RK_logmerge_comms.h"

#include <algorithm>
#include <utility>

#include "util/pal_error.h"

KLTT_MemberList KLTM_ExpandMembers(uint32_t id, PAL_TripletSpan triplets) {
  constexpr uint32_t kLargest = 65535;
  const PAL_Triplets members = PAL_TripletsExpandable(triplets);
  if (const uint32_t count = PAL_TripletsCount(members); count > kLargest) {
    PAL_Error("communicator %u has %u members, all above %u are left out", id, count, kLargest);
  }
  return KLTT_MemberList(members, kLargest);
}

void KLTM_Communicators::insertFirst(uint32_t id, KLTT_MemberList members) {
  if (Communicator* communicator = table_.insert(id)) communicator->members = std::move(members);
}

void KLTM_Communicators::replace(uint32_t id, KLTT_MemberList members) {
  Communicator* communicator = table_.find(id);
  if (communicator == nullptr) communicator = table_.insert(id);
  if (communicator == nullptr) return;
  communicator->members = std::move(members);
  if (expandedId_ == id) expandedId_ = 0;
}

const KLTT_MemberList* KLTM_Communicators::find(uint32_t id) const {
  const Communicator* communicator = table_.find(id);
  return communicator == nullptr ? nullptr : &communicator->members;
}

const std::vector<uint32_t>& KLTM_Communicators::membersOf(uint32_t id, size_t most) {
  const KLTT_MemberList& list = *find(id);
  if (expandedId_ == id && members_.size() >= std::min<size_t>(most, list.size())) return members_;
  members_.clear();
  members_.reserve(1);  // so that data() isn't null for a communicator without members
  KLTT_MemberList::Cursor member(list);
  for (uint32_t gtp = 0; members_.size() < most && member.next(&gtp);) members_.push_back(gtp);
  expandedId_ = id;
  return members_;
}
