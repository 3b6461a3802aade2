// Handles message records. See kltt_messages.h.
#include "generic/handlers/kltt_messages.h"

#include <algorithm>

#include "generic/handlers/kltt_context.h"
#include "generic/handlers/kltt_events.h"
#include "klt/format/klt_spans.h"
#include "klt/format/klt_values.h"

namespace {

void queueSend(KLTT_Context& context, const RK_Message& m, uint64_t internalTime) {
  KLTT_Delayed& node = KLTT_QueueAdd(context.pending, internalTime);
  node.kind = KLTT_DelayedKind::kSendMsg;
  node.gtp = m.sender;
  node.message = {.peer = m.receiver,
                  .tag = m.tag,
                  .size = m.size,
                  .communicator = m.communicator,
                  .scl = m.senderScl,
                  .function = m.senderFunction};
}

void queueReceive(KLTT_Context& context, const RK_Message& m, uint64_t internalTime) {
  KLTT_Delayed& node = KLTT_QueueAdd(context.pending, internalTime);
  node.kind = KLTT_DelayedKind::kRecvMsg;
  node.gtp = m.receiver;
  node.message = {.peer = m.sender,
                  .tag = m.tag,
                  .size = m.size,
                  .communicator = m.communicator,
                  .scl = m.receiverScl,
                  .function = m.receiverFunction};
}

// Queues an event for each known side of a message. `ownInternalTime` is the time of the earlier or
// only side (in a history the start of the window), `end` the raw time of the later side.
void queueUnmatched(KLTT_Context& context, const RK_Message& m, uint64_t ownInternalTime,
                    uint64_t end) {
  if (static_cast<uint64_t>(m.receiveTime) == klt::kReceiveUnknown) {
    queueSend(context, m, ownInternalTime);
  } else if (static_cast<uint64_t>(m.receiveTime) == klt::kSendUnknown) {
    queueReceive(context, m, ownInternalTime);
  } else if (m.receiveTime < 0) {
    queueReceive(context, m, ownInternalTime);
    queueSend(context, m, KLTT_InternalTime(context, end));
  } else {
    queueSend(context, m, ownInternalTime);
    queueReceive(context, m, KLTT_InternalTime(context, end));
  }
}

}  // namespace

int KLTT_OneToOneCommunication(void* user, uint64_t time, uint32_t sender, int64_t delta,
                               uint32_t receiver, uint32_t communicator, uint32_t size,
                               uint32_t tag, uint32_t senderScl, uint32_t receiverScl,
                               uint32_t senderChecksum, uint32_t receiverChecksum,
                               uint32_t senderFunction, uint32_t receiverFunction) {
  KLTT_Context& context = *static_cast<KLTT_Context*>(user);
  const RK_Message m{time,
                     sender,
                     delta,
                     receiver,
                     communicator,
                     size,
                     tag,
                     senderScl,
                     receiverScl,
                     senderChecksum,
                     receiverChecksum,
                     senderFunction,
                     receiverFunction};
  const uint64_t ownInternalTime = KLTT_InternalTime(context, KLTT_EventTime(context, time));
  const uint64_t end = klt::messageEnd(time, delta);
  if (!klt::isUnknownSide(delta)) context.lastEventTime = std::max(context.lastEventTime, end);
  if (KLTT_LogFormatRecord(context, ownInternalTime) != 0) return 1;
  if (context.matched) return context.sink == nullptr ? 0 : context.sink->message(context, m);
  queueUnmatched(context, m, ownInternalTime, end);
  return 0;
}
