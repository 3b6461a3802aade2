// Both halves of the sink.
#include "generic/sink/RK_wtrace.h"

#include <memory>
#include <string_view>

#include "generic/options/RK_conf.h"
#include "generic/sink/kltt_binary.h"
#include "generic/text/RK_rkf.h"
#include "klt/write/klt_write.h"
#include "util/pal_error.h"
#include "util/triplets/pal_triplets.h"

RK_Sink* RK_SinkOpenAscii(const char* name, int32_t kind) {
  auto sink = std::make_unique<RK_Sink>();
  sink->kind = kind;
  sink->name = name;
  if (sink->name == "-") {
    sink->output = RK_Stdout();
  } else {
    const std::string& directory = RK_conf.current_dir;
    sink->output = RK_OutputOpen(name, directory.empty() ? nullptr : directory.c_str());
  }
  return sink->output ? sink.release() : nullptr;
}

KLT_WFileHandle* RK_OpenWriter(const char* name, const KLT_StatsParameters& parameters,
                               KLT_FileSet untouchable) {
  constexpr uint32_t kFlags = 0x2;  // streams may be compressed, but only in a raw trace
  int form = KLT_FORM_PLAIN;
  if (RK_conf.output_single_file != 0) {
    // Only what is written in sequence can go to a pipe.
    form = std::string_view(name) == "-" ? KLT_FORM_SERIAL : KLT_FORM_SINGLE;
  }
  const std::string& directory = RK_conf.current_dir;
  return KLT_WriterOpen(directory.empty() ? nullptr : directory.c_str(), name, 1, form, kFlags,
                        &parameters, std::move(untouchable));
}

RK_Sink* RK_SinkOpenKlt(KLT_WFileHandle* writer, const char* name) {
  if (writer == nullptr) return nullptr;
  auto sink = std::make_unique<RK_Sink>();
  sink->kind = 1;
  sink->writer = writer;
  sink->name = name;
  return sink.release();
}

namespace {

int closeWriter(KLT_WFileHandle* writer) {
  bool complete = false;
  if (const char* error = KLT_WriterClose(writer, &complete)) PAL_Error("%s", error);
  return complete ? 0 : 1;
}

// A file reference is a plain path, or "!path!..." with more that the definition doesn't keep.
std::string_view pathOf(std::string_view reference) {
  if (!reference.starts_with('!')) return reference;
  reference.remove_prefix(1);
  return reference.substr(0, reference.find('!'));
}

}  // namespace

int RK_SinkClose(RK_Sink* sink, int32_t) {
  const std::unique_ptr<RK_Sink> owner(sink);
  if (sink && sink->writer) return closeWriter(sink->writer);
  return sink && sink->output ? RK_OutputClose(sink->output) : 0;
}

void RK_SinkAbandon(RK_Sink* sink) {
  const std::unique_ptr<RK_Sink> owner(sink);
  if (sink && sink->writer) KLT_WriterFree(sink->writer);
}

int RK_SinkDefineFile(RK_Sink* sink, uint32_t id, const char* path, uint32_t* outId) {
  *outId = id;
  if (sink->writer != nullptr) {
    if (!sink->definedFiles.insert(id).second) return 0;
    const std::string name(pathOf(path == nullptr ? "" : path));
    return KLTT_PutFile(sink->writer, id, name.c_str());
  }
  return RK_WriteFileToken(sink->output, id, path);
}

int RK_SinkDefineCommunicator(RK_Sink* sink, const char* name, uint32_t id, uint32_t memberCount,
                              const int32_t* members, uint32_t flags) {
  // Unsorted, for the order of the members is their rank.
  const PAL_Triplets triplets = PAL_TripletsCompress({members, memberCount}, false);
  if (sink->writer != nullptr) {
    return KLTT_PutCommunicator(sink->writer, id, name, triplets, flags);
  }
  return RK_WriteComDef(sink->output, id, memberCount, triplets, name);
}

int RK_SinkComment(RK_Output* output, uint64_t time, uint32_t gtp, const char* text) {
  if (!text) return RK_WriteComment(output, time, nullptr);
  const std::string_view view(text);
  if (!view.starts_with("ERROR: ") && !view.starts_with("QMC: ")) {
    return RK_WriteComment(output, time, text);
  }
  const int32_t cpu = static_cast<int32_t>(gtp + 1);
  const std::string report = "CPU " + std::to_string(cpu) + " " + text;
  return RK_WriteComment(output, time, report.c_str());
}
