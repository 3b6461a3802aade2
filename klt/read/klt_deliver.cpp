// Calls the handlers of records. See klt_deliver.h.
//
// The table of rows determines how the fields of a row become arguments. The second part contains
// the few records whose arguments differ from their fields, and the structure records, which change
// the trace's tables with or without a handler.
#include "klt/read/klt_deliver.h"

#include <array>
#include <tuple>
#include <utility>

#include "klt/format/klt_record.h"
#include "klt/read/klt_reader.h"
#include "util/pal_error.h"
#include "util/pal_mem.h"

namespace {

// The member of the handler table for records of row N; null if there is none.
template <int N>
constexpr auto slotIn(klt::SlotList<>) {
  return nullptr;
}
template <int N, class Slot, class... Others>
constexpr auto slotIn(klt::SlotList<Slot, Others...>) {
  if constexpr (Slot::name == kKltRows[N - 1].name) {
    return Slot::member;
  } else {
    return slotIn<N>(klt::SlotList<Others...>{});
  }
}
template <int N>
constexpr auto slotOf() {
  return slotIn<N>(klt::AllSlots{});
}

template <int N>
constexpr bool kHasSlot = !std::is_same_v<decltype(slotOf<N>()), std::nullptr_t>;

// The field of row N that corresponds to field F of row L: the one with the same name, or for a
// count the one with the same index among the counts.
template <int N, int L, size_t F>
constexpr size_t fieldOf() {
  constexpr const KLT_Row& from = kKltRows[N - 1];
  constexpr const KLT_Row& longest = kKltRows[L - 1];
  if constexpr (!longest.fields[F].isCount()) {
    return from.find(longest.fields[F].name);
  } else {
    size_t ordinal = 0;
    for (size_t f = 0; f < F; ++f) ordinal += longest.fields[f].isCount() ? 1 : 0;
    for (size_t f = 0; f < from.numFields; ++f) {
      if (from.fields[f].isCount() && ordinal-- == 0) return f;
    }
    return from.numFields;
  }
}

const char* const* textArray(KLT_Reader& reader, const uint32_t* ids, size_t n, size_t field) {
  std::vector<std::vector<const char*>>& texts = reader.texts;
  if (texts.size() <= field) texts.resize(field + 1);
  std::vector<const char*>& array = texts[field];
  array.resize(n + 1);  // never empty, so that the pointer isn't null
  for (size_t i = 0; i < n; ++i) array[i] = KLT_StringOf(*reader.pass.handle, ids[i]);
  return array.data();
}

// The argument for field F of the longest variant L, read from a record of row N.
template <int N, int L, size_t F>
auto argument(KLT_Reader& reader, const uint8_t* record) {
  using View = KLT_Record<N>;
  using Tuple = decltype(klt::argumentTuple<L, F>());
  constexpr const KLT_Row& longest = kKltRows[L - 1];
  constexpr klt::ArgumentKind kind = klt::argumentKind(longest, F, klt::isArrayField(longest, F));
  constexpr size_t field = fieldOf<N, L, F>();
  if constexpr (kind == klt::ArgumentKind::kNone || field >= kKltRows[N - 1].numFields) {
    return Tuple{};  // nothing, 0, or null
  } else if constexpr (longest.timed() && F == 0) {
    return Tuple{KLT_RecordTime(record)};
  } else {
    using Value = std::tuple_element_t<0, Tuple>;
    constexpr KLT_Type type = kKltRows[N - 1].fields[field].type();
    if constexpr (kind == klt::ArgumentKind::kText) {
      return Tuple{View::template array<char, field>(record)};
    } else if constexpr (kind == klt::ArgumentKind::kString) {
      return Tuple{KLT_StringOf(*reader.pass.handle, View::template get32<field>(record))};
    } else if constexpr (kind == klt::ArgumentKind::kStrings) {
      return Tuple{textArray(reader, View::template array<uint32_t, field>(record),
                             View::template count<field>(record), F)};
    } else if constexpr (kind == klt::ArgumentKind::kArray) {
      using Element = std::remove_const_t<std::remove_pointer_t<Value>>;
      return Tuple{View::template array<Element, field>(record)};
    } else if constexpr (KLT_TypeBytes(type) == 8) {
      return Tuple{std::bit_cast<Value>(View::template get64<field>(record))};
    } else {
      return Tuple{std::bit_cast<Value>(View::template get32<field>(record))};
    }
  }
}

template <int N, size_t... F>
int callHandler(KLT_Reader& reader, const uint8_t* record, std::index_sequence<F...>) {
  constexpr int kLongest = klt::longestRow(kKltRows[N - 1].name);
  const KLT_HandlerTable& handlers = reader.pass.handlers;
  const auto handler = handlers.*slotOf<N>();
  if (handler == nullptr) return 0;
  return std::apply(handler, std::tuple_cat(std::tuple{handlers.user_data},
                                            argument<N, kLongest, F>(reader, record)...));
}

// --- records with a function of their own -------------------------------------------------------

int corruptedStructure() {
  PAL_Error("Corrupted data");
  return -1;
}

bool fillsTables(const KLT_Stream& s) { return s.pass->fillsTables; }

template <int N>
PAL_Triplets tripletsOf(const uint8_t* record) {
  using View = KLT_Record<N>;
  constexpr const KLT_Row& row = kKltRows[N - 1];
  constexpr size_t first = row.find("first_id_gtp");
  return PAL_TripletsFromParallel(View::template count<first>(record),
                                  View::template array<int32_t, first>(record),
                                  View::template array<int32_t, row.find("last_id_gtp")>(record),
                                  View::template array<int32_t, row.find("stride")>(record));
}

int declareFile(KLT_Stream& s, const uint8_t* record) {
  using View = KLT_Record<KLT_Row::fileDeclaration>;
  const std::string_view suffix(View::array<char, 3>(record), View::count<3>(record));
  if (!fillsTables(s)) return 0;
  return KLT_AddFile(*s.pass->handle, View::get32<0>(record), View::get32<1>(record), suffix)
             ? 0
             : corruptedStructure();
}

int declareComponent(KLT_Stream& s, const uint8_t* record) {
  using View = KLT_Record<KLT_Row::anchorFileDeclaration>;
  if (!fillsTables(s)) return 0;
  KLT_AddComponent(*s.pass->handle, View::get32<0>(record), View::get32<1>(record),
                   View::get32<2>(record), View::get32<3>(record));
  return 0;
}

int declareString(KLT_Stream& s, const uint8_t* record) {
  const PAL_Place here;
  using View = KLT_Record<KLT_Row::kltString>;
  KLT_FileHandle& handle = *s.pass->handle;
  const uint32_t id = View::get32<0>(record);
  if (handle.strings.find(id) != nullptr) return 0;
  // Handlers receive a text up to its first zero byte.
  const std::string_view text(View::array<char, 2>(record), View::count<2>(record));
  handle.strings.insert(id, handle.texts->number(text.substr(0, text.find('\0'))));
  return 0;
}

int declareWillyList(KLT_Stream& s, const uint8_t* record) {
  const PAL_Place here;
  s.pass->handle->willyLists.insert(
      KLT_Record<KLT_Row::willyList>::get32<0>(record),
      std::make_unique<PAL_Triplets>(tripletsOf<KLT_Row::willyList>(record)));
  return 0;
}

void declareProcesses(KLT_Stream& s, const uint8_t* record) {
  const PAL_Place here;
  using View = KLT_Record<KLT_Row::processDeclaration>;
  const auto* counts = View::array<uint32_t, 1>(record);
  s.pass->handle->threadsPerProcess.assign(counts, counts + View::count<1>(record));
}

void declareGroup(KLT_Stream& s, const uint8_t* record) {
  const PAL_Place here;
  using View = KLT_Record<KLT_Row::groupDefinition>;
  KLT_Group group;
  group.name.assign(View::array<char, 2>(record), View::count<2>(record));
  const auto* members = View::array<uint32_t, 4>(record);
  group.members.assign(members, members + View::count<4>(record));
  s.pass->handle->groups.insert(View::get32<0>(record), std::move(group));
}

int defineCommunicator(KLT_Stream& s, const uint8_t* record) {
  const PAL_Place here;
  using View = KLT_Record<KLT_Row::communicatorDefinition>;
  const uint32_t id = View::get32<0>(record);
  const PAL_Triplets members = tripletsOf<KLT_Row::communicatorDefinition>(record);
  s.pass->handle->communicators.insert(id, members);
  const KLT_HandlerTable& handlers = s.pass->handlers;
  if (handlers.communicator_definition == nullptr) return 0;
  return handlers.communicator_definition(handlers.user_data, id, View::array<char, 2>(record),
                                          static_cast<uint32_t>(members.size()), members.data(),
                                          static_cast<int32_t>(View::get32<7>(record)));
}

int defineCounter(KLT_Stream& s, const uint8_t* record) {
  using View = KLT_Record<KLT_Row::counterDefinition>;
  const KLT_HandlerTable& handlers = s.pass->handlers;
  if (handlers.counter_definition == nullptr) return 0;
  constexpr uint32_t kDifferential = 0x80;
  const uint64_t bounds[2] = {klt::bigEndian(View::get64<4>(record)),
                              klt::bigEndian(View::get64<5>(record))};
  const uint32_t type = View::get32<2>(record) | (View::get32<3>(record) != 0 ? kDifferential : 0);
  return handlers.counter_definition(handlers.user_data, View::get32<0>(record),
                                     KLT_StringOf(*s.pass->handle, View::get32<1>(record)), type,
                                     bounds, View::get32<6>(record), View::get32<7>(record),
                                     View::array<char, 9>(record));
}

int deliverSamples(KLT_Stream& s, uint8_t* record) {
  using View = KLT_Record<KLT_Row::counterValue>;
  const KLT_HandlerTable& handlers = s.pass->handlers;
  if (handlers.counter_value == nullptr) return 0;
  const uint32_t n = View::count<3>(record);
  auto* values = reinterpret_cast<uint64_t*>(record + View::arrayAt<3>(record));
  for (uint32_t i = 0; i < n; ++i) values[i] = klt::bigEndian(values[i]);
  return handlers.counter_value(handlers.user_data, KLT_RecordTime(record), View::get32<1>(record),
                                n, View::array<uint32_t, 4>(record), values);
}

template <int N>
int deliverStack(KLT_Stream& s, const uint8_t* record) {
  using View = KLT_Record<N>;
  const KLT_HandlerTable& handlers = s.pass->handlers;
  if (handlers.function_history == nullptr) return 0;
  const uint32_t* scls = nullptr;
  if constexpr (N == KLT_Row::functionHistoryScl) scls = View::template array<uint32_t, 3>(record);
  return handlers.function_history(handlers.user_data, KLT_RecordTime(record),
                                   View::template get32<0>(record), View::template count<2>(record),
                                   View::template array<uint32_t, 2>(record), scls);
}

int deliverEndOfFilter(KLT_Stream& s, const uint8_t* record) {
  using View = KLT_Record<KLT_Row::endOfFilter>;
  const KLT_HandlerTable& handlers = s.pass->handlers;
  if (handlers.end_of_filter == nullptr) return 0;
  const KLT_ThreadList* threads = s.pass->lists.byId(View::array<uint32_t, 3>(record)[0]);
  const PAL_Triplets& triplets = threads->triplets();
  return handlers.end_of_filter(handlers.user_data, KLT_RecordTime(record), View::get32<1>(record),
                                static_cast<uint32_t>(triplets.size()), triplets.data());
}

// Whether this begin_of_history or end_of_history is delivered. In time order only the outermost
// pair is, so that the histories of several streams at one time look like a single one. An end
// without a begin isn't delivered and doesn't change the depth.
bool isOutermost(KLT_Reader& reader, bool isBegin) {
  if (!reader.pass.serial) return true;
  if (isBegin) return reader.historyDepth++ == 0;
  return reader.historyDepth != 0 && --reader.historyDepth == 0;
}

int deliverBracket(KLT_Reader& reader, KLT_Stream& s, const uint8_t* record, bool isBegin) {
  if (!isOutermost(reader, isBegin)) return 0;
  const KLT_HandlerTable& handlers = s.pass->handlers;
  const auto handler = isBegin ? handlers.begin_of_history : handlers.end_of_history;
  if (handler == nullptr) return 0;
  const PAL_Triplets* willies =
      s.source.component == nullptr ? nullptr : s.source.component->willies;
  return handler(handlers.user_data, KLT_RecordTime(record), s.source.categories,
                 willies == nullptr ? 0 : static_cast<uint32_t>(willies->size()),
                 willies == nullptr ? nullptr : willies->data());
}

template <int N>
int deliver(KLT_Reader& reader, KLT_Stream& s, uint8_t*& next) {
  uint8_t* const record = next;
  next += KLT_Record<N>::bytes(record);
  if constexpr (N == KLT_Row::anchorFileDeclaration)
    return declareComponent(s, record);
  else if constexpr (N == KLT_Row::beginOfHistory)
    return deliverBracket(reader, s, record, true);
  else if constexpr (N == KLT_Row::communicatorDefinition)
    return defineCommunicator(s, record);
  else if constexpr (N == KLT_Row::counterDefinition)
    return defineCounter(s, record);
  else if constexpr (N == KLT_Row::counterValue)
    return deliverSamples(s, record);
  else if constexpr (N == KLT_Row::endOfFilter)
    return deliverEndOfFilter(s, record);
  else if constexpr (N == KLT_Row::endOfHistory)
    return deliverBracket(reader, s, record, false);
  else if constexpr (N == KLT_Row::fileDeclaration)
    return declareFile(s, record);
  else if constexpr (N == KLT_Row::functionHistory || N == KLT_Row::functionHistoryScl)
    return deliverStack<N>(s, record);
  else if constexpr (N == KLT_Row::kltString)
    return declareString(s, record);
  else if constexpr (N == KLT_Row::willyList)
    return declareWillyList(s, record);
  else if constexpr (!kHasSlot<N>)
    return 0;
  else {
    if constexpr (N == KLT_Row::groupDefinition) declareGroup(s, record);
    if constexpr (N == KLT_Row::processDeclaration) declareProcesses(s, record);
    constexpr int kLongest = klt::longestRow(kKltRows[N - 1].name);
    return callHandler<N>(reader, record,
                          std::make_index_sequence<kKltRows[kLongest - 1].numFields>());
  }
}

template <int N>
bool hasHandler(const KLT_HandlerTable& handlers) {
  if constexpr (kHasSlot<N>) return handlers.*slotOf<N>() != nullptr;
  return false;
}

template <int... N>
constexpr auto deliverers(std::integer_sequence<int, N...>) {
  return std::array<KLT_Deliverer, sizeof...(N)>{&deliver<N + 1>...};
}
template <int... N>
constexpr auto handlerTests(std::integer_sequence<int, N...>) {
  return std::array<bool (*)(const KLT_HandlerTable&), sizeof...(N)>{&hasHandler<N + 1>...};
}

using AllRows = std::make_integer_sequence<int, kKltRowCount>;
constexpr auto kHandlerTests = handlerTests(AllRows{});

}  // namespace

constexpr std::array<KLT_Deliverer, kKltRowCount> kKltDeliverers = deliverers(AllRows{});

bool KLT_HasHandler(const KLT_HandlerTable& handlers, unsigned row) {
  return kHandlerTests[row - 1](handlers);
}

KLT_HandlerTable* KLT_HandlerTableAlloc() { return new KLT_HandlerTable; }

KLT_HandlerTable* KLT_HandlerTableCopy(const KLT_HandlerTable* table) {
  return new KLT_HandlerTable(*table);
}

void KLT_HandlerTableFree(KLT_HandlerTable* table) { delete table; }
