// Produces the records that describe the state of threads at a request's start, and the
// end_of_filter records at its end. See klt_history.h.
#include "klt/stream/klt_history.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "klt/format/klt_codec.h"
#include "klt/stream/klt_select.h"
#include "util/pal_hash.h"

namespace {

using klt::kAny;
using klt::kCollops;
using klt::kCounters;
using klt::kFunctions;
using klt::kMessages;
using klt::kScopes;

// Samples are delivered in the order of a hash table with this many buckets.
constexpr uint32_t kCounterBuckets = 11;

// Builds a record of row N at the tail of a buffer: scalars first, then arrays in order.
template <int N>
class RecordWriter {
 public:
  static constexpr const KLT_Row& row = kKltRows[N - 1];
  static constexpr const KLT_Layout& layout = kKltLayouts[N - 1];

  RecordWriter(KLT_RecordBuffer& out, uint64_t time) : out_(out), tail_(layout.fixedBytes) {
    klt::storeNative(out_.reserve(layout.fixedBytes) + kKltRecordNumberAt, uint32_t{N});
    klt::storeNative(out_.tail() + kKltRecordTimeAt, time);
  }
  template <size_t F>
  void set(uint32_t value) {
    klt::storeNative(out_.tail() + layout.offset[F], value);
  }
  // Appends the next array, with room for `n` elements, and returns it.
  template <class T>
  [[nodiscard]] T* array(size_t n) {
    const size_t at = tail_;
    tail_ += klt::roundUp8(n * sizeof(T));
    return reinterpret_cast<T*>(out_.reserve(tail_) + at);
  }
  [[nodiscard]] size_t bytes() const { return tail_; }

 private:
  KLT_RecordBuffer& out_;
  size_t tail_;
};

// The records of one history. They are appended to the packed records first, since a history can be
// large, and removed again if there is no room for them.
struct HistoryRecords {
  KLT_RecordBuffer& records;
  size_t encoded = 0;

