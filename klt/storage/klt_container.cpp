// Creates, opens and completes containers; reads and writes their directories.
//
// A directory that is read from a file isn't trusted: every field is checked against the remaining
// bytes, every extent against the part of the file that holds extents, and memory is allocated only
// for entries that have been read and checked.
#include "klt/storage/klt_container.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <span>
#include <utility>

#include "klt/format/klt_wire.h"
#include "klt/storage/klt_storage.h"
#include "util/pal_error.h"
#include "util/pal_hash.h"
#include "util/pal_mem.h"
#include "util/pal_util.h"
#include "util/vfd.h"

namespace {

constexpr std::string_view kMagic = "SKLT";
constexpr uint64_t kVersion = 1;
constexpr uint64_t kTrailerBytes = 8;
constexpr uint32_t kBuckets = 17;

// Combines four bytes of the key, each sign-extended to 32 bits.
uint32_t hashOf(std::string_view key) {
  if (key.empty()) return 0;
  const auto byteAt = [key](size_t i) {
    return static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(key[i])));
  };
  const size_t length = key.size();
  return byteAt(length - 1) | byteAt(length / 3) << 8 | byteAt(2 * (length / 3)) << 16 |
         byteAt(0) << 24;
}

// Reads the directory sequentially through a buffer.
class DirectoryReader {
 public:
  DirectoryReader(int fd, uint64_t offset, uint64_t bytes)
      : fd_(fd), offset_(offset), unread_(bytes) {}

  [[nodiscard]] uint64_t remaining() const { return unread_ + (filled_ - pos_); }

  // The next `bytes` bytes; null if they can't be read. REQUIRES: bytes <= kKltMaxKeyBytes.
  const uint8_t* take(size_t bytes) {
    if (filled_ - pos_ < bytes && !refill(bytes)) return nullptr;
    const uint8_t* const at = buffer_.data() + pos_;
    pos_ += bytes;
    return at;
  }

  // Reads a number of `bytes` bytes.
  bool number(unsigned bytes, uint64_t* value) {
    const uint8_t* const at = take(bytes);
    if (at == nullptr) return false;
    *value = klt::loadBig(at, bytes);
    return true;
  }

 private:
  bool refill(size_t bytes) {
    if (remaining() < bytes) return false;
    if (buffer_.empty()) buffer_.resize(std::min<uint64_t>(kBufferBytes, unread_));
    std::memmove(buffer_.data(), buffer_.data() + pos_, filled_ - pos_);
    filled_ -= pos_;
    pos_ = 0;
    const size_t want = std::min<uint64_t>(unread_, buffer_.size() - filled_);
    if (Vfd_PReadFully(fd_, buffer_.data() + filled_, want, static_cast<off_t>(offset_)) != want) {
      return false;
    }
    filled_ += want;
    offset_ += want;
    unread_ -= want;
    return true;
  }

  static constexpr size_t kBufferBytes = 262144;
  static_assert(kBufferBytes > kKltMaxKeyBytes);

  int fd_;
  uint64_t offset_;  // of the next byte to read into the buffer
  uint64_t unread_;
  std::vector<uint8_t> buffer_;
  size_t pos_ = 0;
  size_t filled_ = 0;
};

// Reads the entry's extents, which must be before the offset `end` of the file.
bool readExtents(DirectoryReader& reader, uint64_t count, uint64_t end, KLT_DirEntry* entry) {
  if (count > reader.remaining() / 16) return false;
  for (uint64_t i = 0; i < count; ++i) {
    uint64_t offset = 0;
    if (!reader.number(8, &offset)) return false;
    if (offset < kKltContainerHeaderBytes || offset > end) return false;
    entry->extents.push_back({offset, 0, 0});
  }
  uint64_t start = 0;
  for (KLT_Extent& extent : entry->extents) {
    if (!reader.number(8, &extent.length) || extent.length > end - extent.offset) return false;
    extent.start = start;
    if (__builtin_add_overflow(start, extent.length, &start)) return false;
  }
  entry->used = entry->extents.size();
  return true;
}

bool readEntry(DirectoryReader& reader, uint64_t version, uint64_t end, KLT_DirEntry* entry) {
  const unsigned countBytes = version != 0 ? 4 : 2;
  uint64_t nameLength = 0;
  if (!reader.number(countBytes, &nameLength)) return false;
  if (nameLength == 0 || nameLength > kKltMaxKeyBytes) return false;
  const uint8_t* const name = reader.take(nameLength);
  if (name == nullptr || std::memchr(name, 0, nameLength) != nullptr) return false;
  entry->name.assign(reinterpret_cast<const char*>(name), nameLength);

  uint64_t count = 0;
  if (!reader.number(8, &entry->lastUsed) || !reader.number(countBytes, &count)) return false;
  if (!readExtents(reader, count, end, entry)) return false;
  if (count == 0) {
    entry->lastUsed = 0;
    return true;
  }
  return entry->lastUsed <= entry->extents.back().length;
}

