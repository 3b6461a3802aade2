// Keeps the scopes that a thread has entered and not left. Used by the contexts of streams and by
// generic/.
//
// Scopes are kept in order of entry. Leaving a scope removes the oldest entry with its id and
// sequence number. A short list is searched linearly. A long list has an index by key; removed
// entries are marked and stay in the list until they make up half of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "util/pal_hash.h"

struct KLT_OpenScope {
  uint64_t time;
  uint32_t scope;
  uint32_t seqnr;
};

class KLT_OpenScopes {
 public:
  void enter(uint64_t time, uint32_t scope, uint32_t seqnr);
  // False if there is no such scope.
  [[nodiscard]] bool leave(uint32_t scope, uint32_t seqnr);
  void clear();
  [[nodiscard]] bool empty() const { return open_ == 0; }
  template <class Visit>
  void each(Visit visit) const {
    for (const Entry& entry : entries_) {
      if (!entry.left) visit(entry.scope);
    }
  }

 private:
  static constexpr size_t kMaxSearched = 32;  // a longer list has an index

  struct Entry {
    KLT_OpenScope scope;
    size_t next = 0;  // index of the next entry with the same key, unless this is the last
    bool left = false;
  };
  // Indexes of the oldest and the newest entry of a key.
  struct Chain {
    size_t first;
    size_t last;
  };
  using Index = PAL_HashMap<uint64_t, Chain>;

  void link(size_t entry);
  void rebuild();

  std::vector<Entry> entries_;
  size_t open_ = 0;
  std::unique_ptr<Index> index_;  // by key; null while the list is short
};
