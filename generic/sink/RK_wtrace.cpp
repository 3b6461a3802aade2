// Opens and closes sinks. See RK_wtrace.h.
#include "generic/sink/RK_wtrace.h"

#include <memory>
#include <string_view>

#include "generic/sink/kltt_binary.h"
#include "generic/sink/kltt_lines.h"
#include "generic/text/RK_output.h"
#include "klt/write/klt_write.h"
#include "util/pal_error.h"
#include "util/triplets/pal_triplets.h"

RK_Sink* RK_SinkOpenAscii(const char* name, int32_t kind, const RK_SinkSettings& settings) {
  RK_Output* output =
      std::string_view(name) == "-" ? RK_Stdout() : RK_OutputOpen(name, settings.directory);
  if (output == nullptr) return nullptr;
  output->extended = settings.extended;
  std::unique_ptr<RK_Sink> sink = KLTT_LineSink(output);
  sink->kind = kind;
  sink->name = name;
  return sink.release();
}

KLT_WFileHandle* RK_OpenWriter(const char* name, const KLT_StatsParameters& parameters,
                               KLT_FileSet untouchable, const RK_SinkSettings& settings) {
  constexpr uint32_t kFlags = 0x2;  // streams may be compressed, but only in a raw trace
  int form = KLT_FORM_PLAIN;
  if (settings.singleFile) {
    // Standard output may be a pipe, which must be written sequentially.
    form = std::string_view(name) == "-" ? KLT_FORM_SERIAL : KLT_FORM_SINGLE;
  }
  return KLT_WriterOpen(settings.directory, name, 1, form, kFlags, &parameters,
                        std::move(untouchable));
}

RK_Sink* RK_SinkOpenKlt(KLT_WFileHandle* writer, const char* name, KLTT_Queue& pending) {
  if (writer == nullptr) return nullptr;
  std::unique_ptr<RK_Sink> sink = KLTT_RecordSink(writer, pending);
  sink->name = name;
  return sink.release();
}

namespace {

int closeWriter(KLT_WFileHandle* writer) {
  bool complete = false;
  if (const char* error = KLT_WriterClose(writer, &complete)) PAL_Error("%s", error);
  return complete ? 0 : 1;
}

}  // namespace

int RK_SinkClose(RK_Sink* sink, int32_t) {
  const std::unique_ptr<RK_Sink> owner(sink);
  if (sink) (void)sink->finish();
  if (sink && sink->writer) return closeWriter(sink->writer);
  return sink && sink->output ? RK_OutputClose(sink->output) : 0;
}

void RK_SinkAbandon(RK_Sink* sink) {
  const std::unique_ptr<RK_Sink> owner(sink);
  if (sink && sink->writer) KLT_WriterFree(sink->writer);
}

int RK_SinkDefineFile(RK_Sink* sink, uint32_t id, const char* path, uint32_t* outId) {
  *outId = id;
  return sink->fileDefinition(id, path);
}

int RK_SinkDefineCommunicator(RK_Sink* sink, const char* name, uint32_t id, PAL_TripletSpan members,
                              uint32_t flags) {
  // Not sorted, because the order of the members is their rank.
  return sink->communicatorDefinition(id, name, PAL_TripletsCount(members),
                                      PAL_TripletsCompress(members), flags);
}
