// Writes KLT traces: open, definitions, events, close.
//
//   std::string error;
//   const KLT_OwnedWriter trace = KLT_CreateTrace("run.klt", {.resolution = 1e-9}, error);
//   KLT_DefineProcesses(trace.get(), {1, 1});
//   KLT_DefineFunction(trace.get(), 1, "main", kKltClassApplication);
//   KLT_PutEnter(trace.get(), 0, 0, 1);
//   ...
//   if (const std::string problem = KLT_FinishTrace(trace.get()); !problem.empty()) ...
//
// A time is a number of ticks since the start of the run. A thread is its process number, plus its
// number within the process shifted left by 16 (KLT_ThreadOf). The events of one thread are written
// in order of time, those of different threads in any order; messages and collective operations of
// a complete trace in order of their start. Ids are the caller's; 0 isn't an id. Definitions may be
// written at any time before the trace is finished.
//
// Every function returns whether the record has been written; the first failure is kept and is what
// KLT_FinishTrace returns. All functions run on the caller's thread.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "klt/klt_messages.h"

struct KLT_TraceWriter;

struct KLT_TraceOptions {
  double resolution = 1e-9;  // seconds of a tick
  bool single = false;       // one file instead of a file for each component
  bool raw = false;          // one-sided events (KLT_PutRaw...), to be merged by klttool --merge
};

// Creates the trace `name`, a path. Null if that fails; `error` then has the reason.
[[nodiscard]] KLT_TraceWriter* KLT_CreateTrace(const std::string& name,
                                               const KLT_TraceOptions& options, std::string& error);
// Writes what is still buffered, the duration, the number of events and the index. Without it the
// trace can't be opened. Returns the first failure of all, or an empty text.
[[nodiscard]] std::string KLT_FinishTrace(KLT_TraceWriter* writer);
// Frees the writer, finished or not.
void KLT_FreeTrace(KLT_TraceWriter* writer);

struct KLT_TraceFreer {
  void operator()(KLT_TraceWriter* writer) const { KLT_FreeTrace(writer); }
};
using KLT_OwnedWriter = std::unique_ptr<KLT_TraceWriter, KLT_TraceFreer>;

[[nodiscard]] constexpr uint32_t KLT_ThreadOf(uint32_t process, uint32_t thread) {
  return process | thread << 16;
}

// --- Definitions ---

// The classes of functions, scopes and counters that every trace has.
inline constexpr uint32_t kKltClassApplication = 1;
inline constexpr uint32_t kKltClassMpi = 2;

// Who a counter belongs to: a thread, or all processes.
inline constexpr uint32_t kKltAllProcesses = 0x80000001;

// The number of threads of each process. Required, once; at most 65,536 processes.
bool KLT_DefineProcesses(KLT_TraceWriter* writer, const std::vector<uint32_t>& threads);
bool KLT_DefineThreadName(KLT_TraceWriter* writer, uint32_t thread, const char* name);
bool KLT_DefineHost(KLT_TraceWriter* writer, uint32_t thread, const char* host, uint32_t pid);
// A class with an id above 2. A class "outer:inner" needs no definition of "outer".
bool KLT_DefineClass(KLT_TraceWriter* writer, uint32_t id, const char* name);
bool KLT_DefineFunction(KLT_TraceWriter* writer, uint32_t id, const char* name, uint32_t classId);
bool KLT_DefineScope(KLT_TraceWriter* writer, uint32_t id, const char* name, uint32_t classId);
// A communicator of processes in the order of their ranks; of an intercommunicator the first
// `leftSize` processes are one group and the others the second. At most 65,535 communicators.
bool KLT_DefineCommunicator(KLT_TraceWriter* writer, uint32_t id, const char* name,
                            std::span<const uint32_t> processes, int32_t leftSize = -2);
