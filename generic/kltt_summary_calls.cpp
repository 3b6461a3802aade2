// Call trees of the summary data. See kltt_summary_calls.h.
//
// A block of the file holds for each thread, all in the byte order of the machine:
//   u64 start and width of the bin, u32 thread, function events, number of tree records, 0
// and its tree, level by level from the root:
//   u32 0, function; u64 self time, inclusive time; u32 calls, scl, children, distance to the first
//   child, whether a sibling follows, distance back to the parent
#include "generic/kltt_summary_calls.h"

#include <algorithm>

#include "generic/kltt_idtable.h"
#include "generic/kltt_summary_file.h"
#include "generic/kltt_summary_tables.h"
#include "util/pal_util.h"

namespace {

// Time that was told backwards doesn't count.
uint64_t elapsed(uint64_t from, uint64_t to) { return to > from ? to - from : 0; }

}  // namespace

KLTT_CallTrees::KLTT_CallTrees()
    : index_(KLTT_DIRECT_IDS), buckets_(KLTT_SUM_BUCKETS), slots_(64), seed_(PAL_RandomSeed()) {}

uint32_t KLTT_CallTrees::threadIndex(uint32_t gtp) {
  uint32_t index = index_.find(gtp);
  if (index == 0) {
    threads_.push_back({.gtp = gtp, .calls = {}});
    index = static_cast<uint32_t>(threads_.size());
    index_.add(gtp, index);
    const auto root = static_cast<uint32_t>(nodes_.size());
    nodes_.emplace_back().parent = root;
    threads_.back().calls.push_back({root, 0, 0});
    buckets_[gtp % KLTT_SUM_BUCKETS].push_back(index - 1);
  }
  return index - 1;
}

// A component mostly holds one thread.
KLTT_CallTrees::Thread& KLTT_CallTrees::threadOf(uint32_t gtp) {
  if (lastThread_ >= threads_.size() || threads_[lastThread_].gtp != gtp) {
    lastThread_ = threadIndex(gtp);
  }
  return threads_[lastThread_];
}

// The parents of what is touched are touched by the end of the bin: a call that ends touches the
// one below it, and the calls that are open then are all touched.
void KLTT_CallTrees::touch(uint32_t node) {
  Node& entry = nodes_[node];
  if (entry.touched) return;
  entry.touched = true;
  if (entry.parent == node) return;
  entry.touchedSibling = nodes_[entry.parent].touchedChild;
  nodes_[entry.parent].touchedChild = node;
}

size_t KLTT_CallTrees::slotOf(uint32_t parent, uint32_t function) const {
  uint64_t hash = ((uint64_t{parent} << 32 | function) ^ seed_) * 0x9e3779b97f4a7c15u;
  hash ^= hash >> 32;
  hash *= 0xd6e8feb86659fd93u;
  return static_cast<size_t>(hash >> 32) & (slots_.size() - 1);
}

void KLTT_CallTrees::growSlots() {
  std::vector<uint32_t> old(slots_.size() * 2);
  old.swap(slots_);
  for (const uint32_t node : old) {
    if (node == 0) continue;
    size_t slot = slotOf(nodes_[node].parent, nodes_[node].function);
    while (slots_[slot] != 0) slot = (slot + 1) & (slots_.size() - 1);
    slots_[slot] = node;
  }
}

uint32_t KLTT_CallTrees::childOf(uint32_t parent, uint32_t function) {
  const uint32_t last = nodes_[parent].lastChild;
  if (last != 0 && nodes_[last].function == function) return last;
  size_t slot = slotOf(parent, function);
  for (; slots_[slot] != 0; slot = (slot + 1) & (slots_.size() - 1)) {
    const Node& node = nodes_[slots_[slot]];
    if (node.parent == parent && node.function == function) {
      return nodes_[parent].lastChild = slots_[slot];
    }
  }
  const auto child = static_cast<uint32_t>(nodes_.size());
  Node& node = nodes_.emplace_back();
  node.function = function;
  node.parent = parent;
  nodes_[parent].lastChild = child;
  slots_[slot] = child;
  if (++slotsUsed_ * 2 > slots_.size()) growSlots();
  return child;
}

