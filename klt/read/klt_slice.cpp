// Gathering and sorting the records of a slice. See klt_slice.h.
#include "klt/read/klt_slice.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

namespace {

constexpr size_t kUsualBytes = 32;  // of a record

// How many records a slice should have: enough to be worth a look at all streams, few enough for
// their copies to stay near the core.
size_t wantedRecords(size_t streams) { return std::clamp<size_t>(8 * streams, 2048, 65536); }

}  // namespace

// Looking at all streams costs some time for each, which must be won back: by slices that hold
// records of many streams. Otherwise the tournament delivers a good many records before the next
// attempt.
bool KLT_Slice::gather(std::span<KLT_Lane> lanes, uint64_t fills) {
  constexpr int64_t kRecordsPerTurn = 2;
  constexpr int64_t kMostLooks = 64;  // that can be won in advance
  const auto cost = static_cast<int64_t>(lanes.size());
  if (fills == fillsSeen_ || credit_ < cost) {
    credit_ += kRecordsPerTurn;
    return false;
  }
  credit_ = std::min(credit_, kMostLooks * cost) - cost;

  uint64_t last = ~uint64_t{0};
  start_ = ~uint64_t{0};
  for (const KLT_Lane& lane : lanes) {
    last = std::min(last, lane.lastTime);
    start_ = std::min(start_, lane.nextTime);
  }
  if (last <= start_) {
    fillsSeen_ = fills;
    return false;
  }
  const size_t wanted = wantedRecords(lanes.size());
  if (entries_.size() < 4 * wanted) {
    entries_.resize(4 * wanted + kFetchedAhead + 1);
    sorted_.resize(entries_.size());
    copies_.resize(entries_.size() * kUsualBytes);
  }
  positionBits_ = static_cast<unsigned>(std::bit_width(lanes.size()));
  const uint64_t span = std::min(last - start_, width_);
  const Collected collected = collect(lanes, start_ + span);
  if (!collected.complete) {
    for (KLT_Lane& lane : lanes) {
      lane.next = lane.beforeSlice;
      lane.nextTime = KLT_RecordTime(lane.next);
    }
    credit_ -= static_cast<int64_t>(count_);
    at_ = count_ = 0;
    width_ = width_ / 8 + 1;
    return false;
  }
  // The runner-up's turn is over: its records of that time were in the slice before.
  if (phase_ == Phase::kSecond) phase_ = Phase::kBegin;
  constexpr size_t kFewOf = 8;  // an eighth
  constexpr int64_t kLooksLost = 4;
  const bool isNarrow = span == width_ && count_ < wanted / 2;
  const bool isOfFew = collected.sources < lanes.size() / kFewOf && !isNarrow;
  credit_ += isOfFew ? -kLooksLost * cost : kRecordsPerTurn * static_cast<int64_t>(count_);
  if (span == width_) adaptWidth(wanted, collected.bytes);
  sort(span);
  return true;
}

// The records are copied to where they lie side by side: most streams' records lie on pages of
// their own, and finding a page takes longer than all that is done with a record.
KLT_Slice::Collected KLT_Slice::collect(std::span<KLT_Lane> lanes, uint64_t end) {
  constexpr size_t kLanesAhead = 6;
  constexpr size_t kBytesAhead = 256;
  constexpr size_t kLine = 64;
  constexpr size_t kHead = 16;  // of a record, its time included
  at_ = count_ = 0;
  ahead_ = kNone;
  for (KLT_Lane& lane : lanes) lane.beforeSlice = lane.next;
  const size_t most = entries_.size() - kFetchedAhead - 1;
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

void KLT_Slice::adaptWidth(size_t wanted, size_t bytes) {
  const uint64_t widest = uint64_t{1} << (62 - positionBits_);
  const size_t room = copies_.size();
  if (count_ > 2 * wanted || bytes > room / 2) width_ = width_ / 2 + 1;
  if (count_ < wanted / 2 && bytes < room / 4) width_ = std::min(widest, 2 * width_);
  if (count_ < wanted / 16 && bytes < room / 32) width_ = std::min(widest, 8 * width_);
}

// By digits of the time, the lowest first. Entries of one time stay as they were gathered: in the
// order of their streams.
void KLT_Slice::sort(uint64_t span) {
  constexpr unsigned kBits = 10;
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
