// Delivers the calls of threads on their own. See klt_alone.h.
#include "klt/read/klt_alone.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "klt/read/klt_deliver.h"
#include "klt/read/klt_reader.h"
#include "klt/stream/klt_filter.h"
#include "klt/stream/klt_position.h"
#include "util/pal_hash.h"
#include "util/pal_util.h"

namespace {

bool hasCalls(const KLT_Stream& stream) {
  return (stream.source.categories & klt::kFunctions) != 0;
}

bool hasOneThread(const KLT_Stream& stream) {
  const PAL_Triplets& threads = stream.source.threads->triplets();
  return threads.size() == 1 && threads[0].first == threads[0].last;
}

// Whether the component has the calls of one thread and nothing else, and all of it is selected.
bool isCallsOfThread(const KLT_Stream& stream) {
  const PAL_Triplets& threads = stream.source.threads->triplets();
  const KLT_StreamRequest& request = stream.requests.current();
  return stream.source.categories == klt::kFunctions && hasOneThread(stream) &&
         threads[0].stride != 0 && stream.requests.following() == nullptr && request.start == 0 &&
         request.end == ~uint64_t{0} && !request.testThreads;
}

void repeat(KLT_AloneStreams& alone, const uint8_t* record, size_t bytes) {
  std::memcpy(alone.repeated.reserve(bytes), record, bytes);
  alone.repeated.commit(bytes);
  alone.lastTime = KLT_RecordTime(record);
  *alone.receiver.repeats = false;
}

// Delivers the records of a fill. False if a handler stops the reader.
bool deliverFill(KLT_Reader& reader, KLT_Stream& stream) {
  uint8_t* next = stream.packed.records.data();
  const uint8_t* const end = next + stream.packed.records.used();
  while (next < end) {
    const uint8_t* const record = next;
    const int result = KLT_Deliver(reader, stream, next);
    if (*reader.alone->receiver.repeats) {
      repeat(*reader.alone, record, static_cast<size_t>(next - record));
    }
    if (result != 0) return false;
  }
  return true;
}

// Closes the stream, of which only the repeated records are left.
void closeAlone(KLT_Reader& reader, KLT_Stream& stream) {
  KLT_AloneStreams& alone = *reader.alone;
  reader.bytesDone += stream.input.bytesTaken();
  stream.source.failsAtEnd = std::exchange(stream.source.failed, false);
  stream.requests.finish();
  KLT_StreamClose(stream);
  const size_t bytes = alone.repeated.used();
  stream.packed.records.assign(alone.repeated.data(), bytes);
  stream.packed.outTime = alone.lastTime;
  stream.source.failed = bytes == 0 && stream.source.failsAtEnd;
  alone.repeated.clear();
  alone.receiver.streamEnded(alone.receiver.handlers.user_data);
}

// Reads the next stream. Returns a status; KLT_STATUS_FINISHED if it has been read.
int readStream(KLT_Reader& reader, KLT_Stream& stream) {
  if (stream.source.io == nullptr) {
    if (!KLT_StreamOpen(stream)) return KLT_STATUS_FINISHED;  // it stays failed
    reader.bytesTotal += stream.input.length();
  }
  for (;;) {
    (void)KLT_FillStream(stream);
    if (stream.source.failed || stream.packed.records.empty()) break;
    if (!deliverFill(reader, stream)) return KLT_STATUS_HANDLER;
    if (reader.limit.reached()) return KLT_STATUS_TIME;
  }
  closeAlone(reader, stream);
  return KLT_STATUS_FINISHED;
}

}  // namespace

