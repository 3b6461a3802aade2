// The classes that a trace defines: a tree, in which the full name of a class is its path.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "generic/tables/kltt_idtable.h"

// A class is kept without its parents' names, which would add up to the square of a chain's length.
struct KLTT_Class {
  uint32_t key = 0;
  uint32_t parent = 0;      // 0: none
  const char* own = "";     // the last part of the path
  uint64_t pathBytes = 0;   // of KLTT_ClassPath
  uint32_t outputPath = 0;  // the text of the path in a binary output; 0 if it has none
};

// Parents are defined before their children.
using KLTT_Classes = KLTT_Table<KLTT_Class>;

// The own names of a class and those above it, from the root on.
[[nodiscard]] std::vector<const char*> KLTT_ClassParts(const KLTT_Classes& classes,
                                                       const KLTT_Class& of);
// The full name of a class: its parts joined by ":". What comes after the part that reaches `limit`
// bytes is left out.
[[nodiscard]] std::string KLTT_ClassPath(const KLTT_Classes& classes, const KLTT_Class& of,
                                         size_t limit = SIZE_MAX);
