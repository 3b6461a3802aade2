// KLTT_Queue is the `pending` queue of an event pass: delayed events, sorted by time.
//
// A message record holds the send and the receive, and a collective operation the times of all its
// members, but the text has one line for each of these events in order of time. The queue returns
// its nodes by time, and nodes of equal time in the order in which they were added. It owns the
// nodes, in a pool, and the texts of comments. kltt_events fills it and writes the nodes.
//
// About half of the nodes have the time of their record, which is before that of all other nodes.
// They are kept in a plain list until the queue advances to a later time.
//
// The others are in a radix queue, which is fast because the returned times almost never decrease.
// A time is a number with 6-bit digits, and a node is in the bucket of the highest digit in which
// its time differs from the time that the radix queue returned last. When that time advances, the
// lowest bucket in use is distributed over the buckets below it; no other node changes its bucket.
// So a node moves at most once for each digit of its delay, in sequential memory, and nodes of
// equal time stay in order of arrival.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "generic/text/RK_rkf.h"

// kHeld: the records of this time in a KLTT_HeldRecords.
enum class KLTT_DelayedKind : uint32_t { kSendMsg, kRecvMsg, kGlobalOp, kComment, kHeld };

struct KLTT_DelayedOperation {
  uint64_t endTime;  // internal time
  RK_OperationPart part;
};

struct KLTT_DelayedComment {
  uint32_t text;       // a number for KLTT_Queue::text
  uint32_t infoClass;  // class whose path and a colon are written before the text; 0: none
};

struct KLTT_Delayed {
  KLTT_DelayedKind kind;
  uint32_t gtp;  // the thread of the event; 0 for a comment
  union {
    RK_MessageSide message;           // kSendMsg, kRecvMsg
    KLTT_DelayedOperation operation;  // kGlobalOp
    KLTT_DelayedComment comment;      // kComment
  };
};

class KLTT_Queue;
KLTT_Delayed& KLTT_QueueAdd(KLTT_Queue& queue, uint64_t time);

class KLTT_Queue {
 public:
  static constexpr uint64_t kNever = ~uint64_t{0};

  // The time of the first node; kNever if there is none. A node can also have the time kNever.
  [[nodiscard]] uint64_t nextTime() const { return nextTime_; }
  [[nodiscard]] bool empty() const { return count_ == 0; }
  [[nodiscard]] size_t size() const { return count_; }

  // Adds a node at `time` (internal time). The caller fills it through the reference, which is
  // valid until the next node is added.
  friend KLTT_Delayed& KLTT_QueueAdd(KLTT_Queue& queue, uint64_t time);
  void addComment(uint64_t time, std::string_view text, uint32_t infoClass = 0);

  // The first node. REQUIRES: not empty.
  [[nodiscard]] const KLTT_Delayed& front() {
    return isFrontListFirst() ? frontList_[frontListNext_] : nodes_[frontNode()];
  }
  [[nodiscard]] const std::string& text(const KLTT_Delayed& comment) const {
    return texts_[comment.comment.text];
  }
  // Removes the first node. REQUIRES: not empty.
  void pop();

 private:
  struct Key {
    uint64_t time;
    uint32_t node;
  };
  // A node whose time was before `now_` when it was added.
  struct LateKey {
    uint64_t time;
    uint64_t arrival;
    uint32_t node;
    // Orders the heap so that the earliest node is first.
    friend bool operator<(const LateKey& a, const LateKey& b) {
      return a.time != b.time ? a.time > b.time : a.arrival > b.arrival;
    }
  };
  struct Bucket {
    uint64_t leastTime = kNever;
    uint64_t lastTime = 0;
    std::vector<Key> keys;
  };
  static constexpr int kDigitBits = 6;
  static constexpr size_t kLevels = 11;  // digits of 64 bits

  // Whether the first node is in `frontList_`. No node outside the list has the list's time.
  [[nodiscard]] bool isFrontListFirst() const {
    return frontListNext_ != frontList_.size() && frontListTime_ == nextTime_;
  }
  uint32_t newNode();
  Bucket& lowestBucket();
  void place(const Key& key);
  uint32_t frontNode();
  void spreadLowestBucket();
  [[nodiscard]] uint64_t firstTimeElsewhere();
  void freeText(const KLTT_Delayed& node);

  uint64_t nextTime_ = kNever;
  size_t count_ = 0;

  // Nodes of one time, which was the earliest time when the first of them was added. The nodes
  // before `frontListNext_` have been removed.
  uint64_t frontListTime_ = 0;
  std::vector<KLTT_Delayed> frontList_;
  size_t frontListNext_ = 0;

  uint64_t now_ = 0;      // returned last by the radix queue; no bucket has an earlier time
  std::vector<Key> due_;  // keys at `now_`; those before `dueNext_` have been removed
  size_t dueNext_ = 0;
  std::array<std::array<Bucket, 64>, kLevels> buckets_;  // by the digit's position and value
  std::array<uint64_t, kLevels> usedDigits_ = {};        // one bit per bucket that holds keys
  uint32_t usedLevels_ = 0;                              // one bit per position with such a bucket
  std::vector<LateKey> late_;                            // a heap of the nodes before `now_`
  uint64_t arrivals_ = 0;

  std::vector<KLTT_Delayed> nodes_;
  std::vector<uint32_t> freeNodes_;
  std::vector<std::string> texts_;
  std::vector<uint32_t> freeTexts_;
};
