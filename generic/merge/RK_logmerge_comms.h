// The communicators that the merge knows: their members, and where among them a process stands.
//
// Members are kept as runs (kltt_members) and are written out only for the communicator at hand.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "generic/tables/kltt_idtable.h"
#include "generic/tables/kltt_members.h"
#include "util/triplets/pal_triplets.h"

// Members of a communicator as its definition names them; of a larger one, after an error, the
// first 65,535: more don't fit into a record.
[[nodiscard]] KLTT_MemberList KLTM_ExpandMembers(uint32_t id, PAL_TripletSpan triplets);

class KLTM_Communicators {
 public:
  // Id 0 means none and is passed over.
  void insertFirst(uint32_t id, KLTT_MemberList members);  // one that is known stays
  void replace(uint32_t id, KLTT_MemberList members);
  // Null if the id isn't known.
  [[nodiscard]] const KLTT_MemberList* find(uint32_t id) const;
  // The members in rank order, never null; valid until the next call for another communicator.
  // REQUIRES: the id is known.
  [[nodiscard]] const std::vector<uint32_t>& membersOf(uint32_t id);

 private:
  struct Communicator {
    uint32_t key = 0;
    KLTT_MemberList members;
  };

  KLTT_Table<Communicator> table_;
  uint32_t writtenOut_ = 0;  // the id that `members_` belongs to
  std::vector<uint32_t> members_;
};
