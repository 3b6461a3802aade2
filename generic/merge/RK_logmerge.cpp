// Matches raw events. See RK_logmerge.h.
#include "generic/merge/RK_logmerge.h"

#include <utility>

#include "klt/format/klt_values.h"

namespace {

// The thread that logged an event, as process | thread << 16.
uint32_t gtpOf(const KLTM_Matching& matching, uint32_t kind) {
  const uint32_t thread = kind >> 6 >> matching.processBits;
  return (kind >> 6 & matching.processMask) | thread << 16;
}

}  // namespace

void KLTM_DeclareProcesses(KLTM_Matching& matching, uint32_t count) {
  constexpr uint32_t kMostBits = 16;
  matching.processBits = 2;
  matching.processMask = 3;
  if (count == 0) return;
  while (((count - 1) & ~matching.processMask) != 0 && matching.processBits < kMostBits) {
    ++matching.processBits;
    matching.processMask = matching.processMask * 2 + 1;
  }
}

void KLTM_ResetCommunicators(KLTM_Matching& matching) { matching.communicators = {}; }

void KLTM_FreeCommunicators(KLTM_Matching& matching) { matching.communicators = {}; }

void KLTM_RegisterCommunicator(KLTM_Matching& matching, uint32_t id, KLTT_MemberList members) {
  matching.communicators.replace(id, std::move(members));
}

void KLTM_MatchStart(KLTM_Matching& matching, KLT_WFileHandle* writer, KLTT_Summary* summary,
                     uint64_t blockBytes) {
  matching.messages = std::make_unique<KLTM_MessageTable>(writer, summary, blockBytes);
  matching.collops =
      std::make_unique<KLTM_CollopTable>(writer, summary, matching.communicators, blockBytes);
}

void KLTM_MatchMessage(KLTM_Matching& matching, const KLTM_RawMessage& event) {
  matching.messages->event(event, gtpOf(matching, event.kind));
}

void KLTM_MatchCollective(KLTM_Matching& matching, const KLTM_RawCollop& event) {
  matching.collops->event(event, klt::processOf(gtpOf(matching, event.kind)));
}

void KLTM_MatchFinish(KLTM_Matching& matching) {
  matching.messages->finish();
  matching.collops->finish();
  matching.messages = nullptr;
  matching.collops = nullptr;
}
