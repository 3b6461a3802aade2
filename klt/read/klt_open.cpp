// Opens traces and builds readers.
//
// Index header, 11 bytes:
//   offset 0  "KLT"
//          3  version byte 0x40; bits 0xc0: the index contains record layouts
//          4  0 0 0
//          7  flags: 1 raw, 2 compressed (with 1), 8 without meaning
//          8  0 0 0x14
// After the header: layout entries, one for each record number in use, and structure records.

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "klt/index/klt_generic.h"
#include "klt/read/klt_deliver.h"
#include "klt/read/klt_reader.h"
#include "klt/stream/klt_filter.h"
#include "klt/stream/klt_position.h"
#include "util/pal_error.h"
#include "util/pal_util.h"

namespace {

using klt::kAny;

constexpr std::array<uint8_t, 11> kHeader = {'K', 'L', 'T', 0x40, 0, 0, 0, 0, 0, 0, 0x14};
constexpr size_t kFlagsAt = 7;

// --- the index ----------------------------------------------------------------------------------

bool reportAndFail(const char* format, const KLT_FileHandle& handle) {
  PAL_Error(format, PAL_Printable(handle.base).c_str());  // NOLINT: the formats are constants
  return false;
}

bool acceptHeader(KLT_FileHandle& handle, size_t bytes) {
  uint8_t* header = handle.header;
  if (bytes < kHeader.size()) return reportAndFail("File %s is corrupted.\nAborting.", handle);
  handle.flags = header[kFlagsAt];
  header[kFlagsAt] = 0;
  const bool same = std::equal(kHeader.begin(), kHeader.end(), header);
  header[kFlagsAt] = static_cast<uint8_t>(handle.flags);
  if (same) return true;
  if (std::memcmp(header, "KLT", 3) != 0) {
    return reportAndFail("File %s is not KLT.\nAborting.", handle);
  }
  constexpr uint8_t kStatesLayouts = 0xc0;
  if ((header[3] & kStatesLayouts) != 0) return true;
  return reportAndFail("File %s is of incompatible KLT version.\nAborting.", handle);
}

bool genericOnlyAsked() {
  if (PAL_fast == PAL_Fast::kNever) return true;
  const char* value = std::getenv("KLT_GENERIC_ONLY");
  return value != nullptr && std::strtol(value, nullptr, 10) != 0;
}

// --- streams ------------------------------------------------------------------------------------

bool categoriesMatch(const KLT_Component& component, const KLT_Request& request) {
  if (component.dataFile->filetype == static_cast<uint32_t>(KLT_FileType::kStatistics)) {
    return request.categories == klt::kStatistics;
  }
  return (component.categories & request.categories) != 0 ||
         ((component.categories & kAny) != 0 && request.categories != klt::kStatistics) ||
         (request.categories & kAny) != 0;
}

bool threadsMatch(const KLT_Component& component, const KLT_Request& request) {
  return component.willies == nullptr || component.willies->empty() || request.threads.empty() ||
         PAL_TripletsOverlap(*component.willies, request.threads);
}

uint32_t commonCategories(uint32_t component, uint32_t request) {
  uint32_t common = component & request;
  if ((request & kAny) != 0) {
    common = component;
  } else if ((component & kAny) != 0) {
    common = request;
  }
  return (common & kAny) != 0 ? klt::kWholeSelection : common;
}

// The part of the request that applies to the component, if there is any.
std::optional<KLT_StreamRequest> restrict(const KLT_Component& component,
                                          const KLT_Request& request) {
  KLT_StreamRequest own;
  own.start = request.start;
  own.end = request.end;
  own.asked = request.categories;
  own.categories = commonCategories(component.categories, request.categories);
  if (own.categories == 0) return std::nullopt;
  const bool componentHas = component.willies != nullptr && !component.willies->empty();
  if (request.threads.empty()) {
    if (componentHas) own.threads = *component.willies;
  } else if (!componentHas) {
    own.threads = request.threads;
    own.testThreads = true;
  } else {
    own.threads = PAL_TripletsIntersect(request.threads, *component.willies);
    if (own.threads.empty()) return std::nullopt;
    own.testThreads = !PAL_TripletsEqual(own.threads, *component.willies);
  }
  if (own.testThreads) own.set = PAL_TripletSet(own.threads);
  return own;
}

std::unique_ptr<KLT_Stream> makeStream(KLT_Reader& reader, const KLT_FileEntry* file,
                                       uint32_t categories) {
  auto stream = std::make_unique<KLT_Stream>();
  stream->pass = &reader.pass;
  stream->source.file = file;
  stream->source.categories = categories;
  return stream;
}

void addWholeStream(KLT_Reader& reader, const KLT_FileEntry* file, uint32_t categories) {
  auto stream = makeStream(reader, file, categories);
  KLT_StreamRequest request;
  request.categories = request.asked = categories;
  stream->requests.add(std::move(request));
  reader.streams.push_back(std::move(stream));
}

void addEventStreams(KLT_Reader& reader) {
  for (KLT_Component* component : KLT_ComponentsInOrder(*reader.pass.handle)) {
    if (component->dataFile == nullptr) continue;
    if (component->dataFile->filetype != static_cast<uint32_t>(KLT_FileType::kData) &&
        component->dataFile->filetype != static_cast<uint32_t>(KLT_FileType::kStatistics)) {
      continue;
    }
    std::unique_ptr<KLT_Stream> stream;
    for (const KLT_Request& request : reader.requests) {
      if (!categoriesMatch(*component, request) || !threadsMatch(*component, request)) continue;
      std::optional<KLT_StreamRequest> own = restrict(*component, request);
      if (!own) continue;
      if (stream == nullptr) {
        stream = makeStream(reader, component->dataFile, component->categories);
        stream->source.component = component;
      }
      stream->requests.add(std::move(*own));
    }
    if (stream != nullptr) reader.streams.push_back(std::move(stream));
  }
}

void copyRequests(KLT_Reader& reader, uint32_t numRequests, const KLT_Request* const* requests) {
  if (numRequests == 0) {
    reader.requests.emplace_back().categories = kAny;
    return;
  }
  std::vector<KLT_Request> copies(numRequests);
  std::vector<const KLT_Request*> pointers;
  for (uint32_t i = 0; i < numRequests; ++i) {
    copies[i] = *requests[i];
    if ((copies[i].categories & klt::kStatistics) != 0) {
      copies[i].categories = klt::kStatistics;
      copies[i].threads.clear();
    }
    pointers.push_back(&copies[i]);
  }
  reader.requests = KLT_NormaliseRequests(pointers);
}

// Opens the streams and, for delivery in time order, fills each of them once.
void openStreams(KLT_Reader& reader) {
  KLT_PrepareDelivery(reader);
  for (size_t i = 0; i < reader.streams.size(); ++i) {
    KLT_Stream& stream = *reader.streams[i];
    const bool isOpen = stream.source.io != nullptr || KLT_StreamOpen(stream);
    if (isOpen) reader.bytesTotal += stream.input.length();
    if (!reader.pass.serial) continue;
    if (isOpen) (void)KLT_FillStream(stream);
    reader.lanes[i].isFilled = true;
  }
}

// Opens the index and reads its header, for a reader of KLT_MODE_INTERNAL. False after a report.
bool openIndexStream(KLT_Reader& reader) {
  KLT_FileHandle& handle = *reader.pass.handle;
  KLT_Stream& stream = *reader.streams.front();
  errno = 0;
  KLT_IoFile* file = KLT_IoOpen(handle.container, handle.base.c_str());
  stream.source.io = file;
  if (file == nullptr) {
    PAL_Perror(handle.base.c_str());
    return reportAndFail("Could not open indexfile %s for reading.\nAborting.", handle);
  }
  const int64_t bytes = KLT_IoRead(file, handle.header, kHeader.size());
  if (!acceptHeader(handle, bytes < 0 ? 0 : static_cast<size_t>(bytes))) return false;
  handle.decoders = std::make_unique<KLT_DecoderTable>();
  handle.genericOnly = genericOnlyAsked();
  stream.source.firstOffset = kHeader.size();
  if (!stream.input.attach(file, handle.base.c_str(), "", kHeader.size())) {
    return reportAndFail("File %s is corrupted.\nAborting.", handle);
  }
  (void)KLT_EnterRequest(stream);
  return true;
}

}  // namespace

