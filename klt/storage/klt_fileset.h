// Files told apart by what they are, not by name: the files of an input, which no output may touch.
//
// Names lie: a link, a second path or a shared base name can make an output the trace that is being
// read. A set compares device and inode.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <set>
#include <string>
#include <utility>

class KLT_FileSet {
 public:
  // Enters the file that `path` leads to, if there is one.
  void add(const std::string& path);
  // Whether the file of this status is one of the set.
  [[nodiscard]] bool contains(const struct stat& info) const;
  // Whether `path` leads to a file of the set.
  [[nodiscard]] bool contains(const std::string& path) const;
  // Whether `descriptor` is open on a regular file of the set.
  [[nodiscard]] bool containsOpen(int descriptor) const;
  [[nodiscard]] bool empty() const { return files_.empty(); }

 private:
  using Identity = std::pair<uint64_t, uint64_t>;  // device, inode

  std::set<Identity> files_;
};
