// Delivery: running the streams of a reader and calling the handlers, in time order or stream by
// stream.
//
// klt_order says whose records are next; here they are delivered, streams that run out are filled,
// and the clock is looked at.

#include <algorithm>
#include <utility>

#include "klt/read/klt_deliver.h"
#include "klt/read/klt_reader.h"
#include "klt/stream/klt_filter.h"
#include "klt/stream/klt_position.h"
#include "util/pal_mem.h"

namespace {

constexpr int kNoStatus = -2;  // go on

enum class Swap : uint8_t { kReady, kFinished, kFailed };

// The last one of a list takes the place of the one that leaves it.
template <class T>
void removeAt(std::vector<T>& list, size_t index) {
  std::swap(list[index], list.back());
  list.pop_back();
}

void removeStream(KLT_Reader& reader, size_t index) {
  KLT_Stream& stream = *reader.streams[index];
  reader.lostData = reader.lostData || stream.source.lostData;
  reader.bytesDone += stream.input.bytesTaken();
  KLT_StreamClose(stream);
  removeAt(reader.streams, index);
  if (reader.pass.serial) {
    removeAt(reader.lanes, index);
  } else {
    removeAt(reader.turns, index);
  }
}

int afterFailure(const KLT_Reader& reader) {
  return reader.streams.empty() ? KLT_STATUS_ABORTING : KLT_STATUS_CONTINUING;
}

// Gets the stream's next records ready once those before are delivered; removes a stream that has
// none.
Swap swapIn(KLT_Reader& reader, size_t index) {
  KLT_Lane& lane = reader.lanes[index];
  KLT_Stream& stream = *lane.stream;
  if (!lane.isFilled) {
    if (lane.next < lane.end) return Swap::kReady;
    (void)KLT_FillStream(stream);
  }
  lane.isFilled = false;
  if (stream.source.failed || stream.packed.records.empty()) {
    const bool failed = stream.source.failed;
    removeStream(reader, index);
    return failed ? Swap::kFailed : Swap::kFinished;
  }
  lane.next = stream.packed.records.data();
  lane.end = lane.next + stream.packed.records.used();
  lane.nextTime = KLT_RecordTime(lane.next);
  lane.lastTime = stream.packed.outTime;
  return Swap::kReady;
}

// What may come of serving a stream. A stream that has finished can take the rest of the time.
enum class Served : uint8_t {
  kGoesOn,
  kHandlerStops,
  kTimeIsUp,
  kFinished,
  kFinishedTimeIsUp,
  kFailed
};

bool hasLeft(Served served) { return served >= Served::kFinished; }

int statusOf(const KLT_Reader& reader, Served served) {
  switch (served) {
    case Served::kHandlerStops:
      return KLT_STATUS_HANDLER;
    case Served::kTimeIsUp:
    case Served::kFinishedTimeIsUp:
      return KLT_STATUS_TIME;
    case Served::kFailed:
      return afterFailure(reader);
    case Served::kGoesOn:
    case Served::kFinished:
      break;
  }
  return kNoStatus;
}

void countRecordsAnew(KLT_Reader& reader) {
  reader.recordsToLook = reader.limit.limited() ? KLT_TimeLimit::kRecordsPerCheck : ~uint64_t{0};
}

// Whether it is time to look at the clock, after a record.
[[gnu::always_inline]] inline bool isTimeToLook(KLT_Reader& reader) {
  if (--reader.recordsToLook != 0) [[likely]]
    return false;
  countRecordsAnew(reader);
  return true;
}

// What doesn't follow each record: its handler stops the reader, the stream must be filled, the
// clock is looked at.
[[gnu::noinline]] Served afterRecord(KLT_Reader& reader, size_t index, int result) {
  KLT_Lane& lane = reader.lanes[index];
  const bool runsOut = lane.next == lane.end;
  if (!runsOut) lane.nextTime = KLT_RecordTime(lane.next);
  if (result != 0) return Served::kHandlerStops;
  if (runsOut) {
    const Swap swap = swapIn(reader, index);
    if (swap == Swap::kFailed) return Served::kFailed;
    if (swap == Swap::kFinished) {
      return reader.limit.reached() ? Served::kFinishedTimeIsUp : Served::kFinished;
    }
  }
  return reader.limit.reached() ? Served::kTimeIsUp : Served::kGoesOn;
}

// Delivers the stream's records up to the time `limit`. The tournament is the caller's. The clock
// stops it at the end, or where it is the best of its turn and still ahead of all others: the next
// call goes on with the same stream there, so the order doesn't depend on the clock.
[[gnu::always_inline]] inline Served serve(KLT_Reader& reader, size_t index, uint64_t limit,
                                           bool isBest) {
  KLT_Lane& lane = reader.lanes[index];
  Served outcome = Served::kGoesOn;
  for (;;) {
    const int result = KLT_Deliver(reader, *lane.stream, lane.next);
    if (isTimeToLook(reader) || result != 0 || lane.next == lane.end) [[unlikely]] {
      outcome = afterRecord(reader, index, result);
      const bool waits = outcome == Served::kTimeIsUp && !(isBest && lane.nextTime < limit);
      if (outcome != Served::kGoesOn && !waits) return outcome;
    } else {
      lane.nextTime = KLT_RecordTime(lane.next);
    }
    if (lane.nextTime > limit) return outcome;
  }
}

// Takes a stream out of the tournament that has left the array: its place holds what was the last
// one.
void leaveOrder(KLT_Reader& reader, size_t index) {
  if (index < reader.streams.size()) {
    reader.order.update(index, reader.lanes[index].nextTime);
  }
  reader.order.removeLast();
}

// One turn: serves the stream with the lowest next time, `best`, then the runner-up. Returns a
// status, or kNoStatus.
[[gnu::always_inline]] inline int takeTurn(KLT_Reader& reader, size_t best) {
  KLT_MergeTree& order = reader.order;
  const auto [second, limit] = order.second(best);
  if (second == KLT_MergeTree::kNone) [[unlikely]] {
    return statusOf(reader, serve(reader, best, ~uint64_t{0}, true));
  }
  Served first = Served::kGoesOn;
  if (reader.lanes[best].nextTime <= limit) [[likely]] {
    first = serve(reader, best, limit, true);
    const bool isServed = first == Served::kTimeIsUp && reader.lanes[best].nextTime > limit;
    if (first != Served::kGoesOn && !isServed) [[unlikely]] {
      if (hasLeft(first)) leaveOrder(reader, best);
      return statusOf(reader, first);
    }
  }
  const Served next = serve(reader, second, limit, false);
  if (hasLeft(next)) [[unlikely]] {
    if (best < reader.streams.size()) order.update(best, reader.lanes[best].nextTime);
    leaveOrder(reader, second);
  } else {
    order.update(best, reader.lanes[best].nextTime, second, reader.lanes[second].nextTime);
  }
  return statusOf(reader, next == Served::kGoesOn ? first : next);
}

// Delivers what the slice holds. Returns a status, or kNoStatus.
int serveSlice(KLT_Reader& reader) {
  KLT_Slice& slice = reader.slice;
  for (;;) {
    const KLT_Slice::Record next = slice.next();
    if (next.record == nullptr) return kNoStatus;
    uint8_t* behind = next.record;
    const int result = KLT_Deliver(reader, *reader.lanes[next.position].stream, behind);
    slice.delivered(behind);
    if (isTimeToLook(reader) || result != 0) [[unlikely]] {
      if (result != 0) {
        slice.endTurn();
        return KLT_STATUS_HANDLER;
      }
      if (reader.limit.reached()) return KLT_STATUS_TIME;
    }
  }
}

// Serves streams by turns until the next slice or the end. If the slice before ended while a stream
// was being served, that one takes the part of the first. Returns a status, or kNoStatus.
int serveByTournament(KLT_Reader& reader) {
  const std::vector<KLT_Lane>& lanes = reader.lanes;
  reader.order.build(lanes.size(), [&](size_t i) { return lanes[i].nextTime; });
  const size_t running = reader.slice.running();
  reader.slice.endTurn();
  int status = takeTurn(reader, running == KLT_Slice::kNone ? reader.order.best() : running);
  while (status == kNoStatus && !reader.streams.empty() && !reader.slice.gather(reader.lanes)) {
    status = takeTurn(reader, reader.order.best());
  }
  return status;
}

// Gets every stream ready. Returns a status, or kNoStatus. However short the time, a call fills
// one.
int prepare(KLT_Reader& reader) {
  for (size_t i = 0; i < reader.streams.size();) {
    const KLT_Lane& lane = reader.lanes[i];
    const bool runsOut = lane.isFilled || lane.next == lane.end;
    switch (swapIn(reader, i)) {
      case Swap::kReady:
        ++i;
        break;
      case Swap::kFinished:
        break;
      case Swap::kFailed:
        return afterFailure(reader);
    }
    if (runsOut && reader.limit.reached()) return KLT_STATUS_TIME;
  }
  return kNoStatus;
}

int readInOrder(KLT_Reader& reader) {
  int status = prepare(reader);
  if (status == kNoStatus) reader.hasDelivered = true;
  while (status == kNoStatus && !reader.streams.empty()) {
    const bool isSliced = !reader.slice.empty() || reader.slice.gather(reader.lanes);
    status = isSliced ? serveSlice(reader) : serveByTournament(reader);
  }
  return status == kNoStatus ? KLT_STATUS_FINISHED : status;
}

// Streams take turns.
int readInTurns(KLT_Reader& reader) {
  for (size_t at = 0; at < reader.streams.size();) {
    KLT_Stream& stream = *reader.streams[at];
    KLT_StreamTurn& turn = *reader.turns[at];
    turn.begin();
    const KLT_Fill fill = stream.source.failed ? KLT_Fill::kFailed : KLT_FillStream(stream);
    turn.end();
    switch (fill) {
      case KLT_Fill::kTurnOver:
        ++at;
        break;
      case KLT_Fill::kStopped:
        return KLT_STATUS_HANDLER;
      case KLT_Fill::kFailed:
        removeStream(reader, at);
        return KLT_STATUS_CORRUPTED;
      case KLT_Fill::kFilled:
        removeStream(reader, at);
        break;
    }
  }
  return reader.streams.empty() ? KLT_STATUS_FINISHED : KLT_STATUS_TIME;
}

}  // namespace

