// Pairs sends with receives. See RK_logmerge_messages.h.
#include "generic/merge/RK_logmerge_messages.h"

#include "generic/summary/kltt_summary.h"
#include "klt/format/klt_values.h"
#include "klt/write/klt_write.h"

namespace {

using klt::processOf;

constexpr size_t kFirstBuckets = 1024;

int64_t receiveTime(const KLTM_Message& m) {
  if (m.receiver.time == KLTM_Message::kNotSeen) return static_cast<int64_t>(klt::kReceiveUnknown);
  if (m.sender.time == KLTM_Message::kNotSeen) return static_cast<int64_t>(klt::kSendUnknown);
  return static_cast<int64_t>(m.receiver.time - m.sender.time);
}

// The row for a message that is written for the first time. A complete message gets the row with
// source locations if an event has one. A message that waits for an event gets it too, because that
// event may have a location, and the record is then written again with the same length. If the
// location of the sender is 0, the row has no locations, and that of the receiver is not written.
uint8_t rowOf(const KLTM_Message& m) {
  const bool extended =
      m.pending > 0 || m.sender.scl != klt::kNoScl || m.receiver.scl != klt::kNoScl;
  const bool located = extended && m.sender.scl != 0;
  if (m.tag < 0x10000) {
    return located ? KLT_Row::oneToOneCommunicationScl : KLT_Row::oneToOneCommunication;
  }
  return located ? KLT_Row::oneToOneCommunicationWideScl : KLT_Row::oneToOneCommunicationWide;
}

}  // namespace

KLTM_MessageTable::KLTM_MessageTable(KLT_WFileHandle* writer, KLTT_Summary* summary,
                                     uint64_t blockBytes)
    : writer_(writer), summary_(summary), arena_(blockBytes), buckets_(kFirstBuckets) {}

void KLTM_MessageTable::event(const KLTM_RawMessage& event, uint32_t gtp) {
  const bool sent = event.isSend();
  if (!sent && !event.isReceive()) [[unlikely]]
    ++strange_;
  const uint32_t own = processOf(gtp);
  const uint32_t peer = processOf(event.other);
  const uint32_t sender = sent ? own : peer;
  const uint32_t receiver = sent ? peer : own;
  const uint32_t hash = hash_({sender, receiver, event.comm, event.tag, event.size});
  // The oldest message with the same key whose known side is of the event's type (send or receive).
  KLTM_Message* equal = nullptr;
  for (KLTM_Message** link = &bucketOf(hash); *link != nullptr; link = &(*link)->chainNext) {
    KLTM_Message& m = **link;
    if (m.tag != event.tag || m.comm != event.comm || m.size != event.size ||
        processOf(m.sender.gtp) != sender || processOf(m.receiver.gtp) != receiver) {
      continue;
    }
    if (m.waitsForSend != sent) {
      equal = &m;
      continue;
    }
    if (event.other != peer) continue;  // `other` isn't a process number, so nothing matches
    if (m.queueNext != nullptr) {
      m.queueNext->queueEnd = m.queueEnd;
      m.queueNext->chainNext = m.chainNext;
      *link = m.queueNext;
    } else {
      *link = m.chainNext;
      --keys_;
    }
    (sent ? m.sender : m.receiver) = {event.time, gtp, event.scl, event.function};
    m.lastTime = event.time;
    arena_.decrementPending(m);
    return;
  }
  add(event, gtp, hash, equal);
}

void KLTM_MessageTable::add(const KLTM_RawMessage& event, uint32_t gtp, uint32_t hash,
                            KLTM_Message* equal) {
  const bool sent = event.isSend();
  KLTM_Message& m = arena_.append(*this, KLTM_Message::bytes(), event.time);
  ++added_;
  m.time = m.lastTime = event.time;
  m.pending = 1;
  m.size = event.size;
  m.comm = event.comm;
  m.tag = event.tag;
  m.waitsForSend = !sent;
  (sent ? m.sender : m.receiver) = {event.time, gtp, event.scl, event.function};
  (sent ? m.receiver : m.sender).gtp = event.other;
  if (equal != nullptr) {
    equal->queueEnd->queueNext = &m;
    equal->queueEnd = &m;
    return;
  }
  m.queueEnd = &m;
  if (++keys_ > buckets_.size()) growBuckets();
  m.chainNext = bucketOf(hash);
  bucketOf(hash) = &m;
}

void KLTM_MessageTable::growBuckets() {
  std::vector<KLTM_Message*> old(4 * buckets_.size());
  old.swap(buckets_);
  for (KLTM_Message* head : old) {
    while (head != nullptr) {
      KLTM_Message& m = *head;
      head = m.chainNext;
      KLTM_Message*& bucket = bucketOf(
          hash_({processOf(m.sender.gtp), processOf(m.receiver.gtp), m.comm, m.tag, m.size}));
      m.chainNext = bucket;
      bucket = &m;
    }
  }
}

void KLTM_MessageTable::write(KLTM_Message& m) {
  const int64_t span = receiveTime(m);
  if (summary_ != nullptr) {
    summary_->message_event({.time = m.time,
                             .duration = span,
                             .sender = m.sender.gtp,
                             .receiver = m.receiver.gtp,
                             .communicator = m.comm,
                             .size = m.size,
                             .tag = m.tag,
                             .senderScl = m.sender.scl,
                             .receiverScl = m.receiver.scl,
                             .senderFunction = m.sender.function,
                             .receiverFunction = m.receiver.function});
  }
  if (m.row == 0) m.row = rowOf(m);
  KLT_UpdateSlot* slot = m.pending > 0 || m.slot.position != 0 ? &m.slot : nullptr;
  const auto plain = [&]<int N>() {
    KLT_Write<N>(writer_, slot, m.time, m.sender.gtp, span, m.receiver.gtp, m.comm, m.size, m.tag,
                 m.sender.function, m.receiver.function);
  };
  const auto located = [&]<int N>() {
    KLT_Write<N>(writer_, slot, m.time, m.sender.gtp, span, m.receiver.gtp, m.comm, m.size, m.tag,
                 m.sender.scl, m.receiver.scl, m.sender.function, m.receiver.function);
  };
  // Failures are ignored: the writer has reported them, and the merge continues for the summary and
  // the other components.
  switch (m.row) {
    case KLT_Row::oneToOneCommunication:
      return plain.operator()<KLT_Row::oneToOneCommunication>();
    case KLT_Row::oneToOneCommunicationScl:
      return located.operator()<KLT_Row::oneToOneCommunicationScl>();
    case KLT_Row::oneToOneCommunicationWide:
      return plain.operator()<KLT_Row::oneToOneCommunicationWide>();
    default:
      return located.operator()<KLT_Row::oneToOneCommunicationWideScl>();
  }
}
