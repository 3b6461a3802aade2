// Operations on the files of a trace. See klt_files.h.
#include "klt/index/klt_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "klt/index/klt_intern.h"
#include "klt/storage/klt_io.h"
#include "util/pal_error.h"
#include "util/pal_hash.h"
#include "util/pal_strings.h"
#include "util/pal_util.h"

namespace {

constexpr size_t kBlockBytes = size_t{2} * 1024 * 1024;

bool holdsAnchors(const KLT_FileEntry& file) {
  return file.filetype == static_cast<uint32_t>(KLT_FileType::kAnchors);
}

// All files but the index, in the order of a table with 31 chains.
std::vector<const KLT_FileEntry*> filesInOrder(const KLT_FileHandle& handle) {
  std::vector<decltype(&handle.files.entries().front())> entries;
  for (const auto& entry : handle.files.entries()) entries.push_back(&entry);
  PAL_SortByBucket(entries, 31, [](const auto* e) { return (e->id >> 16) + (e->id & 0xffff); });
  std::vector<const KLT_FileEntry*> files;
  for (const auto* entry : entries) files.push_back(entry->value.get());
  return files;
}

std::vector<const KLT_FileEntry*> indexLast(const KLT_FileHandle& handle) {
  std::vector<const KLT_FileEntry*> files = filesInOrder(handle);
  files.push_back(&handle.indexEntry);
  return files;
}

// The name of `file` in a trace whose base name is `base`.
std::string nameUnder(const std::string& base, const KLT_FileEntry& file) {
  return KLT_ComponentName(base, file, holdsAnchors(file));
}

std::string nameOf(const KLT_FileHandle& handle, const KLT_FileEntry& file) {
  return nameUnder(handle.base, file);
}

bool isSingleFile(const KLT_FileHandle& handle) {
  return handle.container != nullptr && KLT_ContainerForm(handle.container) != KLT_FORM_PLAIN;
}

void closeStorage(KLT_FileHandle& handle) {
  KLT_ContainerClose(handle.container);
  handle.container = nullptr;
}

uint64_t sizeOf(const KLT_FileHandle& handle, const KLT_FileEntry& file) {
  KLT_IoFile* component = KLT_IoOpen(handle.container, nameOf(handle, file).c_str());
  if (component == nullptr) return 0;
  const int64_t end = KLT_IoSeek(component, 0, SEEK_END);
  KLT_IoClose(component);
  return end < 0 ? 0 : static_cast<uint64_t>(end);
}

}  // namespace

size_t KLT_FileList(const KLT_FileHandle* handle, std::vector<std::string>* names,
                    std::vector<uint64_t>* sizes) {
  std::vector<const KLT_FileEntry*> files = filesInOrder(*handle);
  files.insert(files.begin(), &handle->indexEntry);
  for (const KLT_FileEntry* file : files) {
    if (names != nullptr) names->emplace_back(PAL_BaseName(nameOf(*handle, *file).c_str()));
    if (sizes != nullptr) sizes->push_back(sizeOf(*handle, *file));
  }
  return files.size();
}

// --- move and remove ----------------------------------------------------------------------------

namespace {

// The shell's mv asks before it overwrites if somebody could answer. Nobody can while this lasts.
class NoInput {
 public:
  NoInput() : saved_(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)) {
    const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (null < 0) return;
    dup2(null, STDIN_FILENO);
    close(null);
  }
  ~NoInput() {
    if (saved_ < 0) return;
    dup2(saved_, STDIN_FILENO);
    close(saved_);
  }
  NoInput(const NoInput&) = delete;
  NoInput& operator=(const NoInput&) = delete;

 private:
  int saved_;
};

// A name that no command takes for an option.
std::string plainName(const std::string& name) {
  return name.starts_with('-') ? "./" + name : name;
}

std::string quoted(std::string_view name) {
  std::string text = "'";
  for (const char c : name) {
    if (c == '\'')
      text += "'\\''";
    else
      text += c;
  }
  return text += '\'';
}

