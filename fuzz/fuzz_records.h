// Records as a mutator sees them: where they begin and end in a component's bytes, and what may be
// put in their place.
//
// Lengths follow the standard layout. What doesn't, such as a renumbered or damaged part, is left
// to the mutation of bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "klt/klt_wire.h"

namespace fuzz {

using Random = std::mt19937;

[[nodiscard]] inline size_t below(Random& random, size_t limit) {
  return limit == 0 ? 0 : random() % limit;
}

// The number of 1, 2, 4 or 8 bytes at `at`, which are there.
[[nodiscard]] inline uint64_t load(std::string_view bytes, size_t at, size_t width) {
  return klt::loadBig(reinterpret_cast<const uint8_t*>(bytes.data()) + at,
                      static_cast<unsigned>(width));
}

// The bytes in front of an index's first record.
inline constexpr size_t kIndexHeaderBytes = 11;

// The ends of the whole records from `start` on, in order; empty if there is none.
[[nodiscard]] std::vector<size_t> recordEnds(std::string_view bytes, size_t start);

// A number such as ids, times and counts have: mostly small, now and then at the limit of a type.
[[nodiscard]] uint64_t anyNumber(Random& random);

// Changes the records from `start` on: removes, repeats, exchanges or inserts some, or changes a
// field or a count of one. False if there is no record and none was put in.
bool mutateRecords(Random& random, std::string& bytes, size_t start);

// Puts a run of records of `donor` in between.
void crossRecords(Random& random, std::string& bytes, size_t start, std::string_view donor,
                  size_t donorStart);

// Changes, inserts or removes a few bytes.
void mutateBytes(Random& random, std::string& bytes);

}  // namespace fuzz
