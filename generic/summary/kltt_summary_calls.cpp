// Counts calls in trees. See kltt_summary_calls.h.
#include "generic/summary/kltt_summary_calls.h"

#include <algorithm>
#include <numeric>

#include "generic/summary/kltt_summary_file.h"
#include "generic/summary/kltt_summary_tables.h"
#include "generic/tables/kltt_idtable.h"
#include "util/pal_hash.h"

namespace {

// A block of the file has a record for each thread, followed by the thread's tree, level by level
// from the root, in host byte order.
struct ThreadRecord {
  uint64_t binStart;
  uint64_t binWidth;
  uint32_t thread;
  uint32_t events;
  uint32_t records;  // of its tree
  uint32_t zero;
};
struct TreeRecord {
  uint32_t zero;
  uint32_t function;
  uint64_t self;
  uint64_t inclusive;  // in the root: that of its child
  uint32_t calls;
  uint32_t scl;
  uint32_t children;
  uint32_t firstChild;    // number of records from here to the first child; 0 without children
  uint32_t moreSiblings;  // 1 if another sibling follows; also 1 in the root
  uint32_t parent;        // number of records from the parent to here
};
static_assert(sizeof(ThreadRecord) == 32 && sizeof(TreeRecord) == 48);

// The time between two events; 0 if the second has the earlier time.
uint64_t elapsed(uint64_t from, uint64_t to) { return to > from ? to - from : 0; }

}  // namespace

KLTT_CallTrees::KLTT_CallTrees() : index_(kKlttDirectIds) {}

KLTT_CallTrees::Thread& KLTT_CallTrees::newThread(uint32_t gtp) {
  const auto index = static_cast<uint32_t>(threads_.size());
  const auto root = static_cast<uint32_t>(nodes_.size());
  nodes_.emplace_back().parent = root;
  threads_.push_back({.gtp = gtp, .calls = {{root, 0, 0, 0}}});
  index_.add(gtp, index + 1);
  return threads_.back();
}

// Adds a node to its parent's list. The parent is touched by the end of the bin, too: when its call
// ends, or at the end of the bin if the call is still open.
void KLTT_CallTrees::firstTouch(Node& node, uint32_t index) {
  node.touched = true;
  if (node.parent == index) return;
  Node& parent = nodes_[node.parent];
  node.touchedSibling = parent.touchedChild;
  parent.touchedChild = index;
}

uint32_t KLTT_CallTrees::findChild(uint32_t parent, uint32_t function) {
  const uint32_t hash = children_.hashOf({parent, function});
  const uint32_t known = children_.find(hash, [&](uint32_t node) {
    return nodes_[node].parent == parent && nodes_[node].function == function;
  });
  if (known != 0) return nodes_[parent].lastChild = known;
  const auto child = static_cast<uint32_t>(nodes_.size());
  Node& node = nodes_.emplace_back();
  node.function = function;
  node.parent = parent;
  nodes_[parent].lastChild = child;
  children_.add(hash, child);
  return child;
}

void KLTT_CallTrees::enter(uint64_t time, uint32_t gtp, uint32_t function, uint32_t scl) {
  Thread& thread = threadOf(gtp);
  ++thread.events;
  Call& top = thread.calls.back();
  top.self += elapsed(top.resumed, time);
  const uint32_t child = childOf(top.node, function);
  Node& node = nodes_[child];
  touch(node, child);
  ++node.calls;
  if (node.scl == 0) node.scl = scl;
  thread.calls.push_back({.node = child, .resumed = time, .entered = time, .self = 0});
}

void KLTT_CallTrees::leave(uint64_t time, uint32_t gtp) {
  Thread& thread = threadOf(gtp);
  ++thread.events;
  if (thread.calls.size() == 1) return;
  close(thread.calls.back(), time);
  thread.calls.pop_back();
  thread.calls.back().resumed = time;
}

void KLTT_CallTrees::close(const Call& call, uint64_t time) {
  Node& node = nodes_[call.node];
  node.self += call.self + elapsed(call.resumed, time);
  node.inclusive += elapsed(call.entered, time);
  touch(node, call.node);
}

