// Running passes of the reader. See kltt_pass.h.
#include "generic/kltt_pass.h"

#include <cstdio>
#include <vector>

#include "generic/RK_output.h"
#include "generic/kltt_context.h"
#include "generic/kltt_exit.h"
#include "klt/klt.h"

void KLTT_PassRunner::run(int mode, const KLT_HandlerTable& table,
                          std::span<const KLT_Request> requests, int serial) {
  std::vector<const KLT_Request*> pointers;
  for (const KLT_Request& request : requests) pointers.push_back(&request);
  KLT_Reader* reader = KLT_OpenReader(handle_, mode, static_cast<uint32_t>(pointers.size()),
                                      pointers.data(), &table, serial);
  if (reader == nullptr) judge(KLT_STATUS_ABORTING);
  judge(KLT_ReaderStatus(reader));
  int result = 0;
  while ((result = KLT_ReadEvents(reader, -1)) != KLT_STATUS_FINISHED) {
    const bool lastFailed = result == KLT_STATUS_CORRUPTED && !KLT_ReaderHasStreams(reader);
    judge(lastFailed ? KLT_STATUS_ABORTING : result);
  }
  if (status_ == 0 && KLT_ReaderLostData(reader)) status_ = KLT_STATUS_CONTINUING;
  KLT_CloseReader(reader);
}

// Results that it doesn't name mean that stepping goes on.
void KLTT_PassRunner::judge(int result) {
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
      // A full disk has been reported by the output; nothing more can be written.
      if (outputFailed()) KLTT_Exit(1);
      std::fputs("callback returned error code.\n", stderr);
      status_ = KLT_STATUS_HANDLER;
      break;
    default:
      break;
  }
}

bool KLTT_PassRunner::outputFailed() const {
  const RK_Output* text = KLTT_Text(context_);
  return RK_OutputFailed(context_.listing) || (text != nullptr && RK_OutputFailed(text));
}
