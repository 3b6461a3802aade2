// Delivers the records of a reader's streams to the handlers, in time order or stream by stream.
//
// klt_order determines which stream is next. This module delivers the records of that stream, fills
// it again when all records of the last fill have been delivered, and observes the time limit of a
// call.

#include <algorithm>
#include <utility>

#include "klt/read/klt_deliver.h"
#include "klt/read/klt_reader.h"
#include "klt/stream/klt_filter.h"
#include "klt/stream/klt_position.h"
#include "util/pal_mem.h"

namespace {

constexpr int kNoStatus = -2;  // delivery continues

enum class Next : uint8_t { kReady, kFinished, kFailed };

// Removes an element of the list. The last element takes its position.
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

// Fills the stream if all records of its last fill have been delivered, and makes the next records
// available in its lane. Removes a stream that has ended or failed.
Next prepareNext(KLT_Reader& reader, size_t index) {
  KLT_Lane& lane = reader.lanes[index];
  KLT_Stream& stream = *lane.stream;
  if (!lane.isFilled) {
    if (lane.next < lane.end) return Next::kReady;
    (void)KLT_FillStream(stream);
    stream.source.failed = stream.source.failed || stream.source.failsAtEnd;
  }
  lane.isFilled = false;
  if (stream.source.failed || stream.packed.records.empty()) {
    const bool failed = stream.source.failed;
    removeStream(reader, index);
    return failed ? Next::kFailed : Next::kFinished;
  }
  lane.next = stream.packed.records.data();
  lane.end = lane.next + stream.packed.records.used();
  lane.nextTime = KLT_RecordTime(lane.next);
  lane.lastTime = stream.packed.outTime;
  return Next::kReady;
}

// The result of serving a stream. The time limit can be reached when a stream finishes, too.
enum class Served : uint8_t {
  kContinues,
  kHandlerStops,
  kTimeIsUp,
  kFinished,
  kFinishedTimeIsUp,
  kFailed
};

bool isRemoved(Served served) { return served >= Served::kFinished; }

int statusOf(const KLT_Reader& reader, Served served) {
  switch (served) {
    case Served::kHandlerStops:
      return KLT_STATUS_HANDLER;
    case Served::kTimeIsUp:
    case Served::kFinishedTimeIsUp:
      return KLT_STATUS_TIME;
    case Served::kFailed:
      return afterFailure(reader);
    case Served::kContinues:
    case Served::kFinished:
      break;
  }
  return kNoStatus;
}

void restartRecordCount(KLT_Reader& reader) {
  reader.recordsToCheck = reader.limit.limited() ? KLT_TimeLimit::kRecordsPerCheck : ~uint64_t{0};
}

// Counts a delivered record and returns whether the time limit must be checked now.
[[gnu::always_inline]] inline bool isCheckDue(KLT_Reader& reader) {
  if (--reader.recordsToCheck != 0) [[likely]]
    return false;
  restartRecordCount(reader);
  return true;
}

// Performs the rare actions after a record: stops the reader if the handler returned nonzero, fills
// the stream, and checks the time limit.
[[gnu::noinline]] Served afterRecord(KLT_Reader& reader, size_t index, int result) {
  KLT_Lane& lane = reader.lanes[index];
  const bool isEmpty = lane.next == lane.end;
  if (!isEmpty) lane.nextTime = KLT_RecordTime(lane.next);
  if (result != 0) return Served::kHandlerStops;
  if (isEmpty) {
    const Next next = prepareNext(reader, index);
    if (next == Next::kFailed) return Served::kFailed;
    if (next == Next::kFinished) {
      return reader.limit.reached() ? Served::kFinishedTimeIsUp : Served::kFinished;
    }
  }
  return reader.limit.reached() ? Served::kTimeIsUp : Served::kContinues;
}

// Delivers the stream's records up to and including the time `upTo`, the next time of the
// runner-up. The caller updates the tournament. If the time limit of the call is reached, delivery
// ends immediately only if the next call is certain to continue with this stream: if it is the best
// one of the turn (`isBest`) and its next time is below `upTo`. Otherwise delivery ends after the
// last record up to `upTo`. So the order of the records doesn't depend on the clock.
[[gnu::always_inline]] inline Served serve(KLT_Reader& reader, size_t index, uint64_t upTo,
                                           bool isBest) {
  KLT_Lane& lane = reader.lanes[index];
  Served outcome = Served::kContinues;
  for (;;) {
    const int result = KLT_Deliver(reader, *lane.stream, lane.next);
    if (isCheckDue(reader) || result != 0 || lane.next == lane.end) [[unlikely]] {
      outcome = afterRecord(reader, index, result);
      const bool stopsLater = outcome == Served::kTimeIsUp && !(isBest && lane.nextTime < upTo);
      if (outcome != Served::kContinues && !stopsLater) return outcome;
    } else {
      lane.nextTime = KLT_RecordTime(lane.next);
    }
    if (lane.nextTime > upTo) return outcome;
  }
}

// Removes a stream from the tournament after removeStream() has removed it from the list of
// streams, in which the last stream now has its position.
void removeFromOrder(KLT_Reader& reader, size_t index) {
  if (index < reader.streams.size()) {
    reader.order.update(index, reader.lanes[index].nextTime);
  }
  reader.order.removeLast();
}

// One turn: serves the stream with the lowest next time, `best`, then the runner-up. Returns a
// status, or kNoStatus.
[[gnu::always_inline]] inline int takeTurn(KLT_Reader& reader, size_t best) {
  KLT_MergeTree& order = reader.order;
  const auto [second, upTo] = order.second(best);
  if (second == KLT_MergeTree::kNone) [[unlikely]] {
    return statusOf(reader, serve(reader, best, ~uint64_t{0}, true));
  }
  Served first = Served::kContinues;
  if (reader.lanes[best].nextTime <= upTo) [[likely]] {
    first = serve(reader, best, upTo, true);
    const bool isServed = first == Served::kTimeIsUp && reader.lanes[best].nextTime > upTo;
    if (first != Served::kContinues && !isServed) [[unlikely]] {
      if (isRemoved(first)) removeFromOrder(reader, best);
      return statusOf(reader, first);
    }
  }
  const Served next = serve(reader, second, upTo, false);
  if (isRemoved(next)) [[unlikely]] {
    if (best < reader.streams.size()) order.update(best, reader.lanes[best].nextTime);
    removeFromOrder(reader, second);
  } else {
    order.update(best, reader.lanes[best].nextTime, second, reader.lanes[second].nextTime);
  }
  return statusOf(reader, next == Served::kContinues ? first : next);
}

// Delivers the records of the slice. Returns a status, or kNoStatus.
int serveSlice(KLT_Reader& reader) {
  KLT_Slice& slice = reader.slice;
  for (;;) {
    const KLT_Slice::Record next = slice.next();
    if (next.record == nullptr) return kNoStatus;
    uint8_t* recordEnd = next.record;
    const int result = KLT_Deliver(reader, *reader.lanes[next.position].stream, recordEnd);
    slice.delivered(recordEnd);
    if (isCheckDue(reader) || result != 0) [[unlikely]] {
      if (result != 0) {
        slice.endTurn();
        return KLT_STATUS_HANDLER;
      }
      if (reader.limit.reached()) return KLT_STATUS_TIME;
    }
  }
}

// Serves streams by turns until the next slice or the end. If the previous slice ended while a
// stream was being served, the first turn continues with that stream as its best one. Returns a
// status, or kNoStatus.
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

// Prepares the next records of every stream. Returns a status, or kNoStatus. Each call prepares at
// least one more stream, so repeated calls make progress.
int prepareAll(KLT_Reader& reader) {
  for (size_t i = 0; i < reader.streams.size();) {
    const KLT_Lane& lane = reader.lanes[i];
    const bool isEmpty = lane.isFilled || lane.next == lane.end;
    switch (prepareNext(reader, i)) {
      case Next::kReady:
        ++i;
        break;
      case Next::kFinished:
        break;
      case Next::kFailed:
        return afterFailure(reader);
    }
    if (isEmpty && reader.limit.reached()) return KLT_STATUS_TIME;
  }
  return kNoStatus;
}

// Reads the streams that are alone, then opens the others. Returns a status, or kNoStatus.
int readAlone(KLT_Reader& reader) {
  const int status = KLT_ReadAlone(reader);
  if (status != KLT_STATUS_FINISHED) return status;
  const KLT_AloneReceiver& receiver = reader.alone->receiver;
  receiver.mergeStarts(receiver.handlers.user_data);
  reader.pass.handlers = reader.alone->merged;
  KLT_OpenStreams(reader);
  reader.alone = nullptr;
  return kNoStatus;
}

int readInOrder(KLT_Reader& reader) {
  if (reader.alone != nullptr) {
    const int status = readAlone(reader);
    if (status != kNoStatus) return status;
  }
  int status = prepareAll(reader);
  if (status == kNoStatus) reader.hasDelivered = true;
  while (status == kNoStatus && !reader.streams.empty()) {
    const bool isSliced = !reader.slice.empty() || reader.slice.gather(reader.lanes);
    status = isSliced ? serveSlice(reader) : serveByTournament(reader);
  }
  return status == kNoStatus ? KLT_STATUS_FINISHED : status;
}

// Serves the streams one after the other, each until its turn ends.
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
  restartRecordCount(*reader);
  reader->status = reader->pass.serial ? readInOrder(*reader) : readInTurns(*reader);
  return reader->status;
}

