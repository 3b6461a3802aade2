// Writes seek points. See klt_write_anchor.h.
#include "klt/write/klt_write_anchor.h"

#include <algorithm>

#include "util/pal_mem.h"

namespace {

constexpr size_t kAnchorBytes = 17;
constexpr size_t kEntriesPerHistory = 255;
constexpr size_t kLargestStack = 0xffff;

// Whether the records of the history fit their count fields, and `maxBytes` bytes together.
bool fitsIn(const KLT_WriteHistory& history, size_t entries, uint64_t maxBytes) {
  const size_t depth = history.calls.size();
  if (depth > kLargestStack || 4 * depth > maxBytes) return false;
  size_t bytes = kAnchorBytes;
  if (depth != 0) bytes += 7 + depth * (history.hasLocations() ? 8 : 4);
  if (history.hasRecords) {
    bytes += 2 * (1 + entries / kEntriesPerHistory) + 20 * entries;
  }
  return bytes <= maxBytes;
}

// Appends records to the buffer of the anchor component.
class AnchorWriter {
 public:
  AnchorWriter(KLT_WFileHandle& writer, KLT_WriteContext& context)
      : writer_(writer), context_(context) {}

  bool stack(const KLT_WriteHistory& history) {
    const size_t n = history.calls.size();
    const bool scls = history.hasLocations();
    uint8_t* to = reserve(7 + n * (scls ? 8 : 4));
    if (to == nullptr) return false;
    *to++ = scls ? KLT_Row::functionHistoryScl : KLT_Row::functionHistory;
    to = put32(to, history.gtp);
    klt::storeBig16(to, static_cast<uint16_t>(n));
    to += 2;
    for (const auto& call : history.calls) to = put32(to, call.function);
    if (scls) {
      for (const auto& call : history.calls) to = put32(to, call.scl);
    }
    return true;
  }

  bool offsets(const std::vector<KLT_OffsetEntry>& entries) {
    size_t at = 0;
    do {  // writes a record even if there are no entries
      const size_t n = std::min(kEntriesPerHistory, entries.size() - at);
      if (!offsets(entries.data() + at, n)) return false;
      at += n;
    } while (at < entries.size());
    return true;
  }

  bool anchor() {
    uint8_t* to = reserve(kAnchorBytes);
    if (to == nullptr) return false;
    *to++ = KLT_Row::anchor;
    to = put64(to, context_.outputTime);
    put64(to, context_.position());
    return true;
  }

 private:
  static uint8_t* put32(uint8_t* to, uint32_t value) {
    klt::storeBig32(to, value);
    return to + 4;
  }
  static uint8_t* put64(uint8_t* to, uint64_t value) {
    klt::storeBig64(to, value);
    return to + 8;
  }

  bool offsets(const KLT_OffsetEntry* entries, size_t n) {
    uint8_t* to = reserve(2 + 20 * n);
    if (to == nullptr) return false;
    *to++ = KLT_Row::history;
    *to++ = static_cast<uint8_t>(n);
    for (size_t i = 0; i < n; ++i) to = put32(to, context_.fileId);
    for (size_t i = 0; i < n; ++i) to = put64(to, entries[i].offset);
    for (size_t i = 0; i < n; ++i) to = put64(to, entries[i].time);
    return true;
  }

  // Appends `bytes` bytes to the anchor buffer and returns their address; null if the component is
  // lost.
  uint8_t* reserve(size_t bytes) {
    KLT_WriteBuffer& buffer = context_.anchors;
    if (context_.anchorsUsed + bytes > KLT_WriteBuffer::kFlushBytes) {
      KLT_FlushContext(writer_, context_, true, false);
    }
    if (buffer.lost) return nullptr;
    const size_t wanted = context_.anchorsUsed + bytes;
    if (buffer.size < wanted) buffer.grow(std::max(wanted, 2 * buffer.size), context_.anchorsUsed);
    uint8_t* to = buffer.bytes.get() + context_.anchorsUsed;
    context_.anchorsUsed += bytes;
    return to;
  }

  KLT_WFileHandle& writer_;
  KLT_WriteContext& context_;
};

}  // namespace

const char* KLT_SetAnchor(KLT_WFileHandle& writer, KLT_WriteContext& context) {
  const PAL_Place here;
  if (context.anchors.lost) return nullptr;  // has been reported
  KLT_WriteHistory& history = context.history;
  const size_t entries = history.offsets.countAfter(context.outputTime);
  // A seek point with more bytes than the data since the previous one would save no reading. It is
  // left out, and tried again at the next boundary.
  if (!fitsIn(history, entries, context.position() - context.lastAnchor)) return nullptr;
  history.offsets.prune(context.outputTime);
  AnchorWriter out(writer, context);
  if (!history.calls.empty() && !out.stack(history)) return "Writing function history failed.";
  if (history.hasRecords && !out.offsets(history.offsets.entries())) {
    return "Writing event history failed.";
  }
  context.lastAnchor = context.position();
  return out.anchor() ? nullptr : "Setting/writing anchor failed.";
}