void KLT_StreamTurn::take(uint8_t* record) {
  if (KLT_Deliver(reader_, stream_, record) != 0) isStopped_ = true;
  ++records_;
}

KLT_Turn::State KLT_StreamTurn::state() {
  if (isStopped_) return State::kStopped;
  if (records_ < KLT_TimeLimit::kRecordsPerCheck) return State::kContinues;
  if (!wasServed_) return State::kOver;
  records_ = 0;
  return reader_.limit.reached() ? State::kOver : State::kContinues;
}

void KLT_PrepareDelivery(KLT_Reader& reader) {
  for (const auto& stream : reader.streams) {
    if (reader.pass.serial) {
      reader.lanes.emplace_back().stream = stream.get();
    } else {
      reader.turns.push_back(std::make_unique<KLT_StreamTurn>(reader, *stream));
      stream->packed.turn = reader.turns.back().get();
    }
  }
}

int KLT_ReadEvents(KLT_Reader* reader, int timeoutMs) {
  const PAL_Place here;
  reader->limit.start(timeoutMs);
  countRecordsAnew(*reader);
  reader->status = reader->pass.serial ? readInOrder(*reader) : readInTurns(*reader);
  return reader->status;
}

int KLT_ReaderStatus(const KLT_Reader* reader) { return reader->status; }