  void add(size_t bytes) {
    encoded += KLT_EncodedBytes(records.tail());
    records.commit(bytes);
  }
  void add(const std::vector<uint8_t>& record) {
    std::memcpy(records.reserve(record.size()), record.data(), record.size());
    add(record.size());
  }
};

void addFunctions(HistoryRecords& out, const KLT_WillyState& state, uint64_t time) {
  RecordWriter<KLT_Row::functionHistoryScl> record(out.records, time);
  const size_t n = state.functions.size();
  record.set<0>(state.gtp);
  record.set<1>(static_cast<uint32_t>(n));
  auto* functions = record.array<uint32_t>(n);
  for (size_t i = 0; i < n; ++i) functions[i] = state.functions.begin()[i].function;
  auto* scls = record.array<uint32_t>(n);
  for (size_t i = 0; i < n; ++i) scls[i] = state.functions.begin()[i].scl;
  out.add(record.bytes());
}

void addScopes(HistoryRecords& out, const KLT_WillyState& state) {
  state.scopes.each([&](const KLT_OpenScope& scope) {
    RecordWriter<KLT_Row::enterScope> record(out.records, scope.time);
    record.set<1>(state.gtp);
    record.set<2>(scope.scope);
    record.set<3>(scope.seqnr);
    out.add(record.bytes());
  });
}

// --- records that an earlier request has delivered ----------------------------------------------

bool selectsThread(const KLT_Stream& s, const KLT_StreamRequest& request, uint32_t gtp) {
  return !request.testThreads || s.threadsOf(request).contains(gtp);
}

// Whether the history at the request's start contains this thread's state.
bool reportsStateOf(const KLT_Stream& s, const KLT_StreamRequest& request, uint32_t gtp) {
  return s.threadsOf(request).contains(gtp);
}

bool hasDeliveredMessage(const KLT_Stream& s, const KLT_StreamRequest& request, uint32_t sender,
                         const KLT_StoredRecord& message) {
  const uint64_t time = KLT_RecordTime(message.bytes.data());
  if (time < request.start) {
    return message.end > request.start && reportsStateOf(s, request, sender);
  }
  return time < request.end &&
         (selectsThread(s, request, sender) || selectsThread(s, request, message.partner));
}

bool hasDeliveredCollective(const KLT_Stream& s, const KLT_StreamRequest& request,
                            const KLT_StoredRecord& operation) {
  const uint64_t time = KLT_RecordTime(operation.bytes.data());
  const bool isUnderWay = time < request.end && operation.end > request.start;
  const KLT_ThreadList& threads = s.threadsOf(request);
  if (!isUnderWay || (time < request.start && threads.empty())) return false;
  if (!request.testThreads) return true;
  const PAL_Triplets* members = s.pass->handle->communicators.find(operation.partner);
  int32_t member = 0;
  return members != nullptr && threads.set().firstCommon(*members, &member);
}

// REQUIRES: the sample is the last one of its counter at the current request's start.
bool hasDeliveredSample(const KLT_Stream& s, const KLT_StreamRequest& request, uint32_t gtp,
                        uint64_t time) {
  if (time < request.start) return KLT_TellsCounters(request) && reportsStateOf(s, request, gtp);
  return time < request.end && selectsThread(s, request, gtp);
}

// Whether an earlier request has delivered a record of `category` and `time`. hasDelivered(request)
// determines that for one request. Requests before a gap don't count unless `once` is set, because
// without it the history of a request after a gap is complete.
template <class HasDelivered>
bool isKnown(const KLT_Stream& s, uint32_t category, uint64_t time, HasDelivered hasDelivered) {
  const std::span<const KLT_StreamRequest> earlier = s.requests.earlier();
  uint64_t start = s.requests.current().start;
  for (size_t i = earlier.size(); i-- > 0;) {
    const KLT_StreamRequest& request = earlier[i];
    if (request.end != start && !s.pass->once) return false;
    if ((KLT_StoredCategories(s, request.categories) & category) != 0 && hasDelivered(request)) {
      return true;
    }
    if (time >= request.end) return false;
    start = request.start;
  }
  return false;
}

// --- collecting a history -----------------------------------------------------------------------

void addCounters(const KLT_Stream& s, HistoryRecords& out, const KLT_WillyState& state) {
  std::vector<const KLT_IdMap<KLT_CounterSample>::Entry*> ordered;
  for (const auto& entry : state.counters.entries()) ordered.push_back(&entry);
  // Sorted by id, because the order of insertion is different after a seek point.
  std::sort(ordered.begin(), ordered.end(),
            [](const auto* a, const auto* b) { return a->id < b->id; });
  PAL_SortByBucket(ordered, kCounterBuckets, [](const auto* sample) { return sample->id; });
  for (const auto* sample : ordered) {
    const bool known =
        s.pass->once && isKnown(s, kCounters, sample->value.time, [&](const auto& request) {
          return hasDeliveredSample(s, request, state.gtp, sample->value.time);
        });
    if (known) continue;
    RecordWriter<KLT_Row::counterValue> record(out.records, sample->value.time);
    record.set<1>(state.gtp);
    record.set<2>(1);
    *record.array<uint64_t>(1) = sample->value.value;
    *record.array<uint32_t>(1) = sample->id;
    out.add(record.bytes());
  }
}

void addMessages(const KLT_Stream& s, HistoryRecords& out, const KLT_WillyState& state,
                 bool onlyNew) {
  for (const KLT_StoredRecord& message : state.messages.records()) {
    const auto hasDelivered = [&](const KLT_StreamRequest& request) {
      return hasDeliveredMessage(s, request, state.gtp, message);
    };
    const uint64_t time = KLT_RecordTime(message.bytes.data());
    if (!onlyNew || !isKnown(s, kMessages, time, hasDelivered)) out.add(message.bytes);
  }
}

void addCollectives(const KLT_Stream& s, HistoryRecords& out, const KLT_WillyState& state,
                    bool onlyNew) {
  for (const KLT_StoredRecord* operation : state.operations) {
    const auto hasDelivered = [&](const KLT_StreamRequest& request) {
      return hasDeliveredCollective(s, request, *operation);
    };
    const uint64_t time = KLT_RecordTime(operation->bytes.data());
    if (!onlyNew || !isKnown(s, kCollops, time, hasDelivered)) out.add(operation->bytes);
  }
}

// Assigns each collective operation that hasn't ended to the thread with whose state it is
// delivered: the first member of the communicator that the request selects.
void assignCollectives(KLT_Stream& s) {
  for (const auto& state : s.history.context.states()) state->operations.clear();
  for (const KLT_StoredRecord& operation : s.history.context.collectives().records()) {
    const int64_t member = KLT_CommonMember(s, operation.partner);
    if (member < 0) continue;
    s.history.context.of(static_cast<uint32_t>(member)).operations.push_back(&operation);
  }
}

void collect(KLT_Stream& s, uint32_t unknown, bool brackets, HistoryRecords& out) {
  const KLT_StreamRequest& request = s.requests.current();
  const KLT_HandlerTable& handlers = s.pass->handlers;
  const uint32_t stored = KLT_StoredCategories(s, request.categories);
  if ((stored & kCollops) != 0) assignCollectives(s);
  for (const KLT_WillyState* state : s.history.context.ordered(*s.pass->handle)) {
    const KLT_ThreadList* added = s.history.addedThreads;
    const bool isAdded = added != nullptr && added->contains(state->gtp);
    if (!isAdded && !reportsStateOf(s, request, state->gtp)) continue;
    const uint32_t mask = isAdded ? stored : s.history.addedCategories;
    // Messages and operations of an added thread may have been delivered already, because another
    // thread that takes part in them was selected.
    const uint32_t underWay = isAdded ? stored : unknown;
    const bool onlyNew = isAdded || s.pass->once;
    if ((mask & kFunctions) != 0 && handlers.function_history != nullptr &&
        !state->functions.empty()) {
      addFunctions(out, *state, request.start);
    }
    if ((mask & kScopes) != 0 && handlers.enter_scope != nullptr) addScopes(out, *state);
    if ((mask & kCounters) != 0 && handlers.counter_value != nullptr &&
        KLT_TellsCounters(request)) {
      addCounters(s, out, *state);
    }
    if (!brackets) continue;
    if ((underWay & kMessages) != 0) addMessages(s, out, *state, onlyNew);
    if ((underWay & kCollops) != 0) addCollectives(s, out, *state, onlyNew);
  }
}

template <int N>
void appendBracket(KLT_RecordBuffer& records, uint64_t time) {
  const RecordWriter<N> record(records, time);
  records.commit(record.bytes());
}

// Counts the packed records from the offset `from` on, or passes them to the stream's turn.
void addFrom(KLT_PackedRecords& packed, size_t from) {
  for (size_t at = from; at < packed.records.used();) {
    uint8_t* const record = packed.records.data() + at;
    at += KLT_RecordBytes(record);
    const uint64_t time = KLT_RecordTime(record);
    if (packed.turn == nullptr) {
      packed.count(KLT_EncodedBytes(record) - 1, time);
    } else {
      packed.turn->take(record);
      packed.outTime = time;
    }
  }
  if (packed.turn != nullptr) packed.records.truncate(from);
}

void markDone(KLT_Stream& s) {
  s.history.addedCategories = 0;
  s.history.addedThreads = nullptr;
  s.history.done = true;
  s.history.keepContext = s.requests.following() != nullptr;
  if (!s.history.keepContext) s.history.context.freeHistory();
}

// Removes messages and operations that have ended at `time`, the start of the history.
void pruneContext(KLT_Stream& s, uint32_t categories, uint64_t time) {
  if ((categories & (kAny | kMessages)) != 0) {
    for (const auto& state : s.history.context.states()) state->messages.prune(time);
  }
  if ((categories & (kAny | kCollops)) != 0) s.history.context.collectives().prune(time);
}

// Appends an end_of_filter for categories and threads that the next request doesn't select. An
// empty list of threads means all threads. In memory the record has the list's id instead of the
// list, which may be long and of many streams.
void appendEndOfFilter(KLT_Stream& s, uint64_t time, uint32_t categories,
                       const KLT_ThreadList& threads) {
  if (s.pass->handlers.end_of_filter == nullptr) return;
  // Without time order the record may be delivered before earlier records of other streams. So it
  // only ends categories that this stream stores: a stream of comments ends no calls.
  if (!s.pass->serial) categories &= s.source.categories;
  RecordWriter<KLT_Row::endOfFilter> record(s.packed.records, time);
  record.set<1>(categories);
  record.set<2>(1);
  *record.array<uint32_t>(1) = threads.id();
  // The size of the record with the list itself, three numbers for a triplet.
  const size_t encoded = KLT_EncodedBytes(s.packed.records.tail()) - 1 - sizeof(uint32_t) +
                         sizeof(PAL_Triplet) * threads.triplets().size();
  s.packed.add(record.bytes(), encoded, time);
  if (s.packed.turn == nullptr) ++s.packed.ends;
}

bool isInstant(const KLT_StreamRequest& request) { return request.start == request.end; }

}  // namespace

