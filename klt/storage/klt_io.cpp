// Opens components and copies bytes between the caller and a component's file or extents. See
// klt_io.h.
#include "klt/storage/klt_io.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <optional>
#include <string_view>

#include "klt/storage/klt_container.h"
#include "util/pal_error.h"
#include "util/pal_mem.h"
#include "util/pal_util.h"
#include "util/vfd.h"

// An open component. In the plain form it has no entry. In a container its position is the index of
// an extent and an offset inside it.
struct KLT_IoFile {
  KLT_Container* container = nullptr;
  KLT_DirEntry* entry = nullptr;
  size_t current = 0;  // index of the current extent
  uint64_t pos = 0;    // offset inside it
  int fd = -1;         // virtual descriptor; may be the container's own
  std::string name;    // file name, in the plain form
  int64_t size = -1;   // of a plain file when it was opened for reading; -1 if it isn't known
  // In the plain form: the errno of all reads of an index that isn't a regular file, or 0.
  int readError = 0;
  bool reportedReadFailure = false;  // in a container; reported once per component
};

namespace {

constexpr uint64_t kMinExtentBytes = 65536;
constexpr uint64_t kLargestOffset = std::numeric_limits<int64_t>::max();

bool isReadOnly(const KLT_Container* container) {
  return (container->flags & O_ACCMODE) == O_RDONLY;
}

bool isPresent(const KLT_IoFile* file) {
  if (file != nullptr) return true;
  PAL_Error("Illegal file descriptor: NULL\n");
  errno = EBADF;
  return false;
}

// The errno for reading a file of this kind as a component; 0 for a regular file.
int readErrorOf(const struct stat& info) {
  if (S_ISREG(info.st_mode)) return 0;
  return S_ISDIR(info.st_mode) ? EISDIR : ESPIPE;
}

// A descriptor for reading a component; -1 with errno, or with `readError` set if the file isn't a
// regular one. The kind of file is checked after opening, because a stat of the name before would
// take as long as another open and a trace has thousands of components. So a FIFO or device with
// the name of a component is opened for a moment; with these flags that neither waits nor acquires
// a controlling terminal.
int openForReading(const KLT_Container* container, const char* fileName, int* readError,
                   int64_t* size) {
  const char* const dir = container->directoryName();
  const int fd =
      PAL_OpenInDir(dir, fileName, container->flags | O_NONBLOCK | O_NOCTTY, container->mode);
  struct stat info;
  if (fd < 0) {
    const int savedErrno = errno;
    if (KLT_StatIn(dir, fileName, &info) == 0) *readError = readErrorOf(info);
    errno = savedErrno;
    return -1;
  }
  if (Vfd_Stat(fd, &info) == 0) {
    *readError = readErrorOf(info);
    *size = info.st_size;
  }
  if (*readError == 0) return fd;
  Vfd_Close(fd);
  return -1;
}

KLT_IoFile* openPlain(KLT_Container* container, const char* fileName) {
  const PAL_Place here;
  int readError = 0;
  int64_t size = -1;
  const int fd = isReadOnly(container) ? openForReading(container, fileName, &readError, &size)
                                       : PAL_OpenInDir(container->directoryName(), fileName,
                                                       container->flags, container->mode);
  // An index that isn't a regular file is opened with size 0, so that its reader reports it like an
  // empty index.
  if (readError != 0 && container->name != fileName) errno = readError;
  if (fd < 0 && (readError == 0 || container->name != fileName)) return nullptr;
  auto* const file = new KLT_IoFile;
  file->container = container;
  file->fd = fd;
  file->name = fileName;
  file->readError = readError;
  file->size = readError == 0 ? size : 0;
  return file;
}

// The entry for the key, which is added if it is missing and the container is writable. Null with
// errno.
KLT_DirEntry* findOrEnter(KLT_Container* container, std::string_view key) {
  if (KLT_DirEntry* const entry = container->directory.find(key); entry != nullptr) return entry;
  if (isReadOnly(container)) {
    errno = ENOENT;
    return nullptr;
  }
  if (key.size() > kKltMaxKeyBytes) {
    errno = ENAMETOOLONG;
    return nullptr;
  }
  return container->directory.enter(std::string(key));
}

void truncate(const KLT_Container* container, KLT_DirEntry* entry) {
  entry->used = 0;
  entry->lastUsed = 0;
  // A serial container can't be written at an earlier offset, so its extents can't be used again.
  if (container->form == KLT_FORM_SERIAL) entry->extents.clear();
}

KLT_IoFile* openInContainer(KLT_Container* container, std::string_view fileName) {
  const PAL_Place here;
  const size_t at = fileName.find(container->name);
  if (at == std::string_view::npos) {
    PAL_Error("Cannot open file which does not contain basename %s\n",
              PAL_Printable(container->name).c_str());
    errno = EINVAL;
    return nullptr;
  }
  std::string_view key = fileName.substr(at + container->name.size());
  if (key.empty()) key = " ";
  KLT_DirEntry* const entry = findOrEnter(container, key);
  if (entry == nullptr) return nullptr;
  if ((container->flags & O_TRUNC) != 0) truncate(container, entry);

  // Only reads need a descriptor per component. For writes, duplicates of an adopted descriptor
  // would each need an operating-system descriptor.
  const bool writeOnly = (container->flags & O_ACCMODE) == O_WRONLY;
  const int fd = writeOnly ? container->fd : Vfd_Dup(container->fd);
  if (fd < 0) return nullptr;
  auto* const file = new KLT_IoFile;
  file->container = container;
  file->entry = entry;
  file->fd = fd;
  if ((container->flags & O_APPEND) != 0 && entry->used > 0) {
    file->current = entry->used - 1;
    file->pos = entry->lastUsed;
  }
  return file;
}

// Moves a position past the end back to the end: opening the component again may have truncated it.
void limitPosition(KLT_IoFile* file) {
  if (file->current < file->entry->used) [[likely]]
    return;
  file->current = file->entry->used > 0 ? file->entry->used - 1 : 0;
  file->pos = file->entry->lastUsed;
}

bool isLast(const KLT_IoFile* file) { return file->current + 1 >= file->entry->used; }

// Bytes from the position to the end of the data in its extent.
uint64_t readable(const KLT_IoFile* file) {
  const uint64_t limit =
      isLast(file) ? file->entry->lastUsed : file->entry->extents[file->current].length;
  return limit > file->pos ? limit - file->pos : 0;
}

int64_t readExtents(KLT_IoFile* file, uint8_t* buffer, size_t bytes) {
  if (file->entry->used == 0) return 0;
  limitPosition(file);
  size_t done = 0;
  while (done < bytes) {
    const size_t piece = std::min<uint64_t>(readable(file), bytes - done);
    if (piece == 0) {
      if (isLast(file)) break;
      ++file->current;
      file->pos = 0;
      continue;
    }
    const KLT_Extent& extent = file->entry->extents[file->current];
    errno = 0;
    const size_t bytesRead = Vfd_PReadFully(file->fd, buffer + done, piece,
                                            static_cast<off_t>(extent.offset + file->pos));
    file->pos += bytesRead;
    done += bytesRead;
    if (bytesRead == piece) continue;
    // The container ends inside an extent, or can't be read.
    if (errno == 0) errno = EIO;
    if (!file->reportedReadFailure) PAL_Perror(file->entry->name.c_str());
    file->reportedReadFailure = true;
    break;
  }
  return static_cast<int64_t>(done);
}

// Adds an extent to a component for a write of `bytes` bytes: one of its unused extents if there is
// any, otherwise space at the container's end. False if the file can't grow by that much.
bool allocate(KLT_IoFile* file, uint64_t bytes) {
  const PAL_Place here;
  KLT_Container* const container = file->container;
  KLT_DirEntry* const entry = file->entry;
  if (entry->used == std::numeric_limits<uint32_t>::max()) return false;
  if (entry->used == entry->extents.size()) entry->extents.push_back({});
  KLT_Extent& extent = entry->extents[entry->used];
  if (extent.length == 0) {
    uint64_t size = bytes;
    if (container->form == KLT_FORM_SINGLE) size = std::max(size, kMinExtentBytes);
    if (size > kLargestOffset - container->end) return false;
    extent.length = size;
    extent.offset = container->end;
    container->end += size;
  }
  extent.start = 0;
  if (entry->used > 0) {
    const KLT_Extent& before = entry->extents[entry->used - 1];
    extent.start = before.start + before.length;
  }
  file->current = entry->used++;
  file->pos = 0;
  entry->lastUsed = 0;
  return true;
}

// Moves to the next extent. If there is none, adds one for a write of `bytes` bytes.
bool advance(KLT_IoFile* file, uint64_t bytes) {
  if (isLast(file)) return allocate(file, bytes);
  ++file->current;
  file->pos = 0;
  return true;
}

// Writes inside the current extent. Returns the number of bytes written.
size_t writePiece(KLT_IoFile* file, const uint8_t* data, size_t bytes) {
  KLT_Container* const container = file->container;
  KLT_Extent& extent = file->entry->extents[file->current];
  if (container->form != KLT_FORM_SERIAL) {
    const size_t done =
        Vfd_PWriteFully(container->fd, data, bytes, static_cast<off_t>(extent.offset + file->pos));
    file->pos += done;
    return done;
  }
  const size_t done = Vfd_WriteFully(container->fd, data, bytes);
  file->pos += done;
  if (done < bytes) {
    // The file ends where the write failed. The next extent starts there.
    extent.length = file->pos;
    container->end = extent.offset + file->pos;
  }
  return done;
}

// Whether the position is at the end. A serial container can only be written there.
bool isAtEnd(const KLT_IoFile* file) {
  const KLT_DirEntry& entry = *file->entry;
  return entry.used == 0 || entry.extents[file->current].start + file->pos == entry.length();
}

int64_t writeExtents(KLT_IoFile* file, const uint8_t* data, size_t bytes) {
  KLT_DirEntry* const entry = file->entry;
  limitPosition(file);
  if (file->container->form == KLT_FORM_SERIAL && !isAtEnd(file)) {
    errno = ESPIPE;
    return 0;
  }
  bool hasRoom = entry->used > 0 || allocate(file, bytes);
  size_t done = 0;
  while (hasRoom && done < bytes) {
    const uint64_t room = entry->extents[file->current].length - file->pos;
    if (room == 0) {
      hasRoom = advance(file, bytes);
      continue;
    }
    const size_t piece = std::min<uint64_t>(room, bytes - done);
    const size_t taken = writePiece(file, data + done, piece);
    done += taken;
    if (taken < piece) break;
  }
  if (!hasRoom) {
    PAL_Error("No more space\n");
    errno = ENOSPC;
  }
  if (entry->used > 0 && isLast(file)) entry->lastUsed = std::max(entry->lastUsed, file->pos);
  return static_cast<int64_t>(done);
}

int64_t readPlain(KLT_IoFile* file, uint8_t* buffer, size_t bytes) {
  errno = 0;
  if (file->readError != 0) {
    errno = file->readError;
    return -1;
  }
  size_t done = 0;
  while (done < bytes) {
    const ssize_t count = Vfd_Read(file->fd, buffer + done, bytes - done);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && done == 0) return -1;
    if (count <= 0) break;
    done += static_cast<size_t>(count);
  }
  return static_cast<int64_t>(done);
}

