// The tables of an open trace. See klt_intern.h.
#include "klt/index/klt_intern.h"

#include <algorithm>
#include <unordered_set>

#include "klt/index/klt_generic.h"
#include "util/pal_error.h"
#include "util/pal_hash.h"
#include "util/pal_mem.h"

KLT_FileHandle::KLT_FileHandle() {
  indexEntry.filetype = static_cast<uint32_t>(KLT_FileType::kIndex);
}

KLT_FileHandle::~KLT_FileHandle() {
  if (container != nullptr) KLT_ContainerClose(container);
}

bool KLT_SuffixIsSafe(std::string_view suffix) {
  if (suffix.empty()) return false;
  return std::none_of(suffix.begin(), suffix.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return c == '/' || byte < 0x20 || byte == 0x7f;
  });
}

const char* KLT_StringOf(const KLT_FileHandle& handle, uint32_t id) {
  const uint32_t* text = handle.strings.find(id);
  return text == nullptr ? nullptr : handle.texts->at(*text);
}

namespace {

const KLT_FileEntry* fileOf(const KLT_FileHandle& handle, uint32_t id) {
  const std::unique_ptr<KLT_FileEntry>* file = handle.files.find(id);
  return file == nullptr ? nullptr : file->get();
}

std::string componentKey(const KLT_Component& component, uint32_t dataFile) {
  return std::to_string(component.categories) + '/' + std::to_string(component.listId) + '/' +
         std::to_string(dataFile);
}

void enterComponent(KLT_FileHandle& handle, std::unique_ptr<KLT_Component> component,
                    uint32_t dataFile) {
  if (!handle.componentKeys.insert(componentKey(*component, dataFile)).second) return;
  if (component->dataFile != nullptr) {
    const std::string& suffix = component->dataFile->suffix;
    const uint32_t count = ++handle.componentCounts[suffix];
    if (count == kKltMostComponents + 1) handle.crowded.push_back(suffix);
    if (count > kKltMostComponents) return;
  }
  handle.components.push_back(std::move(component));
}

}  // namespace

void KLT_AddComponent(KLT_FileHandle& handle, uint32_t anchorFile, uint32_t dataFile,
                      uint32_t categories, uint32_t willies) {
  const PAL_Place here;
  auto component = std::make_unique<KLT_Component>();
  component->dataFile = fileOf(handle, dataFile);
  component->categories = categories;
  if (fileOf(handle, anchorFile) != nullptr && component->dataFile != nullptr) {
    component->anchors = &handle.anchorTables[component->dataFile->suffix];
  }
  if (const std::unique_ptr<PAL_Triplets>* list = handle.willyLists.find(willies)) {
    component->willies = list->get();
    component->listId = willies;
  }
  enterComponent(handle, std::move(component), dataFile);
}

bool KLT_AddFile(KLT_FileHandle& handle, uint32_t id, uint32_t filetype, std::string_view suffix) {
  const PAL_Place here;
  if (!KLT_SuffixIsSafe(suffix)) return false;
  auto file = std::make_unique<KLT_FileEntry>();
  file->suffix = suffix;
  file->filetype = filetype;
  const KLT_FileEntry* entry = file.get();
  if (handle.files.insert(id, std::move(file)) == nullptr) {
    const KLT_FileEntry* known = fileOf(handle, id);
    const bool same = known != nullptr && known->suffix == suffix && known->filetype == filetype;
    if (!same) handle.unlisted.emplace_back(suffix);
    return true;
  }
  if (filetype == static_cast<uint32_t>(KLT_FileType::kStatistics)) {
    auto component = std::make_unique<KLT_Component>();
    component->dataFile = entry;
    component->categories = klt::kStatistics;
    enterComponent(handle, std::move(component), id);
  }
  return true;
}

std::vector<KLT_Component*> KLT_ComponentsInOrder(const KLT_FileHandle& handle) {
  const PAL_Place here;
  std::vector<KLT_Component*> ordered;
  ordered.reserve(handle.components.size());
  for (const auto& component : handle.components) ordered.push_back(component.get());
  PAL_SortByBucket(ordered, 1021, [](const KLT_Component* component) {
    return component->listId + component->categories;
  });
  return ordered;
}

