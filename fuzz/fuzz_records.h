// Records and traces as a mutator sees them: where records begin and end in a component's bytes,
// what may be put in their place, and the components of a container.
//
// Lengths follow the standard layout. What doesn't, such as a renumbered or damaged part, is left
// to the mutation of bytes.
#pragma once

#include "fuzz/fuzz_target.h"

namespace fuzz {

// The number of `width` bytes at `at`; bytes that aren't there are 0.
[[nodiscard]] uint64_t load(std::string_view bytes, size_t at, size_t width);

// The bytes in front of an index's first record.
inline constexpr size_t kIndexHeaderBytes = 11;

// A number such as ids, times and counts have: mostly small, now and then at the limit of a type.
[[nodiscard]] uint64_t anyNumber(Random& random);

// Changes the records from `start` on: removes, repeats, moves or inserts some, or changes a number
// of one. If there is none, it inserts one or changes bytes.
void mutateRecords(Random& random, std::string& bytes, size_t start);

// Changes, inserts or removes a few bytes.
void mutateBytes(Random& random, std::string& bytes);

// The components of a container; none if it can't be opened.
[[nodiscard]] tb::TraceFiles takeApart(std::string_view container);

// A small trace with definitions of every kind and the components .f.0 to .f.3: any category of any
// thread; calls, scopes and input of threads 0 to 3; counters and communication; raw events. Each
// has anchors.
[[nodiscard]] const tb::TraceFiles& baseTrace();

}  // namespace fuzz
