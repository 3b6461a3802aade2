// The handler of point-to-point messages: a record holds both the send and the receive.
//
// Matched output writes a message as one line; otherwise each side becomes a delayed record at its
// own time (kltt_queue).
#pragma once

#include <cstdint>

// `user` is the KLTT_Context, the other arguments are those of KLT_HandlerTable. `delta` leads from
// `time`, raw time, to the other side: `time` is the receive if it is negative. Returns 0, or 1 if
// the output failed.
int KLTT_OneToOneCommunication(void* user, uint64_t time, uint32_t sender, int64_t delta,
                               uint32_t receiver, uint32_t communicator, uint32_t size,
                               uint32_t tag, uint32_t senderScl, uint32_t receiverScl,
                               uint32_t senderChecksum, uint32_t receiverChecksum,
                               uint32_t senderFunction, uint32_t receiverFunction);
