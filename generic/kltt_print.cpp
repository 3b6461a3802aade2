// Handlers of the precomputed statistics in a trace. See kltt_print.h.
#include "generic/kltt_print.h"

#include "generic/RK_output.h"
#include "generic/kltt_context.h"
#include "generic/kltt_exit.h"

namespace {

const KLTT_Context& contextOf(void* user) { return *static_cast<const KLTT_Context*>(user); }

}  // namespace

int KLTT_FunctionStatistics(void* user, uint32_t function, uint32_t gtp, uint32_t calls,
                            uint64_t minSelf, uint64_t maxSelf, uint64_t totalSelf,
                            uint64_t minInclusive, uint64_t maxInclusive, uint64_t totalInclusive) {
  const KLTT_Context& context = contextOf(user);
  if (function == 0) KLTT_Fatal("function id is zero");
  const KLTT_Named* named = context.functions.find(function);
  if (named == nullptr) {
    KLTT_Fatal("statistics for undefined function #%d", static_cast<int>(function));
  }
  const KLTT_Named* classOf = context.classes.find(named->extra);
  if (classOf == nullptr) {
    KLTT_Fatal("statistics for function #%d with undefined class", static_cast<int>(function));
  }
  const auto seconds = [&](uint64_t ticks) {
    return static_cast<double>(static_cast<int64_t>(ticks)) * context.clockPeriod;
  };
  RK_OutputPrintf(RK_Stdout(), "INFO ACTSTATS %s:%s:%u:%u:%e:%e:%e:%e:%e:%e\n",
                  classOf->name.c_str(), named->name.c_str(), gtp, calls, seconds(minSelf),
                  seconds(maxSelf), seconds(totalSelf), seconds(minInclusive),
                  seconds(maxInclusive), seconds(totalInclusive));
  return RK_OutputFailed(RK_Stdout()) ? 1 : 0;
}

int KLTT_OneToOneStatistics(void* /*user*/, uint32_t /*sender*/, uint32_t /*receiver*/,
                            uint32_t /*count*/, uint32_t /*minSize*/, uint32_t /*maxSize*/,
                            uint32_t /*total*/) {
  return 0;
}

int KLTT_CollopStatistics(void* user, uint32_t /*numprocs*/, uint32_t type, uint32_t /*count*/) {
  if (type == 0) KLTT_Fatal("collective operation id is zero");
  if (contextOf(user).collops.indexOf(type) == 0) {
    KLTT_Fatal("statistics for undefined collection operation #%d", static_cast<int>(type));
  }
  return 0;
}
