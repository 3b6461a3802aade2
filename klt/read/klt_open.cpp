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
#include <string>
#include <utility>

#include "klt/index/klt_generic.h"
#include "klt/read/klt_deliver.h"
#include "klt/read/klt_plan.h"
#include "klt/read/klt_reader.h"
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

bool isStatistics(const KLT_Component& component) {
  return component.dataFile->filetype == static_cast<uint32_t>(KLT_FileType::kStatistics);
}

bool hasEvents(const KLT_Component& component) {
  return component.dataFile != nullptr &&
         (isStatistics(component) ||
          component.dataFile->filetype == static_cast<uint32_t>(KLT_FileType::kData));
}

// The categories of a component that a request selects; 0 if the component has nothing for it.
uint32_t commonCategories(const KLT_Component& component, uint32_t asked) {
  const uint32_t stored = component.categories;
  if (isStatistics(component) && asked != klt::kStatistics) return 0;
  uint32_t common = stored & asked;
  if ((asked & kAny) != 0) {
    common = stored;
  } else if ((stored & kAny) != 0 && (asked != klt::kStatistics || isStatistics(component))) {
    common = asked;
  }
  return (common & kAny) != 0 ? klt::kWholeSelection : common;
}

// Makes the requests of components. Those with the same categories and the same relation to the
// requests of the pass share them.
class RequestMaker {
 public:
  RequestMaker(KLT_RequestPlan& plan, KLT_ThreadLists& lists) : plan_(plan), lists_(lists) {}

  // Null if the component has nothing for any request. `own`: its threads.
  std::shared_ptr<const KLT_StreamRequests> of(const KLT_Component& component,
                                               const KLT_ThreadList* own) {
    if (own != own_) {
      own_ = own;
      relation_ = own->empty() ? plan_.relationToAny() : plan_.relationTo(own);
    }
    auto& known = known_[keyOf(component)];
    if (known == nullptr) known = make(component);
    return known->list.empty() ? nullptr : known;
  }

 private:
  std::string keyOf(const KLT_Component& component) const {
    std::string key = {isStatistics(component), own_->empty()};
    const auto append = [&key](uint32_t number) {
      key.append(reinterpret_cast<const char*>(&number), sizeof number);
    };
    append(component.categories);
    for (const KLT_RequestPlan::Part& part : relation_) {
      append(part.list);
      append(part.threads->id());
    }
    return key;
  }

  std::shared_ptr<const KLT_StreamRequests> make(const KLT_Component& component) {
    auto requests = std::make_shared<KLT_StreamRequests>();
    const KLT_ThreadList* lastSet = nullptr;
    for (const KLT_RequestPlan::Piece& piece : plan_.piecesOf(relation_, own_->empty())) {
      KLT_StreamRequest request;
      request.start = piece.start;
      request.end = piece.end;
      request.asked = piece.categories;
      request.categories = commonCategories(component, piece.categories);
      if (request.categories == 0) continue;
      if (piece.given != own_ && !piece.given->empty()) {
        request.threads = piece.given;
        request.testThreads = own_->empty() || !lists_.areEqual(piece.given, own_);
      }
      const KLT_ThreadList* set = request.testThreads ? piece.threads : own_;
      add(*requests, request, set == std::exchange(lastSet, set));
    }
    requests->list.shrink_to_fit();
    return requests;
  }

  // Appends a request, or extends the last one if the two can be joined.
  static void add(KLT_StreamRequests& to, const KLT_StreamRequest& request, bool sameThreads) {
    to.asked |= request.categories;
    KLT_StreamRequest* last = to.list.empty() ? nullptr : &to.list.back();
    if (sameThreads && last != nullptr && last->categories == request.categories &&
        request.start <= last->end) {
      last->end = std::max(last->end, request.end);
    } else {
      to.list.push_back(request);
    }
  }

  KLT_RequestPlan& plan_;
  KLT_ThreadLists& lists_;
  const KLT_ThreadList* own_ = nullptr;  // that `relation_` belongs to
  KLT_RequestPlan::Relation relation_;
  PAL_HashMap<std::string, std::shared_ptr<const KLT_StreamRequests>> known_;
};

std::unique_ptr<KLT_Stream> makeStream(KLT_Reader& reader, const KLT_FileEntry* file,
                                       uint32_t categories) {
  auto stream = std::make_unique<KLT_Stream>();
  stream->pass = &reader.pass;
  stream->source.file = file;
  stream->source.categories = categories;
  stream->source.threads = reader.pass.lists.none();
  return stream;
}