int64_t seekPlain(KLT_IoFile* file, int64_t offset, int whence) {
  errno = 0;
  if (file->readError != 0) return 0;
  const off_t result = Vfd_Seek(file->fd, offset, whence);
  if (errno != 0) PAL_Perror(file->name.c_str());
  return result;
}

// The offset that a seek is relative to; nothing for an unknown `whence`.
std::optional<uint64_t> seekBase(const KLT_IoFile* file, int whence) {
  switch (whence) {
    case SEEK_SET:
      return 0;
    case SEEK_CUR:
      return file->entry->extents[file->current].start + file->pos;
    case SEEK_END:
      return file->entry->length();
    default:
      return std::nullopt;
  }
}

int64_t seekExtents(KLT_IoFile* file, int64_t offset, int whence) {
  const KLT_DirEntry* const entry = file->entry;
  if (entry->used == 0) {
    errno = 0;
    return 0;
  }
  limitPosition(file);
  const std::optional<uint64_t> base = seekBase(file, whence);
  const uint64_t length = entry->length();
  // Lengths are below 2^63, so the sum of a length and an offset doesn't overflow.
  const uint64_t distance =
      offset < 0 ? uint64_t{0} - static_cast<uint64_t>(offset) : static_cast<uint64_t>(offset);
  if (!base || (offset < 0 && distance > *base)) {
    errno = EINVAL;
    return -1;
  }
  const uint64_t target = std::min(offset < 0 ? *base - distance : *base + distance, length);

  // A target at the boundary of two extents is the end of the first of them.
  const auto first = entry->extents.begin();
  const auto found = std::lower_bound(
      first, first + static_cast<ptrdiff_t>(entry->used), target,
      [](const KLT_Extent& extent, uint64_t at) { return extent.start + extent.length < at; });
  file->current = static_cast<size_t>(found - first);
  file->pos = target - found->start;
  errno = 0;
  return static_cast<int64_t>(target);
}

}  // namespace

