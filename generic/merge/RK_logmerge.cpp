// Matching of raw events. See RK_logmerge.h.
#include "generic/merge/RK_logmerge.h"

#include <utility>

void KLTM_Matching::declareProcesses(uint32_t count) {
  constexpr uint32_t kMostBits = 16;
  processBits_ = 2;
  processMask_ = 3;
  if (count == 0) return;
  while (((count - 1) & ~processMask_) != 0 && processBits_ < kMostBits) {
    ++processBits_;
    processMask_ = processMask_ * 2 + 1;
  }
}

void KLTM_Matching::registerCommunicator(uint32_t id, KLTT_MemberList members) {
  communicators_.replace(id, std::move(members));
}

void KLTM_Matching::start(KLT_WFileHandle* writer, KLTT_Summary* summary, uint64_t blockBytes) {
  messages_ = std::make_unique<KLTM_MessageTable>(writer, summary, blockBytes);
  collops_ = std::make_unique<KLTM_CollopTable>(writer, summary, communicators_, blockBytes);
}

void KLTM_Matching::message(const KLTM_RawMessage& event) {
  constexpr uint32_t kTypeBits = 0x3f;
  constexpr uint32_t kSend = 7;
  messages_->event({.time = event.time,
                    .sent = (event.kind & kTypeBits) == kSend,
                    .gtp = gtpOf(event.kind),
                    .other = event.other,
                    .tag = event.tag,
                    .size = event.size,
                    .comm = event.comm,
                    .scl = event.scl,
                    .function = event.function});
}

void KLTM_Matching::collop(const KLTM_RawCollop& event) {
  collops_->event({.time = event.time,
                   .endtime = event.endtime,
                   .process = gtpOf(event.kind) & 0xffff,
                   .operation = event.operation,
                   .comm = event.comm,
                   .counter = event.counter,
                   .root = event.root,
                   .send = event.send,
                   .recv = event.recv,
                   .scl = event.scl});
}

void KLTM_Matching::finish() {
  messages_->finish();
  collops_->finish();
  messages_ = nullptr;
  collops_ = nullptr;
}