// Fills the container's table and sets its end. False if the directory is invalid.
bool loadDirectory(KLT_Container* container) {
  const PAL_Place here;
  const off_t size = Vfd_Seek(container->fd, 0, SEEK_END);
  constexpr uint64_t kMinBytes = kKltContainerHeaderBytes + kTrailerBytes;
  if (size < static_cast<off_t>(kMinBytes)) return false;
  const uint64_t limit = static_cast<uint64_t>(size) - kTrailerBytes;
  std::array<uint8_t, kTrailerBytes> trailer;
  if (Vfd_PReadFully(container->fd, trailer.data(), trailer.size(), static_cast<off_t>(limit)) !=
      trailer.size()) {
    return false;
  }
  const uint64_t end = klt::loadBig64(trailer.data());
  if (end < kKltContainerHeaderBytes || end > limit) return false;
  container->end = end;

  // The extents together may not be longer than the file: otherwise a small file with overlapping
  // extents could contain any amount of data.
  uint64_t unclaimed = end - kKltContainerHeaderBytes;
  DirectoryReader reader(container->fd, end, limit - end);
  while (reader.remaining() > 0) {
    KLT_DirEntry entry;
    if (!readEntry(reader, container->version, end, &entry)) return false;
    if (container->directory.find(entry.name) != nullptr) continue;
    const uint64_t claimed =
        entry.used == 0 ? 0 : entry.extents.back().start + entry.extents.back().length;
    if (claimed > unclaimed) return false;
    unclaimed -= claimed;
    KLT_DirEntry* const kept = container->directory.enter(std::move(entry.name));
    kept->lastUsed = entry.lastUsed;
    kept->used = entry.used;
    kept->extents = std::move(entry.extents);
  }
  return true;
}

// Builds the encoded form of a directory.
class DirectoryWriter {
 public:
  void number32(uint64_t value) {
    klt::storeBig32(extend(sizeof(uint32_t)), static_cast<uint32_t>(value));
  }
  void number64(uint64_t value) { klt::storeBig64(extend(sizeof(uint64_t)), value); }
  void text(std::string_view text) { std::memcpy(extend(text.size()), text.data(), text.size()); }
  [[nodiscard]] const std::vector<uint8_t>& bytes() const { return bytes_; }

 private:
  uint8_t* extend(size_t bytes) {
    bytes_.resize(bytes_.size() + bytes);
    return bytes_.data() + bytes_.size() - bytes;
  }
  std::vector<uint8_t> bytes_;
};

void writeEntry(const KLT_DirEntry& entry, DirectoryWriter* out) {
  const std::span<const KLT_Extent> extents(entry.extents.data(), entry.used);
  out->number32(entry.name.size());
  out->text(entry.name);
  out->number64(entry.lastUsed);
  out->number32(extents.size());
  for (const KLT_Extent& extent : extents) out->number64(extent.offset);
  for (const KLT_Extent& extent : extents) out->number64(extent.length);
}

bool writeHeader(const KLT_Container* container) {
  std::array<uint8_t, kKltContainerHeaderBytes> header;
  std::memcpy(header.data(), kMagic.data(), kMagic.size());
  klt::storeBig64(header.data() + kMagic.size(), kVersion);
  if (container->form == KLT_FORM_SERIAL) {
    return Vfd_WriteFully(container->fd, header.data(), header.size()) == header.size();
  }
  return Vfd_PWriteFully(container->fd, header.data(), header.size(), 0) == header.size();
}

// Determines the directory's offset in a container that isn't written in sequence. Readers look for
// the trailer in the last bytes of the file, and the file is never truncated. So if the file
// already extends past the end of this directory, the directory is moved to the end of the file.
bool placeDirectory(const KLT_Container* container, uint64_t bytes, uint64_t* offset) {
  const off_t size = Vfd_Seek(container->fd, 0, SEEK_END);
  if (size < 0) return false;
  *offset = container->end;
  const uint64_t fileEnd = static_cast<uint64_t>(size);
  if (fileEnd > *offset && bytes < fileEnd - *offset) *offset = fileEnd - bytes;
  return true;
}

bool writeDirectory(const KLT_Container* container) {
  const PAL_Place here;
  DirectoryWriter out;
  for (const KLT_DirEntry* entry : container->directory.ordered()) writeEntry(*entry, &out);
  const uint64_t bytes = out.bytes().size() + kTrailerBytes;
  if (container->form == KLT_FORM_SERIAL) {
    out.number64(container->end);
    return Vfd_WriteFully(container->fd, out.bytes().data(), bytes) == bytes;
  }
  // The directory is written in the current version, so the header must have that version, too.
  if (container->version == 0 && !writeHeader(container)) return false;
  uint64_t offset = 0;
  if (!placeDirectory(container, bytes, &offset)) return false;
  out.number64(offset);
  return Vfd_PWriteFully(container->fd, out.bytes().data(), bytes, static_cast<off_t>(offset)) ==
         bytes;
}

KLT_Container* newContainer(const char* dir, const char* name, int flags, mode_t mode, int form) {
  const PAL_Place here;
  auto* const container = new KLT_Container;
  if (dir != nullptr) container->dir = dir;
  container->name = name;
  container->flags = flags;
  container->mode = mode;
  container->form = form;
  return container;
}

