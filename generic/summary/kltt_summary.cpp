// Divides a run into bins and passes each event to the tables of its bin. See kltt_summary.h.
//
// A bin is written when an event after its end is read; an event at its end still belongs to the
// bin. The number of whole bins is 2 * (k - 1), where k is the square root of the number of events,
// rounded up. The division of the span leaves a remainder, so further bins follow, up to the bin
// that contains the declared end. All later events also belong to that bin, so that a wrong time
// doesn't cause an endless number of bins. The close writes the tables of the last bin, and its
// call trees if it is one of the whole bins.
#include "generic/summary/kltt_summary.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "generic/options/RK_hint.h"
#include "generic/summary/kltt_summary_calls.h"
#include "generic/summary/kltt_summary_file.h"
#include "generic/summary/kltt_summary_tables.h"
#include "klt/index/klt_files.h"
#include "klt/index/klt_intern.h"
#include "klt/storage/klt_compress.h"
#include "util/pal_error.h"

namespace {

// The smallest `k` with k * k >= events. REQUIRES: events > 0.
uint64_t rootAbove(uint64_t events) {
  auto k = static_cast<uint64_t>(std::sqrt(static_cast<long double>(events)));
  while (k > 1 && (k - 1) * (k - 1) >= events) --k;
  while (k < (uint64_t{1} << 32) && k * k < events) ++k;
  return k;
}

class Summary final : public KLTT_Summary {
 public:
  Summary(const char* target, uint64_t start, uint64_t span, int32_t bits, uint64_t events,
          std::span<const uint32_t> threads)
      : eventBits_(std::min(static_cast<uint32_t>(bits), uint32_t{63})),
        binStart_(start >> eventBits_),
        declaredEnd_((start + std::min(span, ~start)) >> eventBits_) {
    // Without a useful number of events there is one bin up to the declared end. Its width is the
    // difference of the shifted times, since the shifted span may be 1 less.
    const bool isOne = events < 2;
    span = isOne ? declaredEnd_ - binStart_ : span >> eventBits_;
    binCount_ = isOne ? 1 : 2 * (rootAbove(events) - 1);
    binWidth_ = std::max(span / binCount_, uint64_t{1});
    binEnd_ = binStart_ + std::min(binWidth_, ~binStart_);
    for (const uint32_t thread : threads) calls_.addThread(thread);
    createFiles(target);
  }

  // Writes the last bin. Returns true if every file is complete.
  bool close() {
    if (binIndex_ < binCount_)
      flushBin();
    else
      flushTables();
    for (KLTT_SumFile& file : files_) file.flush();
    return std::all_of(files_.begin(), files_.end(),
                       [](const KLTT_SumFile& file) { return file.isComplete(); });
  }

  void function_event(uint64_t time, uint32_t thread, uint32_t function, uint32_t scl,
                      bool entering) override {
    const uint64_t t = advance(time);
    if (entering)
      calls_.enter(t, thread, function, scl);
    else
      calls_.leave(t, thread);
  }
  void collective_event(uint64_t time, uint32_t root, uint32_t communicator, uint32_t type,
                        const KLTT_SumMembers& members) override {
    tables_.collective(advance(time), root, communicator, type, eventBits_, members);
  }
  void message_event(const KLTT_SumMessage& message) override {
    KLTT_SumMessage shifted = message;
    shifted.time = advance(message.time);
    shifted.duration = message.duration >> eventBits_;
    tables_.message(shifted);
  }
  void counter_definition(uint32_t id, uint32_t type) override { tables_.defineCounter(id, type); }
  void counter_event(uint64_t time, uint32_t thread, uint32_t n, const uint32_t* counters,
                     const uint64_t* values) override {
    const uint64_t t = advance(time);
    for (uint32_t i = 0; i < n; ++i) tables_.counter(t, thread, counters[i], values[i]);
  }
  // The record: u64 time; u32 thread, n; texts type, level, description; then n times each: u64
  // times, u32 threads, texts headers, u32 functions, texts calls, u32 scls. A text is its length
  // as u32, followed by its bytes.
  void report_event(const KLTT_SumReport& r) override {
    KLTT_SumFile& file = files_[kReports];
    file.put(advance(r.time));
    file.put(r.thread);
    file.put(r.n);
    for (const char* text : {r.type, r.level, r.description}) file.putText(text);
    for (uint32_t i = 0; i < r.n; ++i) file.put(r.times[i] >> eventBits_);
    for (uint32_t i = 0; i < r.n; ++i) file.put(r.willys[i]);
    for (uint32_t i = 0; i < r.n; ++i) file.putText(r.headers[i]);
    for (uint32_t i = 0; i < r.n; ++i) file.put(r.functions[i]);
    for (uint32_t i = 0; i < r.n; ++i) file.putText(r.calls[i]);
    for (uint32_t i = 0; i < r.n; ++i) file.put(r.scls[i]);
    file.endBlock(1);
    file.flush();
  }

