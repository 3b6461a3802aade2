// Handles records of point-to-point messages. A record describes both the send and the receive.
//
// Matched output has one line or record for a message. Otherwise each known side becomes a delayed
// record at its own time (kltt_queue).
#pragma once

#include <cstdint>

// `user` is the KLTT_Context, the other arguments are those of KLT_HandlerTable. `time` is the raw
// time of the send, and the receive is `delta` later. If `delta` is negative, `time` is that of the
// receive, and the send is -`delta` later. If `delta` is klt::kSendUnknown or klt::kReceiveUnknown,
// `time` is that of the known side. Returns 0, or 1 if the output failed.
int KLTT_OneToOneCommunication(void* user, uint64_t time, uint32_t sender, int64_t delta,
                               uint32_t receiver, uint32_t communicator, uint32_t size,
                               uint32_t tag, uint32_t senderScl, uint32_t receiverScl,
                               uint32_t senderChecksum, uint32_t receiverChecksum,
                               uint32_t senderFunction, uint32_t receiverFunction);
