// Storage forms of a built trace: one file a component, or all of them in one container file.
//
// A container is "SKLT", a 64-bit version, the extents, the directory, and the directory's offset
// in the last 8 bytes. A directory entry is the length of the key, the key, the bytes used in the
// last extent, the number of extents, all their offsets, all their lengths; big-endian.
#include "tests/builder/trace_files.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace tb {

void misuse(std::string_view what, std::string_view about) {
  std::fprintf(stderr, "trace builder: %.*s: %.*s\n", static_cast<int>(what.size()), what.data(),
               static_cast<int>(about.size()), about.data());
  std::abort();
}

void put(std::string& out, uint64_t bits, unsigned bytes) {
  for (unsigned i = bytes; i-- > 0;) out += static_cast<char>(bits >> (8 * i));
}

TempDir::TempDir() {
  path_ = (std::filesystem::temp_directory_path() / "klttool-test-XXXXXX").string();
  if (mkdtemp(path_.data()) == nullptr) misuse("no temporary directory", path_);
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void writeFile(const std::string& path, std::string_view bytes) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  file.close();
  if (!file) misuse("can't write", path);
}

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) misuse("can't read", path);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

bool TraceFiles::contains(std::string_view key) const {
  return std::any_of(parts_.begin(), parts_.end(), [&](const auto& p) { return p.first == key; });
}

std::string& TraceFiles::operator[](std::string_view key) {
  for (auto& [name, bytes] : parts_) {
    if (name == key) return bytes;
  }
  misuse("no such component", key);
}

TraceFiles& TraceFiles::remove(std::string_view key) {
  if (std::erase_if(parts_, [&](const auto& part) { return part.first == key; }) == 0)
    misuse("no such component", key);
  return *this;
}

std::string TraceFiles::container(const ContainerForm& form) const {
  struct Extents {
    std::vector<uint64_t> offsets, lengths;
    uint64_t lastUsed = 0;
  };
  std::vector<Extents> all(parts_.size());
  size_t longest = 0;
  for (const auto& part : parts_) longest = std::max(longest, part.second.size());
  const size_t step = form.extent == 0 ? longest : form.extent;

  std::string file = "SKLT";
  put(file, form.version, 8);
  for (size_t at = 0; at < longest; at += step) {
    for (size_t i = 0; i < parts_.size(); ++i) {
      const std::string& bytes = parts_[i].second;
      if (at >= bytes.size()) continue;
      const size_t used = std::min(bytes.size() - at, step);
      const size_t length = form.padded ? std::max(used, form.extent) : used;
      all[i].offsets.push_back(file.size());
      all[i].lengths.push_back(length);
      all[i].lastUsed = used;
      file.append(bytes, at, used).append(length - used, '\xaa');
    }
  }

  const uint64_t directory = file.size();
  const unsigned width = form.version == 0 ? 2 : 4;
  for (size_t i = 0; i < parts_.size(); ++i) {
    const std::string& key = parts_[i].first;
    const size_t count = all[i].offsets.size();
    if (count >> (8 * width) != 0) misuse("too many extents", key);
    put(file, key.size(), width);
    file += key;
    put(file, all[i].lastUsed, 8);
    put(file, count, width);
    for (const uint64_t offset : all[i].offsets) put(file, offset, 8);
    for (const uint64_t length : all[i].lengths) put(file, length, 8);
  }
  put(file, directory, 8);
  return file;
}

std::string TraceFiles::writePlain(const TempDir& directory, std::string_view base) const {
  std::string name = directory / base;
  for (const auto& [key, bytes] : parts_) writeFile(key == " " ? name : name + key, bytes);
  return name;
}

std::string TraceFiles::writeContainer(const TempDir& directory, const ContainerForm& form,
                                       std::string_view base) const {
  std::string name = directory / base;
  writeFile(name, container(form));
  return name;
}

}  // namespace tb
