// Storage forms of a built trace: one file a component, or all of them in one container file.
//
// A container is "SKLT", a 64-bit version, the extents, the directory, and the directory's offset
// in the last 8 bytes. A directory entry is the length of the key, the key, the bytes used in the
// last extent, the number of extents, all their offsets, all their lengths; big-endian.
#include "tests/builder/trace_files.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace tb {
namespace {

[[noreturn]] void fail(const char* what, std::string_view about) {
  std::fprintf(stderr, "trace builder: %s: %.*s\n", what, static_cast<int>(about.size()),
               about.data());
  std::abort();
}

void put(std::string& out, uint64_t value, unsigned bytes) {
  for (unsigned i = bytes; i-- > 0;) out += static_cast<char>(value >> (8 * i));
}

struct Extent {
  uint64_t offset;
  uint64_t length;
};

struct Entry {
  std::vector<Extent> extents;
  uint64_t lastUsed = 0;
  size_t written = 0;  // bytes of the component laid out so far
};

// Lays out the next extent of a component; false if all of it is there.
bool addExtent(std::string& file, Entry& entry, const std::string& bytes,
               const ContainerForm& form) {
  const size_t left = bytes.size() - entry.written;
  if (left == 0) return false;
  const size_t used = form.extent == 0 ? left : std::min(left, form.extent);
  const size_t length = form.padded ? std::max(used, form.extent) : used;
  entry.extents.push_back({file.size(), length});
  entry.lastUsed = used;
  file.append(bytes, entry.written, used);
  file.append(length - used, '\xaa');
  entry.written += used;
  return true;
}

}  // namespace

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "klttool-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) fail("no temporary directory", pattern);
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::operator/(std::string_view name) const {
  return path_ + '/' + std::string(name);
}

void writeFile(const std::string& path, std::string_view bytes) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  file.close();
  if (!file) fail("can't write", path);
}

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) fail("can't read", path);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void TraceFiles::add(std::string key, std::string bytes) {
  parts_.emplace_back(std::move(key), std::move(bytes));
}

bool TraceFiles::contains(std::string_view key) const {
  return std::any_of(parts_.begin(), parts_.end(), [&](const auto& p) { return p.first == key; });
}

std::string& TraceFiles::operator[](std::string_view key) {
  for (auto& [name, bytes] : parts_) {
    if (name == key) return bytes;
  }
  fail("no such component", key);
}

TraceFiles& TraceFiles::remove(std::string_view key) {
  if (!contains(key)) fail("no such component", key);
  std::erase_if(parts_, [&](const auto& part) { return part.first == key; });
  return *this;
}

TraceFiles& TraceFiles::truncate(std::string_view key, size_t count) {
  std::string& bytes = (*this)[key];
  if (count > bytes.size()) fail("shorter than the cut", key);
  bytes.resize(bytes.size() - count);
  return *this;
}

TraceFiles& TraceFiles::flip(std::string_view key, size_t offset, unsigned char mask) {
  std::string& bytes = (*this)[key];
  if (offset >= bytes.size() || mask == 0) fail("nothing to flip", key);
  bytes[offset] = static_cast<char>(static_cast<unsigned char>(bytes[offset]) ^ mask);
  return *this;
}

TraceFiles& TraceFiles::splice(std::string_view key, size_t offset, size_t count,
                               std::string_view bytes) {
  std::string& part = (*this)[key];
  if (offset > part.size()) fail("nothing to replace", key);
  part.replace(offset, count, bytes);
  return *this;
}

std::string TraceFiles::container(const ContainerForm& form) const {
  std::string file = "SKLT";
  put(file, form.version, 8);

  std::vector<Entry> entries(parts_.size());
  bool more = true;
  while (more) {
    more = false;
    for (size_t i = 0; i < parts_.size(); ++i) {
      more |= addExtent(file, entries[i], parts_[i].second, form);
    }
  }

  const uint64_t directory = file.size();
  const unsigned width = form.version == 0 ? 2 : 4;
  for (size_t i = 0; i < parts_.size(); ++i) {
    const Entry& entry = entries[i];
    if (entry.extents.size() >> (8 * width) != 0) fail("too many extents", parts_[i].first);
    put(file, parts_[i].first.size(), width);
    file += parts_[i].first;
    put(file, entry.lastUsed, 8);
    put(file, entry.extents.size(), width);
    for (const Extent& extent : entry.extents) put(file, extent.offset, 8);
    for (const Extent& extent : entry.extents) put(file, extent.length, 8);
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