// Whether the plain system call has done what mv does, in a fraction of its time. It is no help
// across file systems, and not asked for where mv would look into a directory.
bool renamed(const std::string& from, const std::string& to) {
  return PAL_IsDir(to.c_str(), nullptr) == 0 && std::rename(from.c_str(), to.c_str()) == 0;
}

// Tells why the last call failed for a file; the exit status for it.
int failedFor(const std::string& name) {
  PAL_Perror(name.c_str());
  return 1;
}

int moveByCommand(const std::string& from, const std::string& to) {
  const NoInput noInput;
  const int result = PAL_System(("mv " + quoted(from) + ' ' + quoted(to) + '\n').c_str());
  if (result == 0) return 0;
  const int status = WIFEXITED(result) ? WEXITSTATUS(result) : 0;
  return status != 0 ? status : 1;
}

// A file of a trace with its way under a new base name or into a directory.
struct Move {
  std::string from;
  std::string place;     // where it goes
  std::string argument;  // what mv is told
  bool isAnchors;
};

// Where the files of a trace go.
struct MoveTarget {
  std::string name;
  bool isDirectory;

  // The ways of `files`, which stay in their order, each name once.
  [[nodiscard]] std::vector<Move> waysOf(const KLT_FileHandle& handle,
                                         const std::vector<const KLT_FileEntry*>& files) const {
    std::vector<Move> ways;
    std::unordered_set<std::string> seen;
    for (const KLT_FileEntry* file : files) {
      const std::string from = plainName(nameOf(handle, *file));
      if (!seen.insert(from).second) continue;
      const std::string newName = nameUnder(name, *file);
      if (isDirectory) {
        ways.push_back({from, name + '/' + PAL_BaseName(from.c_str()), name, holdsAnchors(*file)});
      } else {
        ways.push_back({from, newName, newName, holdsAnchors(*file)});
      }
    }
    return ways;
  }

  // The directory that receives the files.
  [[nodiscard]] std::string directory() const {
    if (isDirectory) return name;
    const size_t slash = name.rfind('/');
    return slash == std::string::npos ? "." : name.substr(0, slash + 1);
  }
};

bool isThere(const std::string& name) {
  struct stat info {};
  return lstat(name.c_str(), &info) == 0;
}

int moveFile(const Move& way) {
  if (way.isAnchors && !isThere(way.from)) {
    // Anchors of a trace that was there before would be taken for those of this one.
    return unlink(way.place.c_str()) == 0 || errno == ENOENT ? 0 : failedFor(way.place);
  }
  if (renamed(way.from, way.place)) return 0;
  return moveByCommand(way.from, way.argument);
}

bool wouldOverwrite(const std::vector<Move>& ways, const KLT_FileSet& untouchable) {
  for (const Move& way : ways) {
    if (!untouchable.contains(way.place)) continue;
    std::fprintf(stderr, "Could not open file %s for writing.\n", PAL_Printable(way.place).c_str());
    return true;
  }
  return false;
}

// Whether nothing is known that would stop a move halfway; each hindrance is told.
bool canMove(const std::vector<Move>& ways, const MoveTarget& target) {
  bool can = true;
  for (const Move& way : ways) {
    if (!way.isAnchors && !isThere(way.from)) can = failedFor(way.from) == 0;
    if (PAL_IsDir(way.place.c_str(), nullptr) == 0) continue;
    errno = EISDIR;
    can = failedFor(way.place) == 0;
  }
  const std::string directory = target.directory();
  if (faccessat(AT_FDCWD, directory.c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
    can = failedFor(directory) == 0;
  }
  return can;
}

// After a move that failed: the trace can only be put together again by someone who knows where its
// files are.
void tellPlaces(const std::vector<Move>& ways) {
  std::string text = "The move has stopped. Files that are at their old place:\n";
  std::string moved = "Files that have been moved:\n";
  for (const Move& way : ways) {
    if (isThere(way.from)) {
      text += "  " + PAL_Printable(way.from) + '\n';
    } else if (isThere(way.place)) {
      moved += "  " + PAL_Printable(way.place) + '\n';
    }
  }
  PAL_Error("%s%s", text.c_str(), moved.c_str());
}

}  // namespace

