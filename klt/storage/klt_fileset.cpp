// Sets of files, compared by device and inode. See klt_fileset.h.
#include "klt/storage/klt_fileset.h"

#include <sys/stat.h>

void KLT_FileSet::add(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) == 0) files_.emplace(info.st_dev, info.st_ino);
}

bool KLT_FileSet::contains(const struct stat& info) const {
  return files_.contains({info.st_dev, info.st_ino});
}

bool KLT_FileSet::contains(const std::string& path) const {
  struct stat info {};
  return !files_.empty() && stat(path.c_str(), &info) == 0 && contains(info);
}

bool KLT_FileSet::containsOpen(int descriptor) const {
  struct stat info {};
  return fstat(descriptor, &info) == 0 && S_ISREG(info.st_mode) && contains(info);
}
