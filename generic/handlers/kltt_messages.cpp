// The handler of point-to-point messages. See kltt_messages.h.
#include "generic/handlers/kltt_messages.h"

#include <algorithm>

#include "generic/handlers/kltt_context.h"
#include "generic/handlers/kltt_events.h"
#include "generic/options/RK_conf.h"
#include "generic/sink/kltt_binary.h"
#include "generic/text/RK_rkf.h"

namespace {

// The arguments of KLTT_OneToOneCommunication: raw time and a raw span in `time`, `receiveTime`.
struct Message : KLTT_MessageRecord {
  [[nodiscard]] bool sendUnknown() const {
    return static_cast<uint64_t>(receiveTime) == KLTT_SEND_UNKNOWN;
  }
  [[nodiscard]] bool receiveUnknown() const {
    return static_cast<uint64_t>(receiveTime) == KLTT_RECEIVE_UNKNOWN;
  }
  // Raw time of the other, later side. `time` is the receive if the span is negative.
  [[nodiscard]] uint64_t otherTime() const {
    return KLTT_TimeAfter(time,
                          static_cast<uint64_t>(receiveTime < 0 ? -receiveTime : receiveTime));
  }
};

// A record keeps its own time, whichever side that is; only its span becomes internal.
int putRecord(KLTT_Context& context, KLT_WFileHandle* writer, Message& m) {
  const uint64_t time = KLTT_InternalTime(context, m.time);
  if (!m.sendUnknown() && !m.receiveUnknown()) {
    const auto distance = static_cast<int64_t>(KLTT_InternalTime(context, m.otherTime()) - time);
    m.receiveTime = m.receiveTime < 0 ? -distance : distance;
  }
  m.time = time;
  if (!KLTT_MustWait(context, time)) return KLTT_PutMessage(writer, m);
  return KLTT_Hold(context, time, [record = KLTT_MessageRecord(m)](auto* to) {
    return KLTT_PutMessage(to, record);
  });
}

int writeMatched(KLTT_Context& context, Message& m) {
  if (KLT_WFileHandle* writer = KLTT_Writer(context)) return putRecord(context, writer, m);
  RK_Output* text = KLTT_Text(context);
  if (text == nullptr) return 0;
  const uint64_t ownShown = KLTT_ShownTime(context, KLTT_InternalTime(context, m.time));
  uint64_t sendTime = ownShown;
  int64_t delta = m.receiveTime;
  if (m.sendUnknown()) {
    sendTime = KLTT_SEND_UNKNOWN;
    delta = static_cast<int64_t>(ownShown);
  } else if (m.receiveTime < 0 && !m.receiveUnknown()) {
    sendTime = KLTT_ShownTime(context, KLTT_InternalTime(context, m.otherTime()));
  }
  return RK_WriteOneToOne(text, sendTime, m.sender, m.receiver, delta, m.communicator, m.size,
                          m.tag, m.senderScl, m.receiverScl, m.senderChecksum, m.receiverChecksum,
                          m.senderFunction, m.receiverFunction);
}

void queueSend(KLTT_Context& context, const Message& m, uint64_t internalTime) {
  KLTT_Delayed& node = context.pending.add(internalTime);
  node.kind = KLTT_DelayedKind::kSendMsg;
  node.gtp = m.sender;
  node.message = {.peer = m.receiver,
                  .tag = m.tag,
                  .size = m.size,
                  .communicator = m.communicator,
                  .scl = m.senderScl,
                  .function = m.senderFunction};
}

void queueReceive(KLTT_Context& context, const Message& m, uint64_t internalTime) {
  KLTT_Delayed& node = context.pending.add(internalTime);
  node.kind = KLTT_DelayedKind::kRecvMsg;
  node.gtp = m.receiver;
  node.message = {.peer = m.sender,
                  .tag = m.tag,
                  .size = m.size,
                  .communicator = m.communicator,
                  .scl = m.receiverScl,
                  .function = m.receiverFunction};
}

void queueUnmatched(KLTT_Context& context, const Message& m, uint64_t ownInternalTime) {
  if (m.receiveUnknown()) {
    queueSend(context, m, ownInternalTime);
  } else if (m.sendUnknown()) {
    queueReceive(context, m, ownInternalTime);
  } else if (m.receiveTime < 0) {
    queueReceive(context, m, ownInternalTime);
    queueSend(context, m, KLTT_InternalTime(context, m.otherTime()));
  } else {
    queueSend(context, m, ownInternalTime);
    queueReceive(context, m, KLTT_InternalTime(context, m.otherTime()));
  }
}

}  // namespace

int KLTT_OneToOneCommunication(void* user, uint64_t time, uint32_t sender, int64_t delta,
                               uint32_t receiver, uint32_t communicator, uint32_t size,
                               uint32_t tag, uint32_t senderScl, uint32_t receiverScl,
                               uint32_t senderChecksum, uint32_t receiverChecksum,
                               uint32_t senderFunction, uint32_t receiverFunction) {
  KLTT_Context& context = *static_cast<KLTT_Context*>(user);
  Message m{{time, sender, delta, receiver, communicator, size, tag, senderScl, receiverScl,
             senderChecksum, receiverChecksum, senderFunction, receiverFunction}};
  const uint64_t ownInternalTime = KLTT_InternalTime(context, KLTT_EventTime(context, time));
  if (!m.sendUnknown() && !m.receiveUnknown())
    context.lastEventTime = std::max(context.lastEventTime, m.otherTime());
  if (KLTT_LogFormatRecord(context, ownInternalTime) != 0) return 1;
  if (RK_conf.matched_rkf != 0) return writeMatched(context, m);
  queueUnmatched(context, m, ownInternalTime);
  return 0;
}
