// Gathering and sorting the records of a slice. See klt_order.h.
#include "klt/read/klt_order.h"

#include <array>
#include <cstring>

namespace {

constexpr size_t kUsualBytes = 32;   // of a record
constexpr uint64_t kMostChange = 8;  // of the width of a slice, as a factor

// How many records a slice should have: enough to be worth a look at all streams, few enough for
// their copies to stay near the core. With half as many a pass takes the same time, with twice as
// many 1.08 of it (4,096 streams).
size_t wantedRecords(size_t streams) { return std::min<size_t>(8 * streams, 65536); }

}  // namespace

// Whether to look at all streams. A look has to wait until the stream that ended the last slice has
// been filled, and until it is paid for: by a record delivered for each stream, in slices or in
// turns of two streams. What was gathered in vain counts against it.
bool KLT_Slice::isDue(std::span<const KLT_Lane> lanes) {
  constexpr int64_t kMostLooks = 8;  // that can be paid in advance; 64 do as well
  const auto cost = static_cast<int64_t>(lanes.size());
  if (fewestStreams_ < kManyStreams) return true;  // in tests
  const bool isBlocked = blocker_ < lanes.size() && lanes[blocker_].lastTime == blockedAt_;
  if (isBlocked || credit_ < cost) {
    credit_ += 2;
    return false;
  }
  credit_ = std::min(credit_, kMostLooks * cost) - cost;
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
    width_ = width_ / kMostChange + 1;
    return false;
  }
  // The runner-up's turn is over: its records of that time were in the slice before.
  if (phase_ == Phase::kSecond) phase_ = Phase::kBegin;
  // Few streams would be served as fast by turns.
  credit_ += collected.sources < lanes.size() / 8 ? -count : count;
  if (span == width_) adaptWidth(wanted, std::max(count_, collected.bytes / kUsualBytes));
  sort(span);
  return true;
}

// The records are copied to where they lie side by side: most streams' records lie on pages of
// their own, and finding a page takes longer than all that is done with a record.
KLT_Slice::Collected KLT_Slice::collect(std::span<KLT_Lane> lanes, uint64_t end) {
  // Fetching the records of later lanes saves a tenth of a pass.
  constexpr size_t kLanesAhead = 6;
  constexpr size_t kBytesAhead = 256;
  constexpr size_t kLine = 64;
  constexpr size_t kHead = 16;  // of a record, its time included
  at_ = count_ = 0;
  ahead_ = kNone;
  for (KLT_Lane& lane : lanes) lane.beforeSlice = lane.next;
  const size_t most = entries_.size();
  uint8_t* to = copies_.data();
  size_t sources = 0;
  for (size_t i = 0; i < lanes.size(); ++i) {
    if (i + kLanesAhead < lanes.size()) {
      const uint8_t* const next = lanes[i + kLanesAhead].next;
      for (size_t byte = 0; byte < kBytesAhead; byte += kLine) __builtin_prefetch(next + byte);
    }
    KLT_Lane& lane = lanes[i];
    if (i == best_) afterBest_ = to;
    for (uint64_t before = start_; lane.nextTime < end; lane.nextTime = KLT_RecordTime(lane.next)) {
      // Times that lead back are for the tournament, as is more than there is room for.
      if (lane.nextTime < before || count_ == most) [[unlikely]]
        return {};
      before = lane.nextTime;
      entries_[count_++] = {(before - start_) << positionBits_ | i,
                            to + (lane.next - lane.beforeSlice)};
      lane.next += KLT_RecordBytes(lane.next);
      if (lane.next == lane.end) [[unlikely]]
        return {};
    }
    sources += lane.next != lane.beforeSlice ? 1 : 0;
    // With the head of the record that stays.
    const auto bytes = static_cast<size_t>(lane.next - lane.beforeSlice) + kHead;
    if (bytes > static_cast<size_t>(copies_.data() + copies_.size() - to)) [[unlikely]]
      return {};
    std::memcpy(to, lane.beforeSlice, bytes);
    to += bytes;
  }
  return {true, sources, static_cast<size_t>(to - copies_.data())};
}

// Makes the next slice about as large as wanted.
void KLT_Slice::adaptWidth(size_t wanted, size_t gathered) {
  const uint64_t widest = uint64_t{1} << (60 - positionBits_);  // keys have room for it, and more
  if (gathered > 2 * wanted) width_ = width_ / 2 + 1;
  if (gathered < wanted / 2) width_ *= gathered < wanted / (2 * kMostChange) ? kMostChange : 2;
  width_ = std::min(widest, width_);
}

// By digits of the time, the lowest first. Entries of one time stay as they were gathered: in the
// order of their streams.
void KLT_Slice::sort(uint64_t span) {
  constexpr unsigned kBits = 10;  // of a digit: its counts fit the nearest cache
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
