// The binary road of the handlers: records of an extraction into a new trace.
//
// Every function writes one record through the sink's writer and picks the shortest row that holds
// it. Times are internal; what a record stores beside them (spans of messages and operations) are
// differences of internal times. A location of 0 or 0x7fffffff is none. All return 0: a stream that
// can't be written is the writer's to report, the others go on.
#pragma once

#include <cstdint>
#include <span>

#include "generic/handlers/kltt_context.h"

struct KLT_WFileHandle;
struct PAL_Triplet;

// The writer of the current pass, null if there is none.
[[nodiscard]] inline KLT_WFileHandle* KLTT_Writer(const KLTT_Context& context) {
  return context.sink != nullptr ? context.sink->writer : nullptr;
}

// Definitions.
int KLTT_PutProcesses(KLT_WFileHandle* writer, std::span<const uint32_t> threads);
int KLTT_PutWillyName(KLT_WFileHandle* writer, uint32_t gtp, const char* name);
int KLTT_PutClock(KLT_WFileHandle* writer, double resolution, uint32_t eventBits);
int KLTT_PutDuration(KLT_WFileHandle* writer, uint64_t start, uint64_t end);
// Enters the path of a class as a text of the output and returns the text's id. 0 for one that is
// too long for a text: the names of the class and its parents tell the path as well.
[[nodiscard]] uint32_t KLTT_PutClassPath(KLT_WFileHandle* writer, const KLTT_Context& context,
                                         const KLTT_Class& of);
int KLTT_PutClass(KLT_WFileHandle* writer, uint32_t id, uint32_t path, const char* nameSelf,
                  uint32_t parent);
int KLTT_PutFunction(KLT_WFileHandle* writer, uint32_t id, const char* name, uint32_t classId);
int KLTT_PutScope(KLT_WFileHandle* writer, uint32_t id, const char* name, uint32_t classId,
                  uint32_t startScl, uint32_t endScl);
int KLTT_PutCommunicator(KLT_WFileHandle* writer, uint32_t id, const char* name,
                         std::span<const PAL_Triplet> members, uint32_t leftSize);
int KLTT_PutOperation(KLT_WFileHandle* writer, uint32_t id, const char* name, uint32_t kind);
// `flags` and `bounds` as the reader delivers them; the bounds' bytes are stored as they came.
int KLTT_PutCounter(KLT_WFileHandle* writer, uint32_t id, const char* name, uint32_t flags,
                    const uint64_t* bounds, uint32_t gtp, uint32_t classId, const char* unit);
int KLTT_PutGroup(KLT_WFileHandle* writer, uint32_t id, const char* name,
                  std::span<const uint32_t> members);
int KLTT_PutFile(KLT_WFileHandle* writer, uint32_t id, const char* name);
int KLTT_PutScl(KLT_WFileHandle* writer, uint32_t id, uint32_t n, const uint32_t* files,
                const uint32_t* lines, const char* const* symbols, const char* const* objects);
int KLTT_PutIoFile(KLT_WFileHandle* writer, uint32_t id, uint32_t communicator, const char* name);
int KLTT_PutStatisticsDefinition(KLT_WFileHandle* writer, uint32_t id, const char* name,
                                 uint32_t count, const char* const* labels,
                                 const char* const* units);

// Events.
int KLTT_PutEnterFunction(KLT_WFileHandle* writer, uint64_t time, uint32_t gtp, uint32_t function,
                          uint32_t scl);
int KLTT_PutLeaveFunction(KLT_WFileHandle* writer, uint64_t time, uint32_t gtp, uint32_t scl);
int KLTT_PutEnterScope(KLT_WFileHandle* writer, uint64_t time, uint32_t gtp, uint32_t scope,
                       uint32_t seqnr, uint32_t scl);
int KLTT_PutLeaveScope(KLT_WFileHandle* writer, uint64_t time, uint32_t gtp, uint32_t scope,
                       uint32_t seqnr, uint32_t scl);
int KLTT_PutComment(KLT_WFileHandle* writer, uint64_t time, uint32_t gtp, const char* text);
int KLTT_PutOpaque(KLT_WFileHandle* writer, uint64_t time, uint32_t gtp, uint32_t size,
                   const uint8_t* data, uint32_t scl);
int KLTT_PutFileIo(KLT_WFileHandle* writer, bool begin, uint64_t time, uint32_t gtp,
                   uint32_t operation, uint32_t file, uint32_t bytes, uint32_t scl);
// `values` as the reader delivers them; their bytes are stored as they came.
int KLTT_PutSamples(KLT_WFileHandle* writer, uint64_t time, uint32_t gtp, uint32_t count,
                    const uint32_t* counters, const uint64_t* values);

struct KLTT_MessageRecord {
  uint64_t time;  // of the earlier side
  uint32_t sender;
  int64_t receiveTime;  // difference of internal times, or a value for an unknown side
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
int KLTT_PutMessage(KLT_WFileHandle* writer, const KLTT_MessageRecord& message);

// The arrays belong to the caller.
struct KLTT_OperationRecord {
  uint64_t time;
  uint32_t communicator;
  uint32_t type;
  uint32_t n;
  const uint64_t* starts;  // differences of internal times; all ones for no part
  const uint64_t* deltas;
  uint32_t root;
  uint32_t rootBytes;
  const uint32_t* sent;      // null for zeros
  const uint32_t* received;  // null for zeros
  const uint32_t* scls;      // null for none
};
// In the form of the operation's `kind`, 1 one-to-all to 4 all; any other kind writes nothing.
int KLTT_PutOperationRecord(KLT_WFileHandle* writer, uint32_t kind, const KLTT_OperationRecord& op);
// What writes such a record later; it keeps copies of the arrays.
[[nodiscard]] KLTT_HeldRecords::Put KLTT_OperationPut(uint32_t kind,
                                                      const KLTT_OperationRecord& op);