KLT_IoFile* KLT_IoOpen(KLT_Container* container, const char* fileName) {
  return container->form == KLT_FORM_PLAIN ? openPlain(container, fileName)
                                           : openInContainer(container, fileName);
}

int KLT_IoClose(KLT_IoFile*& file) {
  if (!isPresent(file)) return 0;
  int result = 0;
  if (file->fd >= 0 && file->fd != file->container->fd) result = Vfd_Close(file->fd);
  delete file;
  file = nullptr;
  return result;
}

int64_t KLT_IoRead(KLT_IoFile* file, void* buffer, size_t bytes) {
  if (!isPresent(file)) return 0;
  auto* const to = static_cast<uint8_t*>(buffer);
  return file->entry != nullptr ? readExtents(file, to, bytes) : readPlain(file, to, bytes);
}

int64_t KLT_IoWrite(KLT_IoFile* file, const void* buffer, size_t bytes) {
  if (!isPresent(file)) return 0;
  const auto* const from = static_cast<const uint8_t*>(buffer);
  if (file->entry != nullptr) return writeExtents(file, from, bytes);
  return static_cast<int64_t>(Vfd_WriteFully(file->fd, from, bytes));
}

int64_t KLT_IoSeek(KLT_IoFile* file, int64_t offset, int whence) {
  if (!isPresent(file)) return 0;
  return file->entry != nullptr ? seekExtents(file, offset, whence)
                                : seekPlain(file, offset, whence);
}

int64_t KLT_IoSize(KLT_IoFile* file) {
  if (!isPresent(file)) return 0;
  if (file->entry != nullptr) return static_cast<int64_t>(file->entry->length());
  if (file->size < 0) {
    file->size = seekPlain(file, 0, SEEK_END);
    if (seekPlain(file, 0, SEEK_SET) != 0) return -1;
  }
  return file->size;
}
