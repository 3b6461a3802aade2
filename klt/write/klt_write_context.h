// The writer's handle and its output streams. Internal to the writing modules; producers see
// klt_write.h.
//
// One KLT_WriteContext stands for one data component with its anchors. Buffers grow from a few
// kilobytes to 64 KiB and are flushed there, so that a trace of many small streams stays small.
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
#include <unordered_map>
#include <utility>
#include <vector>

#include "klt/format/klt_schema.h"
#include "klt/format/klt_wire.h"
#include "klt/index/klt_idmap.h"
#include "klt/storage/klt_compress.h"
#include "klt/storage/klt_fileset.h"
#include "klt/storage/klt_io.h"
#include "klt/write/klt_filestats.h"
#include "klt/write/klt_write_history.h"
#include "util/triplets/pal_triplets.h"

struct KLT_WFileHandle;

// A buffered component.
struct KLT_WriteBuffer {
  static constexpr size_t kFlushBytes = 0x10000;

  std::unique_ptr<uint8_t[]> bytes;
  size_t size = 0;
  KLT_IoFile* file = nullptr;
  bool lost = false;  // a write failed; what follows is dropped

  // Makes it larger, and keeps the first `used` bytes. The others aren't cleared: with thousands of
  // streams, memory that is never written to stays untaken.
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
  // What every call touches, side by side.
  bool opened = false;
  bool broken = false;  // its files can't be opened
  uint64_t outputTime = 0;
  size_t dataUsed = 0;
  size_t plainUntil = 0;  // records up to here find room, and need no seek point
  KLT_WriteBuffer data;
  KLT_WriteHistory history;

  uint64_t flushed = 0;     // bytes of the data component that left the buffer, uncompressed
  uint64_t nextAnchor = 0;  // position that triggers the next seek point
  uint64_t lastTime = 0;    // the largest output time ahead of the last step back, 0 without one
  uint32_t categories = 0;
  std::string suffix;     // empty for the index
  uint32_t fileId = 0;    // 0: no declaration
  uint32_t anchorId = 0;  // 0: no anchors
  uint32_t listId = 0;    // willy list; 0: the list of all threads
  KLT_WriteBuffer anchors;
  size_t anchorsUsed = 0;
  uint64_t lastAnchor = 0;  // position of the last one
  std::unique_ptr<KLT_Deflate> deflate;

  // Position of the next record in the data component.
  [[nodiscard]] uint64_t position() const { return flushed + dataUsed; }
  // Room for `bytes` bytes behind the used ones; null if the component is lost.
  [[nodiscard]] uint8_t* reserve(KLT_WFileHandle& writer, size_t bytes) {
    if (data.size - dataUsed >= bytes) [[likely]]
      return data.bytes.get() + dataUsed;
    return makeRoom(writer, bytes);
  }
  // Sets `plainUntil`: to be called when the buffer or the next seek point have moved.
  void setPlainUntil() {
    plainUntil = static_cast<size_t>(
        std::min<uint64_t>(data.size, nextAnchor > flushed ? nextAnchor - flushed : 0));
  }
  // Writes over a record at `position`. False if the component is lost.
  [[nodiscard]] bool replace(KLT_WFileHandle& writer, uint64_t position, const uint8_t* record,
                             size_t bytes);

 private:
  uint8_t* makeRoom(KLT_WFileHandle& writer, size_t bytes);
};

// A text of the output, in two parts: the text of another id and what follows it.
struct KLT_JoinedText {
  uint32_t above = 0;  // 0: none
  std::string rest;
};

struct KLT_WFileHandle {
  static constexpr uint64_t kChunkBytes = 0x10000;  // distance of seek points