bool KLT_ProduceHistory(KLT_Stream& s, size_t room, bool force) {
  const KLT_StreamRequest& request = s.requests.current();
  if (s.threadsOf(request).empty()) {
    markDone(s);
    return true;
  }
  const uint32_t unknown = KLT_StoredCategories(s, request.categories) & ~s.history.knownCategories;
  pruneContext(s, request.categories, request.start);
  const uint32_t known =
      (request.categories & kAny) != 0 ? kKltAllHistory : request.categories | kAny;
  const bool brackets =
      s.pass->handlers.begin_of_history != nullptr && s.pass->handlers.end_of_history != nullptr;
  KLT_RecordBuffer& records = s.packed.records;
  const size_t before = records.used();
  HistoryRecords history{records};
  if (brackets) appendBracket<KLT_Row::beginOfHistory>(records, request.start);
  if ((unknown != 0 || s.history.addedCategories != 0 || s.history.addedThreads != nullptr) &&
      !s.history.context.empty()) {
    collect(s, unknown, brackets, history);
  }
  if (history.encoded != 0) {
    constexpr size_t kBracketBytes = 15;
    constexpr size_t kTimeRecord = 9;
    const size_t needed = history.encoded + (brackets ? kBracketBytes : 0) + kTimeRecord + room;
    if (!force && !s.packed.makeRoom(needed)) {
      records.truncate(before);
      return false;
    }
    if (brackets) appendBracket<KLT_Row::endOfHistory>(records, request.start);
    addFrom(s.packed, before);
  } else {
    records.truncate(before);
  }
  s.history.knownCategories = known;
  markDone(s);
  return true;
}

