// Opens and closes writers. See klt_write.h.
#include "klt/write/klt_write.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

#include "klt/write/klt_write_index.h"
#include "klt/write/klt_write_stats.h"
#include "util/pal_error.h"
#include "util/pal_mem.h"
#include "util/pal_util.h"

namespace {

constexpr uint32_t kHeaderFlags = 0xb;

// Empties the index file, because an incomplete index must not be read like a complete one. In the
// single form the file is the container with all components.
void emptyIndex(const KLT_WFileHandle& writer, int form) {
  if (form == KLT_FORM_SERIAL) return;  // standard output
  const std::string path = PAL_PathInDir(writer.directory(), writer.name);
  if (truncate(path.c_str(), 0) != 0) return;  // a device or a pipe
}

// The component of a thread's calls; null if there is none.
KLT_WriteContext* callsOf(const KLT_WFileHandle& writer, uint32_t thread) {
  const uint32_t place = writer.placeOf(klt::kFunctions, thread);
  return place == 0 ? nullptr : writer.contexts[place - 1].get();
}

}  // namespace

void KLT_WriterListThreads(KLT_WFileHandle* writer, PAL_Triplets selection) {
  writer->listsDeclared = true;
  writer->selectedThreads = std::move(selection);
}

KLT_WFileHandle* KLT_WriterOpen(const char* dir, const char* name, int writeIndex, int form,
                                uint32_t flags, const KLT_StatsParameters* stats,
                                KLT_FileSet inputFiles) {
  const PAL_Place here;
  auto writer = std::make_unique<KLT_WFileHandle>();
  writer->dir = dir == nullptr ? "" : dir;
  writer->name = name;
  writer->writeIndex = writeIndex != 0;
  writer->flags = flags & kHeaderFlags;
  writer->inputFiles = std::move(inputFiles);
  writer->container = KLT_ContainerCreate(dir, O_WRONLY | O_CREAT | O_TRUNC, 0666, form, name);
  if (writer->container == nullptr) return nullptr;
  if (writer->writeIndex) {
    writer->indexFile = KLT_IoOpen(writer->container, name);
    if (writer->indexFile == nullptr) {
      PAL_Perror(name);
      return nullptr;
    }
  }
  if (stats != nullptr) writer->fileStats = KLT_FileStatsInit(*stats);
  KLT_InitWFileHandle(*writer);
  return writer.release();
}

bool KLT_WriterFree(KLT_WFileHandle* writer) {
  const PAL_Place here;
  const std::unique_ptr<KLT_WFileHandle> owner(writer);
  for (const auto& context : writer->contexts) KLT_CloseContext(*writer, *context);
  if (writer->indexFile != nullptr && KLT_IoClose(writer->indexFile) != 0) writer->failed = true;
  const int form = KLT_ContainerForm(writer->container);
  const bool closed = KLT_ContainerClose(std::exchange(writer->container, nullptr)) == 0;
  if (!closed) writer->failed = true;
  if (writer->writeIndex && !(writer->hasIndex && closed)) emptyIndex(*writer, form);
  return !writer->failed;
}

void KLT_WriterDeferPlaces(KLT_WFileHandle* writer, bool on) {
  writer->defersPlaces = on;
  if (KLT_FileStats* stats = writer->stats()) stats->defersFunctions = on;
}

void KLT_WriterPlaceCalls(KLT_WFileHandle* writer, uint32_t thread) {
  if (KLT_WriteContext* context = callsOf(*writer, thread)) KLT_PlaceContext(*writer, *context);
}

void KLT_WriterPlaceProfile(KLT_WFileHandle* writer, uint32_t number) {
  if (KLT_FileStats* stats = writer->stats()) stats->functionOrder.push_back(number + 1);
}

KLT_WriterCounts KLT_WriterCount(const KLT_WFileHandle* writer) {
  KLT_FileStats* const stats = writer->stats();
  return {writer->contexts.size(), stats == nullptr ? 0 : stats->functions.size()};
}

void KLT_WriterRestCalls(KLT_WFileHandle* writer, uint32_t thread) {
  KLT_WriteContext* const context = callsOf(*writer, thread);
  if (context == nullptr) return;
  KLT_FlushContext(*writer, *context, true, false);
  KLT_FlushContext(*writer, *context, false, false);
  context->anchors.release();
  context->data.release();
  context->setFastPathEnd();
}

bool KLT_WriteEventCounts(KLT_WFileHandle* writer, const KLT_EventCounts& counts,
                          uint32_t textClass) {
  const KLT_EventCounts& c = counts;
  if (KLT_Write<KLT_Row::eventSummary>(writer, nullptr, c.functions, c.oneToOnes, c.collectives,
                                       c.scopes, c.counters) == 0)
    return false;
  char text[160];
  std::snprintf(
      text, sizeof text, "%s %u functions, %u onetoones, %u collectives, %u scopes, %u counters",
      kKltCountsText.data(), c.functions, c.oneToOnes, c.collectives, c.scopes, c.counters);
  return textClass == 0 || KLT_Write<KLT_Row::info>(writer, nullptr, textClass, text) != 0;
}

const char* KLT_WriterClose(KLT_WFileHandle* writer, bool* complete) {
  const PAL_Place here;
  if (!KLT_FileStatsFinish(*writer)) {
    PAL_Error("Writing statistics failed.");
    writer->failed = true;
  }
  const char* error = writer->writeIndex ? KLT_WriteIndex(*writer) : nullptr;
  if (error != nullptr) writer->failed = true;
  writer->reportWarningCounts();
  *complete = KLT_WriterFree(writer);
  return error;
}
