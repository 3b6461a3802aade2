// KLTM_Communicators stores the members of communicators for the merge.
//
// Members are stored as runs (kltt_members) and expanded for one communicator at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "generic/tables/kltt_idtable.h"
#include "generic/tables/kltt_members.h"
#include "util/triplets/pal_triplets.h"

// The members of a communicator in the order of its definition. A record can hold 65,535 members;
// if there are more, the others are left out after an error message.
[[nodiscard]] KLTT_MemberList KLTM_ExpandMembers(uint32_t id, PAL_TripletSpan triplets);

class KLTM_Communicators {
 public:
  // Both ignore id 0, which means none. insertFirst() keeps an earlier definition of the id.
  void insertFirst(uint32_t id, KLTT_MemberList members);
  void replace(uint32_t id, KLTT_MemberList members);
  // Null if the id is unknown.
  [[nodiscard]] const KLTT_MemberList* find(uint32_t id) const;
  // At least the first `most` members in rank order, or all; data() is never null. Valid until the
  // next call. REQUIRES: the id is known.
  [[nodiscard]] const std::vector<uint32_t>& membersOf(uint32_t id, size_t most);

 private:
  struct Communicator {
    uint32_t key = 0;
    KLTT_MemberList members;
  };

  KLTT_Table<Communicator> table_;
  uint32_t expandedId_ = 0;  // the id that `members_` belongs to
  std::vector<uint32_t> members_;
};
