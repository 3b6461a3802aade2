// The sink that writes a binary trace. See kltt_binary.h.
#include "generic/sink/kltt_binary.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "generic/sink/kltt_held.h"
#include "klt/format/klt_spans.h"
#include "klt/format/klt_values.h"
#include "klt/write/klt_write.h"
#include "util/pal_hash.h"
#include "util/pal_mem.h"

namespace {

using klt::isScl;

constexpr size_t kLongestText = 0xffff;

uint32_t storedScl(uint32_t scl) { return isScl(scl) ? scl : 0; }

// The reader converts counter values and bounds from big-endian order; this converts them back.
uint64_t storedBytes(uint64_t value) { return klt::bigEndian(value); }

// A reference to a file is a plain path, or "!path!" and more parts, which aren't stored.
std::string_view pathOf(std::string_view reference) {
  if (!reference.starts_with('!')) return reference;
  reference.remove_prefix(1);
  return reference.substr(0, reference.find('!'));
}

// `time` and `span` are internal time and replace those of `m`. They aren't stored in a copy of
// `m`, because that costs 2 % of an extraction: the processor has to wait for the stored fields.
int putMessage(KLT_WFileHandle* writer, const RK_Message& m, uint64_t time, int64_t span) {
  const uint32_t senderScl = storedScl(m.senderScl);
  const uint32_t receiverScl = storedScl(m.receiverScl);
  const auto plain = [&]<int N>() {
    KLT_Write<N>(writer, nullptr, time, m.sender, span, m.receiver, m.communicator, m.size, m.tag,
                 m.senderFunction, m.receiverFunction);
  };
  const auto located = [&]<int N>() {
    KLT_Write<N>(writer, nullptr, time, m.sender, span, m.receiver, m.communicator, m.size, m.tag,
                 senderScl, receiverScl, m.senderFunction, m.receiverFunction);
  };
  const bool scls = senderScl != 0 || receiverScl != 0;
  const bool shortTag = m.tag < 0x10000;
  if (m.senderChecksum != 0 || m.receiverChecksum != 0)
    KLT_Write<KLT_Row::oneToOneCommunicationChecksums>(
        writer, nullptr, time, m.sender, span, m.receiver, m.communicator, m.size, m.tag, senderScl,
        receiverScl, m.senderChecksum, m.receiverChecksum, m.senderFunction, m.receiverFunction);
  else if (scls && shortTag)
    located.operator()<KLT_Row::oneToOneCommunicationScl>();
  else if (scls)
    located.operator()<KLT_Row::oneToOneCommunicationWideScl>();
  else if (shortTag)
    plain.operator()<KLT_Row::oneToOneCommunication>();
  else
    plain.operator()<KLT_Row::oneToOneCommunicationWide>();
  return 0;
}

// Writes row N or, for an operation with locations, row Located with these as the last argument.
template <int N, int Located, class... Args>
void putOperationRow(KLT_WFileHandle* writer, const RK_Collective& o, Args... args) {
  if (o.scls == nullptr)
    KLT_Write<N>(writer, nullptr, o.time, args...);
  else
    KLT_Write<Located>(writer, nullptr, o.time, args..., o.scls);
}

// Writes the record for the operation's kind; nothing for an unknown kind.
int putOperation(KLT_WFileHandle* writer, const RK_Collective& o) {
  switch (static_cast<klt::CollopKind>(o.kind)) {
    case klt::CollopKind::kOneToAll:
      putOperationRow<KLT_Row::oneToAllCommunication, KLT_Row::oneToAllCommunicationScl>(
          writer, o, o.root, o.rootBytes, o.communicator, o.operation, o.n, o.starts, o.deltas,
          o.received);
      break;
    case klt::CollopKind::kAllToOne:
      putOperationRow<KLT_Row::allToOneCommunication, KLT_Row::allToOneCommunicationScl>(
          writer, o, o.root, o.rootBytes, o.communicator, o.operation, o.n, o.starts, o.deltas,
          o.sent);
      break;
    case klt::CollopKind::kAllToAll:
      putOperationRow<KLT_Row::allToAllCommunication, KLT_Row::allToAllCommunicationScl>(
          writer, o, o.communicator, o.operation, o.n, o.starts, o.deltas, o.sent, o.received);
      break;
    case klt::CollopKind::kAll:
      putOperationRow<KLT_Row::allCommunication, KLT_Row::allCommunicationScl>(
          writer, o, o.communicator, o.operation, o.n, o.starts, o.deltas);
      break;
    default:
      break;
  }
  return 0;
}

// A function that calls putOperation(op) later. It owns copies of the arrays.
KLTT_HeldRecords::WriteFunction deferredOperation(const RK_Collective& op) {
  const auto copy = [n = op.n](const auto* array) {
    using Element = std::remove_cvref_t<decltype(*array)>;
    return array == nullptr ? std::vector<Element>{} : std::vector<Element>(array, array + n);
  };
  // A null array must stay null.
  const auto data = [](bool present, const auto& array) {
    return present ? array.data() : nullptr;
  };
  return [op, data, starts = copy(op.starts), deltas = copy(op.deltas), sent = copy(op.sent),
          received = copy(op.received), scls = copy(op.scls)](KLT_WFileHandle* writer) {
    RK_Collective own = op;
    own.starts = starts.data();
    own.deltas = deltas.data();
    own.sent = data(op.sent != nullptr, sent);
    own.received = data(op.received != nullptr, received);
    own.scls = data(op.scls != nullptr, scls);
    return putOperation(writer, own);
  };
}

int putSamples(KLT_WFileHandle* writer, uint64_t time, uint32_t gtp, uint32_t count,
               const uint32_t* counters, const uint64_t* values) {
  const PAL_Place here;
  std::vector<uint64_t> stored;
  stored.reserve(count);
  for (uint32_t i = 0; i < count; ++i) stored.push_back(storedBytes(values[i]));
  KLT_Write<KLT_Row::counterValue>(writer, nullptr, time, gtp, count, stored.data(), counters);
  return 0;
}

class Records final : public RK_Sink {
 public:
  Records(KLT_WFileHandle* to, KLTT_Queue& pending) : RK_Sink(1), pending_(pending) {
    writer = to;
    longestComment = kLongestText + 1;  // one more, so that the writer reports a cut comment
  }

