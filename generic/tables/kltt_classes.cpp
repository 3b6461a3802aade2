// Names of classes. See kltt_classes.h.
#include "generic/tables/kltt_classes.h"

#include <algorithm>

std::vector<const char*> KLTT_ClassParts(const KLTT_Classes& classes, const KLTT_Class& of) {
  std::vector<const char*> parts{of.own};
  for (const KLTT_Class* at = &of; at->parent != 0;) {
    at = classes.find(at->parent);
    parts.push_back(at->own);
  }
  std::reverse(parts.begin(), parts.end());
  return parts;
}

std::string KLTT_ClassPath(const KLTT_Classes& classes, const KLTT_Class& of, size_t limit) {
  const std::vector<const char*> parts = KLTT_ClassParts(classes, of);
  std::string path = parts[0];
  for (size_t i = 1; i < parts.size() && path.size() < limit; ++i) (path += ':') += parts[i];
  return path;
}
