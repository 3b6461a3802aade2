// Runs the passes of a merge or summary and completes their outputs. See kltt_merge.h.
#include "generic/merge/kltt_merge.h"

#include <cmath>
#include <csignal>
#include <cstdio>
#include <string>
#include <utility>

#include "generic/merge/kltt_merge_handlers.h"
#include "generic/options/RK_options.h"
#include "generic/summary/kltt_summary.h"
#include "generic/text/kltt_guard.h"
#include "klt/format/klt_schema.h"
#include "klt/index/klt_files.h"
#include "klt/index/klt_intern.h"
#include "klt/klt.h"
#include "klt/write/klt_write.h"
#include "util/pal_error.h"
#include "util/pal_util.h"

namespace {

// Blocks the signals with which a user stops a program, during the lifetime of this object.
class SignalBlocker {
 public:
  SignalBlocker() {
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) sigaddset(&blocked, signal);
    sigprocmask(SIG_BLOCK, &blocked, &before_);
  }
  ~SignalBlocker() { sigprocmask(SIG_SETMASK, &before_, nullptr); }
  SignalBlocker(const SignalBlocker&) = delete;
  SignalBlocker& operator=(const SignalBlocker&) = delete;

 private:
  sigset_t before_{};
};

class Merge {
 public:
  Merge(const char* prefix, const char* target, KLT_FileHandle* input, int flags,
        KLTM_Progress progress, RK_Output* stream)
      : prefix_(prefix),
        target_(target),
        input_(input),
        flags_(flags),
        progress_(progress),
        stream_(stream) {}
  // Frees the outputs if close() hasn't been called.
  ~Merge() {
    if (context_.summary != nullptr) (void)KLTT_SumClose(context_.summary);
    if (context_.writer != nullptr) KLT_WriterFree(context_.writer);
  }
  Merge(const Merge&) = delete;
  Merge& operator=(const Merge&) = delete;

  int run() {
    if (!flag(KLTM_MERGE) && !flag(KLTM_SUMMARY)) return KLTM_WRONG_OPERATION;
    const bool raw = (input_->flags & 1) != 0;
    if (raw != flag(KLTM_MERGE)) return KLTM_WRONG_TRACE;
    if (flag(KLTM_MERGE) && !openWriter()) return KLTM_NO_OUTPUT;
    show(-1, 0);
    read();
    close();
    const bool removes = flag(KLTM_MERGE) && flag(KLTM_DELETE_INPUT);
    if (result_ == KLTM_DONE && removes && !removeInput()) return KLTM_INPUT_NOT_REMOVED;
    return result_;
  }

 private:
  [[nodiscard]] bool flag(int bit) const { return (flags_ & bit) != 0; }
  // Whether the passes can continue: the input can be read and the output written.
  [[nodiscard]] bool canContinue() const { return result_ < KLTM_ABORTED; }

  void show(int state, int percent) const {
    if (progress_ != nullptr) progress_(stream_, state, percent);
  }

  [[nodiscard]] std::string outputName() const { return PAL_PathInDir(prefix_, target_); }

  // Removes the input. Files of the output are kept even if the raw trace declares their names.
  bool removeInput() {
    const KLT_OwnedTrace output(KLT_Open(outputName().c_str()));
    if (output == nullptr) return false;
    KLT_FileSet outputs = KLTT_InputFiles(output.get());
    if (flag(KLTM_SUMMARY)) {
      for (const char* suffix : kKlttSumSuffixes) outputs.add(summaryName() + suffix);
    }
    return KLT_Remove(input_, outputs) == 0;
  }

  bool openWriter() {
    if (KLTT_OutputIsInput(input_, outputName().c_str())) return false;
    // The clock isn't known before the first pass, so the profiles keep the event bits of times.
    const KLT_StatsParameters statistics{&KLTM_GetIndexInComm, &context_, 0};
    const int form = flag(KLTM_SINGLE_FILE) ? KLT_FORM_SINGLE : KLT_FORM_PLAIN;
    context_.writer =
        KLT_WriterOpen(prefix_, target_, 1, form, 0, &statistics, KLTT_InputFiles(input_));
    if (context_.writer == nullptr) return false;
    context_.writer->texts = input_->texts;
    return true;
  }

  // Runs the passes: one that scans the definitions, one that writes them, and one over the events.
  void read() {
    KLT_HandlerTable table;
    if (!readDefinitions(table)) return;
    if (flag(KLTM_MERGE)) {
      KLTM_MatchStart(context_.matching, context_.writer, context_.summary,
                      RK_Conf::kMemBlockBytes);
    }
    const bool isRead = pass(KLT_MODE_EVENTS, table);
    show(1, 0);  // ends the line with the percentages, also after a failure
    if (!isRead || !flag(KLTM_MERGE)) return;
    if (context_.countsSeen) {
      context_.counts.oneToOnes += context_.matching.messagesAdded();
      context_.counts.collectives += context_.matching.collopsAdded();
      if (!KLT_WriteEventCounts(context_.writer, context_.counts, context_.countsClass))
        result_ = KLTM_NOT_WRITTEN;
    }
    reportOddEvents();
    KLTM_MatchFinish(context_.matching);
    KLTM_FreeCommunicators(context_.matching);
  }

  // Reports events that the merged trace lacks or contains in another form.
  void reportOddEvents() {
    if (const uint64_t strange = context_.matching.messagesStrange()) {
      PAL_Warning("%llu raw message events are neither sends nor receives, taken for receives.",
                  static_cast<unsigned long long>(strange));
    }
    const uint64_t unplaced = context_.matching.collopsUnplaced();
    if (unplaced == 0) return;
    PAL_Error(
        "%llu events of collective operations have no place in the merged trace: their "
        "operation is unknown, or their communicator has no members.%s",
        static_cast<unsigned long long>(unplaced),
        flag(KLTM_DELETE_INPUT) ? " The raw trace is kept." : "");
    if (result_ == KLTM_DONE) result_ = KLTM_INCOMPLETE;
  }

