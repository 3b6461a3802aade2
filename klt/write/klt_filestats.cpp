// Computes profiles while a trace is written. See klt_filestats.h.
#include "klt/write/klt_filestats.h"

#include "util/pal_error.h"

namespace {

void resize(KLT_CollectiveStat& stat, size_t members) {
  for (auto* array : {&stat.exchanges, &stat.minSent, &stat.maxSent, &stat.sumSent,
                      &stat.minReceived, &stat.maxReceived, &stat.sumReceived}) {
    array->resize(members);
  }
  for (auto* array : {&stat.minRate, &stat.maxRate, &stat.sumRate}) array->resize(members);
  for (auto* array : {&stat.minDuration, &stat.maxDuration, &stat.sumDuration}) {
    array->resize(members);
  }
}

void addBytes(KLT_FileStats& stats, uint32_t& sum, uint32_t bytes) {
  if (__builtin_add_overflow(sum, bytes, &sum) && !stats.wrapped) {
    stats.wrapped = true;
    PAL_Warning("sums of bytes in the statistics have passed 32 bits, they count modulo 2^32");
  }
}

void addMember(KLT_FileStats& stats, KLT_CollectiveStat& stat, size_t i, const uint32_t* sent,
               const uint32_t* received, uint64_t duration) {
  const double bytes =
      (sent == nullptr ? 0.0 : sent[i]) + (received == nullptr ? 0.0 : received[i]);
  const double rate = duration == 0 ? 0.0 : bytes / static_cast<double>(duration);
  const bool first = stat.exchanges[i]++ == 0;
  const auto widen = [first](auto value, auto& min, auto& max) {
    min = first ? value : std::min(min, value);
    max = first ? value : std::max(max, value);
  };
  if (sent != nullptr) {
    widen(sent[i], stat.minSent[i], stat.maxSent[i]);
    addBytes(stats, stat.sumSent[i], sent[i]);
  }
  if (received != nullptr) {
    widen(received[i], stat.minReceived[i], stat.maxReceived[i]);
    addBytes(stats, stat.sumReceived[i], received[i]);
  }
  widen(rate, stat.minRate[i], stat.maxRate[i]);
  stat.sumRate[i] += rate;
  widen(duration, stat.minDuration[i], stat.maxDuration[i]);
  stat.sumDuration[i] += duration;
}

void addMessage(KLT_FileStats& stats, const KLT_MessageDuration& m) {
  KLT_MessageStat& stat = stats.messages.at(stats.messages.place(m.key, m.hash));
  ++stat.count;
  stat.sum =
      static_cast<int64_t>(static_cast<uint64_t>(stat.sum) + static_cast<uint64_t>(m.duration));
  stat.min = std::min(stat.min, m.duration);
  stat.max = std::max(stat.max, m.duration);
}

}  // namespace

std::unique_ptr<KLT_FileStats> KLT_FileStatsInit(const KLT_StatsParameters& parameters) {
  auto stats = std::make_unique<KLT_FileStats>();
  stats->parameters = parameters;
  stats->eventBits = std::min(parameters.eventBits, 63U);
  return stats;
}

uint32_t KLT_FunctionPlace(KLT_FileStats& stats, const KLT_FunctionStat::Key& key) {
  const size_t before = stats.functions.size();
  const uint32_t place = stats.functions.place(key);
  if (place > before && !stats.defersFunctions) stats.functionOrder.push_back(place);
  return place;
}

uint32_t KLT_ProfileHints::search(KLT_FileStats& stats, const KLT_FunctionStat::Key& key) {
  constexpr uint32_t kSearchesPerEntry = 4;
  if (++searches_ > kSearchesPerEntry * (mask_ + 1) && mask_ + 1 < kMost) grow();
  uint32_t* const hints = more_ == nullptr ? few_.data() : more_.get();
  return hints[key.function & mask_] = KLT_FunctionPlace(stats, key);
}

// Old hints are kept at both of their new entries, since the bit that decides isn't known.
void KLT_ProfileHints::grow() {
  const uint32_t size = mask_ + 1;
  const uint32_t* const hints = more_ == nullptr ? few_.data() : more_.get();
  auto larger = std::make_unique_for_overwrite<uint32_t[]>(size_t{2} * size);
  std::copy_n(hints, size, larger.get());
  std::copy_n(hints, size, larger.get() + size);
  more_ = std::move(larger);
  mask_ = 2 * size - 1;
  searches_ = 0;
}

void KLT_FileStatsMessage(KLT_FileStats& stats, const KLT_MessageStat::Key& key, int64_t duration) {
  using Message = KLT_MessageDuration;
  stats.waiting.add(
      {key, stats.messages.hashOf(key), duration},
      [&](const Message& m) { stats.messages.fetchSlot(m.hash); },
      [&](const Message& m) { stats.messages.fetchEntry(m.hash); },
      [&](const Message& m) { addMessage(stats, m); });
}

void KLT_FileStatsFlush(KLT_FileStats& stats) {
  stats.waiting.flush([&](const KLT_MessageDuration& m) { addMessage(stats, m); });
}

void KLT_FileStatsCollective(KLT_FileStats& stats, const KLT_CollectiveStat::Key& key,
                             size_t members, const uint32_t* sent, const uint32_t* received,
                             const uint64_t* durations) {
  if (members == 0) return;
  KLT_CollectiveStat& stat = stats.collectives.at(stats.collectives.place(key));
  if (stat.exchanges.empty()) resize(stat, members);
  const size_t known = std::min(members, stat.exchanges.size());
  for (size_t i = 0; i < known; ++i) addMember(stats, stat, i, sent, received, durations[i]);
}

const uint32_t* KLT_FileStatsRootOnly(KLT_FileStats& stats, uint32_t communicator, size_t members,
                                      uint32_t root, uint32_t bytes) {
  constexpr size_t kUnknown = ~size_t{0};
  const KLT_StatsParameters& parameters = stats.parameters;
  size_t count = kUnknown;
  const uint32_t* gtps =
      parameters.memberLookup == nullptr
          ? nullptr
          : parameters.memberLookup(parameters.lookupContext, communicator, members, &count);
  if (count == kUnknown) {
    PAL_Error("Could not retrieve communicator definiton for FileStats.");
    return nullptr;
  }
  stats.scratch.assign(members, 0);
  for (size_t i = 0; i < std::min(members, count); ++i) {
    if (gtps[i] == root) stats.scratch[i] = bytes;
  }
  return stats.scratch.data();
}