bool KLT_ReaderHasStreams(const KLT_Reader* reader) { return !reader->streams.empty(); }

double KLT_Progress(const KLT_Reader* reader) {
  if (reader->status == KLT_STATUS_FINISHED) return 1.0;
  if (reader->bytesTotal == 0) return reader->pass.serial ? 1.0 : 0.0;
  // What was skipped so far, whole streams or all in front of a window, is no progress.
  if (reader->pass.serial && !reader->hasDelivered) return 0.0;
  auto done = static_cast<double>(reader->bytesDone);
  std::vector<size_t> inSlice(reader->streams.size());  // bytes
  reader->slice.eachWaiting([&](size_t position, const uint8_t* record) {
    inSlice[position] += KLT_RecordBytes(record);
  });
  for (size_t i = 0; i < reader->streams.size(); ++i) {
    const KLT_Stream& stream = *reader->streams[i];
    const uint64_t taken = stream.input.bytesTaken();
    // Of what the last fill took, some may lie packed still.
    const uint64_t before = std::min(taken, stream.packed.consumedBeforeFill);
    const KLT_RecordBuffer& packed = stream.packed.records;
    size_t waiting = packed.used();
    if (i < reader->lanes.size() && reader->lanes[i].next != nullptr) {
      const KLT_Lane& lane = reader->lanes[i];
      waiting = inSlice[i] + static_cast<size_t>(lane.end - lane.next);
    }
    const double delivered =
        packed.empty() ? 1.0
                       : 1.0 - static_cast<double>(waiting) / static_cast<double>(packed.used());
    done += static_cast<double>(before) + static_cast<double>(taken - before) * delivered;
  }
  return std::min(1.0, done / static_cast<double>(reader->bytesTotal));
}

bool KLT_ReaderLostData(const KLT_Reader* reader) {
  return reader->lostData || reader->pass.handle->lostData ||
         std::any_of(reader->streams.begin(), reader->streams.end(),
                     [](const auto& stream) { return stream->source.lostData; });
}
