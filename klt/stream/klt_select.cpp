// Determines what a request selects of a stream. See klt_select.h.
#include "klt/stream/klt_select.h"

#include <array>
#include <utility>

#include "klt/index/klt_generic.h"
#include "util/pal_error.h"
#include "util/pal_util.h"

namespace {

using klt::kAny;

template <int N>
constexpr auto contextUpdate() {
  void (*update)(KLT_Stream&, const uint8_t*) = nullptr;
  if constexpr (kKltRows[N - 1].traits().context) update = &klt::updateContext<N>;
  return update;
}
template <int... N>
constexpr auto contextUpdates(std::integer_sequence<int, N...>) {
  return std::array<void (*)(KLT_Stream&, const uint8_t*), sizeof...(N)>{contextUpdate<N + 1>()...};
}
template <int... N>
constexpr auto threadTests(std::integer_sequence<int, N...>) {
  return std::array<bool (*)(KLT_Stream&, const uint8_t*), sizeof...(N)>{
      &klt::threadsSelected<N + 1>...};
}

using AllRows = std::make_integer_sequence<int, kKltRowCount>;
constexpr auto kThreadTests = threadTests(AllRows{});
constexpr auto kContextUpdates = contextUpdates(AllRows{});

bool isWanted(const KLT_Stream& s, const KLT_Row& row) {
  const uint32_t selected = s.requests.current().categories;
  const uint32_t asked = s.requests.asked();
  const KLT_CategoryTest test = row.traits().category;
  if (test == KLT_CategoryTest::kNone) return true;
  if (((selected | kAny) & row.categories()) == 0) return false;
  const bool canOccur = ((asked | row.categories()) & kAny) != 0 || (asked & row.categories()) != 0;
  switch (test) {
    case KLT_CategoryTest::kFull:
      return canOccur && s.pass->hasHandler[row.number];
    case KLT_CategoryTest::kNoHandler:
      return canOccur;
    case KLT_CategoryTest::kMasksAndHandler:
      return s.pass->hasHandler[row.number];
    default:
      return true;
  }
}

// Whether records with the row's number are decoded by the row's own decoder.
bool isFast(const KLT_Stream& s, const KLT_Row& row) {
  const KLT_DecoderEntry& entry = s.pass->handle->decoders->entries[row.number];
  return entry.isFast && entry.row == row.number;
}

}  // namespace

uint32_t KLT_StoredCategories(const KLT_Stream& stream, uint32_t mask) {
  return ((mask & kAny) != 0 ? kKltAllHistory : mask) & stream.source.categories;
}

bool KLT_TellsCounters(const KLT_StreamRequest& request) {
  return (request.asked & klt::kCounters) != 0 &&
         (request.asked & (kAny | klt::kMessages | klt::kCollops)) == 0;
}

void KLT_SelectRequest(KLT_Stream& s) {
  const KLT_StreamRequest& request = s.requests.current();
  KLT_FilterState& filter = s.filter;
  filter.start = request.start;
  filter.end = request.end;
  filter.testThreads = request.testThreads;
  filter.selected = request.testThreads ? &s.threadsOf(request).set() : nullptr;
  if (filter.categories == request.categories) return;
  filter.categories = request.categories;
  filter.plainRows = 0;
  const bool usesPlain = PAL_fast != PAL_Fast::kNever && s.source.component != nullptr;
  for (const KLT_Row& row : kKltRows) {
    filter.wanted[row.number] = isWanted(s, row);
    const bool isPlain =
        usesPlain && row.plain() && row.number < KLT_FilterState::kPlainRowBits && isFast(s, row);
    if (isPlain && filter.wanted[row.number]) filter.plainRows |= uint64_t{1} << row.number;
  }
}

namespace {

int64_t findCommonMember(KLT_Stream& s, uint32_t communicator, const KLT_ThreadList& threads) {
  const PAL_Triplets* members = s.pass->handle->communicators.find(communicator);
  if (members == nullptr || members->empty()) {
    if (s.pass->reportedCommunicators.insert(communicator).second) {
      PAL_Warning("Requesting unkown or undefined communicator\n");
    }
    return kKltUndefined;
  }
  const auto first = static_cast<uint32_t>(members->front().first);
  int32_t number = 0;
  if (!s.filter.testThreads && threads.contains(first)) return first;
  if (threads.set().firstCommon(*members, &number)) return static_cast<uint32_t>(number);
  // Without a test of threads all operations are selected, also if no member is in the list.
  return s.filter.testThreads ? kKltNoMember : first;
}

}  // namespace

// The result is stored for all requests with the same threads.
int64_t KLT_CommonMember(KLT_Stream& s, uint32_t communicator) {
  const KLT_ThreadList& threads = s.threadsOf(s.requests.current());
  const auto [known, isNew] = s.pass->commonMembers[s.filter.testThreads ? 1 : 0].try_emplace(
      uint64_t{threads.id()} << 32 | communicator);
  if (isNew) known->second = findCommonMember(s, communicator, threads);
  return known->second;
}

bool KLT_ThreadsSelected(KLT_Stream& stream, const uint8_t* record) {
  return !stream.filter.testThreads || kThreadTests[KLT_RecordNumber(record) - 1](stream, record);
}

void KLT_UpdateContext(KLT_Stream& stream, const uint8_t* record) {
  if (const auto update = kContextUpdates[KLT_RecordNumber(record) - 1]) update(stream, record);
}
