// Defines the container file, which holds all components of a trace and a directory of them.
//
// Only klt_io.cpp and klt_container.cpp use this header; all others use klt/storage/klt_io.h. This
// module owns the file's layout: header, directory, trailer. klt_io decides where the bytes of a
// component are stored.
//
// All numbers are big-endian:
//
//   offset   bytes  content
//   0        4      "SKLT"
//   4        8      version; 1 is written
//   12              extents of the components; bytes between extents are unused
//   D               directory: an entry per component, to the trailer
//   size-8   8      D
//
//   entry of the directory        bytes (version 0)
//   length of the key             4 (2)   1 to 65535
//   key                                   no NUL
//   bytes used in last extent     8
//   number of extents             4 (2)
//   offsets of all extents        8 each
//   lengths of all extents        8 each
//
// A component consists of its extents in this order; of the last one only the used bytes count.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "util/pal_hash.h"
#include "util/pal_util.h"

inline constexpr uint64_t kKltContainerHeaderBytes = 12;
inline constexpr size_t kKltMaxKeyBytes = 65535;

struct KLT_Extent {
  uint64_t offset;  // in the container
  uint64_t length;
  uint64_t start;  // in the component: the lengths of all extents before this one
};

// A component. The extents from index `used` on are unused; a growing component uses them first.
struct KLT_DirEntry {
  std::string name;
  uint64_t lastUsed = 0;  // bytes in use of the extent before index `used`
  std::vector<KLT_Extent> extents;
  size_t used = 0;

  // Bytes in the component.
  [[nodiscard]] uint64_t length() const {
    return used == 0 ? 0 : extents[used - 1].start + lastUsed;
  }
};

// The components of a container by key. Entries keep their addresses.
class KLT_NameTable {
 public:
  [[nodiscard]] KLT_DirEntry* find(std::string_view key);

  // REQUIRES: the table doesn't contain `name`.
  KLT_DirEntry* enter(std::string&& name);

  // All entries in the order of a directory: by 17 buckets of a hash of the key, within a bucket in
  // order of insertion.
  [[nodiscard]] std::vector<const KLT_DirEntry*> ordered() const;

 private:
  std::deque<KLT_DirEntry> entries_;  // in order of insertion
  PAL_HashMap<std::string_view, KLT_DirEntry*> byName_;
};

struct KLT_Container {
  uint64_t end = 0;  // next free offset of the file
  uint64_t version = 1;
  KLT_NameTable directory;
  std::optional<std::string> dir;  // directory that file names are relative to
  std::string name;                // base name of the trace
  int flags = 0;                   // of open(2), for the container or the components
  mode_t mode = 0;
  int fd = -1;  // virtual descriptor of the container; -1 in the plain form
  int form = 0;
  PAL_FileLock lock;  // of an output: the container, or the index of a plain trace

  [[nodiscard]] const char* directoryName() const { return dir ? dir->c_str() : nullptr; }
};

// stat(2) of `name`, which is relative to `dir` unless that is null.
[[nodiscard]] int KLT_StatIn(const char* dir, const char* name, struct stat* info);
