// Writes the index of a trace. See klt_write_index.h.
#include "klt/write/klt_write_index.h"

#include <algorithm>
#include <array>
#include <numeric>

#include "klt/index/klt_intern.h"
#include "klt/write/klt_write_row.h"
#include "util/pal_hash.h"
#include "util/pal_mem.h"

namespace {

constexpr uint32_t kAllThreadsList = 1;
constexpr uint32_t kTableBuckets = 1021;  // determines the order of strings and lists

bool putByte(KLT_WFileHandle& writer, KLT_WriteContext& index, uint8_t byte) {
  uint8_t* to = index.reserve(writer, 1);
  if (to == nullptr) return false;
  *to = byte;
  ++index.dataUsed;
  return true;
}

bool putText(KLT_WFileHandle& writer, KLT_WriteContext& index, std::string_view text) {
  if (!putByte(writer, index, static_cast<uint8_t>(text.size()))) return false;
  uint8_t* to = index.reserve(writer, text.size() + 1);
  if (to == nullptr) return false;
  std::copy(text.begin(), text.end(), to);
  index.dataUsed += text.size();
  return true;
}

bool putField(KLT_WFileHandle& writer, KLT_WriteContext& index, const KLT_Field& field) {
  const auto type = static_cast<uint8_t>(field.type());
  if (field.isCount()) {
    return putByte(writer, index, kKltCountMark) && putByte(writer, index, type) &&
           putByte(writer, index, static_cast<uint8_t>(field.covered()));
  }
  return putByte(writer, index, type) && putText(writer, index, field.name) &&
         putText(writer, index, field.reference);
}

bool putLayouts(KLT_WFileHandle& writer, KLT_WriteContext& index) {
  for (const KLT_Row& row : kKltRows) {
    bool put = putByte(writer, index, 0) && putByte(writer, index, row.number) &&
               putText(writer, index, row.name) && putByte(writer, index, row.numFields);
    for (size_t f = 0; put && f < row.numFields; ++f) {
      put = putField(writer, index, row.fields[f]);
    }
    if (!put) return false;
  }
  return true;
}

// The entries in the order of a hash table by id with kTableBuckets buckets.
template <class Value>
std::vector<const typename KLT_IdMap<Value>::Entry*> inTableOrder(const KLT_IdMap<Value>& table) {
  std::vector<const typename KLT_IdMap<Value>::Entry*> ordered;
  for (const auto& entry : table.entries()) ordered.push_back(&entry);
  PAL_SortByBucket(ordered, kTableBuckets, [](const auto* entry) { return entry->id; });
  return ordered;
}

void writeStrings(KLT_WFileHandle& writer) {
  std::vector<uint32_t> ids(writer.strings.size());
  std::iota(ids.begin(), ids.end(), uint32_t{1});
  PAL_SortByBucket(ids, kTableBuckets, [](uint32_t id) { return id; });
  for (const uint32_t id : ids) {
    const KLT_OutputText& text = writer.strings[id - 1];
    const std::string joined = text.prefixId == 0 ? "" : writer.joinedText(id);
    const char* const whole = text.prefixId == 0 ? writer.texts->at(text.text) : joined.c_str();
    KLT_Write<KLT_Row::kltString>(&writer, nullptr, id, whole);
  }
}

void writeList(KLT_WFileHandle& writer, uint32_t id, const PAL_Triplets& list) {
  const size_t n = list.size();
  const std::vector<int32_t> parts = PAL_TripletsToParallel(list);
  const auto* gtps = reinterpret_cast<const uint32_t*>(parts.data());
  KLT_Write<KLT_Row::willyList>(&writer, nullptr, id, static_cast<uint32_t>(n), gtps, gtps + n,
                                parts.data() + 2 * n);
}

// The threads of the declared processes. A few bytes of input can declare billions of threads, so
// if there are many per process they are listed by ranges for each process instead of one by one.
PAL_Triplets declaredThreads(const KLT_WFileHandle& writer) {
  constexpr uint32_t kDistance = 0x10000;  // of two threads of a process
  constexpr uint32_t kPositive = 0x8000;   // gtps of lower threads are positive as signed numbers
  constexpr size_t kMaxListed = 64;        // mean number of threads of a process listed one by one
  PAL_Triplets byProcess;
  std::vector<int32_t> threads;
  const size_t processes = std::min<size_t>(writer.declaredThreads.size(), kDistance);
  for (uint32_t p = 0; p < processes; ++p) {
    const uint32_t n = std::min(writer.declaredThreads[p], kDistance);
    const auto gtp = [p](uint32_t thread) { return static_cast<int32_t>(p | thread * kDistance); };
    const auto addRange = [&](uint32_t from, uint32_t to) {
      if (from < to) byProcess.push_back({gtp(from), gtp(to - 1), kDistance});
    };
    addRange(0, std::min(n, kPositive));
    addRange(kPositive, n);
    const bool isFew = threads.size() + n <= kMaxListed * processes;
    for (uint32_t t = 0; isFew && t < n; ++t) threads.push_back(gtp(t));
  }
  const uint64_t total = std::accumulate(
      writer.declaredThreads.begin(),
      writer.declaredThreads.begin() + static_cast<ptrdiff_t>(processes), uint64_t{0});
  return threads.size() == total ? PAL_TripletsCompress(threads, true) : byProcess;
}

// The list of all threads: those with a component, and those that KLT_WriterListThreads has added.
// If it hasn't been called and no thread has a component, all declared threads.
PAL_Triplets allThreads(const KLT_WFileHandle& writer) {
  std::vector<int32_t> threads;
  for (const auto& [thread, list] : writer.listIds) threads.push_back(static_cast<int32_t>(thread));
  const PAL_Triplets own = PAL_TripletsCompress(threads, true);
  if (!own.empty() && !writer.listsDeclared) return own;
  const PAL_Triplets declared = declaredThreads(writer);
  if (writer.selectedThreads.empty()) return PAL_TripletsUnite(own, declared);
  return PAL_TripletsUnite(own, PAL_TripletsIntersect(declared, writer.selectedThreads));
}

bool isDeclared(const KLT_WriteContext& context) {
  return context.fileId != 0 && context.opened && !context.data.lost;
}

uint32_t filetypeOf(const KLT_WriteContext& context) {
  return static_cast<uint32_t>(
      context.categories == klt::kDeclarations ? KLT_FileType::kDeclarations : KLT_FileType::kData);
}

void writeStructure(KLT_WFileHandle& writer) {
  KLT_WFileHandle* w = &writer;
  const PAL_Triplets all = allThreads(writer);
  if (!all.empty()) writer.willyLists.insert(kAllThreadsList, all);
  const uint32_t allId = all.empty() ? 0 : kAllThreadsList;
  for (const KLT_WriteContext* context : writer.inOrder) {
    if (isDeclared(*context)) {
      KLT_Write<KLT_Row::fileDeclaration>(w, nullptr, context->fileId, filetypeOf(*context),
                                          context->suffix.c_str());
    }
  }
  writeStrings(writer);
  for (const auto* entry : inTableOrder(writer.willyLists)) {
    writeList(writer, entry->id, entry->value);
  }
  for (const KLT_WriteContext* context : writer.inOrder) {
    if (context->categories == klt::kStatistics) {
      KLT_Write<KLT_Row::anchorFileDeclaration>(w, nullptr, uint32_t{0}, context->fileId,
                                                klt::kStatistics, allId);
    } else if (context->anchorId != 0 && isDeclared(*context)) {
      const uint32_t list = context->listId != 0 ? context->listId : allId;
      KLT_Write<KLT_Row::fileDeclaration>(w, nullptr, context->anchorId,
                                          static_cast<uint32_t>(KLT_FileType::kAnchors),
                                          context->suffix.c_str());
      KLT_Write<KLT_Row::anchorFileDeclaration>(w, nullptr, context->anchorId, context->fileId,
                                                context->categories, list);
    }
  }
}

}  // namespace

const char* KLT_WriteIndex(KLT_WFileHandle& writer) {
  const PAL_Place here;
  // All data must be written to the components before the index declares them: a component whose
  // write fails isn't declared.
  for (const auto& context : writer.contexts) {
    KLT_FlushContext(writer, *context, true, false);
    KLT_FlushContext(writer, *context, false, false);
  }
  KLT_WriteContext* index = &KLT_CreateContext(writer, klt::kInternal, 0);
  index->data.file = writer.indexFile;
  index->opened = true;
  writer.indexFile = nullptr;
  const std::array<uint8_t, 11> header = {
      'K', 'L', 'T', 0x40, 0, 0, 0, static_cast<uint8_t>(writer.flags), 0, 0, 0x14};
  uint8_t* to = index->reserve(writer, header.size());
  if (to == nullptr) return "Could not create write context";
  std::copy(header.begin(), header.end(), to);
  index->dataUsed += header.size();
  if (!putLayouts(writer, *index)) return "Writing record layout failed.";
  writeStructure(writer);
  KLT_CloseContext(writer, *index);
  writer.hasIndex = !index->data.lost;
  return nullptr;
}
