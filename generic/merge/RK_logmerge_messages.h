// Pairs the sends and receives of messages.
//
// A send and a receive match if both processes, communicator, tag and size are equal; of several
// candidates the oldest is chosen. Either side may come first. An event that is never matched
// becomes a record with a special value in place of the missing time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "generic/merge/RK_logmerge_arena.h"
#include "klt/format/klt_values.h"
#include "util/pal_hash.h"

struct KLTT_Summary;

// The fields of a message_raw_event. `kind` holds the type of the event in the low 6 bits (7 is a
// send, all others are receives), then the process and the thread that logged it.
struct KLTM_RawMessage {
  uint64_t time = 0;
  uint32_t kind = 0;
  uint32_t other = 0;  // process at the other end
  uint32_t tag = 0;
  uint32_t size = 0;
  uint32_t comm = 0;
  uint32_t function = 0;
  uint32_t scl = 0;

  [[nodiscard]] bool isSend() const { return (kind & 0x3f) == 7; }
  [[nodiscard]] bool isReceive() const { return (kind & 0x3f) == 8; }
};

struct KLTM_Message : KLTM_EntryHead {
  static constexpr uint64_t kNotSeen = ~uint64_t{0};

  struct Side {
    uint64_t time = kNotSeen;
    uint32_t gtp = 0;
    uint32_t scl = klt::kNoScl;
    uint32_t function = 0;
  };

  uint32_t size = 0;
  uint32_t comm = 0;
  uint32_t tag = 0;
  bool waitsForSend = false;  // false: waits for the receive
  Side sender;
  Side receiver;
  // Links while the message waits. The oldest message of each key is in the chain of its bucket.
  // The others follow it in a queue, and the oldest also points to the end of the queue.
  KLTM_Message* chainNext = nullptr;
  KLTM_Message* queueNext = nullptr;
  KLTM_Message* queueEnd = nullptr;

  [[nodiscard]] static constexpr uint64_t bytes() { return 128; }
};

class KLTM_MessageTable {
 public:
  // The arguments are not owned; `summary` may be null. `blockBytes` as for KLTM_Arena.
  KLTM_MessageTable(KLT_WFileHandle* writer, KLTT_Summary* summary, uint64_t blockBytes);

  // `gtp` is the thread that logged the event.
  void event(const KLTM_RawMessage& event, uint32_t gtp);
  void finish() { arena_.finish(*this); }
  // The number of messages so far.
  [[nodiscard]] uint32_t added() const { return added_; }
  // Events so far that are neither sends nor receives, and are treated as receives.
  [[nodiscard]] uint64_t strange() const { return strange_; }

 private:
  friend class KLTM_Arena<KLTM_Message>;

  void write(KLTM_Message& message);
  void release(KLTM_Message& /*message*/) {}
  void add(const KLTM_RawMessage& event, uint32_t gtp, uint32_t hash, KLTM_Message* equal);
  [[nodiscard]] KLTM_Message*& bucketOf(uint32_t hash) {
    return buckets_[hash & (buckets_.size() - 1)];
  }
  void growBuckets();

  KLT_WFileHandle* writer_;
  KLTT_Summary* summary_;
  KLTM_Arena<KLTM_Message> arena_;
  PAL_Hash<5> hash_;  // of sender, receiver, communicator, tag, size
  uint32_t added_ = 0;
  uint64_t strange_ = 0;
  size_t keys_ = 0;                     // number of messages in the chains
  std::vector<KLTM_Message*> buckets_;  // their number is a power of two
};
