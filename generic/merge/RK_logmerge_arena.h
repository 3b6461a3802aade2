// KLTM_Arena holds incomplete records, in order of arrival, up to a bounded size.
//
// The first event of a communication adds an entry, which stays until it is complete and written.
// Nothing is written until the arena is full. Then a flush writes all entries before the oldest
// incomplete entry, so that records are written in order of time. Only if this doesn't free enough
// room, it writes all entries. An incomplete record has an update slot, through which it is written
// again after further events.
//
// Every flush writes the oldest unwritten entries, so all written entries are older than all
// unwritten ones. A flush only visits the unwritten entries and those that events have changed
// since they were written, so its cost is bounded by the number of events.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <queue>
#include <vector>

#include "klt/write/klt_write.h"

// The common base of messages and collective operations.
struct KLTM_EntryHead {
  uint64_t time = 0;      // of the first event; the record's time
  uint64_t lastTime = 0;  // the end of the last event
  uint64_t sequence = 0;  // order of arrival, from 1; 0 while the entry is free
  KLT_UpdateSlot slot;    // where an incomplete record was written
  uint32_t pending = 0;   // number of events still awaited
  uint8_t row = 0;        // the row in which it was first written; 0 before that
  bool written = false;
  bool dirty = false;  // changed since it was written
};

// The entries of one kind. `Entry` derives from KLTM_EntryHead and has bytes(), its share of the
// capacity, which may be more than its memory. An `owner` has the functions write(Entry&), which
// writes the record, and release(Entry&), which is called before an entry is freed. Entries keep
// their addresses.
template <class Entry>
class KLTM_Arena {
 public:
  // A reference to an entry that may be freed and reused later.
  struct Reference {
    uint64_t sequence = 0;
    Entry* entry = nullptr;

    [[nodiscard]] bool open() const { return entry->sequence == sequence && entry->pending > 0; }
  };

  // `blockBytes` is the initial capacity and the least amount by which it grows.
  explicit KLTM_Arena(uint64_t blockBytes) : capacity_(blockBytes), blockBytes_(blockBytes) {}

  // Adds an entry of `bytes` bytes for an event at `now`. The entry is dirty and has a sequence.
  // Flushes if the arena is full.
  template <class Owner>
  Entry& append(Owner& owner, uint64_t bytes, uint64_t now) {
    if (capacity_ - used_ < bytes) [[unlikely]]
      makeRoom(owner, bytes, now);
    used_ += bytes;
    Node& node = takeFree();
    node.sequence = ++lastSequence_;
    node.dirty = true;
    if (newest_ != nullptr)
      newest_->following = &node;
    else
      oldestUnwritten_ = &node;
    newest_ = &node;
    return node;
  }

  // Counts down the awaited events of the entry: an event has arrived, or isn't expected any more.
  // REQUIRES: pending > 0.
  void decrementPending(Entry& entry) {
    --entry.pending;
    if (entry.written) {
      if (entry.pending == 0)
        completed_.push_back({entry.sequence, &entry});
      else if (!entry.dirty)
        changed_.push_back({entry.sequence, &entry});
    }
    entry.dirty = true;
  }

  // Writes and frees all entries, complete or not.
  template <class Owner>
  void finish(Owner& owner) {
    flush(owner, ~uint64_t{0}, true);
  }

  [[nodiscard]] uint64_t capacity() const { return capacity_; }
  // The sequence of the newest entry; 0 before the first.
  [[nodiscard]] uint64_t lastSequence() const { return lastSequence_; }

 private:
  static constexpr size_t kBlockEntries = 512;

  struct Node : Entry {
    Node* following = nullptr;  // in order of arrival while unwritten; also links free nodes
  };
  struct LaterFirst {
    bool operator()(const Node* a, const Node* b) const { return a->lastTime > b->lastTime; }
  };

  Node& takeFree() {
    if (free_ == nullptr) addBlock();
    Node& node = *free_;
    free_ = node.following;
    node.following = nullptr;
    return node;
  }

  void addBlock() {
    blocks_.push_back(std::make_unique<Node[]>(kBlockEntries));
    for (size_t i = kBlockEntries; i-- > 0;) {
      blocks_.back()[i].following = free_;
      free_ = &blocks_.back()[i];
    }
  }

  template <class Owner>
  void makeRoom(Owner& owner, uint64_t bytes, uint64_t now) {
    flush(owner, now, false);
    if (capacity_ - used_ >= bytes) return;
    flush(owner, now, true);
    // An arena that is nearly full of waiting entries would be flushed every few events, so it
    // grows.
    if (used_ <= capacity_ / 2 && capacity_ - used_ >= bytes) return;
    capacity_ = std::max({2 * capacity_, capacity_ + blockBytes_, used_ + bytes});
  }

  // Writes entries, and frees the complete entries whose last event ends by `now`. With `force`
  // incomplete entries are written, too.
  template <class Owner>
  void flush(Owner& owner, uint64_t now, bool force) {
    while (!waitingForEnd_.empty() && waitingForEnd_.top()->lastTime <= now) {
      Node* node = waitingForEnd_.top();
      waitingForEnd_.pop();
      drop(owner, *node);
    }
    flushTouched(owner, now, force);
    while (oldestUnwritten_ != nullptr) {
      Node& node = *oldestUnwritten_;
      if (node.pending > 0 && !force) break;
      oldestUnwritten_ = node.following;
      write(owner, node);
      if (node.pending == 0) retire(owner, node, now);
    }
    if (oldestUnwritten_ == nullptr) newest_ = nullptr;
  }

  // Writes entries again that have changed since they were written, in order of arrival.
  template <class Owner>
  void flushTouched(Owner& owner, uint64_t now, bool force) {
    std::vector<Reference> touched;
    touched.swap(completed_);
    if (force) {
      for (const Reference& t : changed_) {
        if (t.open() && t.entry->dirty) touched.push_back(t);
      }
      changed_.clear();
    }
    std::sort(touched.begin(), touched.end(),
              [](const Reference& a, const Reference& b) { return a.sequence < b.sequence; });
    for (const Reference& t : touched) {
      Node& node = static_cast<Node&>(*t.entry);
      write(owner, node);
      if (node.pending == 0) retire(owner, node, now);
    }
  }

  template <class Owner>
  void write(Owner& owner, Node& node) {
    owner.write(node);
    node.dirty = false;
    node.written = true;
  }

  // Frees a complete, written entry, at once if its last event ends by `now`, else after that end.
  template <class Owner>
  void retire(Owner& owner, Node& node, uint64_t now) {
    if (node.lastTime <= now)
      drop(owner, node);
    else
      waitingForEnd_.push(&node);
  }

  template <class Owner>
  void drop(Owner& owner, Node& node) {
    used_ -= node.bytes();
    owner.release(node);
    static_cast<Entry&>(node) = Entry{};
    node.following = free_;
    free_ = &node;
  }

  uint64_t capacity_;
  uint64_t blockBytes_;
  uint64_t used_ = 0;
  uint64_t lastSequence_ = 0;
  Node* oldestUnwritten_ = nullptr;
  Node* newest_ = nullptr;            // the newest unwritten entry
  std::vector<Reference> completed_;  // completed since they were written
  std::vector<Reference> changed_;    // incomplete, changed since they were written; may be freed
  // Complete and written, but their last event hasn't ended.
  std::priority_queue<Node*, std::vector<Node*>, LaterFirst> waitingForEnd_;
  std::vector<std::unique_ptr<Node[]>> blocks_;
  Node* free_ = nullptr;
};