void KLT_EndRequest(KLT_Stream& s) {
  if (!s.history.done) (void)KLT_ProduceHistory(s, 0, true);
  const KLT_StreamRequest& ended = s.requests.current();
  const KLT_StreamRequest* next = s.requests.following();
  if (next == nullptr || next->start != ended.end) {
    s.history.knownCategories = 0;
    appendEndOfFilter(s, ended.end, ended.categories, s.threadsOf(ended));
    return;
  }
  s.history.knownCategories &=
      (next->categories & kAny) != 0 ? klt::kWholeSelection & ~kAny : next->categories;
  KLT_ThreadLists& lists = s.pass->lists;
  const KLT_ThreadList& threads = s.threadsOf(*next).empty()
                                      ? *lists.none()
                                      : *lists.subtract(&s.threadsOf(ended), &s.threadsOf(*next));
  uint32_t categories = ended.categories & ~next->categories;
  // If the start of a request is its end, other streams may have no part in it and read on. So the
  // records that this stream appends then only contain categories that it stores itself.
  const bool ownOnly = isInstant(ended) || isInstant(*next);
  if (ownOnly) categories &= s.source.categories;
  const uint32_t leaving = ownOnly ? ended.categories & s.source.categories : ended.categories;
  // There are two records, because all categories end for threads that the next request doesn't
  // select, but only `categories` for the other threads. A single record with `categories`, which
  // may be 0, would leave the calls of an unselected thread open, and a later request with that
  // thread would deliver a second call stack for it.
  if (!threads.empty()) appendEndOfFilter(s, ended.end, leaving, threads);
  if (categories != 0) {
    appendEndOfFilter(s, ended.end, categories, ownOnly ? s.threadsOf(ended) : *lists.none());
  }
}
