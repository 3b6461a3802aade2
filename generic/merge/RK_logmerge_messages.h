// Messages in the making: the send and the receive of each are brought together.
//
// The two belong together if they agree on both processes, communicator, tag and size; among equal
// ones the oldest goes first. Either side may come first. One that never meets its partner becomes
// a record with a mark in place of the missing time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "generic/merge/RK_logmerge_arena.h"
#include "klt/format/klt_values.h"
#include "util/pal_hash.h"

struct KLTT_Summary;

// A message_raw_event as far as it matters here. `kind` holds the type of the event in the low 6
// bits (7 sends, all others receive), then the process and the thread that logged it.
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
  bool waitsForSend = false;  // for the receive otherwise
  Side sender;
  Side receiver;
  // While it waits: of each key the oldest message stands in a bucket's chain, the others behind it
  // in a queue whose end the oldest knows.
  KLTM_Message* chainNext = nullptr;
  KLTM_Message* queueNext = nullptr;
  KLTM_Message* queueEnd = nullptr;

  [[nodiscard]] static constexpr uint64_t bytes() { return 128; }
};

class KLTM_MessageTable {
 public:
  // Neither is owned; `summary` may be null. `blockBytes` as in KLTM_Arena.
  KLTM_MessageTable(KLT_WFileHandle* writer, KLTT_Summary* summary, uint64_t blockBytes);

  // `gtp` is the thread that logged the event.
  void event(const KLTM_RawMessage& event, uint32_t gtp);
  void finish() { arena_.finish(*this); }
  // Messages begun so far.
  [[nodiscard]] uint32_t added() const { return added_; }

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
  size_t keys_ = 0;                     // in the chains
  std::vector<KLTM_Message*> buckets_;  // a power of two
};