  int processDeclaration(std::span<const uint32_t> threads, uint64_t /*total*/) override {
    return put<KLT_Row::processDeclaration>(static_cast<uint32_t>(threads.size()), threads.data());
  }
  int willyName(uint32_t gtp, const char* text) override {
    return put<KLT_Row::willyName>(gtp, text);
  }
  // Times of the output have kKlttEventBits event bits; times of the input may have any number. The
  // resolution is scaled so that a tick keeps its duration.
  int clockResolution(double resolution, uint32_t eventBits) override {
    const int bits = static_cast<int>(std::min(eventBits, uint32_t{63}));
    return put<KLT_Row::clockResolution>(
        std::ldexp(resolution, bits - static_cast<int>(kKlttEventBits)), kKlttEventBits);
  }
  int duration(uint64_t start, uint64_t end) override { return put<KLT_Row::duration>(start, end); }
  int classDefinition(const KLTT_Classes& classes, KLTT_Class& defined,
                      const char* nameSelf) override {
    defined.outputPath = pathText(classes, defined);
    return put<KLT_Row::classDefinition>(defined.key, KLT_WriteText::known(defined.outputPath),
                                         nameSelf, defined.parent);
  }
  int functionDefinition(uint32_t id, const char* text, uint32_t classId) override {
    return put<KLT_Row::functionDefinition>(id, text, classId);
  }
  int scopeDefinition(uint32_t id, const char* text, uint32_t classId, uint32_t startScl,
                      uint32_t endScl) override {
    return put<KLT_Row::scopeDefinition>(id, text, classId, storedScl(startScl), storedScl(endScl));
  }
  int communicatorDefinition(uint32_t id, const char* text, uint32_t /*memberCount*/,
                             PAL_TripletSpan members, uint32_t flags) override {
    const size_t n = members.size();
    const std::vector<int32_t> parts = PAL_TripletsToParallel(members);
    const auto* gtps = reinterpret_cast<const uint32_t*>(parts.data());
    return put<KLT_Row::communicatorDefinition>(id, text, static_cast<uint32_t>(n), gtps, gtps + n,
                                                parts.data() + 2 * n, static_cast<int32_t>(flags));
  }
  int collectiveOperationDefinition(uint32_t id, const char* text, uint32_t opKind) override {
    return put<KLT_Row::collectiveOperationDefinition>(id, text, opKind);
  }
  // `flags` and `bounds` are as the reader delivers them.
  int counterDefinition(uint32_t id, const char* text, uint32_t flags, const uint64_t* bounds,
                        uint32_t gtp, uint32_t classId, const char* unit) override {
    constexpr uint32_t kDifferential = 0x80;
    constexpr uint32_t kInteger = 1;
    constexpr uint32_t kFloating = 2;
    const uint32_t type = (flags & kInteger) != 0 ? kInteger : kFloating;
    return put<KLT_Row::counterDefinition>(
        id, text, type | klt::rateHint(flags), uint32_t{(flags & kDifferential) != 0},
        storedBytes(bounds[0]), storedBytes(bounds[1]), gtp, classId, unit);
  }
  int groupDefinition(uint32_t id, const char* text, std::span<const uint32_t> members) override {
    return put<KLT_Row::groupDefinition>(id, text, static_cast<uint32_t>(members.size()),
                                         members.data());
  }
  int fileDefinition(uint32_t id, const char* path) override {
    if (!definedFiles_.insert(id).second) return 0;
    const std::string plain(pathOf(path == nullptr ? "" : path));
    return put<KLT_Row::fileDefinition>(id, plain.c_str());
  }
  int sclDefinition(uint32_t id, uint32_t n, const uint32_t* files, const uint32_t* lines,
                    const char* const* symbols, const char* const* objects) override {
    return put<KLT_Row::sclDefinition>(id, n, files, lines, symbols, objects);
  }
  int ioFileDefinition(uint32_t id, uint32_t communicator, const char* text) override {
    return put<KLT_Row::fileIoFileDefinition>(id, communicator, text);
  }
  int statisticsDefinition(uint32_t id, const char* text, uint32_t count, const char* const* labels,
                           const char* const* units) override {
    return put<KLT_Row::customStatisticsDefinition>(id, text, count, labels, units);
  }

