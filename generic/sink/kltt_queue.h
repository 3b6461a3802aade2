// The `pending` queue: what a record tells about the future waits here until its time comes.
//
// A message record holds the send and the receive, a collective operation the moments of all its
// members, but the text has one line per happening in order of time. The queue hands out its nodes
// by time, and among equal times in the order in which they came. It owns the nodes, in a pool, and
// the texts of comments. kltt_events fills it and writes what comes out.
//
// Half of the nodes happen at the very time of their record, which is ahead of all that waits:
// these stand in a plain list until the next time comes.
//
// What comes out goes back in time by exception only, and that makes a radix queue fit: times are
// numbers of 6-bit digits, and a node lies in the bucket of the highest digit in which its time
// differs from the time last handed out. When that time moves on, the lowest bucket in use is
// spread over those below it, and no other node changes its bucket. So a node moves once per digit
// of its delay at most, in sequential memory, and nodes of one time stay in order of arrival by
// themselves.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "generic/text/RK_rkf.h"

// kHeld: what KLTT_HeldRecords holds for this time.
enum class KLTT_DelayedKind : uint32_t { kSendMsg, kRecvMsg, kGlobalOp, kComment, kHeld };

struct KLTT_DelayedOperation {
  uint64_t endTime;  // internal time
  RK_OperationPart part;
};

struct KLTT_DelayedComment {
  uint32_t text;       // a number for KLTT_Queue::text
  uint32_t infoClass;  // whose path and a colon come ahead of the text; 0: none
};

struct KLTT_Delayed {
  KLTT_DelayedKind kind;
  uint32_t gtp;  // the thread that it happens to; 0 for a comment
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

  // Time of the first node; kNever if there is none. A node may have that time, too.
  [[nodiscard]] uint64_t nextTime() const { return nextTime_; }
  [[nodiscard]] bool empty() const { return count_ == 0; }
  [[nodiscard]] size_t size() const { return count_; }

  // Sorts in a node at `time` (internal time). To be filled by the caller; the reference holds
  // until the next node is added.
  friend KLTT_Delayed& KLTT_QueueAdd(KLTT_Queue& queue, uint64_t time);
  void addComment(uint64_t time, std::string_view text, uint32_t infoClass = 0);

  // The first node. REQUIRES: not empty.
  [[nodiscard]] const KLTT_Delayed& front() {
    return headsTheQueue() ? present_[presentFirst_] : nodes_[frontNode()];
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
  // A node from before `now_`.
  struct LateKey {
    uint64_t time;
    uint64_t arrival;
    uint32_t node;
    friend bool operator<(const LateKey& a, const LateKey& b) {  // for a heap: the later one
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

  // Whether the present nodes come first. No other node has their time.
  [[nodiscard]] bool headsTheQueue() const {
    return presentFirst_ != present_.size() && presentTime_ == nextTime_;
  }
  uint32_t newNode();
  Bucket& lowestBucket();
  void place(const Key& key);
  uint32_t frontNode();
  void spreadLowestBucket();
  [[nodiscard]] uint64_t waitingTime();
  void forgetText(const KLTT_Delayed& node);

  uint64_t nextTime_ = kNever;
  size_t count_ = 0;

  // Nodes of one time that was ahead of all others when the first of them came; used up from
  // `presentFirst_` on.
  uint64_t presentTime_ = 0;
  std::vector<KLTT_Delayed> present_;
  size_t presentFirst_ = 0;

  uint64_t now_ = 0;      // time last handed out; no bucket holds an earlier one
  std::vector<Key> due_;  // keys at `now_`, used up from `dueFirst_` on
  size_t dueFirst_ = 0;
  std::array<std::array<Bucket, 64>, kLevels> buckets_;  // by the digit's position and value
  std::array<uint64_t, kLevels> usedDigits_ = {};        // one bit per bucket that holds keys
  uint32_t usedLevels_ = 0;                              // one bit per position with such a bucket
  std::vector<LateKey> late_;                            // a heap; all of it comes before `now_`
  uint64_t arrivals_ = 0;

  std::vector<KLTT_Delayed> nodes_;
  std::vector<uint32_t> freeNodes_;
  std::vector<std::string> texts_;
  std::vector<uint32_t> freeTexts_;
};
