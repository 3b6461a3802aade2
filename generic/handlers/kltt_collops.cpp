// Handles records of collective operations. See kltt_collops.h.
#include "generic/handlers/kltt_collops.h"

#include <algorithm>

#include "generic/handlers/kltt_context.h"
#include "generic/handlers/kltt_events.h"
#include "generic/handlers/kltt_tables.h"
#include "generic/text/kltt_exit.h"
#include "klt/format/klt_spans.h"
#include "klt/format/klt_values.h"

namespace {

using Record = KLTT_CollectiveRecord;

constexpr uint32_t kNoSize = ~uint32_t{0};  // for a member that sends or receives nothing

uint64_t latestEnd(const Record& op) {
  uint64_t latest = 0;
  for (uint32_t i = 0; i < op.n; ++i) {
    if (klt::isUnknownStart(op.starts[i])) continue;
    const uint64_t start = klt::saturatingSum(op.time, op.starts[i]);
    latest = std::max(latest, klt::saturatingSum(start, op.deltas[i]));
  }
  return latest;
}

// The sizes of all members, for a record that only has the root's: 0 for the others.
const uint32_t* rootSizeArray(KLTT_Context& context, const Record& op,
                              const KLTT_MemberList& members) {
  std::vector<uint32_t>& sizes = context.scratchBytes;
  sizes.assign(size_t{op.n} + 1, 0);  // never empty: a null array means unknown sizes
  KLTT_MemberList::Cursor member(members);
  uint32_t gtp = 0;
  for (uint32_t i = 0; i < op.n && member.next(&gtp); ++i) {
    if (gtp == op.root) sizes[i] = op.rootBytes;
  }
  return sizes.data();
}

// Whether the written record, which is of `kind`, gets the root's size of `op`: only if `op` is of
// the same kind.
bool hasRootBytes(const Record& op, uint32_t kind) {
  if (op.atRoot == Record::AtRoot::kSent) return kind == uint32_t(klt::CollopKind::kOneToAll);
  if (op.atRoot == Record::AtRoot::kReceived) return kind == uint32_t(klt::CollopKind::kAllToOne);
  return false;
}

// `kind` is the kind in the operation's definition, which may differ from the kind of the record.
int writeMatched(KLTT_Context& context, const Record& op, const KLTT_MemberList& members,
                 uint32_t kind) {
  const uint32_t* sizes =
      op.atRoot == Record::AtRoot::kNothing ? nullptr : rootSizeArray(context, op, members);
  return context.sink->collective(
      context, {.time = op.time,
                .kind = kind,
                .operation = op.type,
                .communicator = op.communicator,
                .root = op.root,
                .rootBytes = hasRootBytes(op, kind) ? op.rootBytes : 0,
                .n = op.n,
                .starts = op.starts,
                .deltas = op.deltas,
                .sent = op.atRoot == Record::AtRoot::kSent ? sizes : op.sent,
                .received = op.atRoot == Record::AtRoot::kReceived ? sizes : op.received,
                .scls = op.scls});
}

uint32_t memberSize(const Record& op, bool atRoot, const uint32_t* array, uint32_t i, bool isRoot) {
  if (atRoot) return isRoot ? op.rootBytes : kNoSize;
  return array != nullptr ? array[i] : kNoSize;
}

void queueMembers(KLTT_Context& context, const Record& op, const KLTT_MemberList& members) {
  KLTT_MemberList::Cursor member(members);
  uint32_t root = op.root;
  for (uint32_t i = 0; i < op.n; ++i) {
    uint32_t gtp = 0;
    const bool isMember = member.next(&gtp);
    if (i == 0 && op.atRoot == Record::AtRoot::kNothing) root = gtp;
    if (klt::isUnknownStart(op.starts[i])) continue;
    uint64_t start = op.time + op.starts[i];
    const uint64_t end = start + op.deltas[i];
    if (context.inHistory) {
      if (end < context.historyTime) continue;
      start = std::max(start, context.historyTime);
    }
    if (!isMember) KLTT_Fatal("%s record with undefined communicator id", op.name);
    const bool isRoot = gtp == op.root;
    KLTT_Delayed& node = KLTT_QueueAdd(context.pending, KLTT_InternalTime(context, start));
    node.kind = KLTT_DelayedKind::kGlobalOp;
    node.gtp = gtp;
    node.operation = {
        .endTime = KLTT_InternalTime(context, end),
        .part = {.operation = op.type,
                 .communicator = op.communicator,
                 .root = root,
                 .sent = memberSize(op, op.atRoot == Record::AtRoot::kSent, op.sent, i, isRoot),
                 .received =
                     memberSize(op, op.atRoot == Record::AtRoot::kReceived, op.received, i, isRoot),
                 .scl = op.scls != nullptr ? op.scls[i] : 0}};
  }
}

}  // namespace

int KLTT_FormatCollective(void* user, const KLTT_CollectiveRecord& op) {
  KLTT_Context& context = *static_cast<KLTT_Context*>(user);
  const KLTT_MemberList& members = KLTT_GetIndexInComm(context, op.communicator, op.name);
  const uint64_t internalTime = KLTT_InternalTime(context, op.time);
  if (KLTT_LogFormatRecord(context, internalTime) != 0) return 1;
  int result = 0;
  if (context.matched) {
    // An operation without a definition isn't written and doesn't change lastEventTime.
    const KLTT_Named* operation = context.collops.find(op.type);
    if (operation == nullptr || context.sink == nullptr) return 0;
    result = writeMatched(context, op, members, operation->extra);
  } else {
    queueMembers(context, op, members);
  }
  context.lastEventTime = std::max(context.lastEventTime, latestEnd(op));
  return result;
}
