// Runs passes of the reader and keeps the exit status that results from them.
#pragma once

#include <span>

class KLTT_ByThread;
struct KLTT_Context;
struct KLT_FileHandle;
struct KLT_HandlerTable;
struct KLT_Reader;
struct KLT_Request;

class KLTT_PassRunner {
 public:
  // `showsProgress`: passes over events show their progress on standard error.
  KLTT_PassRunner(KLT_FileHandle* handle, const KLTT_Context& context, bool showsProgress)
      : handle_(handle), context_(context), showsProgress_(showsProgress) {}

  // 0; 2 if a part of the trace couldn't be read; 4 if a handler failed; 1 if an output is
  // incomplete.
  [[nodiscard]] int status() const { return status_; }

  // An incomplete output makes the status 1, unless it already shows another failure.
  void noteOutput(bool complete) {
    if (!complete && status_ == 0) status_ = 1;
  }

  // Opens a reader, reads to its end and closes it. Reports failures. Ends the process if a failure
  // leaves no stream to read, or if a text output of the context fails.
  void run(int mode, const KLT_HandlerTable& table, std::span<const KLT_Request> requests,
           int serial);
  // Likewise for events, by way of `byThread`. Returns early, with false, if that refuses the
  // trace.
  [[nodiscard]] bool runByThread(int mode, KLTT_ByThread& byThread,
                                 std::span<const KLT_Request> requests);

 private:
  bool read(KLT_Reader* reader, int mode, const KLTT_ByThread* byThread);
  void handleStatus(int result);
  [[nodiscard]] bool outputFailed() const;

  KLT_FileHandle* handle_;
  const KLTT_Context& context_;
  bool showsProgress_;
  int status_ = 0;
};
