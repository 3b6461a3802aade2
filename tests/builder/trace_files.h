// A finished trace as bytes in memory. Tests damage it, then write it to disk in one of the storage
// forms.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tb {

// Reports wrong use of the builder and ends the process.
[[noreturn]] void misuse(std::string_view what, std::string_view about);
// Appends a big-endian number.
void put(std::string& out, uint64_t bits, unsigned bytes);

// A new directory, which is removed with its contents at the end of its scope.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] std::string operator/(std::string_view name) const {
    return path_ + '/' + std::string(name);
  }

 private:
  std::string path_;
};

// How components are arranged in a single file.
struct ContainerForm {
  unsigned version = 1;  // 0 has 2-byte fields in its directory
  size_t extent = 0;     // bytes of an extent, of each component in turn; 0: one extent each
  bool padded = false;   // the last extents have full length, too, with unused bytes
};

void writeFile(const std::string& path, std::string_view bytes);
[[nodiscard]] std::string readFile(const std::string& path);

// Components by key, in the order in which they were added: " " is the index, ".f.0" a component.
class TraceFiles {
 public:
  void add(std::string key, std::string bytes) {
    parts_.emplace_back(std::move(key), std::move(bytes));
  }
  // The bytes of a component that exists.
  [[nodiscard]] std::string& operator[](std::string_view key);
  [[nodiscard]] const std::vector<std::pair<std::string, std::string>>& parts() const {
    return parts_;
  }
  void remove(std::string_view key) {
    std::erase_if(parts_, [&](const auto& part) { return part.first == key; });
  }
  // Removes the last `count` bytes.
  TraceFiles& truncate(std::string_view key, size_t count) {
    (*this)[key].resize((*this)[key].size() - count);
    return *this;
  }

  // The trace as one container file.
  [[nodiscard]] std::string container(const ContainerForm& form = {}) const;

  // Write the trace and return the name to open.
  std::string writePlain(const TempDir& directory, std::string_view base = "t.klt") const;
  std::string writeContainer(const TempDir& directory, const ContainerForm& form = {}) const {
    writeFile(directory / "t.klt", container(form));
    return directory / "t.klt";
  }

 private:
  std::vector<std::pair<std::string, std::string>> parts_;
};

}  // namespace tb