  int enterFunction(uint64_t time, uint32_t gtp, uint32_t function, uint32_t scl) override {
    ++counts_.functions;
    return isScl(scl) ? put<KLT_Row::enterFunctionScl>(time, gtp, function, scl)
                      : put<KLT_Row::enterFunction>(time, gtp, function);
  }
  int leaveFunction(uint64_t time, uint32_t gtp, uint32_t /*function*/, uint32_t scl) override {
    return isScl(scl) ? put<KLT_Row::leaveFunctionScl>(time, gtp, scl)
                      : put<KLT_Row::leaveFunction>(time, gtp);
  }
  int enterScope(uint64_t time, uint32_t gtp, uint32_t scope, uint32_t seqnr,
                 uint32_t scl) override {
    ++counts_.scopes;
    return isScl(scl) ? put<KLT_Row::enterScopeScl>(time, gtp, scope, seqnr, scl)
                      : put<KLT_Row::enterScope>(time, gtp, scope, seqnr);
  }
  int leaveScope(uint64_t time, uint32_t gtp, uint32_t scope, uint32_t seqnr,
                 uint32_t scl) override {
    return isScl(scl) ? put<KLT_Row::leaveScopeScl>(time, gtp, scope, seqnr, scl)
                      : put<KLT_Row::leaveScope>(time, gtp, scope, seqnr);
  }
  int comment(uint64_t time, uint32_t gtp, const char* text) override {
    ++counts_.others;
    return put<KLT_Row::comment>(time, gtp, text);
  }
  int opaqueData(uint64_t time, uint32_t gtp, uint32_t size, const uint8_t* data,
                 uint32_t scl) override {
    ++counts_.others;
    return put<KLT_Row::opaqueData>(time, gtp, size, data, storedScl(scl));
  }
  int fileIoBegin(uint64_t time, uint32_t gtp, uint32_t operation, uint32_t file, uint32_t bytes,
                  uint32_t scl) override {
    ++counts_.others;
    return isScl(scl) ? put<KLT_Row::fileIoBeginScl>(time, gtp, operation, file, bytes, scl)
                      : put<KLT_Row::fileIoBegin>(time, gtp, operation, file, bytes);
  }
  int fileIoEnd(uint64_t time, uint32_t gtp, uint32_t operation, uint32_t file, uint32_t bytes,
                uint32_t scl) override {
    return isScl(scl) ? put<KLT_Row::fileIoEndScl>(time, gtp, operation, file, bytes, scl)
                      : put<KLT_Row::fileIoEnd>(time, gtp, operation, file, bytes);
  }

  int counterValue(KLTT_Clock& clock, uint64_t time, uint32_t gtp, uint32_t count,
                   const uint32_t* counters, const uint8_t* /*types*/,
                   const uint64_t* values) override {
    ++counts_.counters;
    if (!mustWait(clock, time)) return putSamples(writer, time, gtp, count, counters, values);
    return hold(clock, time,
                [=, ids = std::vector<uint32_t>(counters, counters + count),
                 samples = std::vector<uint64_t>(values, values + count)](auto* to) {
                  return putSamples(to, time, gtp, count, ids.data(), samples.data());
                });
  }

