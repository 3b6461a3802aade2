// Implements the table of virtual descriptors and the functions of vfd.h.
//
// All entries whose operating-system descriptor can be closed and opened again are in one list, the
// least recently used first. To make room, files are closed from the start of this list. Files that
// are pinned or have no position are skipped. So the time that this takes depends only on the
// numbers of files that are closed and skipped.
#include "util/vfd.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

constexpr VfdSystemCalls Vfd_osCalls = {
    .open = [](const char* path, int flags,
               mode_t mode) { return ::open(path, flags | O_CLOEXEC, mode); },
    .dup = [](int fd) { return ::fcntl(fd, F_DUPFD_CLOEXEC, 0); },
    .close = [](int fd) { return ::close(fd); },
    .read = [](int fd, void* buffer, size_t bytes) { return ::read(fd, buffer, bytes); },
    .write = [](int fd, const void* buffer, size_t bytes) { return ::write(fd, buffer, bytes); },
    .pread = [](int fd, void* buffer, size_t bytes,
                off_t offset) { return ::pread(fd, buffer, bytes, offset); },
    .pwrite = [](int fd, const void* buffer, size_t bytes,
                 off_t offset) { return ::pwrite(fd, buffer, bytes, offset); },
    .lseek = [](int fd, off_t offset, int whence) { return ::lseek(fd, offset, whence); },
    .fstat = [](int fd, struct stat* info) { return ::fstat(fd, info); },
};
constinit VfdSystemCalls Vfd_systemCalls = Vfd_osCalls;

namespace {

struct VfdEntry;
struct VfdFile;

// The two neighbours of an entry in one of its lists.
struct Link {
  VfdEntry* previous = nullptr;
  VfdEntry* next = nullptr;
};

// One virtual descriptor. Its number is its index in the table. An entry that is in use and has no
// operating-system descriptor (fd is -1) always has a `file`, from which it can be opened again.
struct VfdEntry {
  Link sibling;  // all entries of a file, the newest first
  Link open;     // all entries of a file with an fd
  Link age;      // all entries of all files with an fd, the least recently used first
  bool inUse = false;
  int fd = -1;
  int pinCount = 0;         // running operations and explicit pins
  int closeError = 0;       // errno of a failed close by makeRoom, until a call returns it
  VfdFile* file = nullptr;  // how to open it again; null if it can't be opened again
  off_t offset = 0;         // position to set when it is opened again
};

// A doubly linked list through one of the links of its entries.
template <Link VfdEntry::*link>
struct List {
  VfdEntry* first = nullptr;
  VfdEntry* last = nullptr;

