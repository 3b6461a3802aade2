// The classes of functions that a trace defines. They form a tree, and the full name of a class is
// its path from the root.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "generic/tables/kltt_idtable.h"

// Holds only the last part of the name: the full names of a long chain of classes would need memory
// that grows with the square of the chain's length.
struct KLTT_Class {
  uint32_t key = 0;
  uint32_t parent = 0;      // 0: none
  const char* own = "";     // the last part of the path
  uint64_t pathBytes = 0;   // length of KLTT_ClassPath
  uint32_t outputPath = 0;  // id of the path in a binary output; 0 if it has none
};

// A class is in the table only if its parent is.
using KLTT_Classes = KLTT_Table<KLTT_Class>;

// The last parts of the names of a class and its ancestors, from the root down.
[[nodiscard]] std::vector<const char*> KLTT_ClassParts(const KLTT_Classes& classes,
                                                       const KLTT_Class& of);
// The full name of a class: its parts joined by ":", up to the part with which it has `limit` bytes
// or more.
[[nodiscard]] std::string KLTT_ClassPath(const KLTT_Classes& classes, const KLTT_Class& of,
                                         size_t limit = SIZE_MAX);