  // Reports a fault that both passes find only once. False if the merge can't continue.
  bool readDefinitions(KLT_HandlerTable& table) {
    PAL_MessagesOnce messages;
    KLTM_SetScanHandlers(table, context_);
    if (!pass(KLT_MODE_DEFINITIONS, table)) return false;
    messages.beginSecond();
    KLTM_ResetCommunicators(context_.matching);
    if (flag(KLTM_SUMMARY)) openSummary();
    KLTM_SetCopyHandlers(table, context_);
    return pass(KLT_MODE_DEFINITIONS, table);
  }

  [[nodiscard]] std::string summaryName() const {
    const std::string name = target_ == nullptr ? input_->base : target_;
    return name.find('/') == std::string::npos ? PAL_PathInDir(prefix_, name) : name;
  }

  // A slice declares the number of its events in its statistics, which no other pass before the
  // first event reads. Messages are left to the pass over the events, which reads them, too.
  void readSliceCounts() {
    KLT_HandlerTable table;
    KLTM_SetCountHandler(table, context_);
    KLT_Request request;
    request.categories = klt::kStatistics;
    const KLT_Request* const requests[] = {&request};
    const PAL_MessageSettings messages = PAL_messages;
    PAL_messages.errorEnabled = PAL_messages.infoEnabled = 0;
    const KLT_OwnedReader owner(KLT_OpenReader(input_, KLT_MODE_EVENTS, 1, requests, &table, 1));
    while (owner != nullptr && KLT_ReadEvents(owner.get(), -1) == KLT_STATUS_CONTINUING) {
    }
    PAL_messages = messages;
  }

  void openSummary() {
    const std::string name = summaryName();
    if (!context_.countsSeen && !flag(KLTM_MERGE)) readSliceCounts();
    const KLT_EventCounts& c = context_.countsSeen ? context_.counts : context_.sliceCounts;
    const uint64_t events = 2 * uint64_t{c.functions} + c.oneToOnes + c.collectives;
    context_.summary = KLTT_SumOpen(name.c_str(), context_.startTime, context_.timeSpan,
                                    static_cast<int32_t>(context_.eventBits),
                                    KLTT_SumEventLimit(input_, events), context_.threads);
  }

  // Reads the input once. False if the merge can't continue.
  bool pass(int mode, const KLT_HandlerTable& table) {
    constexpr int kStepMilliseconds = 250;
    const bool shown = progress_ != nullptr && mode == KLT_MODE_EVENTS;
    const KLT_OwnedReader owner(KLT_OpenReader(input_, mode, 0, nullptr, &table, 1));
    KLT_Reader* const reader = owner.get();
    handleStatus(reader == nullptr ? KLT_STATUS_ABORTING : KLT_ReaderStatus(reader));
    int percent = -1;
    for (int status = KLT_STATUS_BUILT; canContinue() && status != KLT_STATUS_FINISHED;) {
      status = KLT_ReadEvents(reader, shown ? kStepMilliseconds : -1);
      handleStatus(status);
      if (!shown) continue;
      const int now = static_cast<int>(std::lround(KLT_Progress(reader) * 100));
      if (now != percent) show(0, now);
      percent = now;
    }
    if (reader == nullptr) return false;
    if (canContinue() && KLT_ReaderLostData(reader)) result_ = KLTM_INCOMPLETE;
    return canContinue();
  }

  // Other statuses than these need no action; the pass continues.
  void handleStatus(int status) {
    switch (status) {
      case KLT_STATUS_CONTINUING:
        std::fputs("continuing\n", stderr);
        result_ = KLTM_INCOMPLETE;
        break;
      case KLT_STATUS_ABORTING:
        std::fputs("aborting\n", stderr);
        result_ = KLTM_ABORTED;
        break;
      case KLT_STATUS_HANDLER:
        std::fputs("callback returned error code.\n", stderr);
        result_ = KLTM_NOT_WRITTEN;
        break;
      default:
        break;
    }
  }

  void close() {
    KLTT_Summary* const summary = std::exchange(context_.summary, nullptr);
    if (summary != nullptr && !KLTT_SumClose(summary) && result_ == KLTM_DONE) {
      result_ = KLTM_INCOMPLETE;
    }
    if (context_.writer != nullptr) closeWriter();
  }

  // After a failure that ends the merge, the output gets no index, so that no reader accepts it. If
  // only messages or operations can't be written, the other components are kept.
  void closeWriter() {
    const SignalBlocker blocker;
    KLT_WFileHandle* const writer = std::exchange(context_.writer, nullptr);
    if (!canContinue()) {
      KLT_WriterFree(writer);
      return;
    }
    bool complete = false;
    if (const char* error = KLT_WriterClose(writer, &complete)) PAL_Error("%s", error);
    if (!complete) result_ = KLTM_NOT_WRITTEN;
  }

  const char* prefix_;
  const char* target_;
  KLT_FileHandle* input_;
  int flags_;
  KLTM_Progress progress_;
  RK_Output* stream_;
  int result_ = KLTM_DONE;
  KLTM_Context context_;
};

}  // namespace

int KLTM_Merge(const char* prefix, const char* target, KLT_FileHandle* input, int flags,
               KLTM_Progress progress, RK_Output* stream) {
  const KLT_OwnedTrace owner(input);
  return Merge(prefix, target, input, flags, progress, stream).run();
}
