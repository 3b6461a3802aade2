// A set of files compared by device and inode: the files of an input, which no output may
// overwrite.
//
// Names don't identify a file: through a link, a second path or a shared base name an output can be
// a file of the trace that is being read.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <set>
#include <string>
#include <utility>

class KLT_FileSet {
 public:
  // Adds the file at `path`, if there is one.
  void add(const std::string& path);
  // Whether the file with this status is in the set.
  [[nodiscard]] bool contains(const struct stat& info) const;
  // Whether the file at `path` is in the set.
  [[nodiscard]] bool contains(const std::string& path) const;
  // Whether `descriptor` refers to a regular file of the set.
  [[nodiscard]] bool containsOpen(int descriptor) const;
  [[nodiscard]] bool empty() const { return files_.empty(); }

 private:
  using Identity = std::pair<uint64_t, uint64_t>;  // device, inode

  std::set<Identity> files_;
};