bool KLT_IsTrace(const char* name) {
  KLT_Container* container = KLT_ContainerOpen(nullptr, name, O_RDONLY, 0);
  if (container == nullptr) return false;
  KLT_IoFile* index = KLT_IoOpen(container, name);
  uint8_t header[kHeader.size()] = {};
  const bool isTrace = index != nullptr &&
                       KLT_IoRead(index, header, sizeof header) == int64_t{sizeof header} &&
                       std::memcmp(header, "KLT", 3) == 0;
  if (index != nullptr) KLT_IoClose(index);
  KLT_ContainerClose(container);
  return isTrace;
}

KLT_FileHandle* KLT_Open(const char* name) {
  auto handle = std::make_unique<KLT_FileHandle>();
  handle->base = name;
  handle->container = KLT_ContainerOpen(nullptr, name, O_RDONLY, 0);
  if (handle->container == nullptr) return nullptr;
  const KLT_HandlerTable none;
  KLT_Reader* reader = KLT_OpenReader(handle.get(), KLT_MODE_INTERNAL, 0, nullptr, &none, 1);
  if (reader == nullptr) return nullptr;
  const int status = KLT_ReadEvents(reader, -1);
  handle->lostData = KLT_ReaderLostData(reader);
  KLT_CloseReader(reader);
  if (status != KLT_STATUS_FINISHED) return nullptr;
  if (!handle->lostData) KLT_ReportUnreadFiles(*handle);
  return handle.release();
}

