// The sink that writes text. See kltt_lines.h.
#include "generic/sink/kltt_lines.h"

#include <string>
#include <string_view>
#include <utility>

#include "klt/format/klt_spans.h"
#include "klt/format/klt_values.h"

namespace {

class Lines final : public RK_Sink {
 public:
  explicit Lines(RK_Output* to) : RK_Sink(0) { output = to; }

  int processDeclaration(std::span<const uint32_t> threads, uint64_t total) override {
    const auto shownTotal = static_cast<uint32_t>(total);
    if (RK_WriteNcpus(output, {&shownTotal, 1}) != 0) return 1;
    return total <= threads.size() ? 0 : RK_WriteThreadNums(output, threads);
  }
  int willyName(uint32_t gtp, const char* text) override {
    return RK_WriteCpuSym(output, gtp, text);
  }
  int clockResolution(double resolution, uint32_t eventBits) override {
    return RK_WriteClock(output, resolution, eventBits);
  }
  int duration(uint64_t start, uint64_t end) override {
    return RK_WriteDuration(output, shown(start), shown(end));
  }
  int classDefinition(const KLTT_Classes& classes, KLTT_Class& defined,
                      const char* /*nameSelf*/) override {
    const std::string path = KLTT_ClassPath(classes, defined);
    const int result = RK_WriteSampClass(output, defined.key, path.c_str());
    return result != 0 ? result : RK_WriteAct(output, defined.key, path.c_str());
  }
  int functionDefinition(uint32_t id, const char* text, uint32_t classId) override {
    return RK_WriteState(output, id, classId, text);
  }
  int scopeDefinition(uint32_t id, const char* text, uint32_t classId, uint32_t startScl,
                      uint32_t endScl) override {
    return RK_WriteScope(output, id, classId, text, startScl, endScl);
  }
  int communicatorDefinition(uint32_t id, const char* text, uint32_t memberCount,
                             PAL_TripletSpan members, uint32_t /*flags*/) override {
    return RK_WriteComDef(output, id, memberCount, members, text);
  }
  int collectiveOperationDefinition(uint32_t id, const char* text, uint32_t /*opKind*/) override {
    return RK_WriteGlobalOpToken(output, id, text);
  }
  int counterDefinition(uint32_t id, const char* text, uint32_t flags, const uint64_t* bounds,
                        uint32_t gtp, uint32_t classId, const char* unit) override {
    return RK_WriteSamp(output, id, classId, gtp, flags, bounds, text, unit);
  }
  int groupDefinition(uint32_t id, const char* text, std::span<const uint32_t> members) override {
    return RK_WriteGroup(output, id, text, members);
  }
  int fileDefinition(uint32_t id, const char* path) override {
    return RK_WriteFileToken(output, id, path);
  }
  int sclDefinition(uint32_t id, uint32_t n, const uint32_t* files, const uint32_t* lines,
                    const char* const* /*symbols*/, const char* const* /*objects*/) override {
    return RK_WriteScl(output, id, n, files, lines);
  }
  int ioFileDefinition(uint32_t id, uint32_t communicator, const char* text) override {
    return RK_WriteIoFile(output, id, communicator, text);
  }
  int statisticsDefinition(uint32_t /*id*/, const char* /*text*/, uint32_t /*count*/,
                           const char* const* /*labels*/, const char* const* /*units*/) override {
    return 0;
  }

  int enterFunction(uint64_t time, uint32_t gtp, uint32_t function, uint32_t scl) override {
    return RK_WriteExchange(output, shown(time), gtp, true, function, scl);
  }
  int leaveFunction(uint64_t time, uint32_t gtp, uint32_t function, uint32_t scl) override {
    return RK_WriteExchange(output, shown(time), gtp, false, function, scl);
  }
  int enterScope(uint64_t time, uint32_t gtp, uint32_t scope, uint32_t seqnr,
                 uint32_t scl) override {
    return RK_WriteBeginScope(output, shown(time), gtp, scope, seqnr, scl);
  }
  int leaveScope(uint64_t time, uint32_t gtp, uint32_t scope, uint32_t seqnr,
                 uint32_t scl) override {
    return RK_WriteEndScope(output, shown(time), gtp, scope, seqnr, scl);
  }
  int comment(uint64_t time, uint32_t gtp, const char* text) override {
    return RK_SinkComment(output, shown(time), gtp, text);
  }
  int opaqueData(uint64_t time, uint32_t gtp, uint32_t size, const uint8_t* data,
                 uint32_t scl) override {
    return RK_WriteOpaque(output, shown(time), gtp, size, data, scl);
  }
  int fileIoBegin(uint64_t time, uint32_t gtp, uint32_t operation, uint32_t file, uint32_t bytes,
                  uint32_t scl) override {
    return RK_WriteFileIoBegin(output, shown(time), operation, gtp, file, bytes, scl);
  }
  int fileIoEnd(uint64_t time, uint32_t gtp, uint32_t operation, uint32_t file, uint32_t bytes,
                uint32_t scl) override {
    return RK_WriteFileIoEnd(output, shown(time), operation, gtp, file, bytes, scl);
  }
  int counterValue(KLTT_Clock& /*clock*/, uint64_t time, uint32_t gtp, uint32_t count,
                   const uint32_t* counters, const uint8_t* types,
                   const uint64_t* values) override {
    return RK_WriteSamps(output, shown(time), gtp, count, counters, types, values);
  }

  // The line has the time of the send (RK_SinkTime) and the raw receiveTime. If the send isn't
  // known, it has the time of the receive (RK_SinkTime) instead of receiveTime.
  int message(KLTT_Clock& clock, const RK_Message& m) override {
    RK_Message line = m;
    line.time = shown(KLTT_InternalTime(clock, m.time));
    if (static_cast<uint64_t>(m.receiveTime) == klt::kSendUnknown) {
      line.receiveTime = static_cast<int64_t>(std::exchange(line.time, klt::kSendUnknown));
    } else if (m.receiveTime < 0 && !klt::isUnknownSide(m.receiveTime)) {
      line.time = shown(KLTT_InternalTime(clock, klt::messageEnd(m.time, m.receiveTime)));
    }
    return RK_WriteOneToOne(output, line);
  }
  int collective(KLTT_Clock& clock, const RK_Collective& operation) override {
    RK_Collective line = operation;
    line.time = shown(KLTT_InternalTime(clock, operation.time));
    return RK_WriteCollOp(output, line);
  }

  int delayed(uint64_t time, const KLTT_Delayed& node) override {
    switch (node.kind) {
      case KLTT_DelayedKind::kSendMsg:
        return RK_WriteSendMsg(output, shown(time), node.gtp, node.message);
      case KLTT_DelayedKind::kRecvMsg:
        return RK_WriteRecvMsg(output, shown(time), node.gtp, node.message);
      case KLTT_DelayedKind::kGlobalOp:
        return RK_WriteGlobalOp(output, shown(time), node.gtp,
                                static_cast<int64_t>(shown(node.operation.endTime) - shown(time)),
                                node.operation.part);
      default:
        return 0;
    }
  }

 private:
  [[nodiscard]] uint64_t shown(uint64_t time) const { return RK_SinkTime(this, time); }
};

}  // namespace

std::unique_ptr<RK_Sink> KLTT_LineSink(RK_Output* output) {
  return std::make_unique<Lines>(output);
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
