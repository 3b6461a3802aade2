// The read state of one component within one reader.
//
// A stream is a time-ordered sequence of records. Its filter pass (klt_filter) runs records from
// the input through the current request and leaves those that pass in `packed`, in memory form; the
// reader (klt_read) merges streams by time and delivers from there. Requests are worked off in time
// order; between two of them the stream goes on, or jumps through an anchor (klt_anchor) and has
// its context rebuilt.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "klt/format/klt_record.h"
#include "klt/index/klt_generic.h"
#include "klt/index/klt_intern.h"
#include "klt/klt.h"
#include "klt/storage/klt_input.h"
#include "klt/stream/klt_context.h"

struct KLT_Reader;

// A request as it applies to one component.
struct KLT_StreamRequest {
  uint64_t start = 0;
  uint64_t end = ~uint64_t{0};
  uint32_t categories = 0;
  uint32_t asked = 0;                    // the categories as the caller gave them for its start
  PAL_Triplets threads;                  // empty: no selection on either side
  bool testThreads = false;              // the selection doesn't cover all threads of the component
  PAL_TripletSet set;                    // of `threads`, if they are tested
  const KLT_Anchor* anchor = nullptr;    // where reading starts; null: offset 0
  uint64_t limit = KLT_Input::kNoLimit;  // offset at which its bytes end
};

struct KLT_Stream {
  // Encoded bytes that a fill gathers before they are delivered. Deliveries work on the memory form
  // of records; the encoded size still bounds how far a stream runs ahead.
  static constexpr size_t kFillBytes = 0x10000;
  // Room that a record needs beyond its size: number byte, a time record of 9 bytes, a spare.
  static constexpr size_t kRecordOverhead = 11;

  KLT_Reader* reader = nullptr;
  KLT_FileHandle* handle = nullptr;
  KLT_Component* component = nullptr;  // null for the index and the declarations
  const KLT_FileEntry* file = nullptr;
  uint32_t categories = 0;  // of the component
  KLT_IoFile* io = nullptr;
  uint64_t firstOffset = 0;  // of the first record
  KLT_Input input;
  std::vector<KLT_StreamRequest> requests;
  size_t request = 0;  // the current one; requests.size() when all are done

  // The filter pass. `start` and `end` are the current request's.
  uint64_t time = 0;     // running time of the file
  uint64_t outTime = 0;  // time of the last packed record
  uint64_t start = 0;
  uint64_t end = ~uint64_t{0};
  bool testThreads = false;
  bool historyDone = false;
  bool keepContext = true;  // a history may still have to be told
  bool serial = true;
  bool stopped = false;                         // a handler wants to stop, without time order
  std::array<bool, kKltRowCount + 1> wanted{};  // category test by row, for this request
  static constexpr unsigned kPlainRowBits = 64;
  uint64_t plainRows = 0;                           // those that KLT_FilterPlain may take, by bit
  std::array<bool, kKltRowCount + 1> possible{};    // rows that can occur at all
  std::array<bool, kKltRowCount + 1> hasHandler{};  // rows with a handler

  // History.
  uint32_t historyClean = 0;     // categories whose state the consumer knows
  uint32_t addedCategories = 0;  // what the current request asks for beyond the one before
  PAL_Triplets addedThreads;
  uint64_t seenUntil = 0;  // records before this time have been through a request already
  KLT_Context context;
  std::unordered_map<uint32_t, int64_t> commonMembers;  // first selected member by communicator

  // Packed records.
  KLT_RecordBuffer packed;
  size_t packedBytes = 0;  // in encoded form
  size_t packedCapacity = kFillBytes;
  uint64_t takenBefore = 0;  // bytes taken from the input ahead of the last fill
  bool filled = false;       // `packed` is the result of a fill not yet begun with
  int status = 0;            // of the last fill; negative: the stream has failed
  bool lostData = false;     // the input ended early
  uint32_t turnRecords = 0;  // records of the current turn, without time order
  bool hadTurn = false;

  // Whether KLT_FilterPlain may take a record with this number now.
  [[nodiscard]] bool isPlain(unsigned number) const {
    return number < kPlainRowBits && (plainRows >> number & 1) != 0 && historyDone &&
           !keepContext && !testThreads && serial && time >= start;
  }

  [[nodiscard]] const KLT_StreamRequest& current() const { return requests[request]; }
  [[nodiscard]] bool finished() const { return request == requests.size(); }
  // Whether a record at `t` lies behind the request. All ones as end means none.
  [[nodiscard]] bool behindEnd(uint64_t t) const { return t >= end && end != ~uint64_t{0}; }
  [[nodiscard]] const char* suffix() const { return file == nullptr ? "" : file->suffix.c_str(); }
};

// Status of a stream that has failed.
inline constexpr int kKltStreamFailed = -1;

