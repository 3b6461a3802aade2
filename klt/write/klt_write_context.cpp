// Finds, opens, flushes and closes the writer's output components. See klt_write_context.h.
#include "klt/write/klt_write_context.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <utility>

#include "util/pal_error.h"
#include "util/pal_mem.h"
#include "util/pal_util.h"

namespace {

// Categories that have one component for all threads.
constexpr uint32_t kShared = klt::kDeclarations | klt::kMessages | klt::kCollops | klt::kInternal |
                             klt::kErrors | klt::kStatistics;
constexpr uint32_t kFirstFileId = 0x10000;
constexpr size_t kFirstBuffer = 4096;
// Ids of thread lists have 16 bits. Id 1 is the list of all threads, which components also use if
// no id is left for a list of their own.
constexpr uint32_t kFirstListId = 2;
constexpr uint32_t kLastListId = 65535;

std::string suffixOf(uint32_t categories, uint32_t thread) {
  switch (categories) {
    case klt::kDeclarations:
      return "dcl";
    case klt::kCollops:
      return "cop";
    case klt::kMessages:
      return "msg";
    case klt::kStatistics:
      return "sts";
    case klt::kErrors:
      return "err";
    default:
      break;
  }
  std::string letters;
  if ((categories & klt::kFunctions) != 0) letters += 'f';
  if ((categories & klt::kFileIo) != 0) letters += 'i';
  if ((categories & klt::kScopes) != 0) letters += 's';
  if ((categories & klt::kCounters) != 0) letters += 'c';
  if ((categories & klt::kRawEvents) != 0) letters += 'r';
  if (letters.empty()) letters = "x";
  return letters + '.' + std::to_string(static_cast<int32_t>(thread));
}

uint32_t listOf(KLT_WFileHandle& writer, uint32_t thread) {
  const auto [known, isNew] = writer.listIds.try_emplace(thread, 0);
  if (!isNew) return known->second;
  const uint32_t id = kFirstListId + static_cast<uint32_t>(writer.willyLists.size());
  if (id > kLastListId) return 0;
  const auto gtp = static_cast<int32_t>(thread);
  writer.willyLists.insert(id, PAL_Triplets{{gtp, gtp, 1}});
  known->second = id;
  return id;
}

bool isInputFile(const KLT_WFileHandle& writer, const std::string& name) {
  return writer.inputFiles.contains(PAL_PathInDir(writer.directory(), name));
}

// Opens the component `name`. In the plain form removes an old file of that name first, or fails
// with EEXIST if it is a file of the input.
KLT_IoFile* openComponent(KLT_WFileHandle& writer, const std::string& name) {
  if (KLT_ContainerForm(writer.container) == KLT_FORM_PLAIN) {
    if (isInputFile(writer, name)) {
      errno = EEXIST;
      return nullptr;
    }
    errno = 0;
    if (PAL_RemoveInDir(writer.directory(), name.c_str()) != 0 && errno != ENOENT) {
      PAL_Perror(name.c_str());
    }
  }
  errno = 0;
  return KLT_IoOpen(writer.container, name.c_str());
}

// Warns that a value is reduced to the width of its field, with the source location of the encoder.
void reportNarrowed(uint64_t value, unsigned bytes, const char* file, int line) {
  const unsigned valueBytes = value >> 32 == 0 ? 4 : 8;
  PAL_Warning("KLT Encoding Error: reducing unsigned %u-byte 0x%llx to unsigned %u-byte (%s:%d)",
              valueBytes, static_cast<unsigned long long>(value), bytes, file, line);
}

// Reports a failed write and drops the component: later bytes are lost.
void dropComponent(KLT_WFileHandle& writer, const KLT_WriteContext& context,
                   KLT_WriteBuffer& buffer) {
  const std::string suffix = context.suffix.empty() ? "???" : PAL_Printable(context.suffix);
  if (errno != 0) PAL_Perror(suffix.c_str());
  PAL_Error("writing to %s failed, file will be incomplete", suffix.c_str());
  if (buffer.file != nullptr) KLT_IoClose(buffer.file);
  buffer.lost = true;
  writer.failed = true;
}

}  // namespace

// Each record looks up its context; for the first threads of processes (gtp < 0x10000) in an array.
KLT_WFileHandle::KLT_WFileHandle() { byThread.fill(KLT_IdIndex(0x10000)); }

KLT_WFileHandle::~KLT_WFileHandle() {
  if (container != nullptr) KLT_ContainerClose(container);
}

