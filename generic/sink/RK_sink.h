// RK_Sink is the output of an extraction: an interface through which the handlers report events,
// independently of the output format.
//
// A sink of kind 0 (kltt_lines) writes lines of text, a sink of kind 1 (kltt_binary) records of a
// new trace. RK_wtrace opens and closes sinks.
//
// All operations return 0, or 1 after an output error. Times are internal time unless a comment
// says otherwise.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "generic/sink/kltt_clock.h"
#include "generic/sink/kltt_queue.h"
#include "generic/tables/kltt_classes.h"
#include "generic/text/RK_output.h"
#include "generic/text/RK_rkf.h"
#include "klt/format/klt_values.h"

struct KLT_WFileHandle;

struct RK_Sink {
  explicit RK_Sink(int32_t form) : kind(form) {}
  virtual ~RK_Sink() = default;
  RK_Sink(const RK_Sink&) = delete;
  RK_Sink& operator=(const RK_Sink&) = delete;

  int32_t kind;                       // 0 text, 1 binary trace
  RK_Output* output = nullptr;        // kind 0
  int32_t timeShift = 0;              // bits by which RK_SinkTime shifts internal time right
  KLT_WFileHandle* writer = nullptr;  // kind 1
  std::string name;
  size_t longestComment = SIZE_MAX;  // bytes; further bytes of a comment don't change the output

  // Definitions. The arguments are the records' fields; a communicator's `flags` are its left_size.
  virtual int processDeclaration(std::span<const uint32_t> threads, uint64_t total) = 0;
  virtual int willyName(uint32_t gtp, const char* name) = 0;
  virtual int clockResolution(double resolution, uint32_t eventBits) = 0;
  virtual int duration(uint64_t start, uint64_t end) = 0;
  // `defined` isn't in `classes` yet; the caller adds it after this call.
  virtual int classDefinition(const KLTT_Classes& classes, KLTT_Class& defined,
                              const char* nameSelf) = 0;
  virtual int functionDefinition(uint32_t id, const char* name, uint32_t classId) = 0;
  virtual int scopeDefinition(uint32_t id, const char* name, uint32_t classId, uint32_t startScl,
                              uint32_t endScl) = 0;
  virtual int communicatorDefinition(uint32_t id, const char* name, uint32_t memberCount,
                                     PAL_TripletSpan members, uint32_t flags) = 0;
  virtual int collectiveOperationDefinition(uint32_t id, const char* name, uint32_t kind) = 0;
  virtual int counterDefinition(uint32_t id, const char* name, uint32_t flags,
                                const uint64_t* bounds, uint32_t gtp, uint32_t classId,
                                const char* unit) = 0;
  virtual int groupDefinition(uint32_t id, const char* name, std::span<const uint32_t> members) = 0;
  virtual int fileDefinition(uint32_t id, const char* path) = 0;
  virtual int sclDefinition(uint32_t id, uint32_t n, const uint32_t* files, const uint32_t* lines,
                            const char* const* symbols, const char* const* objects) = 0;
  virtual int ioFileDefinition(uint32_t id, uint32_t communicator, const char* name) = 0;
  virtual int statisticsDefinition(uint32_t id, const char* name, uint32_t count,
                                   const char* const* labels, const char* const* units) = 0;

  // Events.
  virtual int enterFunction(uint64_t time, uint32_t gtp, uint32_t function, uint32_t scl) = 0;
  // `function` is the function that the call returns to, 0 for none.
  virtual int leaveFunction(uint64_t time, uint32_t gtp, uint32_t function, uint32_t scl) = 0;
  virtual int enterScope(uint64_t time, uint32_t gtp, uint32_t scope, uint32_t seqnr,
                         uint32_t scl) = 0;
  virtual int leaveScope(uint64_t time, uint32_t gtp, uint32_t scope, uint32_t seqnr,
                         uint32_t scl) = 0;
  virtual int comment(uint64_t time, uint32_t gtp, const char* text) = 0;
  virtual int opaqueData(uint64_t time, uint32_t gtp, uint32_t size, const uint8_t* data,
                         uint32_t scl) = 0;
  virtual int fileIoBegin(uint64_t time, uint32_t gtp, uint32_t operation, uint32_t file,
                          uint32_t bytes, uint32_t scl) = 0;
  virtual int fileIoEnd(uint64_t time, uint32_t gtp, uint32_t operation, uint32_t file,
                        uint32_t bytes, uint32_t scl) = 0;

  // Events that can also be part of a history. `clock.inHistory` says whether they are.
  virtual int counterValue(KLTT_Clock& clock, uint64_t time, uint32_t gtp, uint32_t count,
                           const uint32_t* counters, const uint8_t* types,
                           const uint64_t* values) = 0;
  // The times of messages and collective operations are raw.
  virtual int message(KLTT_Clock& clock, const RK_Message& message) = 0;
  virtual int collective(KLTT_Clock& clock, const RK_Collective& operation) = 0;

  // A number that grows with every event that is written: bytes of text, or records.
  [[nodiscard]] virtual uint64_t amount() const { return RK_OutputBytes(output); }
  // Writes what follows the events, before the output is closed.
  virtual int finish() { return 0; }

  // Writes a node of the queue when its time is reached. Not called for comments.
  virtual int delayed(uint64_t time, const KLTT_Delayed& node) = 0;
};

// Internal time in the form that text shows: shifted right by `timeShift` (to the left if
// negative). The two values for an unknown time are returned unchanged.
[[nodiscard]] inline uint64_t RK_SinkTime(const RK_Sink* sink, uint64_t time) {
  if (time == klt::kReceiveUnknown || time == klt::kSendUnknown) [[unlikely]]
    return time;
  const int64_t shift = sink->timeShift;
  if (shift >= 0) return time >> (shift < 63 ? shift : 63);
  return time << (shift > -63 ? -shift : 63);
}
