// Records in the making, in order of arrival, with a bound on how much of them waits.
//
// An entry is made by the first event of a communication and stays until it is complete and
// written. Nothing is written before room runs out. Then a flush writes what stands ahead of the
// oldest incomplete entry, so that records leave by time; only if that makes no room, all entries
// are written, incomplete ones through a slot that lets them be written again once more is known.
//
// Since every flush writes a beginning of the order, the written entries always stand ahead of the
// others. A flush therefore looks at the unwritten ones and at those that an event has touched
// since they were written, never at those that just wait: its cost is bounded by the events.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <queue>
#include <vector>

#include "klt/write/klt_write.h"
#include "util/pal_mem.h"

// What entries of both kinds begin with.
struct KLTM_EntryHead {
  uint64_t time = 0;      // of the first event; the record's time
  uint64_t lastTime = 0;  // when the last event was over
  uint64_t sequence = 0;  // order of arrival, from 1; 0 while the entry is free
  KLT_UpdateSlot slot;    // where an incomplete record was written
  uint32_t pending = 0;   // events still awaited
  uint8_t row = 0;        // in which it was written first; 0 before that
  bool written = false;
  bool dirty = false;  // changed since it was written
};

// The entries of one kind. `Entry` derives from KLTM_EntryHead and has bytes(), what it counts
// against the capacity. The owner, passed where entries may leave, has write(Entry&), which writes
// the record, and release(Entry&), called when an entry is given up. Entries keep their addresses.
template <class Entry>
class KLTM_Arena {
 public:
  // A capacity never passes this, whatever has to wait.
  static constexpr uint64_t kLargest = (uint64_t{1} << 31) - 8;

  // An entry that may be gone by the time it is looked at.
  struct Reference {
    uint64_t sequence = 0;
    Entry* entry = nullptr;

    [[nodiscard]] bool open() const { return entry->sequence == sequence && entry->pending > 0; }
  };

  // `blockBytes` is the first capacity and the least by which it grows.
  explicit KLTM_Arena(uint64_t blockBytes) : capacity_(blockBytes), blockBytes_(blockBytes) {}

  // A new entry that counts `bytes` bytes, made by an event at `now`: dirty, with a sequence. What
  // has to leave for it is written.
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

  // An event that the entry waited for has come, or won't come. REQUIRES: pending > 0.
  void settle(Entry& entry) {
    --entry.pending;
    if (entry.written) {
      if (entry.pending == 0)
        completed_.push_back({entry.sequence, &entry});
      else if (!entry.dirty)
        reopened_.push_back({entry.sequence, &entry});
    }
    entry.dirty = true;
  }

  // Writes all that is left and gives it up, complete or not.
  template <class Owner>
  void finish(Owner& owner) {
    flush(owner, ~uint64_t{0}, true);
  }

  [[nodiscard]] uint64_t capacity() const { return capacity_; }
  // Of the newest entry; 0 before the first.
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
    // Nearly full of entries that wait, it would be flushed for every few events.
    if (used_ <= capacity_ / 2 && capacity_ - used_ >= bytes) return;
    const uint64_t wanted = std::max({2 * capacity_, capacity_ + blockBytes_, used_ + bytes});
    capacity_ = std::max(capacity_, std::min(wanted, kLargest));
    if (capacity_ - used_ < bytes) PAL_OutOfMemory(used_ + bytes, __FILE__, __LINE__);
  }

  // `now` decides which complete entries can go: those that are over. With `force` incomplete ones
  // are written too.
  template <class Owner>
  void flush(Owner& owner, uint64_t now, bool force) {
    while (!lingering_.empty() && lingering_.top()->lastTime <= now) {
      Node* node = lingering_.top();
      lingering_.pop();
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

  // The written entries that changed, in order of arrival.
  template <class Owner>
  void flushTouched(Owner& owner, uint64_t now, bool force) {
    std::vector<Reference> touched;
    touched.swap(completed_);
    if (force) {
      for (const Reference& t : reopened_) {
        if (t.open() && t.entry->dirty) touched.push_back(t);
      }
      reopened_.clear();
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

  // A complete, written entry goes once its last event is over.
  template <class Owner>
  void retire(Owner& owner, Node& node, uint64_t now) {
    if (node.lastTime <= now)
      drop(owner, node);
    else
      lingering_.push(&node);
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
  Node* newest_ = nullptr;            // of the unwritten ones
  std::vector<Reference> completed_;  // since they were written
  std::vector<Reference> reopened_;   // changed since then, still incomplete; some may be gone
  std::priority_queue<Node*, std::vector<Node*>, LaterFirst> lingering_;
  std::vector<std::unique_ptr<Node[]>> blocks_;
  Node* free_ = nullptr;
};
