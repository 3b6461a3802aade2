#include "generic/sink/kltt_binary.h"

#include <cmath>
#include <string>
#include <type_traits>
#include <vector>

#include "generic/handlers/kltt_events.h"
#include "generic/handlers/kltt_tables.h"
#include "klt/write/klt_write.h"
#include "util/pal_mem.h"

namespace {

constexpr uint32_t kNoScl = 0x7fffffff;

bool isScl(uint32_t scl) { return scl != 0 && scl != kNoScl; }
uint32_t storedScl(uint32_t scl) { return isScl(scl) ? scl : 0; }

// The writer has told of a failure, goes on with its other streams and tells when it is closed
// that something is missing: no reason to stop reading.
int result(uint32_t /*written*/) { return 0; }

uint64_t storedBytes(uint64_t value) { return klt::swapBytes(value); }

}  // namespace

int KLTT_PutProcesses(KLT_WFileHandle* writer, std::span<const uint32_t> threads) {
  return result(KLT_Write<KLT_Row::processDeclaration>(
      writer, nullptr, static_cast<uint32_t>(threads.size()), threads.data()));
}

int KLTT_PutWillyName(KLT_WFileHandle* writer, uint32_t gtp, const char* name) {
  return result(KLT_Write<KLT_Row::willyName>(writer, nullptr, gtp, name));
}

// Times of the output have 13 event bits: the seconds of a tick stay those of the input.
int KLTT_PutClock(KLT_WFileHandle* writer, double resolution, uint32_t eventBits) {
  const double unit = std::ldexp(
      resolution, static_cast<int>(eventBits) - static_cast<int>(KLTT_INTERNAL_EVENT_BITS));
  return result(
      KLT_Write<KLT_Row::clockResolution>(writer, nullptr, unit, KLTT_INTERNAL_EVENT_BITS));
}

int KLTT_PutDuration(KLT_WFileHandle* writer, uint64_t start, uint64_t end) {
  return result(KLT_Write<KLT_Row::duration>(writer, nullptr, start, end));
}

uint32_t KLTT_PutClassPath(KLT_WFileHandle* writer, const KLTT_Context& context,
                           const KLTT_Class& of) {
  constexpr uint64_t kLongest = 0xffff;
  constexpr uint64_t kShort = 256;  // takes no more memory in one piece
  if (of.parent == 0) return writer->stringId(of.own);
  if (of.pathBytes > kLongest) return 0;
  if (of.pathBytes <= kShort) return writer->stringId(KLTT_ClassPath(context, of).c_str());
  return writer->joinedId(context.classes.find(of.parent)->outputPath, std::string(":") + of.own);
}

int KLTT_PutClass(KLT_WFileHandle* writer, uint32_t id, uint32_t path, const char* nameSelf,
                  uint32_t parent) {
  return result(KLT_Write<KLT_Row::classDefinition>(writer, nullptr, id, KLT_WriteText::known(path),
                                                    nameSelf, parent));
}

int KLTT_PutFunction(KLT_WFileHandle* writer, uint32_t id, const char* name, uint32_t classId) {
  return result(KLT_Write<KLT_Row::functionDefinition>(writer, nullptr, id, name, classId));
}

int KLTT_PutScope(KLT_WFileHandle* writer, uint32_t id, const char* name, uint32_t classId,
                  uint32_t startScl, uint32_t endScl) {
  return result(KLT_Write<KLT_Row::scopeDefinition>(writer, nullptr, id, name, classId,
                                                    storedScl(startScl), storedScl(endScl)));
}

int KLTT_PutCommunicator(KLT_WFileHandle* writer, uint32_t id, const char* name,
                         std::span<const PAL_Triplet> members, uint32_t leftSize) {
  const size_t n = members.size();
  const std::vector<int32_t> parts = PAL_TripletsToParallel(members);
  const auto* gtps = reinterpret_cast<const uint32_t*>(parts.data());
  return result(KLT_Write<KLT_Row::communicatorDefinition>(
      writer, nullptr, id, name, static_cast<uint32_t>(n), gtps, gtps + n, parts.data() + 2 * n,
      static_cast<int32_t>(leftSize)));
}

int KLTT_PutOperation(KLT_WFileHandle* writer, uint32_t id, const char* name, uint32_t kind) {
  return result(KLT_Write<KLT_Row::collectiveOperationDefinition>(writer, nullptr, id, name, kind));
}

int KLTT_PutCounter(KLT_WFileHandle* writer, uint32_t id, const char* name, uint32_t flags,
                    const uint64_t* bounds, uint32_t gtp, uint32_t classId, const char* unit) {
  constexpr uint32_t kDifferential = 0x80;
  constexpr uint32_t kInteger = 1;
  constexpr uint32_t kFloating = 2;
  const uint32_t type = (flags & kInteger) != 0 ? kInteger : kFloating;
  // One hint at the rate, by the same preference as in text.
  const uint32_t hint = flags & 0x10 ? 0x10 : flags & 0x04 ? 0x04 : flags & 0x08;
  return result(KLT_Write<KLT_Row::counterDefinition>(
      writer, nullptr, id, name, type | hint, uint32_t{(flags & kDifferential) != 0},
      storedBytes(bounds[0]), storedBytes(bounds[1]), gtp, classId, unit));
}

