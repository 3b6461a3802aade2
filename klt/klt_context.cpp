// Keeping what was going on in each thread. See klt_context.h.
#include "klt/klt_context.h"

#include <algorithm>

#include "klt/klt_schema.h"
#include "util/pal_error.h"

namespace {

uint64_t scopeKey(const KLT_OpenScope& scope) { return uint64_t{scope.scope} << 32 | scope.seqnr; }

}  // namespace

void KLT_OpenScopes::enter(uint64_t time, uint32_t scope, uint32_t seqnr) {
  entries_.push_back({{time, scope, seqnr}});
  ++open_;
  if (indexed_) {
    link(entries_.size() - 1);
  } else if (entries_.size() > kSearched) {
    rebuild();
  }
}

bool KLT_OpenScopes::leave(uint32_t scope, uint32_t seqnr) {
  const uint64_t key = scopeKey({0, scope, seqnr});
  if (!indexed_) {
    const auto oldest = std::find_if(entries_.begin(), entries_.end(), [key](const Entry& entry) {
      return scopeKey(entry.scope) == key;
    });
    if (oldest == entries_.end()) return false;
    entries_.erase(oldest);
    --open_;
    return true;
  }
  const auto found = index_.find(key);
  if (found == index_.end()) return false;
  Chain& chain = found->second;
  Entry& oldest = entries_[chain.first];
  if (chain.first == chain.last) {
    index_.erase(found);
  } else {
    chain.first = oldest.next;
  }
  oldest.left = true;
  --open_;
  while (!entries_.empty() && entries_.back().left) entries_.pop_back();
  if (entries_.size() > 2 * open_ + kSearched || entries_.size() <= kSearched / 2) rebuild();
  return true;
}

void KLT_OpenScopes::clear() {
  entries_.clear();
  index_.clear();
  open_ = 0;
  indexed_ = false;
}

// Of one key the entries are left in order, so the one that a chain goes on with is still there.
void KLT_OpenScopes::link(size_t place) {
  const auto [chain, isNew] =
      index_.try_emplace(scopeKey(entries_[place].scope), Chain{place, place});
  if (isNew) return;
  entries_[chain->second.last].next = place;
  chain->second.last = place;
}

void KLT_OpenScopes::rebuild() {
  std::erase_if(entries_, [](const Entry& entry) { return entry.left; });
  index_.clear();
  indexed_ = entries_.size() > kSearched / 2;
  for (size_t i = 0; indexed_ && i < entries_.size(); ++i) link(i);
}

void KLT_StoredRecords::add(uint64_t now, uint64_t start, uint64_t end, const uint8_t* record,
                            size_t bytes) {
  if (records_.size() >= pruneAt_) {
    prune(now);
    pruneAt_ = std::max(kFirstPrune, 2 * records_.size());
  }
  KLT_StoredRecord& stored = records_.emplace_back();
  stored.start = start;
  stored.end = end;
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
  return functions.empty() && scopes.empty() && messages.records().empty() &&
         collectives.records().empty() && counters.empty();
}

KLT_WillyState& KLT_Context::find(uint32_t gtp) {
  const uint32_t key = gtp + 1;
  KLT_WillyState* found = nullptr;
  if (key == 0) {
    found = wrapped_;
  } else if (KLT_WillyState* const* entry = byGtp_.find(key)) {
    found = *entry;
  }
  if (found == nullptr) {
    states_.push_back(std::make_unique<KLT_WillyState>());
    found = states_.back().get();
    found->gtp = gtp;
    if (key == 0) {
      wrapped_ = found;
    } else {
      byGtp_.insert(key, found);
    }
  }
  last_ = found;
  return *found;
}

void KLT_Context::clear(uint32_t categories) {
  for (const auto& state : states_) {
    if ((categories & klt::kFunctions) != 0) {
      state->functions.clear();
      state->depth = 0;
    }
    if ((categories & klt::kScopes) != 0) state->scopes.clear();
    if ((categories & klt::kCounters) != 0) state->counters.clear();
    if ((categories & klt::kMessages) != 0) state->messages.clear();
    if ((categories & klt::kCollops) != 0) state->collectives.clear();
  }
}

std::vector<KLT_WillyState*> KLT_Context::ordered(const KLT_FileHandle& handle) {
  constexpr uint32_t kBuckets = 1021;
  struct Place {
    uint32_t bucket;
    bool undeclared;
    uint64_t rank;
    KLT_WillyState* state;
  };
  std::vector<Place> places;
  for (const auto& state : states_) {
    if (state->empty()) continue;
    const uint32_t key = state->gtp + 1;
    const uint32_t process = state->gtp & 0xffff;
    const uint32_t thread = state->gtp >> 16;
    const bool declared =
        process < handle.threadsPerProcess.size() && thread < handle.threadsPerProcess[process];
    places.push_back({((key & 0xffff) + (key >> 16)) % kBuckets, !declared,
                      declared ? uint64_t{process} << 16 | thread : places.size(), state.get()});
  }
  std::stable_sort(places.begin(), places.end(), [](const Place& a, const Place& b) {
    if (a.bucket != b.bucket) return a.bucket < b.bucket;
    if (a.undeclared != b.undeclared) return b.undeclared;
    return a.rank < b.rank;
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
  if (full) state.functions.push_back({function, scl});
}

void KLT_ContextLeaveFunction(KLT_Context& context, uint32_t gtp, uint64_t time, bool full) {
  KLT_WillyState& state = context.of(gtp);
  if (state.depth == 0) {
    PAL_Warning("Encountered incorrect function stack (%u @ %llu).", gtp,
                static_cast<unsigned long long>(time));
    return;
  }
  --state.depth;
  if (full && !state.functions.empty()) state.functions.pop_back();
}

void KLT_ContextEnterScope(KLT_Context& context, uint32_t gtp, uint64_t time, uint32_t scope,
                           uint32_t seqnr) {
  context.of(gtp).scopes.enter(time, scope, seqnr);
}

void KLT_ContextLeaveScope(KLT_Context& context, uint32_t gtp, uint32_t scope, uint32_t seqnr) {
  if (context.of(gtp).scopes.leave(scope, seqnr)) return;
  PAL_Error("Leaving scope %u/%u which was never entered.", scope, seqnr);
}