  void prepend(VfdEntry* entry) {
    (entry->*link) = {nullptr, first};
    (first != nullptr ? (first->*link).previous : last) = entry;
    first = entry;
  }
  void append(VfdEntry* entry) {
    (entry->*link) = {last, nullptr};
    (last != nullptr ? (last->*link).next : first) = entry;
    last = entry;
  }
  void remove(VfdEntry* entry) {
    const Link hook = entry->*link;
    (hook.previous != nullptr ? (hook.previous->*link).next : first) = hook.next;
    (hook.next != nullptr ? (hook.next->*link).previous : last) = hook.previous;
    (entry->*link) = {};
  }
};

struct VfdFile {
  std::string path;
  int flags = 0;  // for opening it again, without truncating or creating
  mode_t mode = 0;
  List<&VfdEntry::sibling> entries;
  List<&VfdEntry::open> openEntries;  // these share one file position
};

struct VfdTable {
  std::mutex mutex;
  std::deque<VfdEntry> entries;  // by descriptor; an entry keeps its address
  std::vector<int> freeEntries;  // the last one is used first
  List<&VfdEntry::age> byAge;
};

// Never destroyed, because files may still be written while the process ends.
VfdTable& table() {
  static VfdTable* const instance = new VfdTable;
  return *instance;
}

// Closes a descriptor. EINTR isn't an error, because Linux closes the descriptor even then.
int closeFd(int fd) {
  const int result = Vfd_systemCalls.close(fd);
  return result != 0 && errno == EINTR ? 0 : result;
}

// --- functions that are called with the mutex held ----------------------------------------------

VfdEntry* find(VfdTable& t, int descriptor) {
  if (descriptor < 0 || static_cast<size_t>(descriptor) >= t.entries.size() ||
      !t.entries[static_cast<size_t>(descriptor)].inUse) {
    errno = EBADF;
    return nullptr;
  }
  return &t.entries[static_cast<size_t>(descriptor)];
}

void setFd(VfdTable& t, VfdEntry* entry, int fd) {
  entry->fd = fd;
  if (entry->file != nullptr) {
    entry->file->openEntries.append(entry);
    t.byAge.append(entry);
  }
}

void clearFd(VfdTable& t, VfdEntry* entry) {
  if (entry->fd >= 0 && entry->file != nullptr) {
    entry->file->openEntries.remove(entry);
    t.byAge.remove(entry);
  }
  entry->fd = -1;
}

void markUsed(VfdTable& t, VfdEntry* entry) {
  if (entry->file != nullptr && entry->fd >= 0 && t.byAge.last != entry) {
    t.byAge.remove(entry);
    t.byAge.append(entry);
  }
}

// Closes the entry's descriptor, which can be opened again later. False for a pipe or terminal,
// which has no position to restore and stays open.
bool evict(VfdTable& t, VfdEntry* entry, size_t* succeeded) {
  const off_t offset = Vfd_systemCalls.lseek(entry->fd, 0, SEEK_CUR);
  if (offset < 0) return false;
  const int fd = entry->fd;
  entry->offset = offset;
  clearFd(t, entry);
  // A failed close releases the descriptor, too, but data may be lost. So the next read, write,
  // seek, stat or close of this entry fails with the errno of this close.
  if (closeFd(fd) == 0) {
    ++*succeeded;
  } else {
    entry->closeError = errno;
  }
  return true;
}

// Closes the least recently used files, as many as a tenth of the entries in the table (at least
// one), or fewer if the others can't be closed. Returns false if none can be closed.
bool makeRoom(VfdTable& t) {
  const size_t target = std::max<size_t>(t.entries.size() / 10, 1);
  size_t succeeded = 0;
  bool any = false;
  for (VfdEntry* entry = t.byAge.first; entry != nullptr && succeeded < target;) {
    VfdEntry* const next = entry->age.next;
    if (entry->pinCount == 0 && evict(t, entry, &succeeded)) any = true;
    entry = next;
  }
  return any;
}

// Runs a step that creates an operating-system descriptor. As long as it fails with EMFILE, makes
// room and repeats it. Fails with EMFILE if no more room can be made. errno is unchanged on
// success.
template <class Step>
int withRoom(VfdTable& t, Step&& step) {
  const int savedErrno = errno;
  for (;;) {
    errno = 0;
    const int fd = step();
    if (fd >= 0) {
      errno = savedErrno;
      return fd;
    }
    if (errno != EMFILE) return -1;
    if (!makeRoom(t)) {
      errno = EMFILE;
      return -1;
    }
  }
}

int dupWithRoom(VfdTable& t, int fd) {
  return withRoom(t, [fd] { return Vfd_systemCalls.dup(fd); });
}

int openWithRoom(VfdTable& t, const char* path, int flags, mode_t mode) {
  return withRoom(t, [=] { return Vfd_systemCalls.open(path, flags, mode); });
}

// Creates an entry for `file` (which may be null), without an operating-system descriptor.
VfdEntry* newEntry(VfdTable& t, VfdFile* file, off_t offset, int* descriptor) {
  if (t.freeEntries.empty()) {
    t.freeEntries.push_back(static_cast<int>(t.entries.size()));
    t.entries.emplace_back();
  }
  *descriptor = t.freeEntries.back();
  t.freeEntries.pop_back();
  VfdEntry* const entry = &t.entries[static_cast<size_t>(*descriptor)];
  *entry = VfdEntry{};
  entry->inUse = true;
  entry->file = file;
  entry->offset = offset;
  if (file != nullptr) file->entries.prepend(entry);
  return entry;
}

// Sets the operating-system descriptor of an entry again: to a duplicate of the descriptor of
// another entry of the file or, if none is open, by opening the file.
bool reopen(VfdTable& t, VfdEntry* entry) {
  VfdFile* const file = entry->file;
  VfdEntry* const sibling = file->openEntries.first;
  int fd = -1;
  if (sibling != nullptr) {
    ++sibling->pinCount;
    fd = dupWithRoom(t, sibling->fd);
    --sibling->pinCount;
    if (fd < 0) return false;
  } else {
    fd = openWithRoom(t, file->path.c_str(), file->flags, file->mode);
    if (fd < 0) return false;
    if (Vfd_systemCalls.lseek(fd, entry->offset, SEEK_SET) < 0) {
      const int seekError = errno;
      closeFd(fd);
      errno = seekError;
      return false;
    }
  }
  setFd(t, entry, fd);
  return true;
}

// --- functions that lock the mutex themselves ---------------------------------------------------

// The entry, opened if necessary, marked as used and pinned; null with errno on failure.
VfdEntry* acquire(VfdTable& t, int descriptor, int* fd) {
  const std::lock_guard lock(t.mutex);
  VfdEntry* const entry = find(t, descriptor);
  if (entry == nullptr) return nullptr;
  if (entry->closeError != 0) [[unlikely]] {
    errno = entry->closeError;
    entry->closeError = 0;
    return nullptr;
  }
  if (entry->fd < 0 && !reopen(t, entry)) return nullptr;
  markUsed(t, entry);
  ++entry->pinCount;
  *fd = entry->fd;
  return entry;
}

void unpin(VfdTable& t, VfdEntry* entry) {
  const std::lock_guard lock(t.mutex);
  if (entry->pinCount > 0) --entry->pinCount;
}

// Runs call(fd) with the operating-system descriptor, which isn't closed while it runs.
template <class Call>
auto withFd(int descriptor, Call&& call) -> decltype(call(0)) {
  VfdTable& t = table();
  int fd = -1;
  VfdEntry* const entry = acquire(t, descriptor, &fd);
  if (entry == nullptr) return -1;
  const auto result = call(fd);
  unpin(t, entry);
  return result;
}

// Repeats transfer(bytes done so far) until `bytes` bytes are done, the file ends, or a transfer
// fails.
template <class Transfer>
size_t transferFully(size_t bytes, Transfer&& transfer) {
  const int savedErrno = errno;
  size_t done = 0;
  while (done < bytes) {
    errno = 0;
    const ssize_t count = transfer(done);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return done;
    done += static_cast<size_t>(count);
  }
  errno = savedErrno;
  return done;
}

// Waits until a pipe or terminal accepts data. Returns -1 with errno EINTR, so that transferFully
// repeats the write.
ssize_t waitUntilWritable(int descriptor) {
  withFd(descriptor, [](int fd) {
    pollfd wanted{.fd = fd, .events = POLLOUT, .revents = 0};
    return poll(&wanted, 1, -1);
  });
  errno = EINTR;
  return -1;
}

// Converts the result of a write for transferFully. A write of 0 bytes becomes the error EIO, and a
// write that would block is repeated after waiting.
ssize_t writeResult(int descriptor, ssize_t count) {
  if (count == 0) errno = EIO;
  return count < 0 && errno == EAGAIN ? waitUntilWritable(descriptor) : count;
}

}  // namespace

