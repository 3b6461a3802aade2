// A set of files compared by device and inode, such as those of an input, which no output may
// overwrite.
//
// Names don't identify a file: through a link or a second path an output with another name can be a
// file of the trace that is being read. For a file that doesn't exist the set contains the name,
// because an output of this name would become a part of the input.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <utility>

class KLT_FileSet {
 public:
  // Adds the file at `path`, or the name if there is no file. Returns whether it is new.
  bool add(const std::string& path);
  // Whether the file with this status is in the set.
  [[nodiscard]] bool contains(const struct stat& info) const;
  // Whether the file at `path`, or its name, is in the set.
  [[nodiscard]] bool contains(const std::string& path) const;
  // Whether `descriptor` refers to a regular file of the set.
  [[nodiscard]] bool containsOpen(int descriptor) const;

 private:
  using Identity = std::pair<uint64_t, uint64_t>;  // device, inode

  using Place = std::pair<Identity, std::string>;  // directory, name
  [[nodiscard]] static std::optional<Place> placeOf(const std::string& path);

  std::set<Identity> files_;
  std::set<Place> absent_;
};