void KLT_Close(KLT_FileHandle* handle) { delete handle; }

KLT_Reader* KLT_OpenReader(KLT_FileHandle* handle, int mode, uint32_t numRequests,
                           const KLT_Request* const* requests, const KLT_HandlerTable* table,
                           int serial) {
  auto reader = std::make_unique<KLT_Reader>();
  reader->pass.handle = handle;
  reader->pass.handlers = *table;
  reader->pass.serial = serial != 0;
  reader->pass.once = mode == KLT_MODE_EVENTS_ONCE;
  reader->pass.fillsTables = mode == KLT_MODE_INTERNAL;
  for (const KLT_Row& row : kKltRows) {
    reader->pass.hasHandler[row.number] = KLT_HasHandler(*table, row.number);
  }
  if (mode == KLT_MODE_EVENTS || mode == KLT_MODE_EVENTS_ONCE) {
    copyRequests(*reader, numRequests, requests);
  }
  if (mode == KLT_MODE_INTERNAL) {
    addWholeStream(*reader, nullptr, klt::kInternal);
    if (!openIndexStream(*reader)) {
      KLT_CloseReader(reader.release());
      return nullptr;
    }
  } else if (mode == KLT_MODE_DEFINITIONS) {
    if (const KLT_FileEntry* file = KLT_DeclarationsFile(*handle)) {
      addWholeStream(*reader, file, klt::kDeclarations);
    }
  } else {
    addEventStreams(*reader);
  }
  openStreams(*reader);
  return reader.release();
}

void KLT_CloseReader(KLT_Reader* reader) {
  if (reader == nullptr) return;
  for (const auto& stream : reader->streams) KLT_StreamClose(*stream);
  delete reader;
}
