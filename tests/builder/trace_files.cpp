// Storage forms of a built trace: a file for each component, or one container file.
//
// A container is "SKLT", a 64-bit version, the extents, the directory, and the directory's offset
// in the last 8 bytes. A directory entry is the length of the key, the key, the bytes used in the
// last extent, the number of extents, all their offsets, all their lengths; big-endian.
#include "tests/builder/trace_files.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>

namespace tb {

void misuse(std::string_view what, std::string_view about) {
  std::cerr << "trace builder: " << what << ": " << about << '\n';
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

std::string& TraceFiles::operator[](std::string_view key) {
  for (auto& [name, bytes] : parts_) {
    if (name == key) return bytes;
  }
  misuse("no such component", key);
}

std::string TraceFiles::container(const ContainerForm& form) const {
  size_t longest = 0;
  for (const auto& part : parts_) longest = std::max(longest, part.second.size());
  const size_t step = form.extent == 0 ? longest : form.extent;
  std::vector<size_t> lastUsed(parts_.size());
  std::vector<std::string> offsets(parts_.size()), lengths(parts_.size());
  std::string file = "SKLT";
  put(file, form.version, 8);
  for (size_t at = 0; at < longest; at += step) {
    for (size_t i = 0; i < parts_.size(); ++i) {
      const std::string& bytes = parts_[i].second;
      if (at >= bytes.size()) continue;
      lastUsed[i] = std::min(bytes.size() - at, step);
      const size_t length = form.padded ? step : lastUsed[i];
      put(offsets[i], file.size(), 8);
      put(lengths[i], length, 8);
      file.append(bytes, at, lastUsed[i]).append(length - lastUsed[i], '\xaa');
    }
  }
  const uint64_t directory = file.size();
  const unsigned width = form.version == 0 ? 2 : 4;
  for (size_t i = 0; i < parts_.size(); ++i) {
    put(file, parts_[i].first.size(), width);
    file += parts_[i].first;
    put(file, lastUsed[i], 8);
    put(file, offsets[i].size() / 8, width);
    file += offsets[i] + lengths[i];
  }
  put(file, directory, 8);
  return file;
}

std::string TraceFiles::writePlain(const TempDir& directory, std::string_view base) const {
  std::string name = directory / base;
  for (const auto& [key, bytes] : parts_) writeFile(key == " " ? name : name + key, bytes);
  return name;
}

}  // namespace tb
