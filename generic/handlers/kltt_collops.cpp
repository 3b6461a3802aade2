// Handlers of collective operations: four records, one algorithm. See kltt_collops.h.
#include "generic/handlers/kltt_collops.h"

#include <algorithm>

#include "generic/handlers/kltt_context.h"
#include "generic/handlers/kltt_events.h"
#include "generic/handlers/kltt_tables.h"
#include "generic/options/RK_conf.h"
#include "generic/sink/RK_wtrace.h"
#include "generic/sink/kltt_binary.h"
#include "generic/text/RK_rkf.h"
#include "generic/text/kltt_exit.h"
#include "klt/format/klt_spans.h"
#include "util/pal_mem.h"

namespace {

constexpr uint32_t kAbsent = ~uint32_t{0};  // no root, or a size that doesn't apply

// Where a member's sizes come from. At most one of the two is kAtRoot.
enum class Sizes {
  kNone,    // the record has none
  kArray,   // one for each member
  kAtRoot,  // one in all, the root's
};

struct Collop {
  const char* record;  // the record's name in messages
  uint64_t time;       // raw
  uint32_t communicator;
  uint32_t type;
  uint32_t n;
  const uint64_t* starts;
  const uint64_t* deltas;
  const uint32_t* scls;  // or null

  bool rooted;
  uint32_t root;       // gtp, if rooted
  uint32_t rootBytes;  // the size that is kAtRoot

  Sizes sentFrom;
  const uint32_t* sent;  // kArray
  Sizes receivedFrom;
  const uint32_t* received;  // kArray

  [[nodiscard]] bool hasTimes(uint32_t i) const { return !klt::isUnknownStart(starts[i]); }
};

uint64_t latestEnd(const Collop& op) {
  uint64_t latest = 0;
  for (uint32_t i = 0; i < op.n; ++i) {
    if (op.hasTimes(i)) {
      latest =
          std::max(latest, KLTT_TimeAfter(KLTT_TimeAfter(op.time, op.starts[i]), op.deltas[i]));
    }
  }
  return latest;
}

// The array for a matched line: null if there is none.
const uint32_t* matchedSizes(KLTT_Context& context, const Collop& op,
                             const KLTT_MemberList& members, Sizes from, const uint32_t* array) {
  if (from != Sizes::kAtRoot) return array;
  std::vector<uint32_t>& sizes = context.scratchBytes;
  sizes.assign(size_t{op.n} + 1, 0);  // never empty: null would stand for sizes that aren't known
  KLTT_MemberList::Cursor member(members);
  uint32_t gtp = 0;
  for (uint32_t i = 0; i < op.n && member.next(&gtp); ++i) {
    if (gtp == op.root) sizes[i] = op.rootBytes;
  }
  return sizes.data();
}

// The record of the operation's own kind, which may differ from the one read.
int putRecord(KLTT_Context& context, KLT_WFileHandle* writer, const Collop& op,
              const KLTT_MemberList& members, uint32_t kind, uint64_t internalTime) {
  const PAL_Place here;
  std::vector<uint64_t> starts;
  std::vector<uint64_t> deltas;
  for (uint32_t i = 0; i < op.n; ++i) {
    if (!op.hasTimes(i)) {
      starts.push_back(op.starts[i]);
      deltas.push_back(op.deltas[i]);
      continue;
    }
    const uint64_t rawStart = op.time + op.starts[i];
    const uint64_t start = KLTT_InternalTime(context, rawStart);
    starts.push_back(start - internalTime);
    deltas.push_back(KLTT_InternalTime(context, rawStart + op.deltas[i]) - start);
  }
  // Only the form that has a root takes the root's size from a record of that form.
  enum : uint32_t { kOneToAll = 1, kAllToOne = 2 };
  uint32_t rootBytes = 0;
  if (kind == kOneToAll && op.sentFrom == Sizes::kAtRoot) rootBytes = op.rootBytes;
  if (kind == kAllToOne && op.receivedFrom == Sizes::kAtRoot) rootBytes = op.rootBytes;
  const KLTT_OperationRecord record{
      internalTime,
      op.communicator,
      op.type,
      op.n,
      starts.data(),
      deltas.data(),
      op.rooted ? op.root : kAbsent,
      rootBytes,
      matchedSizes(context, op, members, op.sentFrom, op.sent),
      matchedSizes(context, op, members, op.receivedFrom, op.received),
      op.scls};
  if (!KLTT_MustWait(context, internalTime)) return KLTT_PutOperationRecord(writer, kind, record);
  return KLTT_Hold(context, internalTime, KLTT_OperationPut(kind, record));
}

int writeMatched(KLTT_Context& context, const Collop& op, const KLTT_MemberList& members,
                 uint32_t kind, uint64_t internalTime) {
  if (KLT_WFileHandle* writer = KLTT_Writer(context)) {
    return putRecord(context, writer, op, members, kind, internalTime);
  }
  RK_Output* text = KLTT_Text(context);
  if (text == nullptr) return 0;
  const uint32_t* sent = matchedSizes(context, op, members, op.sentFrom, op.sent);
  const uint32_t* received = matchedSizes(context, op, members, op.receivedFrom, op.received);
  return RK_WriteCollOp(text, RK_SinkTime(context.sink, internalTime), kind, op.type,
                        op.communicator, op.rooted ? op.root : kAbsent, op.n, op.starts, op.deltas,
                        sent, received, op.scls);
}

uint32_t memberSize(const Collop& op, Sizes from, const uint32_t* array, uint32_t i, bool isRoot) {
  if (from == Sizes::kAtRoot) return isRoot ? op.rootBytes : kAbsent;
  return array != nullptr ? array[i] : kAbsent;
}

void queueMembers(KLTT_Context& context, const Collop& op, const KLTT_MemberList& members) {
  KLTT_MemberList::Cursor member(members);
  uint32_t root = op.root;
  for (uint32_t i = 0; i < op.n; ++i) {
    uint32_t gtp = 0;
    const bool isMember = member.next(&gtp);
    if (i == 0 && !op.rooted) root = gtp;
    if (!op.hasTimes(i)) continue;
    uint64_t start = op.time + op.starts[i];
    const uint64_t end = start + op.deltas[i];
    if (context.inHistory) {
      if (end < context.historyTime) continue;
      start = std::max(start, context.historyTime);
    }
    if (!isMember) KLTT_Fatal("%s record with undefined communicator id", op.record);
    KLTT_Delayed& node = context.pending.add(KLTT_InternalTime(context, start));
    node.kind = KLTT_DelayedKind::kGlobalOp;
    node.gtp = gtp;
    node.operation = {.endTime = KLTT_InternalTime(context, end),
                      .operation = op.type,
                      .communicator = op.communicator,
                      .root = root,
                      .sent = memberSize(op, op.sentFrom, op.sent, i, gtp == op.root),
                      .received = memberSize(op, op.receivedFrom, op.received, i, gtp == op.root),
                      .scl = op.scls != nullptr ? op.scls[i] : 0};
  }
}

int format(void* user, const Collop& op) {
  KLTT_Context& context = *static_cast<KLTT_Context*>(user);
  const KLTT_MemberList& members = KLTT_GetIndexInComm(context, op.communicator, op.record);
  const uint64_t internalTime = KLTT_InternalTime(context, op.time);
  if (KLTT_LogFormatRecord(context, internalTime) != 0) return 1;
  int result = 0;
  if (RK_conf.matched_rkf != 0) {
    // An operation without a definition is neither written nor an event that counts as the last.
    const KLTT_Named* operation = context.collops.find(op.type);
    if (operation == nullptr || context.sink == nullptr) return 0;
    result = writeMatched(context, op, members, operation->extra, internalTime);
  } else {
    queueMembers(context, op, members);
  }
  context.lastEventTime = std::max(context.lastEventTime, latestEnd(op));
  return result;
}

}  // namespace

