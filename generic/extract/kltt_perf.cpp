// Measures random access to a trace. See kltt_perf.h.
#include "generic/extract/kltt_perf.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <span>
#include <utility>
#include <vector>

#include "generic/extract/kltt_pass.h"
#include "generic/handlers/kltt_collops.h"
#include "generic/handlers/kltt_context.h"
#include "generic/handlers/kltt_events.h"
#include "generic/handlers/kltt_tables.h"
#include "generic/tables/kltt_members.h"
#include "klt/format/klt_handlers.h"
#include "klt/format/klt_schema.h"
#include "klt/format/klt_spans.h"
#include "klt/klt.h"
#include "klt/read/klt_request.h"
#include "util/pal_mem.h"
#include "util/pal_util.h"

namespace {

// The categories of a request: their records belong to single threads, unlike messages.
constexpr uint32_t kCategories =
    klt::kFunctions | klt::kScopes | klt::kFileIo | klt::kCounters | klt::kErrors;

// A subset visits about kSubset operations in order. All operations are visited in steps of kStep,
// so that data read for an operation doesn't speed up the next one.
constexpr size_t kSubset = 100;
constexpr size_t kStep = 1000;

// The members of operation `index`.
std::span<const KLTT_PerfMember> membersOf(const KLTT_Context& context, size_t index) {
  const size_t begin = index == 0 ? 0 : context.perfEnds[index - 1];
  return std::span(context.perfMembers).subspan(begin, context.perfEnds[index] - begin);
}

// Chooses the operation for the next reader.
class Choice {
 public:
  Choice(size_t count, bool subset)
      : count_(count),
        subset_(subset),
        step_(subset ? std::max<size_t>(count / kSubset, 1) : kStep),
        base_(subset ? 0 : 1),
        index_(base_) {}

  // After the last operation a subset starts again at the first. Otherwise each round starts one
  // operation later than the round before.
  size_t next() {
    if (index_ >= count_) {
      if (!subset_) base_ = base_ + 1 < count_ ? base_ + 1 : 0;
      index_ = base_;
    }
    return std::exchange(index_, index_ + step_);
  }

 private:
  size_t count_;
  bool subset_;
  size_t step_;
  size_t base_;
  size_t index_;
};

void fillRequest(KLT_Request& request, const KLTT_PerfMember& member) {
  const auto gtp = static_cast<int32_t>(member.gtp);
  request.start = member.time;
  request.end = member.time + 1;
  request.categories = kCategories;
  request.threads = {{gtp, gtp, 1}};
}

// This test has no handlers for histories, so a call can end whose start wasn't delivered.
int leaveIfEntered(void* user, uint64_t time, uint32_t gtp, uint32_t scl) {
  const RK_WillyState* willy =
      RK_WillyHashFind(static_cast<KLTT_Context*>(user)->frames.willys, gtp);
  return willy == nullptr || willy->functions.empty() ? 0
                                                      : KLTT_LeaveFunction(user, time, gtp, scl);
}

}  // namespace

int KLTT_GatherCollective(void* user, const KLTT_CollectiveRecord& op) {
  KLTT_Context& context = *static_cast<KLTT_Context*>(user);
  KLTT_MemberList::Cursor member(KLTT_GetIndexInComm(context, op.communicator, op.name));
  uint32_t gtp = 0;
  for (uint32_t i = 0; i < op.n && member.next(&gtp); ++i) {
    // Time 0 also means that the member took no part.
    if (klt::isUnknownStart(op.starts[i]) || op.time + op.starts[i] == 0) continue;
    PAL_MakeRoom(context.perfMembers);
    context.perfMembers.push_back({.gtp = gtp, .time = op.time + op.starts[i]});
  }
  context.perfEnds.push_back(context.perfMembers.size());
  return 0;
}

void KLTT_PerfTest(KLTT_Context& context, KLT_HandlerTable& table, KLTT_PassRunner& passes,
                   int32_t runs, KLTT_PerfChoice choice) {
  if (context.perfEnds.empty()) return;
  table.leave_function = &leaveIfEntered;
  Choice operations(context.perfEnds.size(), choice.subset);
  std::vector<KLT_Request> requests;
  uint64_t memberCount = 0;
  const double begin = PAL_Time();
  for (int32_t run = 0; run < runs; ++run) {
    std::span<const KLTT_PerfMember> members = membersOf(context, operations.next());
    if (!choice.allProcesses) members = members.first(std::min<size_t>(members.size(), 1));
    if (requests.size() < members.size()) requests.resize(members.size());
    for (size_t i = 0; i < members.size(); ++i) fillRequest(requests[i], members[i]);
    memberCount += members.size();
    context.frames = RK_FrameWriterCreate();
    passes.run(KLT_MODE_EVENTS, table, std::span(requests).first(members.size()), 1);
  }
  const double seconds = PAL_Time() - begin;
  std::fprintf(stderr,
               "%s, %s: %d requests in %fs = %fs/req, average number of processes per request %f\n",
               choice.subset ? "subset of collops" : "all collops",
               choice.allProcesses ? "all processes" : "only first process", runs, seconds,
               seconds / runs, static_cast<double>(memberCount) / runs);
}