uint32_t KLT_WFileHandle::stringId(const char* text) {
  const PAL_Place here;
  if (text == nullptr) return 0;
  const uint32_t number = texts->number(text);
  if (number >= textIds_.size()) textIds_.resize(std::bit_ceil(number + size_t{1}));
  uint32_t& id = textIds_[number];
  if (id == 0) {
    strings.push_back({.prefixId = 0, .text = number});
    id = static_cast<uint32_t>(strings.size());
  }
  return id;
}

uint32_t KLT_WFileHandle::joinedId(uint32_t prefixId, const char* last) {
  const PAL_Place here;
  const KLT_OutputText joined{.prefixId = prefixId, .text = texts->number(last)};
  const uint32_t hash = joinedIds_.hashOf({joined.prefixId, joined.text});
  const uint32_t known =
      joinedIds_.find(hash, [&](uint32_t id) { return strings[id - 1] == joined; });
  if (known != 0) return known;
  strings.push_back(joined);
  joinedIds_.add(hash, static_cast<uint32_t>(strings.size()));
  return static_cast<uint32_t>(strings.size());
}

std::string KLT_WFileHandle::joinedText(uint32_t id) const {
  const PAL_Place here;
  std::vector<const char*> parts;
  for (; id != 0; id = strings[id - 1].prefixId) parts.push_back(texts->at(strings[id - 1].text));
  std::string whole = parts.back();
  for (size_t i = parts.size() - 1; i-- > 0;) (whole += ':') += parts[i];
  return whole;
}

void KLT_WFileHandle::warnCut(const KLT_Row& row, size_t field, uint64_t count, const char* file,
                              int line) {
  failed = true;
  if (warned_[uint32_t{row.number} << 8 | static_cast<uint32_t>(field)]++ != 0) return;
  reportNarrowed(count, KLT_TypeBytes(row.fields[field].type()), file, line);
  PAL_Error("%s with %llu elements doesn't fit, the rest is left out",
            std::string(row.name).c_str(), static_cast<unsigned long long>(count));
}

void KLT_WFileHandle::warnNarrowed(const KLT_Row& row, size_t field, uint32_t value,
                                   const char* file, int line) {
  if (warned_[uint32_t{row.number} << 8 | static_cast<uint32_t>(field)]++ != 0) return;
  reportNarrowed(value, KLT_TypeBytes(row.fields[field].type()), file, line);
}

void KLT_WFileHandle::reportWarningCounts() const {
  for (const auto& [key, occurrences] : warned_) {
    if (occurrences < 2) continue;
    const KLT_Row& row = kKltRows[(key >> 8) - 1];
    const std::string_view field = row.fields[key & 0xff].name;  // empty for a count
    const std::string record = std::string(row.name) + (field.empty() ? "" : ".");
    PAL_Warning("%s%.*s didn't fit %llu times in all", record.c_str(),
                static_cast<int>(field.size()), field.data(),
                static_cast<unsigned long long>(occurrences));
  }
}

KLT_WriteContext& KLT_CreateContext(KLT_WFileHandle& writer, uint32_t category, uint32_t thread) {
  auto context = std::make_unique<KLT_WriteContext>();
  context->categories = category;
  context->history.gtp = thread;
  if (category != klt::kInternal) {
    context->suffix = suffixOf(category, thread);
    context->fileId = KLT_WriteContext::kUnplaced;
    if (category != klt::kDeclarations && category != klt::kStatistics) {
      context->anchorId = KLT_WriteContext::kUnplaced;
    }
    if (!writer.defersPlaces) KLT_PlaceContext(writer, *context);
  }
  writer.contexts.push_back(std::move(context));
  writer.byThread[static_cast<size_t>(std::countr_zero(category))].add(
      thread, static_cast<uint32_t>(writer.contexts.size()));
  return *writer.contexts.back();
}

void KLT_PlaceContext(KLT_WFileHandle& writer, KLT_WriteContext& context) {
  if ((context.categories & kShared) == 0) context.listId = listOf(writer, context.history.gtp);
  if (context.anchorId != 0) context.anchorId = kFirstFileId + ++writer.filesDeclared;
  context.fileId = kFirstFileId + ++writer.filesDeclared;
  writer.inOrder.push_back(&context);
}

void KLT_InitWFileHandle(KLT_WFileHandle& writer) {
  for (const uint32_t category :
       {klt::kMessages, klt::kCollops, klt::kStatistics, klt::kErrors, klt::kDeclarations}) {
    KLT_CreateContext(writer, category, 0);
  }
}

