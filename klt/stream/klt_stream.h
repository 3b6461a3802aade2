// Defines a stream: the state of reading one component within one reader.
//
// A stream is a time-ordered sequence of records. Its filter (klt_filter) tests records from the
// input against the current request (klt_select) and stores those that pass in `packed`, in memory
// form; the reader merges streams by time and delivers these records. Requests are processed in
// time order (klt_position). Between two requests the stream reads on, or jumps to a seek point
// (klt_anchor) and rebuilds its context.
//
// The comment on each part of the state names the module that changes it.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "klt/format/klt_codec.h"
#include "klt/format/klt_handlers.h"
#include "klt/format/klt_record.h"
#include "klt/index/klt_intern.h"
#include "klt/index/klt_threads.h"
#include "klt/storage/klt_input.h"
#include "klt/stream/klt_context.h"
#include "util/pal_hash.h"

// What all streams of a reader share.
struct KLT_Pass {
  KLT_FileHandle* handle = nullptr;
  KLT_HandlerTable handlers;
  std::array<bool, kKltRowCount + 1> hasHandler{};  // by row
  bool serial = true;                               // records are delivered merged by time
  bool once = false;         // KLT_MODE_EVENTS_ONCE: no request repeats events of an earlier one
  bool fillsTables = false;  // the stream is the index, whose records fill the trace's tables
  KLT_ThreadLists lists;
  PAL_HashSet<uint32_t> reportedCommunicators;
  // The bytes that streams of other files have replayed from a file, by its suffix.
  PAL_HashMap<std::string_view, uint64_t> replayedBytes;
  // The first selected member by communicator and list of threads, for a list that isn't tested and
  // for one that is.
  std::array<PAL_HashMap<uint64_t, int64_t>, 2> commonMembers;
};

// The component that a stream reads (klt_position).
struct KLT_StreamSource {
  KLT_Component* component = nullptr;       // null for the index and the declarations
  const KLT_ThreadList* threads = nullptr;  // of the component; empty: any
  const KLT_FileEntry* file = nullptr;
  KLT_IoFile* io = nullptr;
  uint64_t firstOffset = 0;  // of the first record
  uint32_t categories = 0;   // of the component
  bool failed = false;       // nothing more can be read, which has been reported
  bool lostData = false;     // a part couldn't be read, which has been reported
  bool failsAtEnd = false;   // it fails after the records that are packed

  [[nodiscard]] const char* suffix() const { return file == nullptr ? "" : file->suffix.c_str(); }
};

// A request as it applies to a component.
struct KLT_StreamRequest {
  uint64_t start = 0;
  uint64_t end = ~uint64_t{0};
  uint32_t categories = 0;
  uint32_t asked = 0;                       // the caller's categories at the request's start
  const KLT_ThreadList* threads = nullptr;  // null: those of the component
  bool testThreads = false;  // the selection doesn't cover all threads of the component
};

// The requests of the streams that want the same.
struct KLT_StreamRequests {
  std::vector<KLT_StreamRequest> list;
  uint32_t asked = 0;  // categories of all requests
};

// The requests of a stream and the position among them (klt_position).
class KLT_RequestCursor {
 public:
  void set(std::shared_ptr<const KLT_StreamRequests> requests) {
    requests_ = std::move(requests);
    list_ = requests_->list;
  }

  [[nodiscard]] uint32_t asked() const { return requests_->asked; }  // categories of all requests
  [[nodiscard]] const KLT_StreamRequest& current() const { return list_[at_]; }
  // The requests before the current one.
  [[nodiscard]] std::span<const KLT_StreamRequest> earlier() const { return list_.first(at_); }
  // The request after the current one, or null.
  [[nodiscard]] const KLT_StreamRequest* following() const {
    return at_ + 1 < list_.size() ? &list_[at_ + 1] : nullptr;
  }
  [[nodiscard]] bool finished() const { return at_ == list_.size(); }
  void advance() { ++at_; }
  void finish() { at_ = list_.size(); }

 private:
  std::shared_ptr<const KLT_StreamRequests> requests_;
  std::span<const KLT_StreamRequest> list_;
  size_t at_ = 0;
};

// The state of the filter (klt_filter), and what the current request selects (klt_select).
struct KLT_FilterState {
  static constexpr unsigned kPlainRowBits = 64;