void KLTT_CallTrees::enter(uint64_t time, uint32_t gtp, uint32_t function, uint32_t scl) {
  Thread& thread = threadOf(gtp);
  ++thread.events;
  const Call& top = thread.calls.back();
  nodes_[top.node].self += elapsed(top.resumed, time);
  touch(top.node);
  const uint32_t child = childOf(top.node, function);
  touch(child);
  Node& node = nodes_[child];
  ++node.calls;
  if (node.scl == 0) node.scl = scl;
  thread.calls.push_back({child, time, time});
}

void KLTT_CallTrees::leave(uint64_t time, uint32_t gtp) {
  Thread& thread = threadOf(gtp);
  ++thread.events;
  if (thread.calls.size() == 1) return;
  const Call& call = thread.calls.back();
  nodes_[call.node].self += elapsed(call.resumed, time);
  nodes_[call.node].inclusive += elapsed(call.entered, time);
  touch(call.node);
  thread.calls.pop_back();
  touch(thread.calls.back().node);
  thread.calls.back().resumed = time;
}

// A call below the top counts the time since it was last resumed, that of its callee included.
void KLTT_CallTrees::closeCalls(Thread& thread, uint64_t binEnd) {
  for (Call& call : thread.calls) {
    nodes_[call.node].self += elapsed(call.resumed, binEnd);
    nodes_[call.node].inclusive += elapsed(call.entered, binEnd);
    call.resumed = call.entered = binEnd;
    touch(call.node);
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
  std::sort(places_.begin() + first, places_.end(), [this](const Place& a, const Place& b) {
    return nodes_[a.node].function < nodes_[b.node].function;
  });
  places_.back().moreSiblings = false;
}

// Of the root's children only the one with the lowest number gets into the tree.
void KLTT_CallTrees::layOut(uint32_t root) {
  places_.assign(1, {root, 0, 0, 0, true});
  beside_.clear();
  appendChildren(0);
  for (size_t i = 2; i < places_.size(); ++i) beside_.push_back(places_[i].node);
  if (places_.size() > 1) {
    places_.resize(2);
    places_[0].children = 1;
    places_[1].moreSiblings = false;
  }
  for (uint32_t place = 1; place < places_.size(); ++place) appendChildren(place);
  for (size_t i = 0; i < beside_.size(); ++i) {
    for (uint32_t child = nodes_[beside_[i]].touchedChild; child != 0;
         child = nodes_[child].touchedSibling) {
      beside_.push_back(child);
    }
  }
}

void KLTT_CallTrees::writeThread(KLTT_SumFile& file, const Thread& thread, uint64_t binStart,
                                 uint64_t binWidth) {
  file.put(binStart);
  file.put(binWidth);
  file.put(thread.gtp);
  file.put(thread.events);
  file.put(static_cast<uint32_t>(places_.size()));
  file.put(uint32_t{0});
  for (uint32_t i = 0; i < places_.size(); ++i) {
    const Place& place = places_[i];
    const Node& node = nodes_[place.node];
    const uint64_t below = places_.size() > 1 ? nodes_[places_[1].node].inclusive : 0;
    file.put(uint32_t{0});
    file.put(node.function);
    file.put(i == 0 ? uint64_t{0} : node.self);
    file.put(i == 0 ? below : node.inclusive);
    file.put(node.calls);
    file.put(node.scl);
    file.put(place.children);
    file.put(place.children == 0 ? uint32_t{0} : place.firstChild - i);
    file.put(static_cast<uint32_t>(place.moreSiblings));
    file.put(i - place.parent);
  }
}

// Clears what the bin has counted in the nodes that it touched.
void KLTT_CallTrees::clear() {
  const auto clearNode = [this](uint32_t index) {
    Node& node = nodes_[index];
    node.self = node.inclusive = 0;
    node.calls = node.scl = 0;
    node.touchedChild = node.touchedSibling = 0;
    node.touched = false;
  };
  for (const Place& place : places_) clearNode(place.node);
  for (const uint32_t node : beside_) clearNode(node);
}

void KLTT_CallTrees::flush(KLTT_SumFile& file, uint64_t binStart, uint64_t binEnd,
                           uint64_t binWidth) {
  file.begin();
  for (const std::vector<uint32_t>& bucket : buckets_) {
    for (const uint32_t index : bucket) {
      Thread& thread = threads_[index];
      closeCalls(thread, binEnd);
      layOut(thread.calls.front().node);
      writeThread(file, thread, binStart, binWidth);
      clear();
      thread.events = 0;
    }
  }
  file.end(threads_.size());
}