  // A record has the time of one side and the time span to the other side. Both are converted to
  // internal time.
  int message(KLTT_Clock& clock, const RK_Message& m) override {
    ++counts_.messages;
    const uint64_t time = KLTT_InternalTime(clock, m.time);
    int64_t span = m.receiveTime;
    if (!klt::isUnknownSide(span)) {
      const uint64_t other = KLTT_InternalTime(clock, klt::messageEnd(m.time, span));
      const auto distance = static_cast<int64_t>(other - time);
      span = span < 0 ? -distance : distance;
    }
    if (!mustWait(clock, time)) return putMessage(writer, m, time, span);
    return hold(clock, time, [=](auto* to) { return putMessage(to, m, time, span); });
  }

  int collective(KLTT_Clock& clock, const RK_Collective& op) override {
    const PAL_Place here;
    ++counts_.collectives;
    RK_Collective record = op;
    record.time = KLTT_InternalTime(clock, op.time);
    std::vector<uint64_t> starts(op.starts, op.starts + op.n);
    std::vector<uint64_t> deltas(op.deltas, op.deltas + op.n);
    for (uint32_t i = 0; i < op.n; ++i) {
      if (klt::isUnknownStart(starts[i])) continue;
      const uint64_t rawStart = op.time + starts[i];
      const uint64_t start = KLTT_InternalTime(clock, rawStart);
      starts[i] = start - record.time;
      deltas[i] = KLTT_InternalTime(clock, rawStart + deltas[i]) - start;
    }
    record.starts = starts.data();
    record.deltas = deltas.data();
    if (!mustWait(clock, record.time)) return putOperation(writer, record);
    return hold(clock, record.time, deferredOperation(record));
  }

  [[nodiscard]] uint64_t amount() const override {
    const Counts& c = counts_;
    return uint64_t{c.functions} + c.messages + c.collectives + c.scopes + c.counters + c.others;
  }
  // The number of events, from which a summary computes the number of its bins.
  int finish() override {
    const Counts& c = counts_;
    if ((c.functions | c.messages | c.collectives | c.scopes | c.counters) == 0) return 0;
    return put<KLT_Row::eventSummary>(c.functions, c.messages, c.collectives, c.scopes, c.counters);
  }

  int delayed(uint64_t time, const KLTT_Delayed& node) override {
    if (node.kind == KLTT_DelayedKind::kHeld) held_.write(time, writer);
    return 0;
  }

 private:
  // Ignores failures: the writer reports them, still writes the other components, and reports when
  // it is closed that the trace is incomplete.
  template <int N, class... Args>
  int put(Args... args) {
    (void)KLT_Write<N>(writer, nullptr, args...);
    return 0;
  }

  // Adds the path of a class to the texts of the output and returns the text's id. Returns 0 for a
  // path that is too long for a text; the names of the class and its parents also define the path.
  uint32_t pathText(const KLTT_Classes& classes, const KLTT_Class& of) {
    constexpr uint64_t kShort = 256;  // a longer path is joined to its parent's, to save memory
    if (of.parent == 0) return writer->stringId(of.own);
    if (of.pathBytes > kLongestText) return 0;
    if (of.pathBytes <= kShort) return writer->stringId(KLTT_ClassPath(classes, of).c_str());
    return writer->joinedId(classes.find(of.parent)->outputPath, of.own);
  }

  // Whether a record has to wait, because a history may still add records with earlier times.
  [[nodiscard]] bool mustWait(const KLTT_Clock& clock, uint64_t time) const {
    return clock.inHistory || held_.waitFor(time);
  }
  // Delays such a record: `write`, which must own its data, is called in order of time before the
  // first later record is written.
  int hold(KLTT_Clock& clock, uint64_t time, KLTT_HeldRecords::WriteFunction write) {
    const uint64_t moment = clock.inHistory ? KLTT_InternalTime(clock, clock.historyTime) : time;
    if (held_.add(moment, time, std::move(write))) {
      KLTT_QueueAdd(pending_, moment).kind = KLTT_DelayedKind::kHeld;
    }
    return 0;
  }

  struct Counts {
    uint32_t functions = 0, messages = 0, collectives = 0, scopes = 0, counters = 0;
    uint32_t others = 0;  // comments, opaque data, file I/O
  };

  Counts counts_;
  KLTT_Queue& pending_;
  KLTT_HeldRecords held_;
  PAL_HashSet<uint32_t> definedFiles_;
};

}  // namespace

std::unique_ptr<RK_Sink> KLTT_RecordSink(KLT_WFileHandle* writer, KLTT_Queue& pending) {
  return std::make_unique<Records>(writer, pending);
}
