// The text half of the sink.
#include "generic/RK_wtrace.h"

#include <memory>
#include <string_view>

#include "generic/RK_conf.h"
#include "generic/RK_rkf.h"
#include "util/pal_triplets.h"

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

int RK_SinkClose(RK_Sink* sink, int32_t) {
  const std::unique_ptr<RK_Sink> owner(sink);
  return sink && sink->output ? RK_OutputClose(sink->output) : 0;
}

int RK_SinkDefineFile(RK_Sink* sink, uint32_t id, const char* path, uint32_t* outId) {
  *outId = id;
  return RK_WriteFileToken(sink->output, id, path);
}

int RK_SinkDefineCommunicator(RK_Sink* sink, const char* name, uint32_t id, uint32_t memberCount,
                              const int32_t* members, uint32_t) {
  // Unsorted, for the order of the members is their rank.
  const PAL_Triplets triplets = PAL_TripletsCompress({members, memberCount}, false);
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
