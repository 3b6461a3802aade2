// The reader of KLT traces: opening a trace and running its records through handlers.
//
// A KLT_FileHandle is an open trace with the tables that its index and declarations fill. A
// KLT_Reader is one traversal of a part of it. Everything runs on the caller's thread.
#pragma once

#include <cstdint>
#include <memory>

#include "klt/format/klt_handlers.h"
#include "klt/read/klt_request.h"

struct KLT_FileHandle;
struct KLT_Reader;

// What a reader reads. KLT_MODE_EVENTS_ONCE is for callers that put the events of all requests into
// one place: the history of a request leaves out messages, collective operations and counter
// samples that an earlier request has delivered.
enum : int {
  KLT_MODE_DEFINITIONS = 0,
  KLT_MODE_EVENTS = 2,
  KLT_MODE_EVENTS_ONCE = 3,
  KLT_MODE_INTERNAL = 4
};

// Results of KLT_ReadEvents.
enum : int {
  KLT_STATUS_BUILT = 0,       // no delivery yet
  KLT_STATUS_FINISHED = 1,    // all streams are finished
  KLT_STATUS_CONTINUING = 2,  // a stream ended with an error, others remain
  KLT_STATUS_ABORTING = 3,    // a stream ended with an error, none remains
  KLT_STATUS_HANDLER = 4,     // a handler returned nonzero
  KLT_STATUS_TIME = 5,        // the time limit was reached, more is to come
  KLT_STATUS_CORRUPTED = static_cast<int>(0x80000000),  // corrupted data without time order
};

// Whether `name` can be opened and its index starts as a trace does. Reports nothing about the
// contents.
[[nodiscard]] bool KLT_IsTrace(const char* name);
// Opens the trace and reads its index. Null after the reason was reported. The caller closes it.
[[nodiscard]] KLT_FileHandle* KLT_Open(const char* name);
void KLT_Close(KLT_FileHandle* handle);

// Builds a reader: definitions (mode 0) or events (modes 2 and 3) that match any of the requests;
// without requests all events. Table and requests are copied. Nonzero `serial` delivers all streams
// merged by time, zero stream by stream. Null if the index can't be read.
[[nodiscard]] KLT_Reader* KLT_OpenReader(KLT_FileHandle* handle, int mode, uint32_t numRequests,
                                         const KLT_Request* const* requests,
                                         const KLT_HandlerTable* table, int serial);
void KLT_CloseReader(KLT_Reader* reader);

// A trace and a reader that are closed where their owner ends.
struct KLT_Closer {
  void operator()(KLT_FileHandle* handle) const { KLT_Close(handle); }
  void operator()(KLT_Reader* reader) const { KLT_CloseReader(reader); }
};
using KLT_OwnedTrace = std::unique_ptr<KLT_FileHandle, KLT_Closer>;
using KLT_OwnedReader = std::unique_ptr<KLT_Reader, KLT_Closer>;

// Delivers records until the end, a stop or the limit of `timeoutMs` milliseconds, which may be
// reached a few milliseconds early; a negative limit is none. Can be called again after every
// result but 1 and 3.
int KLT_ReadEvents(KLT_Reader* reader, int timeoutMs);
// The last result.
[[nodiscard]] int KLT_ReaderStatus(const KLT_Reader* reader);
// Whether streams are left to read, for the result that doesn't tell.
[[nodiscard]] bool KLT_ReaderHasStreams(const KLT_Reader* reader);
// From 0 to 1.
[[nodiscard]] double KLT_Progress(const KLT_Reader* reader);
// A stream of this reader or the trace's index ended ahead of its end, as reported, without a
// result that says so.
[[nodiscard]] bool KLT_ReaderLostData(const KLT_Reader* reader);
