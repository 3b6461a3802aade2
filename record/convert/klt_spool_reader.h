// Reads the spools of a run (record/runtime/klt_spool.h).
//
// A spool may be that of a killed process, or damaged: every number is checked before use. Slots
// that aren't valid are left out.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "record/runtime/klt_spool.h"

namespace record {

// A file that is mapped for reading.
class MappedFile {
 public:
  MappedFile() = default;
  explicit MappedFile(const std::string& path);
  ~MappedFile();
  MappedFile(MappedFile&& other) noexcept;
  MappedFile& operator=(MappedFile&& other) noexcept;
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  // Empty if the file can't be read.
  [[nodiscard]] std::span<const std::byte> bytes() const { return {data_, size_}; }

 private:
  const std::byte* data_ = nullptr;
  size_t size_ = 0;
};

// The records of a thread: those of its slots, one after the other.
struct ThreadRecords {
  uint32_t thread = 0;
  std::vector<std::span<const klt_record>> parts;

  [[nodiscard]] uint64_t count() const {
    uint64_t total = 0;
    for (const auto& part : parts) total += part.size();
    return total;
  }
};

struct Definition {
  uint32_t kind = 0;
  uint32_t id = 0;
  uint32_t other = 0;
  std::string_view bytes;
};

// The spool of one process.
struct Process {
  std::string path;  // without the ending
  klt_spool_header header{};

  // The records, mapped while `file` lives, in order of the threads.
  [[nodiscard]] static std::vector<ThreadRecords> threads(const MappedFile& file);
  [[nodiscard]] static std::vector<Definition> definitions(const MappedFile& file);
  [[nodiscard]] std::string spoolPath() const { return path + ".spool"; }
  [[nodiscard]] std::string defsPath() const { return path + ".defs"; }
};

// The spools of a directory with valid headers. `problems` receives a line for each other one.
[[nodiscard]] std::vector<Process> readSpools(const std::string& directory,
                                              std::vector<std::string>& problems);

}  // namespace record
