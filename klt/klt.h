// Opens KLT traces and delivers their records to handlers.
//
// A KLT_FileHandle is an open trace with the tables of its index and declarations. A KLT_Reader is
// one traversal of a part of it. All functions run on the caller's thread.
#pragma once

#include <cstdint>
#include <memory>

#include "klt/format/klt_handlers.h"
#include "klt/klt_messages.h"
#include "klt/read/klt_request.h"

struct KLT_FileHandle;
struct KLT_Reader;

// What a reader reads. KLT_MODE_EVENTS_ONCE is for callers that write the events of all requests to
// one output: the history of a request leaves out messages, collective operations and counter
// samples that an earlier request has delivered. KLT_MODE_INTERNAL is for KLT_Open: the index.
enum : int {
  KLT_MODE_DEFINITIONS = 0,
  KLT_MODE_EVENTS = 2,
  KLT_MODE_EVENTS_ONCE = 3,
  KLT_MODE_INTERNAL = 4
};

// Results of KLT_ReadEvents.
enum : int {
  KLT_STATUS_BUILT = 0,       // KLT_ReadEvents hasn't been called
  KLT_STATUS_FINISHED = 1,    // all streams are finished
  KLT_STATUS_CONTINUING = 2,  // a stream ended with an error, others remain
  KLT_STATUS_ABORTING = 3,    // a stream ended with an error, none remains
  KLT_STATUS_HANDLER = 4,     // a handler returned nonzero
  KLT_STATUS_TIME = 5,        // the time limit was reached, there are more records
  KLT_STATUS_CORRUPTED = static_cast<int>(0x80000000),  // stream by stream: one ended with an error
};

// Whether `name` can be opened and its index has a header that begins with "KLT". A file that can't
// be opened is reported.
[[nodiscard]] bool KLT_IsTrace(const char* name);
// Opens the trace and reads its index. The caller closes it. Null on failure; only the damaged
// directory of a single-file trace isn't reported.
[[nodiscard]] KLT_FileHandle* KLT_Open(const char* name);
void KLT_Close(KLT_FileHandle* handle);

// Builds a reader of the definitions (KLT_MODE_DEFINITIONS) or of the events that the requests
// select; of all events if `numRequests` is 0. Table and requests are copied. Nonzero `serial`:
// records are delivered in time order, zero: stream by stream. Null, after a report, only if
// KLT_MODE_INTERNAL can't read the index.
[[nodiscard]] KLT_Reader* KLT_OpenReader(KLT_FileHandle* handle, int mode, uint32_t numRequests,
                                         const KLT_Request* const* requests,
                                         const KLT_HandlerTable* table, int serial);

// The receiver of calls that are read thread by thread (klt/read/klt_alone.h).
struct KLT_AloneReceiver {
  KLT_HandlerTable handlers;  // for the same records as those of the other table
  // Set by a handler: its record is to be delivered again, to the other table.
  bool* repeats = nullptr;
  // Called with `handlers.user_data` after the records of a component, and before the first record
  // that is delivered to the other table.
  void (*streamEnded)(void* user) = nullptr;
  void (*mergeStarts)(void* user) = nullptr;
};
// Like KLT_OpenReader for events in time order, but the calls of each thread are delivered to
// `alone`, before all other records, if the trace has a component for each thread and the requests
// select it whole. The other records, and those that are repeated, are delivered to `table`, in
// time order.
[[nodiscard]] KLT_Reader* KLT_OpenReaderByThread(KLT_FileHandle* handle, int mode,
                                                 uint32_t numRequests,
                                                 const KLT_Request* const* requests,
                                                 const KLT_AloneReceiver& alone,
                                                 const KLT_HandlerTable* table);
void KLT_CloseReader(KLT_Reader* reader);

// Owning pointers, which close a trace or a reader.
struct KLT_Closer {
  void operator()(KLT_FileHandle* handle) const { KLT_Close(handle); }
  void operator()(KLT_Reader* reader) const { KLT_CloseReader(reader); }
};
using KLT_OwnedTrace = std::unique_ptr<KLT_FileHandle, KLT_Closer>;
using KLT_OwnedReader = std::unique_ptr<KLT_Reader, KLT_Closer>;

// Delivers records until the end, until a stream fails, until a handler stops the reader, or for
// about `timeoutMs` milliseconds; a negative value means no limit. Can be called again after every
// result except KLT_STATUS_FINISHED and KLT_STATUS_ABORTING.
int KLT_ReadEvents(KLT_Reader* reader, int timeoutMs);
// The last result of KLT_ReadEvents.
[[nodiscard]] int KLT_ReaderStatus(const KLT_Reader* reader);
// Whether streams are left to read. KLT_STATUS_CORRUPTED doesn't imply that.
[[nodiscard]] bool KLT_ReaderHasStreams(const KLT_Reader* reader);
// The part of the input that has been delivered, from 0 to 1.
[[nodiscard]] double KLT_Progress(const KLT_Reader* reader);
// Whether parts of this reader's streams, parts of the trace's index, or files of the trace
// couldn't be read. This has been reported, but isn't a result of KLT_ReadEvents.
[[nodiscard]] bool KLT_ReaderLostData(const KLT_Reader* reader);
