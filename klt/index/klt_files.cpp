// Lists, moves, removes and copies the files of a trace. See klt_files.h.
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

// All files but the index, in the order of a hash table with 31 buckets.
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

uint64_t KLT_FileBytes(const KLT_FileHandle* handle) {
  struct stat info {};
  if (isSingleFile(*handle)) {  // the extents of its components may overlap
    return stat(handle->base.c_str(), &info) == 0 ? static_cast<uint64_t>(info.st_size) : 0;
  }
  uint64_t bytes = 0;
  KLT_FileSet counted;
  for (const KLT_FileEntry* file : indexLast(*handle)) {
    if (counted.add(nameOf(*handle, *file))) bytes += sizeOf(*handle, *file);
  }
  return bytes;
}

// --- move and remove ----------------------------------------------------------------------------

namespace {

// Replaces standard input by /dev/null while the object exists: mv asks before it overwrites a file
// if its standard input is a terminal.
class StdinFromNull {
 public:
  StdinFromNull() : saved_(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)) {
    const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (null < 0) return;
    dup2(null, STDIN_FILENO);
    close(null);
  }
  ~StdinFromNull() {
    if (saved_ < 0) return;
    dup2(saved_, STDIN_FILENO);
    close(saved_);
  }
  StdinFromNull(const StdinFromNull&) = delete;
  StdinFromNull& operator=(const StdinFromNull&) = delete;

 private:
  int saved_;
};

