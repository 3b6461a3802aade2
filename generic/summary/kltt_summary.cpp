// Summary data: the bins. See kltt_summary.h.
//
// A bin ends when a later time comes; a time equal to its end still belongs to it. The number of
// whole bins is twice the square root of the number of events, less two. The division of the span
// leaves a remainder, for which bins go on up to the one with the declared end; that one takes all
// later times too, so that a wild time makes no bins. At the close the open bin's tables are
// written, its call trees only if it is one of the whole bins.
#include "generic/summary/kltt_summary.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "generic/summary/kltt_summary_calls.h"
#include "generic/summary/kltt_summary_file.h"
#include "generic/summary/kltt_summary_tables.h"
#include "klt/index/klt_files.h"
#include "klt/index/klt_intern.h"

struct KLTT_Summary {
  uint32_t eventBits = 0;
  uint64_t binStart = 0;
  uint64_t binEnd = 0;
  uint64_t binWidth = 0;
  uint64_t binCount = 0;
  uint64_t binIndex = 0;
  uint64_t declaredEnd = 0;
  KLTT_CallTrees calls;
  KLTT_SumTables tables;
  KLTT_SumFile callFile;
  KLTT_SumFile collectiveFile;
  KLTT_SumFile messageFile;
  KLTT_SumFile counterFile;
  KLTT_SumFile reportFile;
};

namespace {

// The smallest `k` with k * k >= events, for a positive number.
uint64_t rootAbove(uint64_t events) {
  auto k = static_cast<uint64_t>(std::sqrt(static_cast<long double>(events)));
  while (k > 1 && (k - 1) * (k - 1) >= events) --k;
  while (k < (uint64_t{1} << 32) && k * k < events) ++k;
  return k;
}

void flushTables(KLTT_Summary& summary) {
  summary.tables.flushCollectives(summary.collectiveFile);
  summary.tables.flushMessages(summary.messageFile);
  summary.tables.flushCounters(summary.counterFile);
}

void flushBin(KLTT_Summary& summary) {
  if (!summary.calls.empty()) {
    summary.calls.flush(summary.callFile, summary.binStart, summary.binEnd, summary.binWidth);
  }
  flushTables(summary);
  ++summary.binIndex;
  summary.binStart = summary.binEnd;
  summary.binEnd += std::min(summary.binWidth, ~summary.binEnd);
}

// The time in the unit of the summary, with the bins written that end before it.
uint64_t advance(KLTT_Summary& summary, uint64_t time) {
  const uint64_t t = time >> summary.eventBits;
  while (summary.binEnd < t && summary.binEnd < summary.declaredEnd) [[unlikely]] flushBin(summary);
  return t;
}

}  // namespace

uint64_t KLTT_SumEventLimit(const KLT_FileHandle* input, uint64_t events) {
  constexpr uint64_t kSmallestEvent = 7;  // code, time step and thread
  if (input->compressed(KLT_FileHandle::kCompressible)) return events;
  std::vector<uint64_t> sizes;
  KLT_FileList(input, nullptr, &sizes);
  return std::min(events,
                  std::accumulate(sizes.begin(), sizes.end(), uint64_t{0}) / kSmallestEvent);
}

KLTT_Summary* KLTT_SumOpen(const char* target, uint64_t start, uint64_t span, int32_t eventBits,
                           uint64_t events, std::span<const uint32_t> threads) {
  auto summary = std::make_unique<KLTT_Summary>();
  summary->eventBits = std::min(static_cast<uint32_t>(eventBits), uint32_t{63});
  summary->declaredEnd = (start + std::min(span, ~start)) >> summary->eventBits;
  summary->binStart = start >> summary->eventBits;
  // Without a number of events one bin holds it all, whatever the shifts cut off.
  const bool isOne = events < 2;
  span = isOne ? summary->declaredEnd - summary->binStart : span >> summary->eventBits;
  summary->binCount = isOne ? 1 : 2 * (rootAbove(events) - 1);
  summary->binWidth = std::max(span / summary->binCount, uint64_t{1});
  summary->binEnd = summary->binStart + std::min(summary->binWidth, ~summary->binStart);
  for (const uint32_t thread : threads) summary->calls.addThread(thread);
  const std::string base = std::string(target) + ".sum.";
  summary->callFile.create(base + "fnc", summary->binWidth);
  summary->collectiveFile.create(base + "cop", summary->binWidth);
  summary->messageFile.create(base + "msg", summary->binWidth);
  summary->counterFile.create(base + "cnt", summary->binWidth);
  summary->reportFile.create(base + "rep", summary->binWidth);
  return summary.release();
}

