// Keeps the state of each thread: call stack, open scopes, last counter samples, messages and
// collective operations that have not ended.
//
// Each stream has its own context. The filter updates it with the records of the selected threads,
// also with those before the time window. The history at the start of a request is produced from
// the context. When no more history is needed, only the data for warnings is kept: the depth of
// stacks and the open scopes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "klt/index/klt_idmap.h"
#include "klt/index/klt_intern.h"
#include "klt/stream/klt_scopes.h"
#include "util/pal_stack.h"

struct KLT_StackEntry {
  uint32_t function;
  uint32_t scl;  // 0 for none
};

struct KLT_CounterSample {
  uint64_t time = 0;
  uint64_t value = 0;  // the stored bytes
};

// A copy of a record that is relevant before the time `end`; all ones: at any time.
struct KLT_StoredRecord {
  uint64_t end = 0;
  uint32_t partner = 0;  // the receiver of a message, the communicator of a collective operation
  std::vector<uint8_t> bytes;
};

// Stored records in order of insertion. Records that have ended are removed only when the list has
// doubled since the last removal, so that adding takes amortised constant time.
class KLT_StoredRecords {
 public:
  void add(uint64_t now, uint64_t end, uint32_t partner, const uint8_t* record, size_t bytes);
  // Removes the records with an end at or before `time`.
  void prune(uint64_t time);
  void clear();
  [[nodiscard]] const std::vector<KLT_StoredRecord>& records() const { return records_; }

 private:
  static constexpr size_t kFirstPrune = 16;

  std::vector<KLT_StoredRecord> records_;
  size_t pruneAt_ = kFirstPrune;
};

struct KLT_WillyState {
  uint32_t gtp = 0;
  uint32_t depth = 0;  // of the call stack; while only the depth is kept, `functions` is shorter
  PAL_Stack<KLT_StackEntry> functions;
  KLT_OpenScopes scopes;
  KLT_StoredRecords messages;  // sent by this thread
  KLT_IdMap<KLT_CounterSample> counters;
  std::vector<const KLT_StoredRecord*> operations;  // collective; only used in a history

  // Whether the thread has no state that a history contains.
  [[nodiscard]] bool empty() const;
};

class KLT_Context {
 public:
  // The state of a thread, created on first use.
  [[nodiscard]] KLT_WillyState& of(uint32_t gtp) {
    if (last_ != nullptr && last_->gtp == gtp) [[likely]]
      return *last_;
    return find(gtp);
  }
  // Clears what belongs to `categories` in the states of all threads.
  void clear(uint32_t categories);
  // Frees the state that only a history needs.
  void freeHistory();
  // All states that aren't empty, in the order of a hash table into which the declared threads were
  // inserted first. So the order doesn't depend on which thread was used first.
  [[nodiscard]] std::vector<KLT_WillyState*> ordered(const KLT_FileHandle& handle);
  [[nodiscard]] bool empty() const { return states_.empty() && collectives_.records().empty(); }
  [[nodiscard]] std::vector<std::unique_ptr<KLT_WillyState>>& states() { return states_; }
  // The operations of all threads. Each is delivered with the state of one selected member.
  [[nodiscard]] KLT_StoredRecords& collectives() { return collectives_; }

 private:
  KLT_WillyState& find(uint32_t gtp);

  std::vector<std::unique_ptr<KLT_WillyState>> states_;  // in order of first use
  KLT_IdIndex byGtp_;                                    // index in `states_` plus 1
  KLT_WillyState* last_ = nullptr;
  KLT_StoredRecords collectives_;
};

// Update the context for a record. With `full` everything that a history may need is kept.
void KLT_ContextEnterFunction(KLT_Context& context, uint32_t gtp, uint32_t function, uint32_t scl,
                              bool full);
void KLT_ContextLeaveFunction(KLT_Context& context, uint32_t gtp, uint64_t time, bool full);
void KLT_ContextEnterScope(KLT_Context& context, uint32_t gtp, uint64_t time, uint32_t scope,
                           uint32_t seqnr);
void KLT_ContextLeaveScope(KLT_Context& context, uint32_t gtp, uint32_t scope, uint32_t seqnr);
