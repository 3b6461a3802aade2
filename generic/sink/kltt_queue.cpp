// The `pending` queue: a radix queue over a pool of nodes. See kltt_queue.h.
#include "generic/sink/kltt_queue.h"

#include <algorithm>
#include <bit>

#include "util/pal_mem.h"

namespace {

constexpr size_t kKeptKeys = 1024;  // an empty list with a larger capacity frees its memory

}  // namespace

uint32_t KLTT_Queue::newNode() {
  if (!freeNodes_.empty()) {
    const uint32_t node = freeNodes_.back();
    freeNodes_.pop_back();
    return node;
  }
  PAL_MakeRoom(nodes_);
  nodes_.emplace_back();
  return static_cast<uint32_t>(nodes_.size() - 1);
}

// REQUIRES: key.time >= now_.
inline void KLTT_Queue::place(const Key& key) {
  const uint64_t difference = key.time ^ now_;
  if (difference == 0) {
    PAL_MakeRoom(due_);
    due_.push_back(key);
    return;
  }
  const int level = (63 - std::countl_zero(difference)) / kDigitBits;
  const uint64_t digit = key.time >> (level * kDigitBits) & 63;
  const size_t position = static_cast<size_t>(level);
  Bucket& bucket = buckets_[position][digit];
  bucket.leastTime = std::min(bucket.leastTime, key.time);
  bucket.lastTime = std::max(bucket.lastTime, key.time);
  PAL_MakeRoom(bucket.keys);
  bucket.keys.push_back(key);
  usedDigits_[position] |= uint64_t{1} << digit;
  usedLevels_ |= uint32_t{1} << level;
}

// REQUIRES: a bucket holds keys.
inline KLTT_Queue::Bucket& KLTT_Queue::lowestBucket() {
  const size_t level = static_cast<size_t>(std::countr_zero(usedLevels_));
  return buckets_[level][static_cast<size_t>(std::countr_zero(usedDigits_[level]))];
}

KLTT_Delayed& KLTT_QueueAdd(KLTT_Queue& q, uint64_t time) {
  if (q.frontList_.empty() ? time < q.nextTime_ : time == q.frontListTime_) {
    q.frontListTime_ = time;
    q.nextTime_ = std::min(q.nextTime_, time);
    ++q.count_;
    PAL_MakeRoom(q.frontList_);
    return q.frontList_.emplace_back();
  }
  const uint32_t node = q.newNode();
  if (time < q.now_) [[unlikely]] {
    if (q.count_ == 0) {
      q.now_ = 0;
    } else {
      q.late_.push_back({.time = time, .arrival = q.arrivals_++, .node = node});
      std::push_heap(q.late_.begin(), q.late_.end());
    }
  }
  if (time >= q.now_) q.place({.time = time, .node = node});
  q.nextTime_ = std::min(q.nextTime_, time);
  ++q.count_;
  return q.nodes_[node];
}

void KLTT_Queue::addComment(uint64_t time, std::string_view text, uint32_t infoClass) {
  uint32_t number = 0;
  if (freeTexts_.empty()) {
    number = static_cast<uint32_t>(texts_.size());
    texts_.emplace_back(text);
  } else {
    number = freeTexts_.back();
    freeTexts_.pop_back();
    texts_[number] = text;
  }
  KLTT_Delayed& node = KLTT_QueueAdd(*this, time);
  node.kind = KLTT_DelayedKind::kComment;
  node.gtp = 0;
  node.comment = {.text = number, .infoClass = infoClass};
}

// Advances `now_` to the earliest time in the buckets and moves the keys of that time to `due_`.
// REQUIRES: all keys in `due_` have been removed; a bucket holds keys.
void KLTT_Queue::spreadLowestBucket() {
  due_.clear();
  dueNext_ = 0;
  const size_t level = static_cast<size_t>(std::countr_zero(usedLevels_));
  Bucket& bucket = lowestBucket();
  usedDigits_[level] &= usedDigits_[level] - 1;
  if (usedDigits_[level] == 0) usedLevels_ &= usedLevels_ - 1;
  now_ = bucket.leastTime;
  if (bucket.lastTime == now_) {
    due_.swap(bucket.keys);
  } else {
    for (const Key& key : bucket.keys) place(key);
    bucket.keys.clear();
  }
  bucket.leastTime = kNever;
  bucket.lastTime = 0;
  if (bucket.keys.capacity() > kKeptKeys) std::vector<Key>().swap(bucket.keys);
}

uint32_t KLTT_Queue::frontNode() {
  if (!late_.empty()) [[unlikely]]
    return late_.front().node;
  if (dueNext_ == due_.size()) spreadLowestBucket();
  return due_[dueNext_].node;
}

// The time of the first node that isn't in `frontList_`.
uint64_t KLTT_Queue::firstTimeElsewhere() {
  if (!late_.empty()) [[unlikely]]
    return late_.front().time;
  if (dueNext_ != due_.size()) return now_;
  return usedLevels_ == 0 ? kNever : lowestBucket().leastTime;
}

void KLTT_Queue::freeText(const KLTT_Delayed& node) {
  if (node.kind != KLTT_DelayedKind::kComment) [[likely]]
    return;
  std::string().swap(texts_[node.comment.text]);
  freeTexts_.push_back(node.comment.text);
}

void KLTT_Queue::pop() {
  --count_;
  if (isFrontListFirst()) {
    freeText(frontList_[frontListNext_++]);
    if (frontListNext_ != frontList_.size()) return;
    frontList_.clear();
    if (frontList_.capacity() > kKeptKeys) std::vector<KLTT_Delayed>().swap(frontList_);
    frontListNext_ = 0;
    nextTime_ = firstTimeElsewhere();
    return;
  }
  const uint32_t first = frontNode();
  freeText(nodes_[first]);
  PAL_MakeRoom(freeNodes_);
  freeNodes_.push_back(first);
  if (late_.empty()) [[likely]] {
    ++dueNext_;
  } else {
    std::pop_heap(late_.begin(), late_.end());
    late_.pop_back();
  }
  nextTime_ = firstTimeElsewhere();
  if (!frontList_.empty()) nextTime_ = std::min(nextTime_, frontListTime_);
}