bool KLTT_SumClose(KLTT_Summary* summary) {
  const std::unique_ptr<KLTT_Summary> owner(summary);
  if (summary->binIndex < summary->binCount)
    flushBin(*summary);
  else
    flushTables(*summary);
  const std::array files = {&summary->callFile, &summary->collectiveFile, &summary->messageFile,
                            &summary->counterFile, &summary->reportFile};
  for (KLTT_SumFile* file : files) file->flush();
  return std::all_of(files.begin(), files.end(),
                     [](const KLTT_SumFile* file) { return file->isComplete(); });
}

void KLTT_SumFunction(KLTT_Summary& summary, uint64_t time, uint32_t thread, uint32_t function,
                      uint32_t scl, bool entering) {
  const uint64_t t = advance(summary, time);
  if (entering)
    summary.calls.enter(t, thread, function, scl);
  else
    summary.calls.leave(t, thread);
}

void KLTT_SumCollective(KLTT_Summary& summary, uint64_t time, uint32_t root, uint32_t communicator,
                        uint32_t type, const KLTT_SumMembers& members) {
  const uint64_t t = advance(summary, time);
  summary.tables.collective(t, root, communicator, type, summary.eventBits, members);
}

void KLTT_SumMessageEvent(KLTT_Summary& summary, const KLTT_SumMessage& m) {
  const uint64_t t = advance(summary, m.time);
  summary.tables.message({.time = t,
                          .duration = m.duration >> summary.eventBits,
                          .sender = m.sender,
                          .receiver = m.receiver,
                          .communicator = m.communicator,
                          .size = m.size,
                          .tag = m.tag,
                          .senderFunction = m.senderFunction,
                          .receiverFunction = m.receiverFunction,
                          .senderScl = m.senderScl,
                          .receiverScl = m.receiverScl});
}

void KLTT_SumDefineCounter(KLTT_Summary& summary, uint32_t id, uint32_t type) {
  summary.tables.defineCounter(id, type);
}

void KLTT_SumCounters(KLTT_Summary& summary, uint64_t time, uint32_t thread, uint32_t n,
                      const uint32_t* counters, const uint64_t* values) {
  const uint64_t t = advance(summary, time);
  for (uint32_t i = 0; i < n; ++i) summary.tables.counter(t, thread, counters[i], values[i]);
}

// u64 time; u32 thread, n; texts type, level, description; n times each: u64 times, u32 threads,
// texts headers, u32 functions, texts calls, u32 scls. A text is its length as u32 and its bytes.
void KLTT_SumReportEvent(KLTT_Summary& summary, const KLTT_SumReport& r) {
  KLTT_SumFile& file = summary.reportFile;
  const uint64_t t = advance(summary, r.time);
  file.put(t);
  file.put(r.thread);
  file.put(r.n);
  for (const char* text : {r.type, r.level, r.description}) file.putText(text);
  for (uint32_t i = 0; i < r.n; ++i) file.put(r.times[i] >> summary.eventBits);
  for (uint32_t i = 0; i < r.n; ++i) file.put(r.willys[i]);
  for (uint32_t i = 0; i < r.n; ++i) file.putText(r.headers[i]);
  for (uint32_t i = 0; i < r.n; ++i) file.put(r.functions[i]);
  for (uint32_t i = 0; i < r.n; ++i) file.putText(r.calls[i]);
  for (uint32_t i = 0; i < r.n; ++i) file.put(r.scls[i]);
  file.endBlock(1);
  file.flush();
}
