// Keeps the state of each thread. See klt_context.h.
#include "klt/stream/klt_context.h"

#include <algorithm>

#include "klt/format/klt_schema.h"
#include "klt/format/klt_values.h"
#include "util/pal_error.h"
#include "util/pal_hash.h"

void KLT_StoredRecords::add(uint64_t now, uint64_t end, uint32_t partner, const uint8_t* record,
                            size_t bytes) {
  if (records_.size() >= pruneAt_) {
    prune(now);
    pruneAt_ = std::max(kFirstPrune, 2 * records_.size());
  }
  KLT_StoredRecord& stored = records_.emplace_back();
  stored.end = end;
  stored.partner = partner;
  stored.bytes.assign(record, record + bytes);
}

void KLT_StoredRecords::prune(uint64_t time) {
  std::erase_if(records_, [time](const KLT_StoredRecord& r) { return r.end <= time; });
}

void KLT_StoredRecords::clear() {
  records_.clear();
  pruneAt_ = kFirstPrune;
}

bool KLT_WillyState::empty() const {
  return functions.empty() && scopes.empty() && messages.records().empty() && counters.empty() &&
         operations.empty();
}

KLT_WillyState& KLT_Context::find(uint32_t gtp) {
  uint32_t number = byGtp_.find(gtp);
  if (number == 0) {
    states_.push_back(std::make_unique<KLT_WillyState>());
    states_.back()->gtp = gtp;
    number = static_cast<uint32_t>(states_.size());
    byGtp_.add(gtp, number);
  }
  last_ = states_[number - 1].get();
  return *last_;
}

void KLT_Context::clear(uint32_t categories) {
  for (const auto& state : states_) {
    if ((categories & klt::kFunctions) != 0) {
      state->functions.release();
      state->depth = 0;
    }
    if ((categories & klt::kScopes) != 0) state->scopes.clear();
    if ((categories & klt::kCounters) != 0) state->counters.clear();
    if ((categories & klt::kMessages) != 0) state->messages.clear();
  }
  if ((categories & klt::kCollops) != 0) collectives_.clear();
}

void KLT_Context::freeHistory() {
  for (const auto& state : states_) {
    state->functions.release();
    state->messages = {};
    state->counters = KLT_IdMap<KLT_CounterSample>();
    state->operations = {};
  }
  collectives_ = {};
}

std::vector<KLT_WillyState*> KLT_Context::ordered(const KLT_FileHandle& handle) {
  struct Place {
    bool undeclared;
    uint64_t rank;
    KLT_WillyState* state;
  };
  std::vector<Place> places;
  for (const auto& state : states_) {
    if (state->empty()) continue;
    const uint32_t process = klt::processOf(state->gtp);
    const uint32_t thread = klt::threadOf(state->gtp);
    const bool declared =
        process < handle.threadsPerProcess.size() && thread < handle.threadsPerProcess[process];
    places.push_back({!declared, uint64_t{process} << 16 | thread, state.get()});
  }
  std::stable_sort(places.begin(), places.end(), [](const Place& a, const Place& b) {
    if (a.undeclared != b.undeclared) return b.undeclared;
    return a.rank < b.rank;
  });
  PAL_SortByBucket(places, 1021, [](const Place& place) {
    const uint32_t key = place.state->gtp + 1;
    return (key & 0xffff) + (key >> 16);
  });
  std::vector<KLT_WillyState*> result;
  result.reserve(places.size());
  for (const Place& place : places) result.push_back(place.state);
  return result;
}

void KLT_ContextEnterFunction(KLT_Context& context, uint32_t gtp, uint32_t function, uint32_t scl,
                              bool full) {
  KLT_WillyState& state = context.of(gtp);
  ++state.depth;
  if (full) state.functions.push({function, scl});
}

void KLT_ContextLeaveFunction(KLT_Context& context, uint32_t gtp, uint64_t time, bool full) {
  KLT_WillyState& state = context.of(gtp);
  if (state.depth == 0) {
    PAL_Warning("Encountered incorrect function stack (%u @ %llu).", gtp,
                static_cast<unsigned long long>(time));
    return;
  }
  --state.depth;
  if (full && !state.functions.empty()) state.functions.pop();
}

void KLT_ContextEnterScope(KLT_Context& context, uint32_t gtp, uint64_t time, uint32_t scope,
                           uint32_t seqnr) {
  context.of(gtp).scopes.enter(time, scope, seqnr);
}

void KLT_ContextLeaveScope(KLT_Context& context, uint32_t gtp, uint32_t scope, uint32_t seqnr) {
  if (context.of(gtp).scopes.leave(scope, seqnr)) return;
  PAL_Error("Leaving scope %u/%u which was never entered.", scope, seqnr);
}