// Whether the request tells the last samples of counters at its start: only those do that ask for
// counters and for neither messages, collective operations nor everything.
[[nodiscard]] bool KLT_TellsCounters(const KLT_StreamRequest& request);
// Categories of `mask` that this stream's component stores, with the any bit resolved.
[[nodiscard]] uint32_t KLT_StoredCategories(const KLT_Stream& stream, uint32_t mask);

// Opens the stream's file and enters its first request. Reports; false if the stream has failed.
[[nodiscard]] bool KLT_StreamOpen(KLT_Stream& stream);
// Closes the file and frees the buffers.
void KLT_StreamClose(KLT_Stream& stream);

// Makes `index` the current request and moves the stream to where it starts. False after a report
// if the stream can't be positioned.
[[nodiscard]] bool KLT_EnterRequest(KLT_Stream& stream, size_t index);

// Anchors (klt_anchor). Loads them once per component; damaged ones are reported and ignored.
void KLT_LoadAnchors(KLT_FileHandle& handle, KLT_Component& component);
// Chooses where each request of the stream starts and ends in the file.
void KLT_PlanRequests(KLT_Stream& stream);
// Rebuilds the stream's context at `anchor`, as far as the files can be read; what can't be read is
// reported and noted as lost. Records at or after the current request's start are left to the
// stream.
void KLT_ReplayAnchor(KLT_Stream& stream, const KLT_Anchor& anchor, uint32_t categories);

// The filter pass (klt_filter): fills `packed`, or delivers directly without time order until the
// stream's turn ends.
enum class KLT_Fill : uint8_t { kFilled, kFailed, kStopped, kTurnOver };
[[nodiscard]] KLT_Fill KLT_FillStream(KLT_Stream& stream);
// Takes records from the input as long as they are plain: calls, messages and the like, of which
// nothing is asked but that the request wants them. Anything else is left to the other operations.
// REQUIRES: isPlain() for the record at hand.
void KLT_FilterPlain(KLT_Stream& stream);
// The rows that KLT_FilterPlain takes with this stream's decoders and request, by bit.
[[nodiscard]] uint64_t KLT_PlainRows(const KLT_Stream& stream);
// Updates the context with a record of the selected threads.
void KLT_UpdateContext(KLT_Stream& stream, const uint8_t* record);
// The first member of the communicator that the current request selects: its gtp, kKltNoMember, or
// kKltUndefined for a communicator that isn't defined or has no members, which is reported.
inline constexpr int64_t kKltNoMember = -1;
inline constexpr int64_t kKltUndefined = -2;
[[nodiscard]] int64_t KLT_CommonMember(KLT_Stream& stream, uint32_t communicator);
// Whether the record's thread, or a member of its communicator, is selected.
[[nodiscard]] bool KLT_ThreadsSelected(KLT_Stream& stream, const uint8_t* record);

// History (klt_history). Appends the history of the current request to `packed`; false, with
// nothing changed, if the records there must be delivered first. `room` are the bytes of the record
// at hand; with `force` there is always room.
[[nodiscard]] bool KLT_ProduceHistory(KLT_Stream& stream, size_t room, bool force);
// Ends the current request and enters the next. False if the stream has failed.
[[nodiscard]] bool KLT_NextRequest(KLT_Stream& stream);

// Hands on a record of `bytes` bytes in memory that stands at the tail of `packed`: commits it, or,
// without time order, delivers it. `encoded` are its bytes on disk without the number byte.
inline void KLT_PassOn(KLT_Stream& stream, size_t bytes, size_t encoded, uint64_t time);

// Calls the handler of the record at `next` and lets a structure record change the trace's tables
// (klt_deliver). Returns the handler's result; -1 for a structure record that makes no sense, which
// is reported. `next` moves behind the record, whose opaque values may be changed. `reader` is the
// stream's: most records are delivered without a look at the stream, which with thousands of them
// is far away.
using KLT_Deliverer = int (*)(KLT_Reader& reader, KLT_Stream& stream, uint8_t*& next);
extern const std::array<KLT_Deliverer, kKltRowCount> kKltDeliverers;  // by row number - 1
[[nodiscard]] inline int KLT_Deliver(KLT_Reader& reader, KLT_Stream& stream, uint8_t*& next) {
  return kKltDeliverers[KLT_RecordNumber(next) - 1](reader, stream, next);
}
// Whether the table has a handler for the row.
[[nodiscard]] bool KLT_HasHandler(const KLT_HandlerTable& handlers, unsigned row);

void KLT_DeliverNow(KLT_Stream& stream);

[[gnu::always_inline]] inline void KLT_PassOn(KLT_Stream& stream, size_t bytes, size_t encoded,
                                              uint64_t time) {
  if (!stream.serial) [[unlikely]] {
    KLT_DeliverNow(stream);
    stream.outTime = time;
    return;
  }
  stream.packed.commit(bytes);
  stream.packedBytes += 1 + encoded + KLT_TimeRecordBytes(stream.outTime, time);
  stream.outTime = time;
}
