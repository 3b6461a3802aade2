// The `pending` queue: sorted runs, and a heap for the rest. See kltt_queue.h.
#include "generic/kltt_queue.h"

#include <algorithm>

void KLTT_Queue::Run::append(const Key& key) {
  if (count_ == ring_.size()) {
    std::vector<Key> larger(std::max<size_t>(64, ring_.size() * 2));
    for (size_t i = 0; i < count_; ++i) larger[i] = ring_[(head_ + i) & (ring_.size() - 1)];
    ring_.swap(larger);
    head_ = 0;
  }
  ring_[(head_ + count_) & (ring_.size() - 1)] = key;
  ++count_;
  lastTime_ = key.time;
}

uint32_t KLTT_Queue::newNode() {
  if (!freeNodes_.empty()) {
    const uint32_t node = freeNodes_.back();
    freeNodes_.pop_back();
    return node;
  }
  nodes_.emplace_back();
  return static_cast<uint32_t>(nodes_.size() - 1);
}

// The run whose end is closest below the new node, so that the others stay open for earlier ones.
void KLTT_Queue::sortIn(const Key& key) {
  size_t best = kHeap;
  uint64_t bestTime = 0;
  for (size_t i = 0; i < kRuns; ++i) {
    const uint64_t last = runs_[i].lastTime();
    if (last <= key.time && (best == kHeap || last > bestTime)) {
      best = i;
      bestTime = last;
    }
  }
  if (best != kHeap) {
    runs_[best].append(key);
  } else {
    heap_.push_back(key);
    std::push_heap(heap_.begin(), heap_.end(),
                   [](const Key& a, const Key& b) { return before(b, a); });
  }
  if (before(key, fronts_[best])) fronts_[best] = key;
  if (before(key, next_)) {
    next_ = key;
    nextSource_ = best;
  }
  ++count_;
}

KLTT_Delayed& KLTT_Queue::add(uint64_t time) {
  const Key key{.time = time, .sequence = sequence_++, .node = newNode()};
  sortIn(key);
  return nodes_[key.node];
}

void KLTT_Queue::addComment(uint64_t time, std::string_view text) {
  uint32_t place = 0;
  if (freeTexts_.empty()) {
    place = static_cast<uint32_t>(texts_.size());
    texts_.emplace_back(text);
  } else {
    place = freeTexts_.back();
    freeTexts_.pop_back();
    texts_[place] = text;
  }
  KLTT_Delayed& node = add(time);
  node.kind = KLTT_DelayedKind::kComment;
  node.gtp = 0;
  node.text = place;
}

void KLTT_Queue::refreshFront(size_t source) {
  if (source == kHeap) {
    fronts_[kHeap] = heap_.empty() ? kNoKey : heap_.front();
  } else {
    fronts_[source] = runs_[source].empty() ? kNoKey : runs_[source].front();
  }
}

void KLTT_Queue::pop() {
  const KLTT_Delayed& node = nodes_[next_.node];
  if (node.kind == KLTT_DelayedKind::kComment) {
    std::string().swap(texts_[node.text]);
    freeTexts_.push_back(node.text);
  }
  freeNodes_.push_back(next_.node);
  if (nextSource_ == kHeap) {
    std::pop_heap(heap_.begin(), heap_.end(),
                  [](const Key& a, const Key& b) { return before(b, a); });
    heap_.pop_back();
  } else {
    runs_[nextSource_].removeFront();
  }
  --count_;
  refreshFront(nextSource_);
  nextSource_ = 0;
  for (size_t i = 1; i < fronts_.size(); ++i) {
    if (before(fronts_[i], fronts_[nextSource_])) nextSource_ = i;
  }
  next_ = fronts_[nextSource_];
}