const char* KLT_OpenContext(KLT_WFileHandle& writer, KLT_WriteContext& context, std::string& name) {
  name = writer.name + '.' + context.suffix;
  context.data.file = openComponent(writer, name);
  if (context.data.file == nullptr) return "Could not open data file";
  context.opened = true;
  context.nextAnchor = KLT_WFileHandle::kChunkBytes;
  if (context.anchorId != 0) {
    name += ".anc";
    context.anchors.file = openComponent(writer, name);
    if (context.anchors.file == nullptr) {
      KLT_IoClose(context.data.file);
      context.opened = false;
      return "Could not open an anchor file";
    }
  }
  // A reader inflates these components if both bits are set.
  if ((writer.flags & 3) == 3 && (context.categories & (klt::kFunctions | klt::kRawEvents)) != 0) {
    context.deflate = std::make_unique<KLT_Deflate>();
  }
  return nullptr;
}

KLT_WriteContext* KLT_MakeWriteContext(KLT_WFileHandle& writer, uint32_t category,
                                       uint32_t thread) {
  const PAL_Place here;
  const uint32_t place = writer.placeOf(category, thread);
  KLT_WriteContext* context =
      place != 0 ? writer.contexts[place - 1].get() : &KLT_CreateContext(writer, category, thread);
  if (context->broken) return nullptr;
  std::string name;
  const char* error = KLT_OpenContext(writer, *context, name);
  if (error == nullptr) return context;
  context->broken = true;  // so that the failure is reported once, not for every record
  writer.failed = true;
  if (errno != 0) PAL_Perror(name.c_str());
  PAL_Error("%s", error);
  return nullptr;
}

void KLT_FlushContext(KLT_WFileHandle& writer, KLT_WriteContext& context, bool anchors,
                      bool final) {
  KLT_WriteBuffer& buffer = anchors ? context.anchors : context.data;
  size_t& used = anchors ? context.anchorsUsed : context.dataUsed;
  KLT_Deflate* deflate = anchors ? nullptr : context.deflate.get();
  const bool hasWork = used != 0 || (final && deflate != nullptr);
  if (buffer.file != nullptr && hasWork) {
    errno = 0;
    const bool written =
        deflate != nullptr
            ? deflate->write(buffer.file, buffer.bytes.get(), used, final)
            : KLT_IoWrite(buffer.file, buffer.bytes.get(), used) == static_cast<int64_t>(used);
    if (!written) {
      dropComponent(writer, context, buffer);
    } else if (!anchors) {
      context.flushed += used;
    }
  }
  used = 0;
  if (!anchors) context.setFastPathEnd();
}

uint8_t* KLT_WriteContext::makeRoom(KLT_WFileHandle& writer, size_t bytes) {
  const PAL_Place here;
  if (dataUsed + bytes > KLT_WriteBuffer::kFlushBytes)
    KLT_FlushContext(writer, *this, false, false);
  if (data.lost) return nullptr;
  const size_t wanted = dataUsed + bytes;
  if (data.size < wanted) {
    const size_t size = std::max(kFirstBuffer, 2 * data.size);
    data.grow(std::max(wanted, std::min(size, KLT_WriteBuffer::kFlushBytes)), dataUsed);
    setFastPathEnd();
  }
  return data.bytes.get() + dataUsed;
}

bool KLT_WriteContext::replace(KLT_WFileHandle& writer, uint64_t position, const uint8_t* record,
                               size_t bytes) {
  if (data.lost) return false;
  if (position >= flushed) {
    std::copy_n(record, bytes, data.bytes.get() + (position - flushed));
    return true;
  }
  errno = 0;
  if (KLT_IoSeek(data.file, static_cast<int64_t>(position), SEEK_SET) !=
          static_cast<int64_t>(position) ||
      KLT_IoWrite(data.file, record, bytes) != static_cast<int64_t>(bytes)) {
    dropComponent(writer, *this, data);
    return false;
  }
  if (KLT_IoSeek(data.file, 0, SEEK_END) != static_cast<int64_t>(flushed)) {
    PAL_Error("unexpected file size when writing incomplete data to file.");
    writer.failed = true;
  }
  return true;
}

void KLT_CloseContext(KLT_WFileHandle& writer, KLT_WriteContext& context) {
  KLT_FlushContext(writer, context, true, true);
  KLT_FlushContext(writer, context, false, true);
  for (KLT_WriteBuffer* buffer : {&context.anchors, &context.data}) {
    if (buffer->file == nullptr) continue;
    errno = 0;
    if (KLT_IoClose(buffer->file) != 0) dropComponent(writer, context, *buffer);
    buffer->file = nullptr;
    buffer->release();
  }
  context.setFastPathEnd();
}