namespace {

bool isOfType(const KLT_FileEntry& file, KLT_FileType type) {
  return file.filetype == static_cast<uint32_t>(type);
}

// Why no reader opens the data file of a component; empty if one does.
std::string_view whyUnread(const KLT_Component& component) {
  constexpr uint32_t kKnown = 0xffff;
  const KLT_FileEntry& file = *component.dataFile;
  if (!isOfType(file, KLT_FileType::kData) && !isOfType(file, KLT_FileType::kStatistics)) {
    return "its type isn't that of a file of events";
  }
  return (component.categories & kKnown) == 0 ? "its categories are unknown" : "";
}

// Why no reader opens a file that no component names as its data file; empty if one opens it or it
// only contains seek points.
std::string_view whyUnread(const KLT_FileHandle& handle, const KLT_FileEntry& file) {
  if (isOfType(file, KLT_FileType::kData)) return "no component names it";
  if (isOfType(file, KLT_FileType::kDeclarations)) {
    return &file == KLT_DeclarationsFile(handle) ? "" : "there is another file of declarations";
  }
  const bool isKnown = isOfType(file, KLT_FileType::kAnchors) ||
                       isOfType(file, KLT_FileType::kStatistics) ||
                       isOfType(file, KLT_FileType::kIndex);
  return isKnown ? "" : "its type is unknown";
}

bool isCrowded(const KLT_FileHandle& handle, const KLT_FileEntry& file) {
  const auto count = handle.componentCounts.find(file.suffix);
  return count != handle.componentCounts.end() && count->second > kKltMostComponents;
}

void reportUnread(KLT_FileHandle& handle, const std::string& suffix, std::string_view why) {
  if (why.empty()) return;
  handle.unread = true;
  PAL_Warning("%s.%s isn't read: %s.", PAL_Printable(handle.base).c_str(),
              PAL_Printable(suffix).c_str(), std::string(why).c_str());
}

}  // namespace

void KLT_ReportUnreadFiles(KLT_FileHandle& handle) {
  const PAL_Place here;
  std::unordered_set<const KLT_FileEntry*> seen;
  for (const auto& component : handle.components) {
    if (component->dataFile == nullptr) {
      // Writers declare a component of statistics even if there are no statistics.
      if (component->categories == klt::kStatistics) continue;
      handle.unread = true;
      PAL_Warning("The index of %s has a component whose data file isn't declared.",
                  PAL_Printable(handle.base).c_str());
    } else if (seen.insert(component->dataFile).second) {
      reportUnread(handle, component->dataFile->suffix, whyUnread(*component));
    }
  }
  for (const auto& entry : handle.files.entries()) {
    if (seen.contains(entry.value.get()) || isCrowded(handle, *entry.value)) continue;
    reportUnread(handle, entry.value->suffix, whyUnread(handle, *entry.value));
  }
  for (const std::string& suffix : handle.unlisted) {
    reportUnread(handle, suffix, "its id is 0 or that of another file");
  }
  for (const std::string& suffix : handle.crowded) {
    handle.unread = true;
    PAL_Warning("%s.%s has more than %u components. The others aren't read.",
                PAL_Printable(handle.base).c_str(), PAL_Printable(suffix).c_str(),
                kKltMostComponents);
  }
}

const KLT_FileEntry* KLT_DeclarationsFile(const KLT_FileHandle& handle) {
  for (const auto& entry : handle.files.entries()) {
    if (entry.value->filetype == static_cast<uint32_t>(KLT_FileType::kDeclarations)) {
      return entry.value.get();
    }
  }
  return nullptr;
}

std::string KLT_ComponentName(const std::string& base, const KLT_FileEntry& file, bool anchors) {
  std::string name = base;
  if (!file.suffix.empty()) name += '.' + file.suffix;
  if (anchors) name += ".anc";
  return name;
}

std::string KLT_ComponentName(const KLT_FileHandle& handle, const KLT_FileEntry& file,
                              bool anchors) {
  return KLT_ComponentName(handle.base, file, anchors);
}

void KLT_ReportUnopened(const std::string& name) {
  PAL_Perror(name.c_str());
  PAL_Error("Could not open file %s for reading.", PAL_Printable(name).c_str());
}

void KLT_ReportCorrupted(const KLT_FileHandle& handle, const std::string& suffix, unsigned number,
                         uint64_t offset) {
  PAL_Error("Found corrupted data while filtering %s.%s (rectype %d, offset %u).",
            PAL_Printable(handle.base).c_str(), PAL_Printable(suffix).c_str(),
            static_cast<int>(number), static_cast<unsigned>(offset));
}