void addWholeStream(KLT_Reader& reader, const KLT_FileEntry* file, uint32_t categories) {
  auto stream = makeStream(reader, file, categories);
  KLT_StreamRequest request;
  request.categories = request.asked = categories;
  stream->requests.set(std::make_shared<KLT_StreamRequests>(
      KLT_StreamRequests{.list = {request}, .asked = categories}));
  reader.streams.push_back(std::move(stream));
}

// The order of the streams is that of the components. Their requests are made list by list.
void addEventStreams(KLT_Reader& reader, std::span<const KLT_Request* const> requests) {
  KLT_ThreadLists& lists = reader.pass.lists;
  KLT_RequestPlan plan(requests, lists);
  PAL_HashMap<uint32_t, const KLT_ThreadList*> ownLists;  // by their ids in the trace
  std::vector<std::unique_ptr<KLT_Stream>> streams;
  for (KLT_Component* component : KLT_ComponentsInOrder(*reader.pass.handle)) {
    if (!hasEvents(*component)) continue;
    streams.push_back(makeStream(reader, component->dataFile, component->categories));
    streams.back()->source.component = component;
    if (component->willies == nullptr) continue;
    const KLT_ThreadList*& own = ownLists[component->listId];
    if (own == nullptr) own = lists.share(*component->willies);
    streams.back()->source.threads = own;
  }
  std::vector<KLT_Stream*> byList;
  for (const auto& stream : streams) byList.push_back(stream.get());
  std::sort(byList.begin(), byList.end(), [](const KLT_Stream* a, const KLT_Stream* b) {
    return a->source.threads->id() < b->source.threads->id();
  });
  RequestMaker maker(plan, lists);
  for (KLT_Stream* stream : byList) {
    if (auto own = maker.of(*stream->source.component, stream->source.threads)) {
      stream->requests.set(std::move(own));
    }
  }
  for (auto& stream : streams) {
    if (!stream->requests.finished()) reader.streams.push_back(std::move(stream));
  }
}

// Adds the streams for the requests; for all events if there are none.
void addRequestedStreams(KLT_Reader& reader, uint32_t numRequests,
                         const KLT_Request* const* requests) {
  std::vector<KLT_Request> copies(std::max(numRequests, 1U));
  copies[0].categories = kAny;
  std::vector<const KLT_Request*> pointers;
  for (uint32_t i = 0; i < copies.size(); ++i) {
    if (i < numRequests) copies[i] = *requests[i];
    if ((copies[i].categories & klt::kStatistics) != 0) {
      copies[i].categories = klt::kStatistics;
      copies[i].threads.clear();
    }
    pointers.push_back(&copies[i]);
  }
  addEventStreams(reader, pointers);
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

namespace {

// A reader without streams.
std::unique_ptr<KLT_Reader> makeReader(KLT_FileHandle* handle, int mode,
                                       const KLT_HandlerTable* table, int serial) {
  auto reader = std::make_unique<KLT_Reader>();
  reader->pass.handle = handle;
  reader->pass.handlers = *table;
  reader->pass.serial = serial != 0;
  reader->pass.once = mode == KLT_MODE_EVENTS_ONCE;
  reader->pass.fillsTables = mode == KLT_MODE_INTERNAL;
  for (const KLT_Row& row : kKltRows) {
    reader->pass.hasHandler[row.number] = KLT_HasHandler(*table, row.number);
  }
  return reader;
}

}  // namespace

KLT_Reader* KLT_OpenReader(KLT_FileHandle* handle, int mode, uint32_t numRequests,
                           const KLT_Request* const* requests, const KLT_HandlerTable* table,
                           int serial) {
  auto reader = makeReader(handle, mode, table, serial);
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
    addRequestedStreams(*reader, numRequests, requests);
  }
  KLT_PrepareDelivery(*reader);
  KLT_OpenStreams(*reader);
  return reader.release();
}

KLT_Reader* KLT_OpenReaderByThread(KLT_FileHandle* handle, int mode, uint32_t numRequests,
                                   const KLT_Request* const* requests,
                                   const KLT_AloneReceiver& alone, const KLT_HandlerTable* table) {
  auto reader = makeReader(handle, mode, table, 1);
  addRequestedStreams(*reader, numRequests, requests);
  KLT_PrepareDelivery(*reader);
  reader->alone = KLT_ChooseAlone(*reader);
  if (reader->alone == nullptr) {
    alone.mergeStarts(alone.handlers.user_data);
    KLT_OpenStreams(*reader);
  } else {
    reader->alone->receiver = alone;
    reader->alone->merged = std::exchange(reader->pass.handlers, alone.handlers);
  }
  return reader.release();
}

void KLT_CloseReader(KLT_Reader* reader) {
  if (reader == nullptr) return;
  for (const auto& stream : reader->streams) KLT_StreamClose(*stream);
  delete reader;
}
