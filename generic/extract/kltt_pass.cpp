// Runs passes of the reader. See kltt_pass.h.
#include "generic/extract/kltt_pass.h"

#include <cstdio>
#include <vector>

#include "generic/extract/kltt_by_thread.h"
#include "generic/handlers/kltt_context.h"
#include "generic/text/RK_output.h"
#include "generic/text/kltt_exit.h"
#include "klt/klt.h"
#include "util/pal_mem.h"

namespace {

constexpr int kNoLimit = -1;
constexpr int kStepMilliseconds = 500;

// Shows progress on one line of standard error, which each call overwrites.
class ProgressLine {
 public:
  ~ProgressLine() {
    if (shown_) std::fputs("\r      \r", stderr);
  }
  ProgressLine() = default;
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  void show(double progress) {
    std::fprintf(stderr, "\r%3d %%", static_cast<int>(progress * 100));
    shown_ = true;
  }

 private:
  bool shown_ = false;
};

std::vector<const KLT_Request*> pointersTo(std::span<const KLT_Request> requests) {
  std::vector<const KLT_Request*> pointers;
  for (const KLT_Request& request : requests) pointers.push_back(&request);
  return pointers;
}

}  // namespace

void KLTT_PassRunner::run(int mode, const KLT_HandlerTable& table,
                          std::span<const KLT_Request> requests, int serial) {
  const PAL_Place here;
  const std::vector<const KLT_Request*> pointers = pointersTo(requests);
  (void)read(KLT_OpenReader(handle_, mode, static_cast<uint32_t>(pointers.size()), pointers.data(),
                            &table, serial),
             mode, nullptr);
}

bool KLTT_PassRunner::runByThread(int mode, KLTT_ByThread& byThread,
                                  std::span<const KLT_Request> requests) {
  const PAL_Place here;
  const std::vector<const KLT_Request*> pointers = pointersTo(requests);
  return read(
      KLT_OpenReaderByThread(handle_, mode, static_cast<uint32_t>(pointers.size()), pointers.data(),
                             byThread.receiver(), &byThread.mergedHandlers()),
      mode, &byThread);
}

// Reads to the end and closes the reader. False if `byThread` refuses the trace.
bool KLTT_PassRunner::read(KLT_Reader* reader, int mode, const KLTT_ByThread* byThread) {
  const KLT_OwnedReader owner(reader);
  if (reader == nullptr) handleStatus(KLT_STATUS_ABORTING);
  handleStatus(KLT_ReaderStatus(reader));
  const bool showsProgress = showsProgress_ && mode != KLT_MODE_DEFINITIONS;
  ProgressLine line;
  int result = 0;
  while ((result = KLT_ReadEvents(reader, showsProgress ? kStepMilliseconds : kNoLimit)) !=
         KLT_STATUS_FINISHED) {
    if (byThread != nullptr && byThread->hasRefused()) return false;
    if (showsProgress && result == KLT_STATUS_TIME) line.show(KLT_Progress(reader));
    const bool lastFailed = result == KLT_STATUS_CORRUPTED && !KLT_ReaderHasStreams(reader);
    handleStatus(lastFailed ? KLT_STATUS_ABORTING : result);
  }
  if (status_ == 0 && KLT_ReaderLostData(reader)) status_ = KLT_STATUS_CONTINUING;
  return true;
}

// Other results than these need no action; the pass continues.
void KLTT_PassRunner::handleStatus(int result) {
  switch (result) {
    case KLT_STATUS_CONTINUING:
    case KLT_STATUS_CORRUPTED:
      std::fputs("continuing\n", stderr);
      status_ = KLT_STATUS_CONTINUING;
      break;
    case KLT_STATUS_ABORTING:
      std::fputs("aborting\n", stderr);
      KLTT_Exit(KLT_STATUS_ABORTING);
    case KLT_STATUS_HANDLER:
      // The output has already reported its failure, and nothing more can be written.
      if (outputFailed()) KLTT_Exit(1);
      std::fputs("callback returned error code.\n", stderr);
      status_ = KLT_STATUS_HANDLER;
      break;
    default:
      break;
  }
}

bool KLTT_PassRunner::outputFailed() const {
  const RK_Output* text = context_.sink == nullptr ? nullptr : context_.sink->output;
  return RK_OutputFailed(context_.listing) || (text != nullptr && RK_OutputFailed(text));
}
