// Defines the writer's handle and its output components. Internal to klt/write; other modules use
// klt_write.h.
//
// A KLT_WriteContext is one data component with its anchors. Its buffer grows from 4 KiB to 64 KiB
// and is flushed when it is full, so that many small components take little memory.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "klt/format/klt_schema.h"
#include "klt/format/klt_wire.h"
#include "klt/index/klt_idmap.h"
#include "klt/index/klt_texts.h"
#include "klt/storage/klt_compress.h"
#include "klt/storage/klt_fileset.h"
#include "klt/storage/klt_io.h"
#include "klt/write/klt_filestats.h"
#include "klt/write/klt_write_history.h"
#include "util/pal_hash.h"
#include "util/pal_util.h"
#include "util/triplets/pal_triplets.h"

struct KLT_WFileHandle;

// A buffered component.
struct KLT_WriteBuffer {
  static constexpr size_t kFlushBytes = 0x10000;

  std::unique_ptr<uint8_t[]> bytes;
  size_t size = 0;
  KLT_IoFile* file = nullptr;
  bool lost = false;  // a write has failed; later bytes are dropped

  // Enlarges the buffer and keeps its first `used` bytes. The others aren't cleared, because the
  // system only allocates memory that is written to.
  void grow(size_t newSize, size_t used) {
    auto larger = std::make_unique_for_overwrite<uint8_t[]>(newSize);
    std::copy_n(bytes.get(), used, larger.get());
    bytes = std::move(larger);
    size = newSize;
  }
  void release() {
    bytes = nullptr;
    size = 0;
  }
};

struct alignas(64) KLT_WriteContext {
  static constexpr uint32_t kUnplaced = ~uint32_t{0};

  // These fields are used for every record. They are adjacent to share cache lines.
  bool opened = false;
  bool broken = false;  // its files can't be opened
  uint64_t outputTime = 0;
  size_t dataUsed = 0;
  // Records that end before this offset of `data` fit in it and need no seek point.
  size_t fastPathEnd = 0;
  KLT_WriteBuffer data;
  KLT_WriteHistory history;

  uint64_t flushed = 0;     // bytes written to the data component, before compression
  uint64_t nextAnchor = 0;  // position that triggers the next seek point
  uint64_t lastTime = 0;    // the largest output time, if the time has decreased; otherwise 0
  uint32_t categories = 0;
  std::string suffix;     // empty for the index
  uint32_t fileId = 0;    // 0: no declaration; kUnplaced: it gets one by KLT_PlaceContext
  uint32_t anchorId = 0;  // 0: no anchors; or kUnplaced
  uint32_t listId = 0;    // willy list; 0: the list of all threads
  KLT_WriteBuffer anchors;
  size_t anchorsUsed = 0;
  uint64_t lastAnchor = 0;  // position of the last seek point
  std::unique_ptr<KLT_Deflate> deflate;

  // Position of the next record in the data component.
  [[nodiscard]] uint64_t position() const { return flushed + dataUsed; }
  // Room for `bytes` bytes after the used ones; null if the component is lost.
  [[nodiscard]] uint8_t* reserve(KLT_WFileHandle& writer, size_t bytes) {
    if (data.size - dataUsed >= bytes) [[likely]]
      return data.bytes.get() + dataUsed;
    return makeRoom(writer, bytes);
  }
  // Sets `fastPathEnd`. To be called when `data`, `flushed` or `nextAnchor` has changed.
  void setFastPathEnd() {
    const bool isOff = PAL_fast == PAL_Fast::kNever || nextAnchor <= flushed;
    fastPathEnd =
        isOff ? 0 : static_cast<size_t>(std::min<uint64_t>(data.size, nextAnchor - flushed));
  }
  // Overwrites the record at `position`. False if the component is lost.
  [[nodiscard]] bool replace(KLT_WFileHandle& writer, uint64_t position, const uint8_t* record,
                             size_t bytes);

 private:
  uint8_t* makeRoom(KLT_WFileHandle& writer, size_t bytes);
};

// A text of the output: a text, or that of another id, a colon and a text.
struct KLT_OutputText {
  uint32_t prefixId = 0;  // 0: none
  uint32_t text = 0;      // a number in KLT_WFileHandle::texts

  bool operator==(const KLT_OutputText&) const = default;
};

struct KLT_WFileHandle {
  static constexpr uint64_t kChunkBytes = 0x10000;  // distance of seek points

  KLT_Container* container = nullptr;
  std::string dir;  // empty for none
  std::string name;
  uint32_t flags = 0;
  bool writeIndex = false;
  bool hasIndex = false;  // the index has been written to its file
  bool failed = false;    // a part of the output hasn't been written
  KLT_IoFile* indexFile = nullptr;
  std::vector<std::unique_ptr<KLT_WriteContext>> contexts;  // in order of creation
  std::vector<KLT_WriteContext*> inOrder;                   // those of the index, in its order
  bool defersPlaces = false;             // new contexts aren't placed in `inOrder`
  std::array<KLT_IdIndex, 16> byThread;  // by category bit and gtp: index in `contexts` plus 1
  // Before the first record these may be replaced by those of the trace that the records are from.
  std::shared_ptr<KLT_Texts> texts = std::make_shared<KLT_Texts>();
  std::vector<KLT_OutputText> strings;      // by id, from 1
  KLT_IdMap<PAL_Triplets> willyLists;       // with one thread each
  PAL_HashMap<uint32_t, uint32_t> listIds;  // by thread
  std::vector<uint32_t> declaredThreads;    // of each process
  PAL_Triplets selectedThreads;             // set by KLT_WriterListThreads; empty for all
  bool listsDeclared = false;               // KLT_WriterListThreads has been called
  uint32_t filesDeclared = 0;
  std::unique_ptr<KLT_FileStats> fileStats;
  KLT_FileSet inputFiles;  // must not be overwritten

