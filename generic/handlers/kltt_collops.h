// Handlers of collective operations: one record tells what all members of a communicator did.
//
// Matched output writes an operation as one line; otherwise it becomes one delayed "GLOBALOP" for
// each member that took part, at the member's own start (kltt_queue). `user` is the KLTT_Context,
// the other arguments are those of KLT_HandlerTable, `starts` and `deltas` being raw time from
// `time` on and a start of all ones meaning "took no part". The handlers return 0, or 1 if the
// output failed; an unknown communicator ends the process.
#pragma once

#include <cstdint>

int KLTT_OneToAllCommunication(void* user, uint64_t time, uint32_t sender, uint32_t sent,
                               uint32_t communicator, uint32_t type, uint32_t n,
                               const uint64_t* starts, const uint64_t* deltas,
                               const uint32_t* received, const uint32_t* scls);
int KLTT_AllToOneCommunication(void* user, uint64_t time, uint32_t receiver, uint32_t recvd,
                               uint32_t communicator, uint32_t type, uint32_t n,
                               const uint64_t* starts, const uint64_t* deltas,
                               const uint32_t* sendSizes, const uint32_t* scls);
int KLTT_AllToAllCommunication(void* user, uint64_t time, uint32_t communicator, uint32_t type,
                               uint32_t n, const uint64_t* starts, const uint64_t* deltas,
                               const uint32_t* sendSizes, const uint32_t* receiveSizes,
                               const uint32_t* scls);
int KLTT_AllCommunication(void* user, uint64_t time, uint32_t communicator, uint32_t type,
                          uint32_t n, const uint64_t* starts, const uint64_t* deltas,
                          const uint32_t* scls);
