// The order of a table with chains.
//
// Where a trace or an output lists the entries of a table, it lists them as one walks a table of a
// fixed number of chains: chain by chain, and in each the entries by arrival. This order is part of
// the bytes that are written, and of the order in which streams are read. It must not depend on how
// entries are found, which is why nothing is kept in chains: who lists entries sorts them first.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// Sorts `items`, which are in order of arrival, into the order of a table with `buckets` chains.
// hashOf(item) is a uint32_t; its remainder is the chain.
template <class T, class HashOf>
void PAL_SortByBucket(std::vector<T>& items, uint32_t buckets, HashOf hashOf) {
  std::vector<size_t> starts(size_t{buckets} + 1);
  for (const T& item : items) ++starts[hashOf(item) % buckets + 1];
  for (size_t i = 1; i < starts.size(); ++i) starts[i] += starts[i - 1];
  std::vector<T> sorted(items.size());
  for (const T& item : items) sorted[starts[hashOf(item) % buckets]++] = item;
  items.swap(sorted);
}
