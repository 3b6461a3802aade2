// An index with its layouts, over components in the standard layout: what the index says decides
// how their bytes are taken.
#include "fuzz/fuzz_target.h"
#include "fuzz/fuzz_trace_bytes.h"
#include "klt/klt_files.h"
#include "tests/builder/touching.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tb::TraceFiles files = fuzz::baseTrace();
  files[" "] = fuzz::view(data, size);
  const std::string name = files.writeContainer(fuzz::directory());
  (void)KLT_IsTrace(name.c_str());
  const KLT_OwnedTrace trace(KLT_Open(name.c_str()));
  if (trace == nullptr) return 0;
  std::vector<std::string> names;
  std::vector<uint64_t> sizes;
  KLT_FileList(trace.get(), &names, &sizes);
  (void)KLT_FilesAreKnown(trace.get());
  tb::touchAll(trace.get(), KLT_MODE_DEFINITIONS, {}, 1);
  tb::touchAll(trace.get(), KLT_MODE_EVENTS, {}, 1);
  KLT_Request late;
  late.start = 1100;
  late.categories = 1;
  tb::touchAll(trace.get(), KLT_MODE_EVENTS, {late}, 1);
  return 0;
}

size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t limit, unsigned seed) {
  fuzz::Random random(seed);
  std::string input(fuzz::view(data, size));
  if (fuzz::below(random, 4) == 0 || input.size() < fuzz::kIndexHeaderBytes ||
      !fuzz::mutateRecords(random, input, fuzz::kIndexHeaderBytes)) {
    return LLVMFuzzerMutate(data, size, limit);
  }
  return fuzz::give(input, data, limit);
}

size_t LLVMFuzzerCustomCrossOver(const uint8_t* data, size_t size, const uint8_t* donor,
                                 size_t donorSize, uint8_t* out, size_t limit, unsigned seed) {
  fuzz::Random random(seed);
  std::string input(fuzz::view(data, size));
  fuzz::crossRecords(random, input, fuzz::kIndexHeaderBytes, fuzz::view(donor, donorSize),
                     fuzz::kIndexHeaderBytes);
  return fuzz::give(input, out, limit);
}
