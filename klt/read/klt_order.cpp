// Collects and sorts the records of a slice. See klt_order.h.
#include "klt/read/klt_order.h"

#include <array>
#include <cstring>

namespace {

constexpr size_t kUsualBytes = 32;       // of a record
constexpr uint64_t kMaxWidthFactor = 8;  // by which the width of a slice changes at most

// The number of records that a slice should have: enough to be worth reading the lanes of all
// streams, but so few that their copies stay in the cache. With 4,096 streams half as many take the
// same time for a pass, twice as many 1.08 of it.
size_t wantedRecords(size_t streams) { return std::min<size_t>(8 * streams, 65536); }

}  // namespace

// Whether to try to collect a slice, which reads the lanes of all streams. The stream that ended
// the last slice must have been filled since, and `credit_` must be at least the number of streams.
// A record delivered from a slice adds 1 to the credit, a turn of two streams 2; an attempt
// subtracts the number of streams and, if it saves no time, the number of records collected.
bool KLT_Slice::isDue(std::span<const KLT_Lane> lanes) {
  constexpr int64_t kMaxAttempts = 8;  // covered by the largest credit; 64 are as fast
  const auto cost = static_cast<int64_t>(lanes.size());
  if (minStreams_ < kManyStreams) return true;  // whenever that is possible
  const bool isBlocked = blocker_ < lanes.size() && lanes[blocker_].lastTime == blockedAt_;
  if (isBlocked || credit_ < cost) {
    credit_ += 2;
    return false;
  }
  credit_ = std::min(credit_, kMaxAttempts * cost) - cost;
  return true;
}

bool KLT_Slice::gatherNow(std::span<KLT_Lane> lanes) {
  uint64_t last = ~uint64_t{0};
  start_ = ~uint64_t{0};
  for (size_t i = 0; i < lanes.size(); ++i) {
    if (lanes[i].lastTime < last) blocker_ = i;
    last = std::min(last, lanes[i].lastTime);
    start_ = std::min(start_, lanes[i].nextTime);
  }
  blockedAt_ = last;
  if (last <= start_) return false;
  blocker_ = kNone;
  const size_t wanted = wantedRecords(lanes.size());
  if (entries_.size() < 4 * wanted) {
    entries_.resize(4 * wanted);
    sorted_.resize(entries_.size());
    copies_.resize(entries_.size() * kUsualBytes);
  }
  positionBits_ = static_cast<unsigned>(std::bit_width(lanes.size()));
  const uint64_t span = std::min(last - start_, width_);
  const Collected collected = collect(lanes, start_ + span);
  const auto count = static_cast<int64_t>(count_);
  if (!collected.complete) {
    for (KLT_Lane& lane : lanes) {
      lane.next = lane.beforeSlice;
      lane.nextTime = KLT_RecordTime(lane.next);
    }
    at_ = count_ = 0;
    credit_ -= count;
    width_ = width_ / kMaxWidthFactor + 1;
    return false;
  }
  // A turn in its second phase is over: the last slice had all records of the runner-up for it.
  if (phase_ == Phase::kSecond) phase_ = Phase::kBegin;
  // A slice of few streams saves no time compared with turns.
  credit_ += collected.sources < lanes.size() / 8 ? -count : count;
  if (span == width_) adaptWidth(wanted, std::max(count_, collected.bytes / kUsualBytes));
  sort(span);
  return true;
}

// Copies the records of all streams before the time `end` to one block of memory. This is faster
// because the records of most streams are on different pages, and a TLB miss takes longer than
// processing a record.
KLT_Slice::Collected KLT_Slice::collect(std::span<KLT_Lane> lanes, uint64_t end) {
  // Prefetching the records of later lanes saves a tenth of the time of a pass.
  constexpr size_t kLanesAhead = 6;
  constexpr size_t kBytesAhead = 256;
  constexpr size_t kCacheLine = 64;
  constexpr size_t kHead = 16;  // bytes at the start of a record, which include its time
  at_ = count_ = 0;
  early_ = kNone;
  for (KLT_Lane& lane : lanes) lane.beforeSlice = lane.next;
  const size_t maxEntries = entries_.size();
  uint8_t* to = copies_.data();
  size_t sources = 0;
  for (size_t i = 0; i < lanes.size(); ++i) {
    if (i + kLanesAhead < lanes.size()) {
      const uint8_t* const next = lanes[i + kLanesAhead].next;
      for (size_t byte = 0; byte < kBytesAhead; byte += kCacheLine) __builtin_prefetch(next + byte);
    }
    KLT_Lane& lane = lanes[i];
    if (i == best_) afterBest_ = to;
    for (uint64_t time = start_; lane.nextTime < end; lane.nextTime = KLT_RecordTime(lane.next)) {
      // The tournament handles times that decrease, and more records than there is room for.
      if (lane.nextTime < time || count_ == maxEntries) [[unlikely]]
        return {};
      time = lane.nextTime;
      entries_[count_++] = {(time - start_) << positionBits_ | i,
                            to + (lane.next - lane.beforeSlice)};
      lane.next += KLT_RecordBytes(lane.next);
      if (lane.next == lane.end) [[unlikely]]
        return {};
    }
    sources += lane.next != lane.beforeSlice ? 1 : 0;
    // The head of the first record after the slice is copied too, because next() reads its time.
    const auto bytes = static_cast<size_t>(lane.next - lane.beforeSlice) + kHead;
    if (bytes > static_cast<size_t>(copies_.data() + copies_.size() - to)) [[unlikely]]
      return {};
    std::memcpy(to, lane.beforeSlice, bytes);
    to += bytes;
  }
  return {true, sources, static_cast<size_t>(to - copies_.data())};
}

// Changes the width so that the next slice has about `wanted` records.
void KLT_Slice::adaptWidth(size_t wanted, size_t collected) {
  const uint64_t maxWidth = uint64_t{1} << (60 - positionBits_);  // fits a key
  if (collected > 2 * wanted) width_ = width_ / 2 + 1;
  if (collected < wanted / 2) {
    width_ *= collected < wanted / (2 * kMaxWidthFactor) ? kMaxWidthFactor : 2;
  }
  width_ = std::min(maxWidth, width_);
}

// Radix sort by digits of the time, the lowest first. It is stable: entries with the same time stay
// in the order of their streams.
void KLT_Slice::sort(uint64_t span) {
  constexpr unsigned kBits = 10;  // of a digit; its counts fit the first-level cache
  constexpr uint64_t kMask = (uint64_t{1} << kBits) - 1;
  const auto timeBits = static_cast<unsigned>(std::bit_width(span - 1));
  for (unsigned done = 0; done < timeBits; done += kBits) {
    const unsigned shift = positionBits_ + done;
    std::array<uint32_t, kMask + 1> places{};
    for (size_t i = 0; i < count_; ++i) ++places[entries_[i].key >> shift & kMask];
    uint32_t sum = 0;
    for (uint32_t& place : places) {
      const uint32_t entries = place;
      place = sum;
      sum += entries;
    }
    for (size_t i = 0; i < count_; ++i) {
      sorted_[places[entries_[i].key >> shift & kMask]++] = entries_[i];
    }
    entries_.swap(sorted_);
  }
}
