// Profiles made while a trace is written. See klt_filestats.h.
#include "klt/write/klt_filestats.h"

#include <algorithm>
#include <cmath>

#include "klt/write/klt_write.h"
#include "util/pal_error.h"

KLT_FileStats::KLT_FileStats(const KLT_StatsParameters& parameters)
    : parameters_(parameters), eventBits_(std::min(parameters.eventBits, 63U)) {}

void KLT_FileStats::Table::put(const Slot& slot) {
  const size_t mask = slots_.size() - 1;
  size_t at = slot.hash & mask;
  while (slots_[at].place != 0) at = (at + 1) & mask;
  slots_[at] = slot;
}

void KLT_FileStats::Table::add(uint32_t hash) {
  constexpr size_t kFirst = 64;
  if (2 * size_t{count_} >= slots_.size()) {
    std::vector<Slot> old(std::max(kFirst, 4 * slots_.size()));
    old.swap(slots_);
    for (const Slot& slot : old) {
      if (slot.place != 0) put(slot);
    }
  }
  put({hash, ++count_});
}

uint32_t KLT_FileStats::functionPlace(uint32_t gtp, uint32_t function) {
  const uint32_t hash = functionHash_({gtp, function});
  const uint32_t place = functionPlaces_.find(
      hash, [&](uint32_t candidate) { return functions_[candidate - 1].isOf(gtp, function); });
  if (place != 0) return place;
  functions_.push_back({gtp, function});
  functionPlaces_.add(hash);
  return static_cast<uint32_t>(functions_.size());
}

uint32_t KLT_FileStats::addMessage(const Message& key, uint32_t hash) {
  messages_.push_back({key});
  messagePlaces_.add(hash);
  return static_cast<uint32_t>(messages_.size());
}

void KLT_FileStats::message(const Message& key, int64_t duration) {
  const uint32_t hash = messageHash_(
      {key.sender, key.receiver, key.funcSender, key.funcReceiver, key.tag, key.comm, key.size});
  uint32_t place = messagePlaces_.find(
      hash, [&](uint32_t candidate) { return messages_[candidate - 1].key == key; });
  if (place == 0) [[unlikely]]
    place = addMessage(key, hash);
  MessageStat& stat = messages_[place - 1];
  ++stat.count;
  stat.sum =
      static_cast<int64_t>(static_cast<uint64_t>(stat.sum) + static_cast<uint64_t>(duration));
  stat.min = std::min(stat.min, duration);
  stat.max = std::max(stat.max, duration);
}

void KLT_FileStats::CollectiveStat::resize(size_t n) {
  for (auto* array :
       {&exchanges, &minSent, &maxSent, &sumSent, &minReceived, &maxReceived, &sumReceived}) {
    array->resize(n);
  }
  for (auto* array : {&minRate, &maxRate, &sumRate}) array->resize(n);
  for (auto* array : {&minDuration, &maxDuration, &sumDuration}) array->resize(n);
}

void KLT_FileStats::addBytes(uint32_t& sum, uint32_t bytes) {
  if (__builtin_add_overflow(sum, bytes, &sum) && !wrapped_) {
    wrapped_ = true;
    PAL_Warning("sums of bytes in the statistics have passed 32 bits, they count modulo 2^32");
  }
}

void KLT_FileStats::enterMember(CollectiveStat& stat, size_t i, const uint32_t* sent,
                                const uint32_t* received, uint64_t duration) {
  const double bytes =
      (sent == nullptr ? 0.0 : sent[i]) + (received == nullptr ? 0.0 : received[i]);
  const double rate = duration == 0 ? 0.0 : bytes / static_cast<double>(duration);
  const bool first = stat.exchanges[i]++ == 0;
  const auto enter = [first](auto value, auto& min, auto& max) {
    min = first ? value : std::min(min, value);
    max = first ? value : std::max(max, value);
  };
  if (sent != nullptr) {
    enter(sent[i], stat.minSent[i], stat.maxSent[i]);
    addBytes(stat.sumSent[i], sent[i]);
  }
  if (received != nullptr) {
    enter(received[i], stat.minReceived[i], stat.maxReceived[i]);
    addBytes(stat.sumReceived[i], received[i]);
  }
  enter(rate, stat.minRate[i], stat.maxRate[i]);
  stat.sumRate[i] += rate;
  enter(duration, stat.minDuration[i], stat.maxDuration[i]);
  stat.sumDuration[i] += duration;
}