bool KLT_FilesAreKnown(const KLT_FileHandle* handle) {
  if (!handle->lostData) return true;
  PAL_Error("The index of %s couldn't be read to its end, there may be more files.",
            PAL_Printable(handle->base).c_str());
  return false;
}

int KLT_Move(KLT_FileHandle* handle, const char* target, const KLT_FileSet& untouchable) {
  if (!isSingleFile(*handle) && !KLT_FilesAreKnown(handle)) return 1;
  MoveTarget to{plainName(target), false};
  int failed = 0;
  errno = 0;
  to.isDirectory = PAL_IsDir(to.name.c_str(), &failed) != 0;
  if (failed != 0) {
    const int error = errno;
    PAL_Perror(target);
    return error;
  }
  std::vector<const KLT_FileEntry*> files{&handle->indexEntry};
  if (isSingleFile(*handle))
    closeStorage(*handle);
  else
    files = indexLast(*handle);
  const std::vector<Move> ways = to.waysOf(*handle, files);
  if (wouldOverwrite(ways, untouchable) || !canMove(ways, to)) return 1;
  for (const Move& way : ways) {
    const int status = moveFile(way);
    if (status == 0) continue;
    tellPlaces(ways);
    return status;
  }
  return 0;
}

int KLT_Remove(KLT_FileHandle* handle) {
  if (!isSingleFile(*handle) && !KLT_FilesAreKnown(handle)) return 1;
  std::vector<const KLT_FileEntry*> files{&handle->indexEntry};
  if (isSingleFile(*handle))
    closeStorage(*handle);
  else
    files = indexLast(*handle);
  std::unordered_set<std::string> seen;
  std::string missing;
  for (const KLT_FileEntry* file : files) {
    const std::string name = nameOf(*handle, *file);
    if (!seen.insert(name).second || unlink(name.c_str()) == 0) continue;
    if (errno != ENOENT) {
      PAL_Perror(name.c_str());
      return -1;
    }
    if (!holdsAnchors(*file)) missing += "  " + PAL_Printable(name) + '\n';
  }
  if (!missing.empty()) PAL_Warning("Files of the trace that weren't there:\n%s", missing.c_str());
  return 0;
}

// --- copy ---------------------------------------------------------------------------------------

namespace {

class TraceCopy {
 public:
  TraceCopy(const KLT_FileHandle& input, const char* directory, const char* target,
            const KLT_FileSet& untouchable)
      : input_(input), directory_(directory), target_(target), untouchable_(untouchable) {}

  // Nothing has been copied, created or emptied if this fails.
  [[nodiscard]] bool create(int form) {
    if (wouldOverwrite(form)) return refuse(EEXIST);
    errno = 0;
    output_ =
        KLT_ContainerCreate(directory_, O_WRONLY | O_CREAT | O_TRUNC, 0666, form, target_.c_str());
    if (output_ == nullptr) return refuse(errno);
    if (emptyIndex()) return true;
    const int error = errno;
    KLT_ContainerClose(output_);
    return refuse(error);
  }

  // The index is empty until everything else has been copied: a part of a trace isn't taken for a
  // trace.
  [[nodiscard]] bool run() {
    bool good = true;
    for (const KLT_FileEntry* file : indexLast(input_)) {
      good = copyComponent(*file);
      if (!good) break;
    }
    if (!good) (void)emptyIndex();
    return KLT_ContainerClose(output_) == 0 && good;
  }