std::unique_ptr<KLT_AloneStreams> KLT_ChooseAlone(const KLT_Reader& reader) {
  auto alone = std::make_unique<KLT_AloneStreams>();
  PAL_HashMap<uint32_t, uint32_t> components;  // with calls, by thread
  const auto threadOf = [](const KLT_Stream& stream) {
    return static_cast<uint32_t>(stream.source.threads->triplets()[0].first);
  };
  for (const auto& stream : reader.streams) {
    if (!hasCalls(*stream)) continue;
    // The threads of such a component could have calls in others, too.
    if (!isCallsOfThread(*stream)) return nullptr;
    ++components[threadOf(*stream)];
  }
  size_t count = 0;
  for (const auto& stream : reader.streams) {
    alone->isAlone.push_back(hasCalls(*stream) && components[threadOf(*stream)] == 1);
    count += alone->isAlone.back() ? 1 : 0;
  }
  // The merge of a few streams costs little.
  constexpr size_t kFew = 8;
  return count < (PAL_fast == PAL_Fast::kAlways ? 2 : kFew) ? nullptr : std::move(alone);
}

int KLT_ReadAlone(KLT_Reader& reader) {
  KLT_AloneStreams& alone = *reader.alone;
  for (; alone.next < reader.streams.size(); ++alone.next) {
    if (!alone.isAlone[alone.next]) continue;
    const int status = readStream(reader, *reader.streams[alone.next]);
    if (status != KLT_STATUS_FINISHED) return status;
    reader.lanes[alone.next].isFilled = true;
  }
  return KLT_STATUS_FINISHED;
}

namespace {

constexpr size_t kLargestBlock = 32 << 10;

// The bytes that each of `streams` streams reads at a time, and the encoded bytes that it collects.
// A stream needs about four times as much memory, because records are larger in memory than in
// files. So all streams together need 32 MiB, or more only if there are more than 4,096. With a
// budget of 256 MiB, which leaves the caches, a pass over 1,024 streams takes twice as long.
size_t blockOf(size_t streams) {
  constexpr size_t kBudget = 32 << 20;
  constexpr size_t kSmallest = 2048;
  const size_t share = kBudget / 4 / std::max<size_t>(streams, 1);
  return std::clamp(share / kSmallest * kSmallest, kSmallest, kLargestBlock);
}

// Fills a stream for the first time, whose blocks have `block` bytes. Before a window records are
// only skipped, which larger blocks make faster. No other stream has such blocks at the same time.
void fillFirst(KLT_Stream& stream, size_t block) {
  const bool skips = stream.filter.time < stream.filter.start;
  if (skips && block < kLargestBlock && !stream.input.compressed()) {
    stream.input.setBlock(kLargestBlock);
  }
  (void)KLT_FillStream(stream);
  if (skips && !stream.source.failed && !stream.input.shrinkBlock(block)) {
    stream.source.failed = true;
  }
}

}  // namespace

void KLT_OpenStreams(KLT_Reader& reader) {
  const auto isAlone = [&](size_t i) {
    return reader.alone != nullptr && reader.alone->isAlone[i];
  };
  size_t count = 0;
  for (size_t i = 0; i < reader.streams.size(); ++i) count += isAlone(i) ? 0 : 1;
  const size_t share = blockOf(count);
  // A stream of many threads has more records than the others. If it collected few at a time, it
  // would limit how many of the others can be sorted at once (klt_order).
  size_t whole = 64;  // streams that may have whole blocks
  for (size_t i = 0; i < reader.streams.size(); ++i) {
    if (isAlone(i)) continue;
    KLT_Stream& stream = *reader.streams[i];
    const bool isOpen = stream.source.io != nullptr || KLT_StreamOpen(stream);
    size_t block = share;
    if (!hasOneThread(stream) && whole > 0) {
      block = KLT_Input::kBlock;
      --whole;
    }
    if (isOpen) {
      reader.bytesTotal += stream.input.length();
      if (block < KLT_Input::kInflatedBlock || !stream.input.compressed()) {
        stream.input.setBlock(block);
      }
      stream.packed.capacity = block;
    }
    if (!reader.pass.serial) continue;
    if (isOpen) fillFirst(stream, block);
    reader.lanes[i].isFilled = true;
  }
}
