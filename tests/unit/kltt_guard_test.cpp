// Which files are the input's, so that no output may be one of them. What becomes of outputs that
// are, by name, through links or as standard output, is tested end to end.
#include "generic/text/kltt_guard.h"

#include <gtest/gtest.h>

#include "tests/unit/klt_reading.h"

namespace {

TEST(KlttGuard, EveryFileOfTheTraceIsInput) {
  tb::Trace trace;
  for (const char* name : {"f.0", "f.1", "f.2"})
    trace.stream(name, tb::FUNCTIONS, {0}).at(1).enter(0, 1).anchor();
  const reading::OpenTrace open(trace);
  const std::string base = open.handle()->base;
  for (const char* suffix : {"", ".dcl", ".f.0", ".f.0.anc", ".f.1", ".f.2", ".f.2.anc"})
    EXPECT_TRUE(KLTT_OutputIsInput(open.handle(), (base + suffix).c_str())) << suffix;
  for (const std::string& other : {base + ".f.3", std::string("/dev/null")})
    EXPECT_FALSE(KLTT_OutputIsInput(open.handle(), other.c_str())) << other;
}

}  // namespace
