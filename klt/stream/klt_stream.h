// The read state of one component within one reader.
//
// A stream is a time-ordered sequence of records. Its filter pass (klt_filter) runs records from
// the input through the current request (klt_select) and leaves those that pass in `packed`, in
// memory form; the reader merges streams by time and delivers from there. Requests are worked off
// in time order (klt_position); between two of them the stream goes on, or jumps to a seek point
// (klt_anchor) and has its context rebuilt.
//
// Each part of the state says which module changes it.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "klt/format/klt_codec.h"
#include "klt/format/klt_handlers.h"
#include "klt/format/klt_record.h"
#include "klt/index/klt_intern.h"
#include "klt/storage/klt_input.h"
#include "klt/stream/klt_context.h"

// What the streams of one reader have in common.
struct KLT_Pass {
  KLT_FileHandle* handle = nullptr;
  KLT_HandlerTable handlers;
  std::array<bool, kKltRowCount + 1> hasHandler{};  // by row
  bool serial = true;                               // records are delivered merged by time
  bool once = false;         // the consumer gathers the events of all requests in one place
  bool fillsTables = false;  // the stream is the index, whose records fill the trace's tables
  std::unordered_set<uint32_t> reportedCommunicators;
};

// What a stream reads (klt_position).
struct KLT_StreamSource {
  KLT_Component* component = nullptr;  // null for the index and the declarations
  const KLT_FileEntry* file = nullptr;
  KLT_IoFile* io = nullptr;
  uint64_t firstOffset = 0;  // of the first record
  uint32_t categories = 0;   // of the component
  bool failed = false;       // nothing more can be read of it, as reported
  bool lostData = false;     // something of it couldn't be read, as reported

  [[nodiscard]] const char* suffix() const { return file == nullptr ? "" : file->suffix.c_str(); }
};

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

// The requests of a stream and which of them it is at (klt_position).
class KLT_RequestCursor {
 public:
  // Adds a request after the others, or widens the last one.
  void add(KLT_StreamRequest&& request) {
    asked_ |= request.categories;
    if (!list_.empty()) {
      KLT_StreamRequest& last = list_.back();
      if (last.categories == request.categories && request.start <= last.end &&
          PAL_TripletsEqual(last.threads, request.threads)) {
        last.end = std::max(last.end, request.end);
        return;
      }
    }
    list_.push_back(std::move(request));
  }

  [[nodiscard]] std::vector<KLT_StreamRequest>& all() { return list_; }
  [[nodiscard]] uint32_t asked() const { return asked_; }  // categories of all of them
  [[nodiscard]] const KLT_StreamRequest& current() const { return list_[at_]; }
  // Those ahead of the current one.
  [[nodiscard]] std::span<const KLT_StreamRequest> earlier() const { return {list_.data(), at_}; }
  // The one after the current one, or null.
  [[nodiscard]] const KLT_StreamRequest* following() const {
    return at_ + 1 < list_.size() ? &list_[at_ + 1] : nullptr;
  }
  [[nodiscard]] bool finished() const { return at_ == list_.size(); }
  void advance() { ++at_; }
  void finish() { at_ = list_.size(); }

 private:
  std::vector<KLT_StreamRequest> list_;
  size_t at_ = 0;
  uint32_t asked_ = 0;
};

// The filter pass (klt_filter), and what the current request selects (klt_select).
struct KLT_FilterState {
  static constexpr unsigned kPlainRowBits = 64;

  uint64_t time = 0;  // running time of the file
  uint64_t start = 0;
  uint64_t end = ~uint64_t{0};
  uint64_t plainRows = 0;  // rows that KLT_FilterPlain may take, by bit
  bool testThreads = false;
  std::array<bool, kKltRowCount + 1> wanted{};          // by row
  std::unordered_map<uint32_t, int64_t> commonMembers;  // first selected member by communicator

  // Whether a record at `t` is after the request. All ones as end means none.
  [[nodiscard]] bool behindEnd(uint64_t t) const { return t >= end && end != ~uint64_t{0}; }
};

// What the consumer knows and has to learn of the state of threads (klt_history).
struct KLT_HistoryState {
  bool done = false;             // that of the current request has been produced
  bool keepContext = true;       // one may still have to be produced
  uint32_t clean = 0;            // categories whose state the consumer knows
  uint32_t addedCategories = 0;  // what the current request asks for beyond the one before
  PAL_Triplets addedThreads;
  uint64_t seenUntil = 0;  // records before this time have been through a request already
  KLT_Context context;
};

// Takes the records of a stream one by one, where streams aren't merged by time.
class KLT_Turn {
 public:
  enum class State : uint8_t { kGoesOn, kStopped, kOver };

  KLT_Turn() = default;
  KLT_Turn(const KLT_Turn&) = delete;
  KLT_Turn& operator=(const KLT_Turn&) = delete;
  virtual ~KLT_Turn() = default;
  // The record may be changed.
  virtual void take(uint8_t* record) = 0;
  // Whether the filter pass goes on; asked after each of its steps.
  [[nodiscard]] virtual State state() = 0;
};

// Records that have passed the filter and wait for delivery (klt_filter, klt_history).
struct KLT_PackedRecords {
  // Encoded bytes that a fill gathers before they are delivered. Deliveries work on the memory form
  // of records; the encoded size still bounds how far a stream runs ahead.
  static constexpr size_t kFillBytes = 0x10000;
  // Room that a record needs beyond its size: number byte, a time record of 9 bytes, a spare.
  static constexpr size_t kRecordOverhead = 11;

  KLT_RecordBuffer records;
  size_t encodedBytes = 0;
  size_t capacity = kFillBytes;  // for encoded bytes
  uint64_t outTime = 0;          // time of the last record
  uint64_t takenBefore = 0;      // bytes taken from the input ahead of the last fill
  KLT_Turn* turn = nullptr;      // takes the records at once; null: they are merged by time

  // Whether there is room for `more` encoded bytes. A record larger than the capacity has it where
  // it is the only one.
  [[nodiscard]] bool makeRoom(size_t more) {
    const size_t needed = encodedBytes + more;
    if (needed <= capacity || turn != nullptr) [[likely]]
      return true;
    if (encodedBytes != 0) return false;
    capacity = needed;
    return true;
  }
  // Hands on the record of `bytes` bytes at the tail of `records`. `encoded` are its bytes on disk
  // without the number byte.
  [[gnu::always_inline]] void add(size_t bytes, size_t encoded, uint64_t time) {
    if (turn != nullptr) [[unlikely]] {
      turn->take(records.tail());
      outTime = time;
      return;
    }
    records.commit(bytes);
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
};
