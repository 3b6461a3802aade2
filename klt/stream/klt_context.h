// What was going on in each thread: call stacks, open scopes, last counter samples, messages and
// collective operations under way.
//
// Each stream keeps a context of its own, fed by its filter pass with the records of the selected
// threads, also with those ahead of the time window. From it the history is told at the start of a
// request. While no history is to be told any more, only what warnings need is kept: the depth of
// stacks and the open scopes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "klt/index/klt_idmap.h"
#include "klt/index/klt_intern.h"
#include "klt/stream/klt_scopes.h"

struct KLT_StackEntry {
  uint32_t function;
  uint32_t scl;  // 0 for none
};

struct KLT_CounterSample {
  uint64_t time = 0;
  uint64_t value = 0;  // the stored bytes
};

// A copy of a record that stays relevant until `end`; all ones is for ever.
struct KLT_StoredRecord {
  uint64_t end = 0;
  uint32_t partner = 0;  // the receiver of a message, the communicator of a collective operation
  std::vector<uint8_t> bytes;
};

// Stored records in order of arrival. Finished ones are dropped only when the list has doubled
// since the last time, so that adding costs amortised constant time.
class KLT_StoredRecords {
 public:
  void add(uint64_t now, uint64_t end, uint32_t partner, const uint8_t* record, size_t bytes);
  // Drops the records with an end at or before `time`.
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
  uint32_t depth = 0;  // of the call stack; `functions` is shorter where only the depth is kept
  std::vector<KLT_StackEntry> functions;
  KLT_OpenScopes scopes;
  KLT_StoredRecords messages;  // that this thread sends
  KLT_IdMap<KLT_CounterSample> counters;
  std::vector<const KLT_StoredRecord*> operations;  // while a history is put together

  // Whether there is nothing to tell of it.
  [[nodiscard]] bool empty() const;
};

class KLT_Context {
 public:
  // The state of a thread, made on first use.
  [[nodiscard]] KLT_WillyState& of(uint32_t gtp) {
    if (last_ != nullptr && last_->gtp == gtp) [[likely]]
      return *last_;
    return find(gtp);
  }
  // Empties what belongs to `categories`, of all threads.
  void clear(uint32_t categories);
  // All states, in the order of the table that a reader with all threads declared would have. It
  // doesn't depend on which thread was met first.
  [[nodiscard]] std::vector<KLT_WillyState*> ordered(const KLT_FileHandle& handle);
  [[nodiscard]] bool empty() const { return states_.empty() && collectives_.records().empty(); }
  [[nodiscard]] std::vector<std::unique_ptr<KLT_WillyState>>& states() { return states_; }
  // Of all threads: which of its members an operation is told with depends on the request.
  [[nodiscard]] KLT_StoredRecords& collectives() { return collectives_; }

 private:
  KLT_WillyState& find(uint32_t gtp);

  std::vector<std::unique_ptr<KLT_WillyState>> states_;  // in order of first use
  KLT_IdIndex byGtp_;                                    // to the place in `states_`, from 1
  KLT_WillyState* last_ = nullptr;
  KLT_StoredRecords collectives_;
};

// Updates by record, for records of the filter pass. `full` keeps all that a history may need.
void KLT_ContextEnterFunction(KLT_Context& context, uint32_t gtp, uint32_t function, uint32_t scl,
                              bool full);
void KLT_ContextLeaveFunction(KLT_Context& context, uint32_t gtp, uint64_t time, bool full);
void KLT_ContextEnterScope(KLT_Context& context, uint32_t gtp, uint64_t time, uint32_t scope,
                           uint32_t seqnr);
void KLT_ContextLeaveScope(KLT_Context& context, uint32_t gtp, uint32_t scope, uint32_t seqnr);
