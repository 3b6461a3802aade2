// The `pending` queue: what a record tells about the future waits here until its time comes.
//
// A message record holds the send and the receive, a collective operation the moments of all its
// members, but the text has one line per happening in order of time. The queue hands out its nodes
// by time, and among equal times in the order in which they came. It owns the nodes, in a pool, and
// the texts of comments. kltt_events fills it and writes what comes out.
//
// Most nodes come in an order that is nearly theirs: sends at the current time, receives after
// much the same delay. So a node is appended to one of a few sorted runs if it fits behind the last
// one there, at constant cost, and only what fits nowhere goes to a binary heap.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

enum class KLTT_DelayedKind : uint32_t { kSendMsg, kRecvMsg, kGlobalOp, kComment };

struct KLTT_DelayedMessage {
  uint32_t peer;  // gtp of the other side
  uint32_t tag;
  uint32_t size;
  uint32_t communicator;
  uint32_t scl;
  uint32_t function;
};

struct KLTT_DelayedOperation {
  uint64_t endTime;  // internal time
  uint32_t operation;
  uint32_t communicator;
  uint32_t root;
  uint32_t sent;
  uint32_t received;
  uint32_t scl;
};

struct KLTT_Delayed {
  KLTT_DelayedKind kind;
  uint32_t gtp;  // the thread that it happens to; 0 for a comment
  union {
    KLTT_DelayedMessage message;      // kSendMsg, kRecvMsg
    KLTT_DelayedOperation operation;  // kGlobalOp
    uint32_t text;                    // kComment: a number for KLTT_Queue::text
  };
};

class KLTT_Queue {
 public:
  static constexpr uint64_t kNever = ~uint64_t{0};

  // Time of the first node; kNever if there is none. A node may have that time, too.
  [[nodiscard]] uint64_t nextTime() const { return next_.time; }
  [[nodiscard]] bool empty() const { return count_ == 0; }
  [[nodiscard]] size_t size() const { return count_; }

  // Sorts in a node at `time` (internal time). To be filled by the caller; the reference holds
  // until the next call of add or addComment.
  KLTT_Delayed& add(uint64_t time);
  void addComment(uint64_t time, std::string_view text);

  // The first node. REQUIRES: not empty.
  [[nodiscard]] const KLTT_Delayed& front() const { return nodes_[next_.node]; }
  [[nodiscard]] const std::string& text(const KLTT_Delayed& comment) const {
    return texts_[comment.text];
  }
  // Removes the first node. REQUIRES: not empty.
  void pop();

 private:
  struct Key {
    uint64_t time;
    uint64_t sequence;  // order of arrival
    uint32_t node;
  };
  static bool before(const Key& a, const Key& b) {
    return a.time != b.time ? a.time < b.time : a.sequence < b.sequence;
  }
  static constexpr Key kNoKey{.time = kNever, .sequence = ~uint64_t{0}, .node = 0};

  // A sorted sequence that grows at one end and is used up at the other: a ring.
  class Run {
   public:
    [[nodiscard]] bool empty() const { return count_ == 0; }
    [[nodiscard]] const Key& front() const { return ring_[head_]; }
    // Time of the last node, or of the last one there was; 0 at first.
    [[nodiscard]] uint64_t lastTime() const { return lastTime_; }
    void append(const Key& key);
    void removeFront() {
      head_ = (head_ + 1) & (ring_.size() - 1);
      if (--count_ == 0) lastTime_ = 0;
    }

   private:
    std::vector<Key> ring_;  // a power of two
    size_t head_ = 0;
    size_t count_ = 0;
    uint64_t lastTime_ = 0;
  };

  // Four runs hold the sends and the receives of three typical delays; more cost more in pop() than
  // they save in the heap.
  static constexpr size_t kRuns = 4;
  static constexpr size_t kHeap = kRuns;

  uint32_t newNode();
  void sortIn(const Key& key);
  void refreshFront(size_t source);

  std::array<Run, kRuns> runs_;
  std::vector<Key> heap_;
  std::array<Key, kRuns + 1> fronts_ = {kNoKey, kNoKey, kNoKey, kNoKey, kNoKey};
  Key next_ = kNoKey;      // the least of fronts_
  size_t nextSource_ = 0;  // where it stands
  uint64_t sequence_ = 0;
  size_t count_ = 0;
  std::vector<KLTT_Delayed> nodes_;
  std::vector<uint32_t> freeNodes_;
  std::vector<std::string> texts_;
  std::vector<uint32_t> freeTexts_;
};