  KLT_Container* container = nullptr;
  std::string dir;  // empty for none
  std::string name;
  uint32_t flags = 0;
  bool writeIndex = false;
  bool hasIndex = false;  // it is written, and has reached its file
  bool failed = false;    // something hasn't reached its file
  KLT_IoFile* indexFile = nullptr;
  std::vector<std::unique_ptr<KLT_WriteContext>> contexts;  // in order of creation
  std::array<KLT_IdIndex, 16> byThread;  // by category bit: gtp to place in `contexts`, from 1
  KLT_IdMap<KLT_JoinedText> strings;
  std::unordered_map<std::string, uint32_t> stringIds;  // of joined texts by joinedKey
  KLT_IdMap<PAL_Triplets> willyLists;                   // of one thread each
  std::unordered_map<uint32_t, uint32_t> listIds;       // by thread
  std::vector<uint32_t> declaredThreads;                // of each process
  PAL_Triplets selectedThreads;                         // by KLT_WriterListThreads; empty for all
  bool listsDeclared = false;                           // it has been called
  uint32_t filesDeclared = 0;
  std::unique_ptr<KLT_FileStats> fileStats;
  KLT_FileSet untouchable;

  KLT_WFileHandle();
  KLT_WFileHandle(const KLT_WFileHandle&) = delete;
  KLT_WFileHandle& operator=(const KLT_WFileHandle&) = delete;
  ~KLT_WFileHandle();

  // The directory of the files, or null.
  [[nodiscard]] const char* directory() const { return dir.empty() ? nullptr : dir.c_str(); }
  // The place of a stream among `contexts`, from 1; 0 if there is none yet.
  [[nodiscard, gnu::always_inline]] uint32_t placeOf(uint32_t category, uint32_t thread) const {
    return byThread[static_cast<size_t>(std::countr_zero(category))].find(thread);
  }
  // The id of a text, 0 for null; new texts are entered.
  [[nodiscard]] uint32_t stringId(const char* text);
  // The id of the text `above` with `rest` behind it. The two stay apart until the text is written:
  // a chain of texts, each a part of the next, takes memory with its length.
  [[nodiscard]] uint32_t joinedId(uint32_t above, std::string_view rest);
  [[nodiscard]] std::string textOf(const KLT_JoinedText& text) const;
  [[nodiscard]] KLT_FileStats* stats() const { return fileStats.get(); }
  [[nodiscard]] uint64_t ticks(uint64_t time) const {
    return fileStats == nullptr ? 0 : fileStats->ticks(time);
  }
  // Reports what doesn't fit its field, at the place that finds it: a count, which costs the output
  // the elements beyond it, or a number.
  void warnCut(const KLT_Row& row, size_t field, uint64_t count,
               const char* file = __builtin_FILE(), int line = __builtin_LINE());
  void warnNarrowed(const KLT_Row& row, size_t field, uint32_t value,
                    const char* file = __builtin_FILE(), int line = __builtin_LINE());
  // How often each field that was warned of didn't fit.
  void tellWarned() const;

  [[nodiscard]] std::vector<uint32_t>& idScratch(size_t field) { return idScratch_[field]; }
  [[nodiscard]] std::vector<uint64_t>& durationScratch() { return durations_; }
  [[nodiscard]] std::vector<uint8_t>& sideBuffer(size_t bytes) {
    if (side_.size() < bytes) side_.resize(bytes);
    return side_;
  }

 private:
  std::array<std::vector<uint32_t>, kKltMaxFields> idScratch_;
  std::vector<uint64_t> durations_;
  std::vector<uint8_t> side_;
  std::map<uint32_t, uint64_t> warned_;  // occurrences by row and field
};

// The context of a category bit and, for categories kept per thread, a thread, made and opened on
// first use. Null after a report.
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
// Opens the context's files. An error text, or null; `name` receives the name of the file at fault.
[[nodiscard]] const char* KLT_OpenContext(KLT_WFileHandle& writer, KLT_WriteContext& context,
                                          std::string& name);
// Hands what is buffered to the components. `final` ends a compressed stream.
void KLT_FlushContext(KLT_WFileHandle& writer, KLT_WriteContext& context, bool anchors, bool final);
// Closes the components of a context.
void KLT_CloseContext(KLT_WFileHandle& writer, KLT_WriteContext& context);
// A new context for a category bit and, unless the category is shared, a thread. Its files aren't
// open yet.
KLT_WriteContext& KLT_CreateContext(KLT_WFileHandle& writer, uint32_t category, uint32_t thread);
// Makes the contexts that all threads share. They come first and in a fixed order, whether or not
// they receive a record.
void KLT_InitWFileHandle(KLT_WFileHandle& writer);