int Vfd_Open(const char* path, int flags, mode_t mode) {
  VfdTable& t = table();
  int fd = -1;
  {
    const std::lock_guard lock(t.mutex);
    fd = openWithRoom(t, path, flags, mode);
  }
  if (fd < 0) return -1;

  const int savedErrno = errno;
  // A file that is opened again is opened without O_APPEND, and its position is restored. So the
  // position of an append-only file must be its end even before the first write.
  const bool appendOnly = (flags & O_APPEND) != 0 && (flags & O_ACCMODE) == O_WRONLY;
  const off_t start = appendOnly ? Vfd_systemCalls.lseek(fd, 0, SEEK_END) : 0;
  errno = savedErrno;
  auto* const file = new VfdFile;
  file->path = path;
  file->flags = flags & ~(O_CREAT | O_EXCL | O_TRUNC | O_APPEND);
  file->mode = mode;

  const std::lock_guard lock(t.mutex);
  int descriptor = -1;
  setFd(t, newEntry(t, file, std::max<off_t>(start, 0), &descriptor), fd);
  return descriptor;
}

int Vfd_Adopt(int osDescriptor) {
  if (osDescriptor < 0) {
    errno = EINVAL;
    return -1;
  }
  VfdTable& t = table();
  const std::lock_guard lock(t.mutex);
  const int fd = dupWithRoom(t, osDescriptor);
  if (fd < 0) return -1;
  const int savedErrno = errno;
  const off_t position = Vfd_systemCalls.lseek(fd, 0, SEEK_CUR);
  errno = savedErrno;
  int descriptor = -1;
  setFd(t, newEntry(t, nullptr, std::max<off_t>(position, 0), &descriptor), fd);
  return descriptor;
}