bool KLT_DefineFile(KLT_TraceWriter* writer, uint32_t id, const char* name, uint32_t communicator);
// A counter of 64-bit integers, or of doubles if `isReal`.
bool KLT_DefineCounter(KLT_TraceWriter* writer, uint32_t id, const char* name, const char* unit,
                       bool isReal, uint32_t owner);
// A text about the run.
bool KLT_DefineInfo(KLT_TraceWriter* writer, const char* text);

// --- Events of a thread ---

bool KLT_PutEnter(KLT_TraceWriter* writer, uint64_t time, uint32_t thread, uint32_t function);
bool KLT_PutLeave(KLT_TraceWriter* writer, uint64_t time, uint32_t thread);
// Scopes needn't be nested: `instance` distinguishes open scopes of one id.
bool KLT_PutScopeBegin(KLT_TraceWriter* writer, uint64_t time, uint32_t thread, uint32_t scope,
                       uint32_t instance);
bool KLT_PutScopeEnd(KLT_TraceWriter* writer, uint64_t time, uint32_t thread, uint32_t scope,
                     uint32_t instance);
bool KLT_PutSample(KLT_TraceWriter* writer, uint64_t time, uint32_t thread, uint32_t counter,
                   int64_t value);
bool KLT_PutRealSample(KLT_TraceWriter* writer, uint64_t time, uint32_t thread, uint32_t counter,
                       double value);
// Reading or writing `bytes` bytes of a file; an end has the bytes that were transferred.
enum class KLT_FileOperation : uint32_t { kRead = 1, kWrite = 2 };
bool KLT_PutFileBegin(KLT_TraceWriter* writer, uint64_t time, uint32_t thread,
                      KLT_FileOperation operation, uint32_t file, uint32_t bytes);
bool KLT_PutFileEnd(KLT_TraceWriter* writer, uint64_t time, uint32_t thread,
                    KLT_FileOperation operation, uint32_t file, uint32_t bytes);
bool KLT_PutComment(KLT_TraceWriter* writer, uint64_t time, uint32_t thread, const char* text);

// --- Messages and collective operations ---

// The id of a collective operation by its MPI name ("MPI_Bcast"), 1 to 45; 0 if there is none.
[[nodiscard]] uint32_t KLT_CollectiveOperation(const char* name);

// What sender and receiver of a message have in common.
struct KLT_Envelope {
  uint32_t communicator = 0;
  uint32_t tag = 0;
  uint32_t bytes = 0;
};

// A side of a message in a complete trace.
struct KLT_MessageSide {
  uint64_t time = 0;
  uint32_t thread = 0;
  uint32_t function = 0;  // that sends or receives
};
bool KLT_PutMessage(KLT_TraceWriter* writer, const KLT_MessageSide& sender,
                    const KLT_MessageSide& receiver, const KLT_Envelope& envelope);

// The part of a member in a collective operation of a complete trace.
struct KLT_CollectivePart {
  uint64_t begin = 0;
  uint64_t end = 0;
  uint32_t sent = 0;
  uint32_t received = 0;
};
// `parts` in the order of the communicator's members; `root` is a process, and isn't used by
// operations without a root.
bool KLT_PutCollective(KLT_TraceWriter* writer, uint32_t operation, uint32_t communicator,
                       uint32_t root, std::span<const KLT_CollectivePart> parts);

// One side of a message in a raw trace: that of `self` of which `peer` is the other process.
enum class KLT_RawKind : uint32_t { kSend = 7, kReceive = 8 };
bool KLT_PutRawMessage(KLT_TraceWriter* writer, KLT_RawKind kind, const KLT_MessageSide& self,
                       uint32_t peer, const KLT_Envelope& envelope);
// The part of one member in a raw trace. `counter` numbers the operations of this thread's process
// on the communicator, from 1.
bool KLT_PutRawCollective(KLT_TraceWriter* writer, uint32_t thread, uint32_t operation,
                          uint32_t communicator, uint32_t root, uint32_t counter,
                          const KLT_CollectivePart& part);