// The name, with "./" before a leading dash, so that mv doesn't parse it as an option.
std::string withoutLeadingDash(const std::string& name) {
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

// Tries to move the file with rename(2), which takes a fraction of the time of mv. This fails
// across file systems, and isn't tried if `to` is a directory, into which mv would move the file.
bool tryRename(const std::string& from, const std::string& to) {
  return PAL_fast != PAL_Fast::kNever && PAL_IsDir(to.c_str(), nullptr) == 0 &&
         std::rename(from.c_str(), to.c_str()) == 0;
}

// Reports errno with the name of the file. Returns the exit status for it.
int reportErrno(const std::string& name) {
  PAL_Perror(name.c_str());
  return 1;
}

int moveByCommand(const std::string& from, const std::string& to) {
  const StdinFromNull stdinFromNull;
  const int result = PAL_System(("mv " + quoted(from) + ' ' + quoted(to) + '\n').c_str());
  if (result == 0) return 0;
  const int status = WIFEXITED(result) ? WEXITSTATUS(result) : 0;
  return status != 0 ? status : 1;
}

// The move of one file of a trace to a new base name or into a directory.
struct Move {
  std::string from;
  std::string to;        // its new name
  std::string argument;  // the last argument of mv
  bool isAnchors;
};

// The new base name of a trace, or the directory that receives its files.
struct MoveTarget {
  std::string name;
  bool isDirectory;

  // The moves of `files` in their order, each name once.
  [[nodiscard]] std::vector<Move> movesOf(const KLT_FileHandle& handle,
                                          const std::vector<const KLT_FileEntry*>& files) const {
    std::vector<Move> moves;
    PAL_HashSet<std::string> seen;
    for (const KLT_FileEntry* file : files) {
      const std::string from = withoutLeadingDash(nameOf(handle, *file));
      if (!seen.insert(from).second) continue;
      const std::string newName = nameUnder(name, *file);
      if (isDirectory) {
        moves.push_back({from, name + '/' + PAL_BaseName(from.c_str()), name, holdsAnchors(*file)});
      } else {
        moves.push_back({from, newName, newName, holdsAnchors(*file)});
      }
    }
    return moves;
  }

  // The directory that receives the files.
  [[nodiscard]] std::string directory() const {
    if (isDirectory) return name;
    const size_t slash = name.rfind('/');
    return slash == std::string::npos ? "." : name.substr(0, slash + 1);
  }
};

bool exists(const std::string& name) {
  struct stat info {};
  return lstat(name.c_str(), &info) == 0;
}

int moveFile(const Move& move) {
  if (move.isAnchors && !exists(move.from)) {
    // If an earlier trace left an anchor file at the target, it would be used for this trace.
    return unlink(move.to.c_str()) == 0 || errno == ENOENT ? 0 : reportErrno(move.to);
  }
  if (tryRename(move.from, move.to)) return 0;
  return moveByCommand(move.from, move.argument);
}

bool wouldOverwrite(const std::vector<Move>& moves, const KLT_FileSet& inputFiles) {
  for (const Move& move : moves) {
    if (!inputFiles.contains(move.to)) continue;
    std::fprintf(stderr, "Could not open file %s for writing.\n", PAL_Printable(move.to).c_str());
    return true;
  }
  return false;
}

// Whether `name` is a regular file or, if it is `optional`, doesn't exist. False after a report.
bool isMovable(const std::string& name, bool optional) {
  struct stat st {};
  if (stat(name.c_str(), &st) != 0) return (optional && errno == ENOENT) || reportErrno(name) == 0;
  if (S_ISREG(st.st_mode)) return true;
  errno = EISDIR;
  if (S_ISDIR(st.st_mode)) return reportErrno(name) == 0;
  PAL_Error("%s isn't a regular file.", PAL_Printable(name).c_str());
  return false;
}

// Reports each reason found why the move would fail halfway or would move something that isn't part
// of the trace. True if there is none.
bool canMove(const std::vector<Move>& moves, const MoveTarget& target) {
  bool can = true;
  for (const Move& move : moves) {
    const bool isSource = isMovable(move.from, move.isAnchors);
    can = isMovable(move.to, true) && isSource && can;
  }
  const std::string directory = target.directory();
  if (faccessat(AT_FDCWD, directory.c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
    can = reportErrno(directory) == 0;
  }
  return can;
}

// Reports which files have been moved before a move failed, so that the user can restore the trace.
void reportPlaces(const std::vector<Move>& moves) {
  std::string text = "The move has stopped. Files that are at their old place:\n";
  std::string moved = "Files that have been moved:\n";
  for (const Move& move : moves) {
    if (exists(move.from)) {
      text += "  " + PAL_Printable(move.from) + '\n';
    } else if (exists(move.to)) {
      moved += "  " + PAL_Printable(move.to) + '\n';
    }
  }
  PAL_Error("%s%s", text.c_str(), moved.c_str());
}

}  // namespace

bool KLT_FilesAreKnown(const KLT_FileHandle* handle) {
  if (!handle->lostData && handle->unlisted.empty()) return true;
  PAL_Error(handle->lostData
                ? "The index of %s couldn't be read to its end, there may be more files."
                : "The index of %s gives files ids that are 0 or taken.",
            PAL_Printable(handle->base).c_str());
  return false;
}

int KLT_Move(KLT_FileHandle* handle, const char* target, const KLT_FileSet& inputFiles) {
  if (!isSingleFile(*handle) && !KLT_FilesAreKnown(handle)) return 1;
  MoveTarget to{withoutLeadingDash(target), false};
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
  const std::vector<Move> moves = to.movesOf(*handle, files);
  if (wouldOverwrite(moves, inputFiles) || !canMove(moves, to)) return 1;
  for (const Move& move : moves) {
    const int status = moveFile(move);
    if (status == 0) continue;
    reportPlaces(moves);
    return status;
  }
  return 0;
}

int KLT_Remove(KLT_FileHandle* handle, const KLT_FileSet& outputs) {
  if (!isSingleFile(*handle) && !KLT_FilesAreKnown(handle)) return 1;
  std::vector<const KLT_FileEntry*> files{&handle->indexEntry};
  if (isSingleFile(*handle))
    closeStorage(*handle);
  else
    files = indexLast(*handle);
  PAL_HashSet<std::string> seen;
  std::string missing;
  for (const KLT_FileEntry* file : files) {
    const std::string name = nameOf(*handle, *file);
    if (!seen.insert(name).second) continue;
    if (outputs.contains(name)) {
      PAL_Error("%s is a file of the output, too, and stays.", PAL_Printable(name).c_str());
      return -1;
    }
    if (unlink(name.c_str()) == 0) continue;
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
            const KLT_FileSet& inputFiles)
      : input_(input), directory_(directory), target_(target), inputFiles_(inputFiles) {}

  // Creates the output with an empty index. Nothing has been copied if this fails.
  [[nodiscard]] bool create(int form) {
    if (wouldOverwrite(form)) return reportNotCreated(EEXIST);
    errno = 0;
    output_ =
        KLT_ContainerCreate(directory_, O_WRONLY | O_CREAT | O_TRUNC, 0666, form, target_.c_str());
    if (output_ == nullptr) return reportNotCreated(errno);
    if (emptyIndex()) return true;
    const int error = errno;
    KLT_ContainerClose(output_);
    return reportNotCreated(error);
  }

  // Copies all components. The index is empty until all others have been copied, so that an
  // incomplete copy can't be opened as a trace.
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
      return target_ == "-" ? inputFiles_.containsOpen(STDOUT_FILENO)
                            : inputFiles_.contains(PAL_PathInDir(directory_, target_));
    }
    const std::vector<const KLT_FileEntry*> files = indexLast(input_);
    return std::any_of(files.begin(), files.end(), [this](const KLT_FileEntry* file) {
      return inputFiles_.contains(PAL_PathInDir(directory_, nameUnder(target_, *file)));
    });
  }

  [[nodiscard]] bool reportNotCreated(int error) const {
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
      removeStaleAnchors(to);
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

  // Removes the anchor file of an earlier trace, which would be used for the copy.
  void removeStaleAnchors(const std::string& name) {
    if (KLT_ContainerForm(output_) != KLT_FORM_PLAIN) return;
    if (PAL_RemoveInDir(directory_, name.c_str()) != 0 && errno != ENOENT) PAL_Perror(name.c_str());
  }

  bool copyBytes(KLT_IoFile* source, const std::string& from, KLT_IoFile* sink,
                 const std::string& to) {
    const int64_t length = KLT_IoSeek(source, 0, SEEK_END);
    KLT_IoSeek(source, 0, SEEK_SET);
    int64_t done = 0;
    while (true) {
      const int64_t bytes = KLT_IoRead(source, block_.get(), kBlockBytes);
      if (bytes <= 0) break;
      if (KLT_IoWrite(sink, block_.get(), static_cast<size_t>(bytes)) != bytes) {
        return fail("Could not write to %s. Aborting.", to);
      }
      done += bytes;
    }
    return done >= length || fail("Could not read all of %s. Aborting.", from);
  }

  const KLT_FileHandle& input_;
  const char* directory_;
  std::string target_;
  const KLT_FileSet& inputFiles_;
  KLT_Container* output_ = nullptr;
  std::unique_ptr<uint8_t[]> block_ = std::make_unique_for_overwrite<uint8_t[]>(kBlockBytes);
};

}  // namespace

int KLT_Convert(const KLT_FileHandle* handle, const char* directory, const char* target, int single,
                const KLT_FileSet& inputFiles) {
  TraceCopy copy(*handle, directory, target, inputFiles);
  const bool copied = copy.create(single != 0 ? KLT_FORM_SERIAL : KLT_FORM_PLAIN) && copy.run();
  return copied && KLT_FilesAreKnown(handle) ? 0 : 1;
}
