// Writes the profiles of a trace. See klt_write_stats.h.
#include "klt/write/klt_write_stats.h"

#include <cmath>
#include <utility>

#include "klt/write/klt_write_row.h"

namespace {

bool writeMessages(KLT_WFileHandle* writer, KLT_FileStats& stats) {
  bool written = true;
  const auto shifted = [&](int64_t ticks) {
    return static_cast<int64_t>(static_cast<uint64_t>(ticks) << stats.eventBits);
  };
  for (uint32_t place = 1; place <= stats.messages.size(); ++place) {
    const KLT_MessageStat& stat = stats.messages.at(place);
    const KLT_MessageStat::Key& k = stat.key;
    written &= KLT_Write<KLT_Row::oneToOneProfile>(writer, nullptr, k.sender, k.receiver,
                                                   k.funcSender, k.funcReceiver, k.tag, k.comm,
                                                   k.size, stat.count, shifted(stat.sum),
                                                   shifted(stat.min), shifted(stat.max)) != 0;
  }
  return written;
}

bool writeCollectives(KLT_WFileHandle* writer, KLT_FileStats& stats) {
  bool written = true;
  const uint32_t bits = stats.eventBits;
  const double scale = std::ldexp(1.0, static_cast<int>(bits));
  for (uint32_t place = 1; place <= stats.collectives.size(); ++place) {
    KLT_CollectiveStat& stat = stats.collectives.at(place);
    const size_t n = stat.exchanges.size();
    for (size_t i = 0; i < n; ++i) {
      if (stat.exchanges[i] != 0) stat.sumRate[i] /= stat.exchanges[i] * scale;
      stat.minRate[i] /= scale;
      stat.maxRate[i] /= scale;
      stat.minDuration[i] <<= bits;
      stat.maxDuration[i] <<= bits;
      stat.sumDuration[i] <<= bits;
    }
    const KLT_CollectiveStat::Key& k = stat.key;
    written &=
        KLT_Write<KLT_Row::collopProfile>(
            writer, nullptr, k.type, k.root, k.comm, static_cast<uint32_t>(n),
            stat.exchanges.data(), stat.minSent.data(), stat.maxSent.data(), stat.sumSent.data(),
            stat.minReceived.data(), stat.maxReceived.data(), stat.sumReceived.data(),
            stat.minRate.data(), stat.maxRate.data(), stat.sumRate.data(), stat.minDuration.data(),
            stat.maxDuration.data(), stat.sumDuration.data()) != 0;
  }
  return written;
}

bool writeFunctions(KLT_WFileHandle* writer, KLT_FileStats& stats) {
  bool written = true;
  const uint32_t bits = stats.eventBits;
  for (const uint32_t place : stats.functionOrder) {
    const KLT_FunctionStat& s = stats.functions.at(place);
    written &= KLT_Write<KLT_Row::functionProfile>(
                   writer, nullptr, s.key.gtp, s.key.function, s.count, s.minSelf << bits,
                   s.maxSelf << bits, s.totalSelf << bits, s.minInclusive << bits,
                   s.maxInclusive << bits, s.totalInclusive << bits) != 0;
  }
  return written;
}

}  // namespace

bool KLT_FileStatsFinish(KLT_WFileHandle& writer) {
  const std::unique_ptr<KLT_FileStats> stats = std::exchange(writer.fileStats, nullptr);
  if (stats == nullptr) return true;
  KLT_FileStatsFlush(*stats);
  const bool messages = writeMessages(&writer, *stats);
  const bool collectives = writeCollectives(&writer, *stats);
  const bool functions = writeFunctions(&writer, *stats);
  return messages && collectives && functions;
}
