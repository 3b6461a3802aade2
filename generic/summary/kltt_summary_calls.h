// KLTT_CallTrees counts the calls and times of each thread in a bin, by call path.
//
// A node of a call path exists for the rest of the run; its counts are those of the current bin. At
// the end of a bin only the nodes touched in it (those whose calls were open in it) are visited, so
// an idle thread with a large tree costs no time. Times are in ticks.
#pragma once

#include <cstdint>
#include <vector>

#include "klt/index/klt_idmap.h"
#include "util/pal_hash.h"

class KLTT_SumFile;

class KLTT_CallTrees {
 public:
  KLTT_CallTrees();

  // Adds a thread that isn't known yet. Other threads are added by their first event.
  void addThread(uint32_t gtp) { (void)threadOf(gtp); }
  [[nodiscard]] bool empty() const { return threads_.empty(); }

  void enter(uint64_t time, uint32_t gtp, uint32_t function, uint32_t scl);
  // Without an open call this only counts an event.
  void leave(uint64_t time, uint32_t gtp);

  // Writes a block with a record and a tree for each thread, and clears the counts. Open calls are
  // counted up to `binEnd`.
  void flush(KLTT_SumFile& file, uint64_t binStart, uint64_t binEnd, uint64_t binWidth);

 private:
  // A node of a call path. The children that were touched in this bin are in an unordered linked
  // list. 0 ends the list, because node 0 is a root and never a child.
  struct Node {
    uint64_t self = 0;
    uint64_t inclusive = 0;
    uint32_t function = 0;
    uint32_t calls = 0;
    uint32_t scl = 0;  // the first one of this bin
    uint32_t parent = 0;
    uint32_t lastChild = 0;  // the child used last, which saves most lookups
    uint32_t touchedChild = 0;
    uint32_t touchedSibling = 0;
    bool touched = false;
  };
  // An open call.
  struct Call {
    uint32_t node;
    uint64_t resumed;  // when it last became the top call, at the earliest the bin's start
    uint64_t entered;  // when it began, at the earliest the bin's start
    uint64_t self;     // self time, up to its last callee, that its node doesn't contain yet
  };
  struct Thread {
    uint32_t gtp;
    uint32_t events = 0;      // in this bin
    std::vector<Call> calls;  // the root first
  };
  // A record of the tree that is being written. `parent` and `firstChild` are indices in places_.
  struct Place {
    uint32_t node;
    uint32_t parent;
    uint32_t firstChild;
    uint32_t children;
    bool moreSiblings;
  };

  [[nodiscard]] Thread& threadOf(uint32_t gtp) {
    const uint32_t index = index_.find(gtp);
    return index == 0 ? newThread(gtp) : threads_[index - 1];
  }
  Thread& newThread(uint32_t gtp);
  void touch(Node& node, uint32_t index) {
    if (!node.touched) firstTouch(node, index);
  }
  void firstTouch(Node& node, uint32_t index);
  [[nodiscard]] uint32_t childOf(uint32_t parent, uint32_t function) {
    const uint32_t last = nodes_[parent].lastChild;
    return nodes_[last].function == function && last != 0 ? last : findChild(parent, function);
  }
  [[nodiscard]] uint32_t findChild(uint32_t parent, uint32_t function);
  void close(const Call& call, uint64_t time);
  void closeAll(Thread& thread, uint64_t binEnd);
  void collectTree(uint32_t root);
  void appendChildren(uint32_t place);
  void writeThread(KLTT_SumFile& file, const Thread& thread, uint64_t binStart, uint64_t binWidth);
  void clear();

  std::vector<Thread> threads_;
  KLT_IdIndex index_;
  std::vector<uint32_t> order_;  // threads in the order of the file; updated by flush()
  std::vector<Node> nodes_;
  PAL_KeyIndex<2> children_;         // nodes by parent and function
  std::vector<Place> places_;        // the tree that is being written
  std::vector<uint32_t> unwritten_;  // touched nodes that aren't part of the written tree
};