  uint64_t time = 0;  // running time of the file
  uint64_t start = 0;
  uint64_t end = ~uint64_t{0};
  uint64_t plainRows = 0;  // bit n: KLT_FilterPlain may process row n
  bool testThreads = false;
  const PAL_TripletSet* selected = nullptr;     // the threads of the request, if they are tested
  uint32_t categories = 0;                      // for which the rows below have been determined
  std::array<bool, kKltRowCount + 1> wanted{};  // by row

  // Whether a record at time `t` is after the request. An end of all ones means no end.
  [[nodiscard]] bool isAfterEnd(uint64_t t) const { return t >= end && end != ~uint64_t{0}; }
};

// Which state of the threads has been delivered, and which must still be delivered (klt_history).
struct KLT_HistoryState {
  bool done = false;             // the history of the current request has been produced
  bool keepContext = true;       // a history may still have to be produced
  uint32_t knownCategories = 0;  // categories whose delivered state is up to date
  uint32_t addedCategories = 0;  // of the current request, but not of the previous one
  const KLT_ThreadList* addedThreads = nullptr;  // the same for threads; null if there are none
  uint64_t seenUntil = 0;  // records before this time were filtered for earlier requests
  // The share of this stream in KLT_Pass::replayedBytes, since its last seek point.
  std::vector<std::pair<std::string_view, uint64_t>> replayedBytes;
  KLT_Context context;
};

// Receives the records of a stream one by one, where streams aren't merged by time.
class KLT_Turn {
 public:
  enum class State : uint8_t { kContinues, kStopped, kOver };

  KLT_Turn() = default;
  KLT_Turn(const KLT_Turn&) = delete;
  KLT_Turn& operator=(const KLT_Turn&) = delete;
  virtual ~KLT_Turn() = default;
  // Receives the record, which it may change.
  virtual void take(uint8_t* record) = 0;
  // Whether the filter continues. Called after each step of the filter.
  [[nodiscard]] virtual State state() = 0;
};

// Records that have passed the filter and wait for delivery (klt_filter, klt_history).
struct KLT_PackedRecords {
  // Limit of the encoded bytes that a fill collects before they are delivered. The records are kept
  // in memory form; their encoded size limits how far a stream is read ahead.
  static constexpr size_t kFillBytes = 0x10000;
  // Limit of the end_of_filter records that a fill collects. They are appended even if there is no
  // room, and a stream without events may have thousands of windows.
  static constexpr size_t kFillEnds = 128;
  // Encoded bytes to reserve for a record besides its fields: the number byte, a time record of 9
  // bytes, and 1 byte.
  static constexpr size_t kRecordOverhead = 11;

  KLT_RecordBuffer records;
  size_t encodedBytes = 0;
  size_t ends = 0;                  // end_of_filter records of this fill
  size_t capacity = kFillBytes;     // for encoded bytes
  uint64_t outTime = 0;             // time of the last record
  uint64_t consumedBeforeFill = 0;  // bytes consumed from the input before the last fill
  KLT_Turn* turn = nullptr;         // receives the records at once; null: they are merged by time

  // Whether there is room for `more` encoded bytes. If there are no other records, the capacity is
  // increased for a larger record.
  [[nodiscard]] bool makeRoom(size_t more) {
    const size_t needed = encodedBytes + more;
    if (needed <= capacity || turn != nullptr) [[likely]]
      return true;
    if (encodedBytes != 0) return false;
    capacity = needed;
    return true;
  }
  // Appends the record of `bytes` bytes at the tail of `records`, or passes it to `turn`. `encoded`
  // is its size on disk without the number byte.
  [[gnu::always_inline]] void add(size_t bytes, size_t encoded, uint64_t time) {
    if (turn != nullptr) [[unlikely]] {
      turn->take(records.tail());
      outTime = time;
      return;
    }
    records.commit(bytes);
    count(encoded, time);
  }
  // Counts a record that has been appended.
  void count(size_t encoded, uint64_t time) {
    encodedBytes += 1 + encoded + KLT_TimeRecordBytes(outTime, time);
    outTime = time;
  }
};

struct KLT_Stream {
  KLT_Pass* pass = nullptr;
  KLT_StreamSource source;
  KLT_Input input;
  KLT_RequestCursor requests;
  KLT_FilterState filter;
  KLT_HistoryState history;
  KLT_PackedRecords packed;

  // The threads that a request of this stream selects; empty: all.
  [[nodiscard]] const KLT_ThreadList& threadsOf(const KLT_StreamRequest& request) const {
    return request.threads == nullptr ? *source.threads : *request.threads;
  }
};