int KLTT_PutGroup(KLT_WFileHandle* writer, uint32_t id, const char* name,
                  std::span<const uint32_t> members) {
  return result(KLT_Write<KLT_Row::groupDefinition>(
      writer, nullptr, id, name, static_cast<uint32_t>(members.size()), members.data()));
}

int KLTT_PutFile(KLT_WFileHandle* writer, uint32_t id, const char* name) {
  return result(KLT_Write<KLT_Row::fileDefinition>(writer, nullptr, id, name));
}

int KLTT_PutScl(KLT_WFileHandle* writer, uint32_t id, uint32_t n, const uint32_t* files,
                const uint32_t* lines, const char* const* symbols, const char* const* objects) {
  return result(
      KLT_Write<KLT_Row::sclDefinition>(writer, nullptr, id, n, files, lines, symbols, objects));
}

int KLTT_PutIoFile(KLT_WFileHandle* writer, uint32_t id, uint32_t communicator, const char* name) {
  return result(KLT_Write<KLT_Row::fileIoFileDefinition>(writer, nullptr, id, communicator, name));
}

int KLTT_PutStatisticsDefinition(KLT_WFileHandle* writer, uint32_t id, const char* name,
                                 uint32_t count, const char* const* labels,
                                 const char* const* units) {
  return result(KLT_Write<KLT_Row::customStatisticsDefinition>(writer, nullptr, id, name, count,
                                                               labels, units));
}

int KLTT_PutEnterFunction(KLT_WFileHandle* writer, uint64_t time, uint32_t gtp, uint32_t function,
                          uint32_t scl) {
  if (!isScl(scl))
    return result(KLT_Write<KLT_Row::enterFunction>(writer, nullptr, time, gtp, function));
  return result(KLT_Write<KLT_Row::enterFunctionScl>(writer, nullptr, time, gtp, function, scl));
}

int KLTT_PutLeaveFunction(KLT_WFileHandle* writer, uint64_t time, uint32_t gtp, uint32_t scl) {
  if (!isScl(scl)) return result(KLT_Write<KLT_Row::leaveFunction>(writer, nullptr, time, gtp));
  return result(KLT_Write<KLT_Row::leaveFunctionScl>(writer, nullptr, time, gtp, scl));
}

int KLTT_PutEnterScope(KLT_WFileHandle* writer, uint64_t time, uint32_t gtp, uint32_t scope,
                       uint32_t seqnr, uint32_t scl) {
  if (!isScl(scl))
    return result(KLT_Write<KLT_Row::enterScope>(writer, nullptr, time, gtp, scope, seqnr));
  return result(KLT_Write<KLT_Row::enterScopeScl>(writer, nullptr, time, gtp, scope, seqnr, scl));
}

int KLTT_PutLeaveScope(KLT_WFileHandle* writer, uint64_t time, uint32_t gtp, uint32_t scope,
                       uint32_t seqnr, uint32_t scl) {
  if (!isScl(scl))
    return result(KLT_Write<KLT_Row::leaveScope>(writer, nullptr, time, gtp, scope, seqnr));
  return result(KLT_Write<KLT_Row::leaveScopeScl>(writer, nullptr, time, gtp, scope, seqnr, scl));
}

int KLTT_PutComment(KLT_WFileHandle* writer, uint64_t time, uint32_t gtp, const char* text) {
  return result(KLT_Write<KLT_Row::comment>(writer, nullptr, time, gtp, text));
}

int KLTT_PutOpaque(KLT_WFileHandle* writer, uint64_t time, uint32_t gtp, uint32_t size,
                   const uint8_t* data, uint32_t scl) {
  return result(
      KLT_Write<KLT_Row::opaqueData>(writer, nullptr, time, gtp, size, data, storedScl(scl)));
}

int KLTT_PutFileIo(KLT_WFileHandle* writer, bool begin, uint64_t time, uint32_t gtp,
                   uint32_t operation, uint32_t file, uint32_t bytes, uint32_t scl) {
  if (isScl(scl)) {
    return result(begin ? KLT_Write<KLT_Row::fileIoBeginScl>(writer, nullptr, time, gtp, operation,
                                                             file, bytes, scl)
                        : KLT_Write<KLT_Row::fileIoEndScl>(writer, nullptr, time, gtp, operation,
                                                           file, bytes, scl));
  }
  return result(
      begin ? KLT_Write<KLT_Row::fileIoBegin>(writer, nullptr, time, gtp, operation, file, bytes)
            : KLT_Write<KLT_Row::fileIoEnd>(writer, nullptr, time, gtp, operation, file, bytes));
}

int KLTT_PutSamples(KLT_WFileHandle* writer, uint64_t time, uint32_t gtp, uint32_t count,
                    const uint32_t* counters, const uint64_t* values) {
  const PAL_Place here;
  std::vector<uint64_t> stored;
  stored.reserve(count);
  for (uint32_t i = 0; i < count; ++i) stored.push_back(storedBytes(values[i]));
  return result(
      KLT_Write<KLT_Row::counterValue>(writer, nullptr, time, gtp, count, stored.data(), counters));
}