int KLT_ReaderStatus(const KLT_Reader* reader) { return reader->status; }

bool KLT_ReaderHasStreams(const KLT_Reader* reader) { return !reader->streams.empty(); }

double KLT_Progress(const KLT_Reader* reader) {
  if (reader->status == KLT_STATUS_FINISHED) return 1.0;
  if (reader->alone != nullptr) {
    return static_cast<double>(reader->alone->next) / static_cast<double>(reader->streams.size());
  }
  if (reader->bytesTotal == 0) return reader->pass.serial ? 1.0 : 0.0;
  // The bytes read before the first delivery don't count until then: they are those of streams that
  // have nothing to deliver and of records before a window.
  if (reader->pass.serial && !reader->hasDelivered) return 0.0;
  auto done = static_cast<double>(reader->bytesDone);
  std::vector<size_t> inSlice(reader->streams.size());  // bytes
  reader->slice.eachWaiting([&](size_t position, const uint8_t* record) {
    inSlice[position] += KLT_RecordBytes(record);
  });
  for (size_t i = 0; i < reader->streams.size(); ++i) {
    const KLT_Stream& stream = *reader->streams[i];
    const uint64_t taken = stream.input.bytesTaken();
    // Of the bytes of the last fill only the share whose records have been delivered is counted.
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
  return reader->lostData || reader->pass.handle->lostData || reader->pass.handle->unread ||
         std::any_of(reader->streams.begin(), reader->streams.end(),
                     [](const auto& stream) { return stream->source.lostData; });
}
