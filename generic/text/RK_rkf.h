// Writes the lines of RKF, the text form of a trace: one function for each kind of line.
//
// Every writer takes the output first and then the values of the line. It returns 0, or 1 once the
// output has failed. Values are passed as the trace stores them. The writers add 1 to threads (but
// not in COMDEF and COLLOP lines) and to some ids, which the text counts from 1; leave out a source
// location (SCL) of 0 or 0x7fffffff; and write a missing text as "(null)". A time stamp is the
// value of RK_SinkTime, signed unless a comment says otherwise. Lines and parts marked [extended]
// are only written if the output is `extended`.
#pragma once

#include <cstdint>
#include <span>

#include "util/triplets/pal_triplets.h"

struct RK_Output;

// One side of a message.
struct RK_MessageSide {
  uint32_t peer;  // gtp of the other side
  uint32_t tag;
  uint32_t size;
  uint32_t communicator;
  uint32_t scl;
  uint32_t function;
};

// Both sides of a message, with the fields in the order of its record.
struct RK_Message {
  uint64_t time;
  uint32_t sender;
  int64_t receiveTime;  // receive minus send, or one of the values for an unknown side
  uint32_t receiver;
  uint32_t communicator;
  uint32_t size;
  uint32_t tag;
  uint32_t senderScl;
  uint32_t receiverScl;
  uint32_t senderChecksum;
  uint32_t receiverChecksum;
  uint32_t senderFunction;
  uint32_t receiverFunction;
};

// A member's part in a collective operation.
struct RK_OperationPart {
  uint32_t operation;
  uint32_t communicator;
  uint32_t root;
  uint32_t sent;
  uint32_t received;
  uint32_t scl;
};

// A collective operation with the parts of all members.
struct RK_Collective {
  uint64_t time;
  uint32_t kind;  // a klt::CollopKind; invalid ones are written as UNDEFINED
  uint32_t operation;
  uint32_t communicator;
  uint32_t root;           // gtp, or klt::kNoRoot
  uint32_t rootBytes;      // not written as text
  uint32_t n;              // number of elements in each array
  const uint64_t* starts;  // relative to `time`; see klt::isUnknownStart
  const uint64_t* deltas;
  const uint32_t* sent;  // this and the next two may be null
  const uint32_t* received;
  const uint32_t* scls;
};

// Definitions.
int RK_WriteNcpus(RK_Output* out, std::span<const uint32_t> counts);
int RK_WriteThreadNums(RK_Output* out, std::span<const uint32_t> counts);
int RK_WriteCpuSym(RK_Output* out, uint32_t gtp, const char* name);
int RK_WriteClock(RK_Output* out, double resolution, uint32_t eventBits);  // EVENTBITS [extended]
int RK_WriteDuration(RK_Output* out, uint64_t start, uint64_t end);        // [extended]
int RK_WriteAct(RK_Output* out, uint32_t classId, const char* name);
int RK_WriteSampClass(RK_Output* out, uint32_t classId, const char* name);
int RK_WriteState(RK_Output* out, uint32_t function, uint32_t classId, const char* name);
int RK_WriteGlobalOpToken(RK_Output* out, uint32_t operation, const char* name);
int RK_WriteFileToken(RK_Output* out, uint32_t file, const char* name);
int RK_WriteScl(RK_Output* out, uint32_t scl, uint32_t n, const uint32_t* files,
                const uint32_t* lines);
int RK_WriteGroup(RK_Output* out, uint32_t group, const char* name,
                  std::span<const uint32_t> members);
// `flags`: bit 0 integer counter, bits 2 to 4 rate hint, 0x80 differential. `bounds`: the lower and
// the upper bound in host order, a double as its bits.
int RK_WriteSamp(RK_Output* out, uint32_t counter, uint32_t classId, uint32_t gtp, uint32_t flags,
                 const uint64_t* bounds, const char* name, const char* unit);
int RK_WriteIoFile(RK_Output* out, uint32_t file, uint32_t communicator, const char* name);
int RK_WriteScope(RK_Output* out, uint32_t scope, uint32_t classId, const char* name,
                  uint32_t startScl, uint32_t endScl);  // [extended]
int RK_WriteComDef(RK_Output* out, uint32_t communicator, uint32_t memberCount,
                   PAL_TripletSpan members, const char* name);  // NAME [extended]

// Events.
// `enter`: true for "DOWNTO", false for "UPTO". `function` is entered or returned to; 0 for none.
int RK_WriteExchange(RK_Output* out, uint64_t time, uint32_t gtp, bool enter, uint32_t function,
                     uint32_t scl);
// `gtp` is the sending or receiving thread. FUNCTION [extended]
int RK_WriteSendMsg(RK_Output* out, uint64_t time, uint32_t gtp, const RK_MessageSide& side);
int RK_WriteRecvMsg(RK_Output* out, uint64_t time, uint32_t gtp, const RK_MessageSide& side);
int RK_WriteGlobalOp(RK_Output* out, uint64_t time, uint32_t gtp, int64_t duration,
                     const RK_OperationPart& part);
// types[i] is 1 for an integer value, anything else for a double. Values are in host order.
int RK_WriteSamps(RK_Output* out, uint64_t time, uint32_t gtp, uint32_t count,
                  const uint32_t* counters, const uint8_t* types, const uint64_t* values);
int RK_WriteComment(RK_Output* out, uint64_t time, const char* text);
int RK_WriteOpaque(RK_Output* out, uint64_t time, uint32_t gtp, uint32_t size, const uint8_t* data,
                   uint32_t scl);
int RK_WriteFileIoBegin(RK_Output* out, uint64_t time, uint32_t operation, uint32_t gtp,
                        uint32_t file, uint32_t bytes, uint32_t scl);
int RK_WriteFileIoEnd(RK_Output* out, uint64_t time, uint32_t operation, uint32_t gtp,
                      uint32_t file, uint32_t bytes, uint32_t scl);
int RK_WriteBeginScope(RK_Output* out, uint64_t time, uint32_t gtp, uint32_t scope, uint32_t seqnr,
                       uint32_t scl);  // [extended]
int RK_WriteEndScope(RK_Output* out, uint64_t time, uint32_t gtp, uint32_t scope, uint32_t seqnr,
                     uint32_t scl);  // [extended]

// Matched forms, with unsigned time stamps.
// A `time` of klt::kSendUnknown is written as UNKNOWN, and `receiveTime` is then the time of the
// receive. A `receiveTime` of klt::kReceiveUnknown is written as UNKNOWN, too.
int RK_WriteOneToOne(RK_Output* out, const RK_Message& message);
// A start of all ones, or one less, is written as UNKNOWN, and so is its delta.
int RK_WriteCollOp(RK_Output* out, const RK_Collective& operation);