int KLTT_PutMessage(KLT_WFileHandle* writer, const KLTT_MessageRecord& m) {
  const bool scls = isScl(m.senderScl) || isScl(m.receiverScl);
  const uint32_t senderScl = storedScl(m.senderScl);
  const uint32_t receiverScl = storedScl(m.receiverScl);
  if (m.senderChecksum != 0 || m.receiverChecksum != 0) {
    return result(KLT_Write<KLT_Row::oneToOneCommunicationChecksums>(
        writer, nullptr, m.time, m.sender, m.receiveTime, m.receiver, m.communicator, m.size, m.tag,
        senderScl, receiverScl, m.senderChecksum, m.receiverChecksum, m.senderFunction,
        m.receiverFunction));
  }
  const auto plain = [&]<int N>() {
    return KLT_Write<N>(writer, nullptr, m.time, m.sender, m.receiveTime, m.receiver,
                        m.communicator, m.size, m.tag, m.senderFunction, m.receiverFunction);
  };
  const auto located = [&]<int N>() {
    return KLT_Write<N>(writer, nullptr, m.time, m.sender, m.receiveTime, m.receiver,
                        m.communicator, m.size, m.tag, senderScl, receiverScl, m.senderFunction,
                        m.receiverFunction);
  };
  const bool shortTag = m.tag < 0x10000;
  if (scls)
    return result(shortTag ? located.operator()<KLT_Row::oneToOneCommunicationScl>()
                           : located.operator()<KLT_Row::oneToOneCommunicationWideScl>());
  return result(shortTag ? plain.operator()<KLT_Row::oneToOneCommunication>()
                         : plain.operator()<KLT_Row::oneToOneCommunicationWide>());
}

KLTT_HeldRecords::Put KLTT_OperationPut(uint32_t kind, const KLTT_OperationRecord& op) {
  const auto copy = [n = op.n](const auto* array) {
    using Element = std::remove_cvref_t<decltype(*array)>;
    return array == nullptr ? std::vector<Element>{} : std::vector<Element>(array, array + n);
  };
  // An array that isn't there must not become one without elements.
  const auto data = [](bool present, const auto& array) {
    return present ? array.data() : nullptr;
  };
  return [kind, op, data, starts = copy(op.starts), deltas = copy(op.deltas), sent = copy(op.sent),
          received = copy(op.received), scls = copy(op.scls)](KLT_WFileHandle* writer) {
    KLTT_OperationRecord own = op;
    own.starts = starts.data();
    own.deltas = deltas.data();
    own.sent = data(op.sent != nullptr, sent);
    own.received = data(op.received != nullptr, received);
    own.scls = data(op.scls != nullptr, scls);
    return KLTT_PutOperationRecord(writer, kind, own);
  };
}

int KLTT_PutOperationRecord(KLT_WFileHandle* writer, uint32_t kind, const KLTT_OperationRecord& o) {
  enum : uint32_t { kOneToAll = 1, kAllToOne = 2, kAllToAll = 3, kAll = 4 };
  switch (kind) {
    case kOneToAll:
      return result(o.scls == nullptr
                        ? KLT_Write<KLT_Row::oneToAllCommunication>(
                              writer, nullptr, o.time, o.root, o.rootBytes, o.communicator, o.type,
                              o.n, o.starts, o.deltas, o.received)
                        : KLT_Write<KLT_Row::oneToAllCommunicationScl>(
                              writer, nullptr, o.time, o.root, o.rootBytes, o.communicator, o.type,
                              o.n, o.starts, o.deltas, o.received, o.scls));
    case kAllToOne:
      return result(o.scls == nullptr
                        ? KLT_Write<KLT_Row::allToOneCommunication>(
                              writer, nullptr, o.time, o.root, o.rootBytes, o.communicator, o.type,
                              o.n, o.starts, o.deltas, o.sent)
                        : KLT_Write<KLT_Row::allToOneCommunicationScl>(
                              writer, nullptr, o.time, o.root, o.rootBytes, o.communicator, o.type,
                              o.n, o.starts, o.deltas, o.sent, o.scls));
    case kAllToAll:
      return result(o.scls == nullptr ? KLT_Write<KLT_Row::allToAllCommunication>(
                                            writer, nullptr, o.time, o.communicator, o.type, o.n,
                                            o.starts, o.deltas, o.sent, o.received)
                                      : KLT_Write<KLT_Row::allToAllCommunicationScl>(
                                            writer, nullptr, o.time, o.communicator, o.type, o.n,
                                            o.starts, o.deltas, o.sent, o.received, o.scls));
    case kAll:
      return result(
          o.scls == nullptr
              ? KLT_Write<KLT_Row::allCommunication>(writer, nullptr, o.time, o.communicator,
                                                     o.type, o.n, o.starts, o.deltas)
              : KLT_Write<KLT_Row::allCommunicationScl>(writer, nullptr, o.time, o.communicator,
                                                        o.type, o.n, o.starts, o.deltas, o.scls));
    default:
      return 0;
  }
}