// Counts the open calls up to the end of the bin. A call below the top gets all time since it was
// last resumed as self time: its callee's time, too, and its time before the callee a second time.
void KLTT_CallTrees::closeAll(Thread& thread, uint64_t binEnd) {
  for (Call& call : thread.calls) {
    close(call, binEnd);
    call = {.node = call.node, .resumed = binEnd, .entered = binEnd, .self = 0};
  }
}

void KLTT_CallTrees::appendChildren(uint32_t place) {
  const auto first = static_cast<uint32_t>(places_.size());
  for (uint32_t child = nodes_[places_[place].node].touchedChild; child != 0;
       child = nodes_[child].touchedSibling) {
    places_.push_back({child, place, 0, 0, true});
  }
  const auto end = static_cast<uint32_t>(places_.size());
  if (end == first) return;
  places_[place].firstChild = first;
  places_[place].children = end - first;
  if (end - first > 1)
    std::sort(places_.begin() + first, places_.end(), [this](const Place& a, const Place& b) {
      return nodes_[a.node].function < nodes_[b.node].function;
    });
  places_.back().moreSiblings = false;
}

// Puts the touched nodes of a thread's tree into `places_`, in the order of their records. Of the
// root's touched children only that with the lowest function id is part of the tree; the others and
// the touched nodes below them go to `unwritten_`.
void KLTT_CallTrees::collectTree(uint32_t root) {
  places_.assign(1, {root, 0, 0, 0, true});
  unwritten_.clear();
  appendChildren(0);
  for (size_t i = 2; i < places_.size(); ++i) unwritten_.push_back(places_[i].node);
  if (places_.size() > 1) {
    places_.resize(2);
    places_[0].children = 1;
    places_[1].moreSiblings = false;
  }
  for (uint32_t place = 1; place < places_.size(); ++place) appendChildren(place);
  nodes_[root].self = 0;
  nodes_[root].inclusive = places_.size() > 1 ? nodes_[places_[1].node].inclusive : 0;
  for (size_t i = 0; i < unwritten_.size(); ++i) {
    for (uint32_t child = nodes_[unwritten_[i]].touchedChild; child != 0;
         child = nodes_[child].touchedSibling) {
      unwritten_.push_back(child);
    }
  }
}

void KLTT_CallTrees::writeThread(KLTT_SumFile& file, const Thread& thread, uint64_t binStart,
                                 uint64_t binWidth) {
  file.put(ThreadRecord{.binStart = binStart,
                        .binWidth = binWidth,
                        .thread = thread.gtp,
                        .events = thread.events,
                        .records = static_cast<uint32_t>(places_.size()),
                        .zero = 0});
  for (uint32_t i = 0; i < places_.size(); ++i) {
    const Place& place = places_[i];
    const Node& node = nodes_[place.node];
    file.put(TreeRecord{.zero = 0,
                        .function = node.function,
                        .self = node.self,
                        .inclusive = node.inclusive,
                        .calls = node.calls,
                        .scl = node.scl,
                        .children = place.children,
                        .firstChild = place.children == 0 ? 0 : place.firstChild - i,
                        .moreSiblings = place.moreSiblings,
                        .parent = i - place.parent});
  }
}

// Clears the counts of the touched nodes.
void KLTT_CallTrees::clear() {
  const auto clearNode = [this](uint32_t index) {
    Node& node = nodes_[index];
    node.self = node.inclusive = 0;
    node.calls = node.scl = 0;
    node.touchedChild = node.touchedSibling = 0;
    node.touched = false;
  };
  for (const Place& place : places_) clearNode(place.node);
  for (const uint32_t node : unwritten_) clearNode(node);
}

void KLTT_CallTrees::flush(KLTT_SumFile& file, uint64_t binStart, uint64_t binEnd,
                           uint64_t binWidth) {
  if (order_.size() != threads_.size()) {
    order_.resize(threads_.size());
    std::iota(order_.begin(), order_.end(), uint32_t{0});
    PAL_SortByBucket(order_, kKlttSumBuckets, [&](uint32_t i) { return threads_[i].gtp; });
  }
  for (const uint32_t index : order_) {
    Thread& thread = threads_[index];
    closeAll(thread, binEnd);
    collectTree(thread.calls.front().node);
    writeThread(file, thread, binStart, binWidth);
    clear();
    thread.events = 0;
  }
  file.endBlock(threads_.size());
}