  KLT_WFileHandle();
  KLT_WFileHandle(const KLT_WFileHandle&) = delete;
  KLT_WFileHandle& operator=(const KLT_WFileHandle&) = delete;
  ~KLT_WFileHandle();

  // The directory of the files, or null.
  [[nodiscard]] const char* directory() const { return dir.empty() ? nullptr : dir.c_str(); }
  // The index in `contexts` plus 1 of a context; 0 if there is none yet.
  [[nodiscard, gnu::always_inline]] uint32_t placeOf(uint32_t category, uint32_t thread) const {
    return byThread[static_cast<size_t>(std::countr_zero(category))].find(thread);
  }
  // The id of a text, 0 for null. A new text is added.
  [[nodiscard]] uint32_t stringId(const char* text);
  // The id of the text with id `prefixId`, followed by a colon and `last`. The parts are joined
  // only when the text is written, so that a chain of texts, each the prefix of the next, takes
  // memory linear in its length.
  [[nodiscard]] uint32_t joinedId(uint32_t prefixId, const char* last);
  [[nodiscard]] std::string joinedText(uint32_t id) const;
  [[nodiscard]] KLT_FileStats* stats() const { return fileStats.get(); }
  [[nodiscard]] uint64_t ticks(uint64_t time) const {
    return fileStats == nullptr ? 0 : fileStats->ticks(time);
  }
  // Report a count or a value that doesn't fit its field, with the caller's file and line. The
  // elements that exceed a count are lost.
  void warnCut(const KLT_Row& row, size_t field, uint64_t count,
               const char* file = __builtin_FILE(), int line = __builtin_LINE());
  void warnNarrowed(const KLT_Row& row, size_t field, uint32_t value,
                    const char* file = __builtin_FILE(), int line = __builtin_LINE());
  // Reports how often each field with a warning didn't fit.
  void reportWarningCounts() const;

  [[nodiscard]] std::vector<uint32_t>& idScratch(size_t field) { return idScratch_[field]; }
  [[nodiscard]] std::vector<uint64_t>& durationScratch() { return durations_; }
  [[nodiscard]] std::vector<uint8_t>& rewriteBuffer(size_t bytes) {
    if (rewrite_.size() < bytes) rewrite_.resize(bytes);
    return rewrite_;
  }

 private:
  std::vector<uint32_t> textIds_;  // ids of undivided texts by number in `texts`; 0: none
  PAL_KeyIndex<2> joinedIds_;      // ids of joined texts by prefix and number in `texts`
  std::array<std::vector<uint32_t>, kKltMaxFields> idScratch_;
  std::vector<uint64_t> durations_;
  std::vector<uint8_t> rewrite_;
  std::map<uint32_t, uint64_t> warned_;  // occurrences by row and field
};

// The context of a category bit and, for categories that are stored per thread, a thread. It is
// created and opened on first use. Null after a report.
[[nodiscard, gnu::cold]] KLT_WriteContext* KLT_MakeWriteContext(KLT_WFileHandle& writer,
                                                                uint32_t category, uint32_t thread);
[[nodiscard, gnu::always_inline]] inline KLT_WriteContext* KLT_GetWriteContext(
    KLT_WFileHandle& writer, uint32_t category, uint32_t thread) {
  if (const uint32_t place = writer.placeOf(category, thread)) [[likely]] {
    KLT_WriteContext& context = *writer.contexts[place - 1];
    if (context.opened) [[likely]]
      return &context;
  }
  return KLT_MakeWriteContext(writer, category, thread);
}
// Opens the context's files. Returns an error text or null; `name` receives the name of the file
// that can't be opened.
[[nodiscard]] const char* KLT_OpenContext(KLT_WFileHandle& writer, KLT_WriteContext& context,
                                          std::string& name);
// Writes the buffered bytes of the anchors or the data to the component. `final` ends compression.
void KLT_FlushContext(KLT_WFileHandle& writer, KLT_WriteContext& context, bool anchors, bool final);
// Flushes and closes the components of a context.
void KLT_CloseContext(KLT_WFileHandle& writer, KLT_WriteContext& context);
// Creates a context for a category bit and, unless the category is shared, a thread. Its files
// aren't open yet.
KLT_WriteContext& KLT_CreateContext(KLT_WFileHandle& writer, uint32_t category, uint32_t thread);
// Places a context after the others in the index, and gives it its ids. KLT_CreateContext does this
// unless the writer defers places.
void KLT_PlaceContext(KLT_WFileHandle& writer, KLT_WriteContext& context);
// Creates the contexts that all threads share. They come first, in a fixed order, even if they get
// no records.
void KLT_InitWFileHandle(KLT_WFileHandle& writer);
