// The scopes that a thread has entered and not left, for the contexts of readers and for the
// driver.
//
// Scopes are kept in order of entry. Leaving takes out the oldest one with that scope and sequence
// number. Few are searched one by one; many are found by key, and what was left stays in place,
// marked, until it makes up half of the list.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

struct KLT_OpenScope {
  uint64_t time;
  uint32_t scope;
  uint32_t seqnr;
};

class KLT_OpenScopes {
 public:
  void enter(uint64_t time, uint32_t scope, uint32_t seqnr);
  // False if there is none.
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
  static constexpr size_t kSearched = 32;

  struct Entry {
    KLT_OpenScope scope;
    size_t next = 0;  // the next one with the same key, if this isn't the last
    bool left = false;
  };
  // Places of the oldest and the newest entry of a key.
  struct Chain {
    size_t first;
    size_t last;
  };
  using Index = std::unordered_map<uint64_t, Chain>;

  void link(size_t place);
  void rebuild();

  std::vector<Entry> entries_;
  size_t open_ = 0;
  std::unique_ptr<Index> index_;  // by key; null while the list is searched
};
