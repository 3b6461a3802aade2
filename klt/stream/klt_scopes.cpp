// Keeps open scopes in a list, which has an index when it is long. See klt_scopes.h.
#include "klt/stream/klt_scopes.h"

#include <algorithm>

namespace {

uint64_t scopeKey(const KLT_OpenScope& scope) { return uint64_t{scope.scope} << 32 | scope.seqnr; }

}  // namespace

void KLT_OpenScopes::enter(uint64_t time, uint32_t scope, uint32_t seqnr) {
  entries_.push_back({{time, scope, seqnr}});
  ++open_;
  if (index_ != nullptr) {
    link(entries_.size() - 1);
  } else if (entries_.size() > kMaxSearched) {
    rebuild();
  }
}

bool KLT_OpenScopes::leave(uint32_t scope, uint32_t seqnr) {
  const uint64_t key = scopeKey({0, scope, seqnr});
  if (index_ == nullptr) {
    const auto oldest = std::find_if(entries_.begin(), entries_.end(), [key](const Entry& entry) {
      return scopeKey(entry.scope) == key;
    });
    if (oldest == entries_.end()) return false;
    entries_.erase(oldest);
    --open_;
    return true;
  }
  const auto found = index_->find(key);
  if (found == index_->end()) return false;
  Chain& chain = found->second;
  Entry& oldest = entries_[chain.first];
  if (chain.first == chain.last) {
    index_->erase(found);
  } else {
    chain.first = oldest.next;
  }
  oldest.left = true;
  --open_;
  while (!entries_.empty() && entries_.back().left) entries_.pop_back();
  if (entries_.size() > 2 * open_ + kMaxSearched || entries_.size() <= kMaxSearched / 2) rebuild();
  return true;
}

void KLT_OpenScopes::clear() {
  entries_.clear();
  index_.reset();
  open_ = 0;
}

// Appends the entry to the chain of its key. Scopes with one key are left in the order of the
// chain, so the last entry of a chain still exists.
void KLT_OpenScopes::link(size_t entry) {
  const auto [chain, isNew] =
      index_->try_emplace(scopeKey(entries_[entry].scope), Chain{entry, entry});
  if (isNew) return;
  entries_[chain->second.last].next = entry;
  chain->second.last = entry;
}

void KLT_OpenScopes::rebuild() {
  std::erase_if(entries_, [](const Entry& entry) { return entry.left; });
  index_.reset();
  if (entries_.size() <= kMaxSearched / 2) return;
  index_ = std::make_unique<Index>();
  for (size_t i = 0; i < entries_.size(); ++i) link(i);
}