 private:
  [[nodiscard]] bool wouldOverwrite(int form) const {
    if (form == KLT_FORM_SERIAL) {
      return target_ == "-" ? untouchable_.containsOpen(STDOUT_FILENO)
                            : untouchable_.contains(PAL_PathInDir(directory_, target_));
    }
    const std::vector<const KLT_FileEntry*> files = indexLast(input_);
    return std::any_of(files.begin(), files.end(), [this](const KLT_FileEntry* file) {
      return untouchable_.contains(PAL_PathInDir(directory_, nameUnder(target_, *file)));
    });
  }

  [[nodiscard]] bool refuse(int error) const {
    const std::string name = PAL_Printable(target_);
    if (directory_ == nullptr) {
      PAL_Error("Could not create %s: %s", name.c_str(), std::strerror(error));
    } else {
      PAL_Error("Could not create %s in %s: %s", name.c_str(), PAL_Printable(directory_).c_str(),
                std::strerror(error));
    }
    return false;
  }

  bool emptyIndex() {
    KLT_IoFile* index = KLT_IoOpen(output_, target_.c_str());
    return index != nullptr && KLT_IoClose(index) == 0;
  }

  static bool fail(const char* format, const std::string& name) {
    PAL_Error(format,
              PAL_Printable(name).c_str());  // NOLINT: the formats are constants of this class
    return false;
  }

  bool copyComponent(const KLT_FileEntry& file) {
    const std::string from = nameOf(input_, file);
    const std::string to = nameUnder(target_, file);
    KLT_IoFile* source = KLT_IoOpen(input_.container, from.c_str());
    if (source == nullptr) {
      if (!holdsAnchors(file)) return fail("Could not open %s for reading. Aborting.", from);
      PAL_Warning("Could not find anchor-file %s, skipping it.", PAL_Printable(from).c_str());
      removeLeftOver(to);
      return true;
    }
    KLT_IoFile* sink = KLT_IoOpen(output_, to.c_str());
    if (sink == nullptr) {
      KLT_IoClose(source);
      return fail("Could not open %s for writing. Aborting.", to);
    }
    const bool good = copyBytes(source, from, sink, to);
    KLT_IoClose(source);
    if (KLT_IoClose(sink) != 0 && good) return fail("Could not write to %s. Aborting.", to);
    return good;
  }

  // Anchors of a trace that was there before would be taken for those of the copy.
  void removeLeftOver(const std::string& name) {
    if (KLT_ContainerForm(output_) != KLT_FORM_PLAIN) return;
    if (PAL_RemoveInDir(directory_, name.c_str()) != 0 && errno != ENOENT) PAL_Perror(name.c_str());
  }

  bool copyBytes(KLT_IoFile* source, const std::string& from, KLT_IoFile* sink,
                 const std::string& to) {
    const int64_t length = KLT_IoSeek(source, 0, SEEK_END);
    KLT_IoSeek(source, 0, SEEK_SET);
    int64_t done = 0;
    while (true) {
      const int64_t came = KLT_IoRead(source, block_.get(), kBlockBytes);
      if (came <= 0) break;
      if (KLT_IoWrite(sink, block_.get(), static_cast<size_t>(came)) != came) {
        return fail("Could not write to %s. Aborting.", to);
      }
      done += came;
    }
    return done >= length || fail("Could not read all of %s. Aborting.", from);
  }

  const KLT_FileHandle& input_;
  const char* directory_;
  std::string target_;
  const KLT_FileSet& untouchable_;
  KLT_Container* output_ = nullptr;
  std::unique_ptr<uint8_t[]> block_ = std::make_unique_for_overwrite<uint8_t[]>(kBlockBytes);
};

}  // namespace

int KLT_Convert(const KLT_FileHandle* handle, const char* directory, const char* target, int single,
                const KLT_FileSet& untouchable) {
  TraceCopy copy(*handle, directory, target, untouchable);
  const bool copied = copy.create(single != 0 ? KLT_FORM_SERIAL : KLT_FORM_PLAIN) && copy.run();
  return copied && KLT_FilesAreKnown(handle) ? 0 : 1;
}
