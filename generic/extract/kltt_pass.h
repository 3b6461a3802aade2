// Running passes of the reader and judging how they end.
#pragma once

#include <span>

struct KLTT_Context;
struct KLT_FileHandle;
struct KLT_HandlerTable;
struct KLT_Request;

// Steps readers of one trace to their end and keeps the exit status that comes of it.
class KLTT_PassRunner {
 public:
  // With `watched` the passes over events show their progress.
  KLTT_PassRunner(KLT_FileHandle* handle, const KLTT_Context& context, bool watched)
      : handle_(handle), context_(context), watched_(watched) {}

  // 0, 2 if a stream failed and others went on, 4 if a handler failed, 1 if an output isn't whole.
  [[nodiscard]] int status() const { return status_; }

  // An output that lacks something is a failure, unless a worse one is known.
  void noteOutput(bool complete) {
    if (!complete && status_ == 0) status_ = 1;
  }

  // Opens a reader, steps it to its end and closes it. Failures are reported; the process ends if
  // no stream is left or the output of the context failed.
  void run(int mode, const KLT_HandlerTable& table, std::span<const KLT_Request> requests,
           int serial);

 private:
  void judge(int result);
  [[nodiscard]] bool outputFailed() const;

  KLT_FileHandle* handle_;
  const KLTT_Context& context_;
  bool watched_;
  int status_ = 0;
};
