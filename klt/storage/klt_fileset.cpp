// Sets of files, compared by device and inode. See klt_fileset.h.
#include "klt/storage/klt_fileset.h"

#include <sys/stat.h>

std::optional<KLT_FileSet::Place> KLT_FileSet::placeOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  const size_t start = slash == std::string::npos ? 0 : slash + 1;
  struct stat info {};
  if (stat(start == 0 ? "." : path.substr(0, start).c_str(), &info) != 0) return std::nullopt;
  return Place{{info.st_dev, info.st_ino}, path.substr(start)};
}

bool KLT_FileSet::add(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) == 0) return files_.emplace(info.st_dev, info.st_ino).second;
  const auto place = placeOf(path);
  return place && absent_.insert(*place).second;
}

bool KLT_FileSet::contains(const struct stat& info) const {
  return files_.contains({info.st_dev, info.st_ino});
}

bool KLT_FileSet::contains(const std::string& path) const {
  struct stat info {};
  if (!files_.empty() && stat(path.c_str(), &info) == 0 && contains(info)) return true;
  if (absent_.empty()) return false;
  const auto place = placeOf(path);
  return place && absent_.contains(*place);
}

bool KLT_FileSet::containsOpen(int descriptor) const {
  struct stat info {};
  return fstat(descriptor, &info) == 0 && S_ISREG(info.st_mode) && contains(info);
}