int Vfd_Dup(int descriptor) {
  VfdTable& t = table();
  const std::lock_guard lock(t.mutex);
  VfdEntry* const source = find(t, descriptor);
  if (source == nullptr) return -1;
  int result = -1;
  if (source->file != nullptr) {
    newEntry(t, source->file, source->file->entries.first->offset, &result);
    return result;
  }
  const int fd = dupWithRoom(t, source->fd);
  if (fd < 0) return -1;
  setFd(t, newEntry(t, nullptr, source->offset, &result), fd);
  return result;
}

int Vfd_Close(int descriptor) {
  VfdTable& t = table();
  int fd = -1;
  int keptError = 0;
  VfdFile* unused = nullptr;
  {
    const std::lock_guard lock(t.mutex);
    VfdEntry* const entry = find(t, descriptor);
    if (entry == nullptr) return -1;
    fd = entry->fd;
    keptError = entry->closeError;
    clearFd(t, entry);
    if (VfdFile* const file = entry->file; file != nullptr) {
      file->entries.remove(entry);
      if (file->entries.first == nullptr) unused = file;
    }
    *entry = VfdEntry{};
    t.freeEntries.push_back(descriptor);
  }
  delete unused;
  const int result = fd >= 0 ? closeFd(fd) : 0;
  if (keptError == 0) return result;
  errno = keptError;
  return -1;
}

ssize_t Vfd_Read(int descriptor, void* buffer, size_t bytes) {
  return withFd(descriptor, [=](int fd) { return Vfd_systemCalls.read(fd, buffer, bytes); });
}

ssize_t Vfd_Write(int descriptor, const void* buffer, size_t bytes) {
  return withFd(descriptor, [=](int fd) { return Vfd_systemCalls.write(fd, buffer, bytes); });
}

ssize_t Vfd_PRead(int descriptor, void* buffer, size_t bytes, off_t offset) {
  return withFd(descriptor,
                [=](int fd) { return Vfd_systemCalls.pread(fd, buffer, bytes, offset); });
}

ssize_t Vfd_PWrite(int descriptor, const void* buffer, size_t bytes, off_t offset) {
  return withFd(descriptor,
                [=](int fd) { return Vfd_systemCalls.pwrite(fd, buffer, bytes, offset); });
}

off_t Vfd_Seek(int descriptor, off_t offset, int whence) {
  return withFd(descriptor, [=](int fd) { return Vfd_systemCalls.lseek(fd, offset, whence); });
}

int Vfd_Stat(int descriptor, struct stat* info) {
  return withFd(descriptor, [=](int fd) { return Vfd_systemCalls.fstat(fd, info); });
}

size_t Vfd_WriteFully(int descriptor, const void* buffer, size_t bytes) {
  return transferFully(bytes, [=](size_t done) {
    return writeResult(
        descriptor, Vfd_Write(descriptor, static_cast<const char*>(buffer) + done, bytes - done));
  });
}

size_t Vfd_PReadFully(int descriptor, void* buffer, size_t bytes, off_t offset) {
  return transferFully(bytes, [=](size_t done) {
    return Vfd_PRead(descriptor, static_cast<char*>(buffer) + done, bytes - done,
                     offset + static_cast<off_t>(done));
  });
}

size_t Vfd_PWriteFully(int descriptor, const void* buffer, size_t bytes, off_t offset) {
  return transferFully(bytes, [=](size_t done) {
    return writeResult(descriptor, Vfd_PWrite(descriptor, static_cast<const char*>(buffer) + done,
                                              bytes - done, offset + static_cast<off_t>(done)));
  });
}

int Vfd_Pin(int descriptor, int on) {
  VfdTable& t = table();
  const std::lock_guard lock(t.mutex);
  VfdEntry* const entry = find(t, descriptor);
  if (entry == nullptr) return -1;
  if (on != 0) {
    ++entry->pinCount;
  } else if (entry->pinCount > 0) {
    --entry->pinCount;
  }
  return 0;
}