void KLT_FileStats::collective(uint32_t type, uint32_t root, uint32_t comm, size_t n,
                               const uint32_t* sent, const uint32_t* received,
                               const uint64_t* durations) {
  if (n == 0) return;
  const uint32_t parts[] = {type, root, comm};
  const std::string key(reinterpret_cast<const char*>(parts), sizeof parts);
  const auto [place, isNew] = collectivePlaces_.try_emplace(key, collectives_.size());
  if (isNew) {
    CollectiveStat& stat = collectives_.emplace_back();
    stat.type = type;
    stat.root = root;
    stat.comm = comm;
    stat.resize(n);
  }
  CollectiveStat& stat = collectives_[place->second];
  const size_t members = std::min(n, stat.exchanges.size());
  for (size_t i = 0; i < members; ++i) enterMember(stat, i, sent, received, durations[i]);
}

const uint32_t* KLT_FileStats::rootOnly(uint32_t communicator, size_t n, uint32_t root,
                                        uint32_t bytes) {
  constexpr size_t kUnknown = ~size_t{0};
  size_t count = kUnknown;
  const uint32_t* members =
      parameters_.memberLookup == nullptr
          ? nullptr
          : parameters_.memberLookup(parameters_.lookupContext, communicator, &count);
  if (count == kUnknown) {
    PAL_Error("Could not retrieve communicator definiton for FileStats.");
    return nullptr;
  }
  scratch_.assign(n, 0);
  for (size_t i = 0; i < std::min(n, count); ++i) {
    if (members[i] == root) scratch_[i] = bytes;
  }
  return scratch_.data();
}

bool KLT_FileStats::writeMessages(KLT_WFileHandle* writer) {
  bool written = true;
  const auto shifted = [this](int64_t ticks) {
    return static_cast<int64_t>(static_cast<uint64_t>(ticks) << eventBits_);
  };
  for (const MessageStat& stat : messages_) {
    const Message& k = stat.key;
    written &= KLT_Write<KLT_Row::oneToOneProfile>(writer, nullptr, k.sender, k.receiver,
                                                   k.funcSender, k.funcReceiver, k.tag, k.comm,
                                                   k.size, stat.count, shifted(stat.sum),
                                                   shifted(stat.min), shifted(stat.max)) != 0;
  }
  return written;
}

bool KLT_FileStats::writeCollectives(KLT_WFileHandle* writer) {
  bool written = true;
  const double scale = std::ldexp(1.0, static_cast<int>(eventBits_));
  for (CollectiveStat& stat : collectives_) {
    const size_t n = stat.exchanges.size();
    for (size_t i = 0; i < n; ++i) {
      if (stat.exchanges[i] != 0) stat.sumRate[i] /= stat.exchanges[i] * scale;
      stat.minRate[i] /= scale;
      stat.maxRate[i] /= scale;
      stat.minDuration[i] <<= eventBits_;
      stat.maxDuration[i] <<= eventBits_;
      stat.sumDuration[i] <<= eventBits_;
    }
    written &=
        KLT_Write<KLT_Row::collopProfile>(
            writer, nullptr, stat.type, stat.root, stat.comm, static_cast<uint32_t>(n),
            stat.exchanges.data(), stat.minSent.data(), stat.maxSent.data(), stat.sumSent.data(),
            stat.minReceived.data(), stat.maxReceived.data(), stat.sumReceived.data(),
            stat.minRate.data(), stat.maxRate.data(), stat.sumRate.data(), stat.minDuration.data(),
            stat.maxDuration.data(), stat.sumDuration.data()) != 0;
  }
  return written;
}

bool KLT_FileStats::writeFunctions(KLT_WFileHandle* writer) {
  bool written = true;
  for (const FunctionStat& s : functions_) {
    written &= KLT_Write<KLT_Row::functionProfile>(
                   writer, nullptr, s.gtp, s.function, s.count, s.minSelf << eventBits_,
                   s.maxSelf << eventBits_, s.totalSelf << eventBits_, s.minInclusive << eventBits_,
                   s.maxInclusive << eventBits_, s.totalInclusive << eventBits_) != 0;
  }
  return written;
}

bool KLT_FileStats::write(KLT_WFileHandle* writer) {
  const bool messages = writeMessages(writer);
  const bool collectives = writeCollectives(writer);
  const bool functions = writeFunctions(writer);
  return messages && collectives && functions;
}