 private:
  enum : size_t { kCalls, kCollectives, kMessages, kCounters, kReports, kFiles };

  // Reports each file that can't be created, but of those that exist only the first.
  void createFiles(const std::string& target) {
    int existing = 0;
    for (size_t i = 0; i < files_.size(); ++i) {
      const std::string path = target + kKlttSumSuffixes[i];
      const int error = files_[i].create(path, binWidth_);
      if (error == EEXIST && ++existing > 1) continue;
      if (error != 0) {
        PAL_Error("could not create summary file %s: %s", PAL_Printable(path).c_str(),
                  std::strerror(error));
      }
    }
    if (existing == 0) return;
    RK_Hint(
        "%d of the %zu files exist and stay as they are. Remove %s.sum.* first, or choose another "
        "name: --sumdata NAME --logfile-format KLT",
        existing, files_.size(), PAL_Printable(target).c_str());
  }

  void flushTables() {
    tables_.flushCollectives(files_[kCollectives]);
    tables_.flushMessages(files_[kMessages]);
    tables_.flushCounters(files_[kCounters]);
  }

  [[gnu::noinline, gnu::cold]] void flushBin() {
    if (!calls_.empty()) calls_.flush(files_[kCalls], binStart_, binEnd_, binWidth_);
    flushTables();
    ++binIndex_;
    binStart_ = binEnd_;
    binEnd_ += std::min(binWidth_, ~binEnd_);
  }

  // Writes the bins that end before `time`, and returns `time` in the unit of the summary.
  uint64_t advance(uint64_t time) {
    const uint64_t t = time >> eventBits_;
    while (binEnd_ < t && binEnd_ < declaredEnd_) [[unlikely]] flushBin();
    return t;
  }

  uint32_t eventBits_;
  uint64_t binStart_;
  uint64_t binEnd_ = 0;
  uint64_t binWidth_ = 0;
  uint64_t binCount_ = 0;
  uint64_t binIndex_ = 0;
  uint64_t declaredEnd_;
  KLTT_CallTrees calls_;
  KLTT_SumTables tables_;
  std::array<KLTT_SumFile, kFiles> files_;
};

}  // namespace

uint64_t KLTT_SumEventLimit(const KLT_FileHandle* input, uint64_t events) {
  constexpr uint64_t kSmallestEvent = 7;  // code, time step and thread
  const bool isCompressed = input->compressed(KLT_FileHandle::kCompressible);
  return std::min(events,
                  KLT_FileBytes(input) * (isCompressed ? kKltLargestRatio : 1) / kSmallestEvent);
}

KLTT_Summary* KLTT_SumOpen(const char* target, uint64_t start, uint64_t span, int32_t eventBits,
                           uint64_t events, std::span<const uint32_t> threads) {
  return std::make_unique<Summary>(target, start, span, eventBits, events, threads).release();
}

bool KLTT_SumClose(KLTT_Summary* summary) {
  const std::unique_ptr<Summary> owner(static_cast<Summary*>(summary));
  return owner->close();
}
