// Holds the tables of an open trace, which come from its index and its declarations.
//
// KLT_FileHandle owns them. Structure records fill them; all modules that need a text, a thread
// list, a component or a communicator read them. In every table the first entry of an id stays, id
// 0 is never stored, and a reference to an unknown id finds nothing.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "klt/format/klt_schema.h"
#include "klt/index/klt_idmap.h"
#include "klt/index/klt_texts.h"
#include "klt/storage/klt_io.h"
#include "util/pal_hash.h"
#include "util/triplets/pal_triplets.h"

struct KLT_DecoderTable;

// What a file of a trace contains.
enum class KLT_FileType : uint8_t {
  kData = 0,
  kAnchors = 1,
  kDeclarations = 2,
  kStatistics = 3,
  kIndex = 5,
};

struct KLT_FileEntry {
  std::string suffix;  // follows the base name and a dot; empty for the index
  uint32_t filetype = 0;
};

// One seek point of a component.
struct KLT_Anchor {
  uint64_t time = 0;           // running time at `offset`
  uint64_t offset = 0;         // in the data file
  uint64_t historyOffset = 0;  // of its history records, in the anchor file
  uint64_t historyBytes = 0;
  bool hasOffsetHistory = false;  // has references to open scopes, counters, messages, collectives
};

// The seek points of a data file, in its order. Its components share them.
struct KLT_AnchorTable {
  std::vector<KLT_Anchor> anchors;
  bool isLoaded = false;
  bool isIgnored = false;  // they can't be those of the data file, as reported
};

// A data file, or a part of it, with its anchors.
struct KLT_Component {
  const KLT_FileEntry* dataFile = nullptr;  // null if the index names one that isn't declared
  const PAL_Triplets* willies = nullptr;    // null: all threads
  uint32_t categories = 0;
  uint32_t listId = 0;                 // id of `willies`
  KLT_AnchorTable* anchors = nullptr;  // null if it has no anchor file or no data file
};

struct KLT_Group {
  std::string name;
  std::vector<uint32_t> members;
};

// Each component of a data file reads it and delivers its records. One component is usual, and one
// for each category is conceivable. Without a limit a small index could make a run as expensive as
// thousands of copies of the file.
inline constexpr uint32_t kKltMostComponents = 16;

struct KLT_FileHandle {
  std::string base;  // the name given by the user
  KLT_Container* container = nullptr;
  KLT_FileEntry indexEntry;
  std::shared_ptr<KLT_Texts> texts = std::make_shared<KLT_Texts>();
  KLT_IdMap<uint32_t> strings;  // numbers in `texts`
  KLT_IdMap<std::unique_ptr<PAL_Triplets>> willyLists;
  KLT_IdMap<std::unique_ptr<KLT_FileEntry>> files;
  std::vector<std::unique_ptr<KLT_Component>> components;  // in order of declaration
  PAL_HashSet<std::string> componentKeys;
  PAL_HashMap<std::string_view, uint32_t> componentCounts;      // by suffix of the data file
  PAL_HashMap<std::string_view, KLT_AnchorTable> anchorTables;  // by suffix of the data file
  std::vector<uint32_t> threadsPerProcess;
  KLT_IdMap<PAL_Triplets> communicators;
  KLT_IdMap<KLT_Group> groups;
  std::unique_ptr<KLT_DecoderTable> decoders;
  uint8_t header[11] = {};
  uint32_t flags = 0;
  bool genericOnly = false;           // records whose layout equals a row are read generically, too
  bool lostData = false;              // the index ended early
  bool unread = false;                // some declared files are never read, as reported
  std::vector<std::string> unlisted;  // suffixes of files whose id is 0 or has been used before
  std::vector<std::string> crowded;   // suffixes of files with more components than are read

  KLT_FileHandle();
  ~KLT_FileHandle();
  KLT_FileHandle(const KLT_FileHandle&) = delete;
  KLT_FileHandle& operator=(const KLT_FileHandle&) = delete;

  // Components with one of these categories are compressed in a trace with the flags for it.
  static constexpr uint32_t kCompressible = klt::kFunctions | klt::kRawEvents;
  [[nodiscard]] bool compressed(uint32_t categories) const {
    return (flags & 3) == 3 && (categories & kCompressible) != 0;
  }
};

// Whether a file with this suffix is in the directory of the index and has a printable name.
[[nodiscard]] bool KLT_SuffixIsSafe(std::string_view suffix);

// The text of a string id, whose address is that of `texts`; null if there is none.
[[nodiscard]] const char* KLT_StringOf(const KLT_FileHandle& handle, uint32_t id);

// Adds a component. If an id is unknown, it has no anchors, data file or thread list. A second
// component with the same categories, threads and data file is ignored. So are components of one
// data file above kKltMostComponents.
void KLT_AddComponent(KLT_FileHandle& handle, uint32_t anchorFile, uint32_t dataFile,
                      uint32_t categories, uint32_t willies);

// Adds a file. If its id is 0 or that of another file, it is listed as unusable instead. A file of
// statistics is also added as a component. False if the suffix is unsafe.
[[nodiscard]] bool KLT_AddFile(KLT_FileHandle& handle, uint32_t id, uint32_t filetype,
                               std::string_view suffix);

// Reports each file that no reader opens, or not for all components, because records will be
// missing. Sets `handle.unread` if there is one. REQUIRES: the index has been read to its end.
void KLT_ReportUnreadFiles(KLT_FileHandle& handle);

// Reports that the component can't be opened, with the system's text for errno.
void KLT_ReportUnopened(const std::string& name);
// Reports that the record `number` of the component `suffix`, at `offset`, is invalid.
void KLT_ReportCorrupted(const KLT_FileHandle& handle, const std::string& suffix, unsigned number,
                         uint64_t offset);

// The components in the order of their streams: by bucket, then in order of declaration.
[[nodiscard]] std::vector<KLT_Component*> KLT_ComponentsInOrder(const KLT_FileHandle& handle);

// The declarations file; null if the index doesn't declare one.
[[nodiscard]] const KLT_FileEntry* KLT_DeclarationsFile(const KLT_FileHandle& handle);

// File name of a component: the base name, a dot and the suffix, followed by ".anc" for anchors.
[[nodiscard]] std::string KLT_ComponentName(const std::string& base, const KLT_FileEntry& file,
                                            bool anchors);
[[nodiscard]] std::string KLT_ComponentName(const KLT_FileHandle& handle, const KLT_FileEntry& file,
                                            bool anchors);