int KLTT_OneToAllCommunication(void* user, uint64_t time, uint32_t sender, uint32_t sent,
                               uint32_t communicator, uint32_t type, uint32_t n,
                               const uint64_t* starts, const uint64_t* deltas,
                               const uint32_t* received, const uint32_t* scls) {
  return format(user, {.record = "OneToAll",
                       .time = time,
                       .communicator = communicator,
                       .type = type,
                       .n = n,
                       .starts = starts,
                       .deltas = deltas,
                       .scls = scls,
                       .rooted = true,
                       .root = sender,
                       .rootBytes = sent,
                       .sentFrom = Sizes::kAtRoot,
                       .sent = nullptr,
                       .receivedFrom = Sizes::kArray,
                       .received = received});
}

int KLTT_AllToOneCommunication(void* user, uint64_t time, uint32_t receiver, uint32_t recvd,
                               uint32_t communicator, uint32_t type, uint32_t n,
                               const uint64_t* starts, const uint64_t* deltas,
                               const uint32_t* sendSizes, const uint32_t* scls) {
  return format(user, {.record = "AllToOne",
                       .time = time,
                       .communicator = communicator,
                       .type = type,
                       .n = n,
                       .starts = starts,
                       .deltas = deltas,
                       .scls = scls,
                       .rooted = true,
                       .root = receiver,
                       .rootBytes = recvd,
                       .sentFrom = Sizes::kArray,
                       .sent = sendSizes,
                       .receivedFrom = Sizes::kAtRoot,
                       .received = nullptr});
}

int KLTT_AllToAllCommunication(void* user, uint64_t time, uint32_t communicator, uint32_t type,
                               uint32_t n, const uint64_t* starts, const uint64_t* deltas,
                               const uint32_t* sendSizes, const uint32_t* receiveSizes,
                               const uint32_t* scls) {
  return format(user, {.record = "AllToAll",
                       .time = time,
                       .communicator = communicator,
                       .type = type,
                       .n = n,
                       .starts = starts,
                       .deltas = deltas,
                       .scls = scls,
                       .rooted = false,
                       .root = kAbsent,
                       .rootBytes = 0,
                       .sentFrom = Sizes::kArray,
                       .sent = sendSizes,
                       .receivedFrom = Sizes::kArray,
                       .received = receiveSizes});
}

int KLTT_AllCommunication(void* user, uint64_t time, uint32_t communicator, uint32_t type,
                          uint32_t n, const uint64_t* starts, const uint64_t* deltas,
                          const uint32_t* scls) {
  return format(user, {.record = "AllToAll",
                       .time = time,
                       .communicator = communicator,
                       .type = type,
                       .n = n,
                       .starts = starts,
                       .deltas = deltas,
                       .scls = scls,
                       .rooted = false,
                       .root = kAbsent,
                       .rootBytes = 0,
                       .sentFrom = Sizes::kNone,
                       .sent = nullptr,
                       .receivedFrom = Sizes::kNone,
                       .received = nullptr});
}