// Returns the flags without O_APPEND, which applies to the components. On the container's
// descriptor it would make every write go to the end of the file instead of its offset.
int containerFlags(int flags) { return flags & ~O_APPEND; }

// Reports errno with the container's name, deletes the container and returns null.
KLT_Container* reportAndDelete(KLT_Container* container) {
  PAL_Perror(container->name.c_str());
  if (container->fd >= 0) Vfd_Close(container->fd);
  delete container;
  return nullptr;
}

KLT_Container* asPlain(KLT_Container* container) {
  if (container->fd >= 0) Vfd_Close(container->fd);
  container->fd = -1;
  container->form = KLT_FORM_PLAIN;
  return container;
}

}  // namespace

KLT_DirEntry* KLT_NameTable::find(std::string_view key) {
  const auto found = byName_.find(key);
  return found == byName_.end() ? nullptr : found->second;
}

KLT_DirEntry* KLT_NameTable::enter(std::string&& name) {
  KLT_DirEntry* const entry = &entries_.emplace_back();
  entry->name = std::move(name);
  byName_.emplace(entry->name, entry);
  return entry;
}

std::vector<const KLT_DirEntry*> KLT_NameTable::ordered() const {
  const PAL_Place here;
  std::vector<const KLT_DirEntry*> entries;
  entries.reserve(entries_.size());
  for (const KLT_DirEntry& entry : entries_) entries.push_back(&entry);
  PAL_SortByBucket(entries, kBuckets, [](const KLT_DirEntry* e) { return hashOf(e->name); });
  return entries;
}

int KLT_StatIn(const char* dir, const char* name, struct stat* info) {
  return stat(PAL_PathInDir(dir, name).c_str(), info);
}

KLT_Container* KLT_ContainerCreate(const char* dir, int flags, mode_t mode, int form,
                                   const char* name) {
  const bool isStdout = std::strcmp(name, "-") == 0;
  if (isStdout && form != KLT_FORM_SERIAL) PAL_Error("STDOUT only available in SERIAL mode.");
  KLT_Container* const container = newContainer(dir, name, flags, mode, form);
  if (!isStdout && !container->lock.acquire(dir, name, mode)) {
    delete container;
    errno = EWOULDBLOCK;
    return nullptr;
  }
  if (form == KLT_FORM_PLAIN) return container;
  container->fd = isStdout && form == KLT_FORM_SERIAL
                      ? Vfd_Adopt(STDOUT_FILENO)
                      : PAL_OpenInDir(dir, name, containerFlags(flags), mode);
  if (container->fd < 0 || !writeHeader(container)) return reportAndDelete(container);
  container->end = kKltContainerHeaderBytes;
  return container;
}

KLT_Container* KLT_ContainerOpen(const char* dir, const char* name, int flags, mode_t mode) {
  KLT_Container* const container = newContainer(dir, name, flags, mode, KLT_FORM_PLAIN);
  // Opening a FIFO would wait for a writer. O_NONBLOCK prevents that if the name becomes a FIFO
  // after the check; it has no effect on regular files.
  struct stat info;
  if (KLT_StatIn(dir, name, &info) == 0 && !S_ISREG(info.st_mode)) return container;
  container->fd = PAL_OpenInDir(dir, name, containerFlags(flags) | O_NONBLOCK, mode);
  if (container->fd < 0) return reportAndDelete(container);

  std::array<uint8_t, kKltContainerHeaderBytes> header;
  if (Vfd_PReadFully(container->fd, header.data(), header.size(), 0) != header.size() ||
      std::memcmp(header.data(), kMagic.data(), kMagic.size()) != 0) {
    return asPlain(container);
  }
  container->version = klt::loadBig64(header.data() + kMagic.size());
  if (container->version >> 32 != 0) {
    PAL_Error("Too new a SINGLEKLT file %s. Please use an updated KLT reading tool.\n",
              PAL_Printable(name).c_str());
    return asPlain(container);
  }
  container->form = KLT_FORM_SINGLE;
  if (loadDirectory(container)) return container;
  Vfd_Close(container->fd);
  delete container;
  return nullptr;
}

int KLT_ContainerForm(const KLT_Container* container) { return container->form; }

int KLT_ContainerClose(KLT_Container* container) {
  if (container == nullptr) return 0;
  bool good = true;
  if (container->fd >= 0) {
    const bool writable = (container->flags & O_ACCMODE) != O_RDONLY;
    good = !writable || writeDirectory(container);
    if (!good) PAL_Perror(container->name.c_str());
    if (Vfd_Close(container->fd) != 0 && writable && good) {
      PAL_Perror(container->name.c_str());
      good = false;
    }
  }
  delete container;
  return good ? 0 : -1;
}

std::vector<std::string> KLT_ContainerKeys(const KLT_Container* container) {
  std::vector<std::string> keys;
  for (const KLT_DirEntry* entry : container->directory.ordered()) keys.push_back(entry->name);
  return keys;
}
