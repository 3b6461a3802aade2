// A driver state with a text sink on a temporary file, for tests that call handlers directly.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>

#include "generic/RK_conf.h"
#include "generic/RK_wtrace.h"
#include "generic/kltt_context.h"
#include "generic/kltt_events.h"
#include "generic/kltt_tables.h"

class KlttFixture : public testing::Test {
 protected:
  void SetUp() override {
    RK_ConfigDefaults();
    path_ = testing::TempDir() + "kltt_fixture." + std::to_string(::getpid());
    context.sink = RK_SinkOpenAscii(path_.c_str(), 0);
    ASSERT_NE(context.sink, nullptr);
    setClock(1e-6, 0);
    const uint32_t threads[] = {2, 2, 2};
    KLTT_ProcessDeclaration(&context, 3, threads);
    KLTT_ClassDefinition(&context, 1, "App", nullptr, 0);
    KLTT_FunctionDefinition(&context, 10, "main", 1);
    KLTT_FunctionDefinition(&context, 11, "solve", 1);
    text();
  }
  void TearDown() override {
    RK_SinkClose(context.sink, 0);
    std::remove(path_.c_str());
    RK_ConfigDefaults();
  }

  // Without the lines that a clock gives.
  void setClock(double resolution, uint32_t eventBits) {
    RK_Sink* sink = std::exchange(context.sink, nullptr);
    KLTT_ClockResolution(&context, resolution, eventBits);
    context.sink = sink;
    context.sink->timeShift = 13 - static_cast<int32_t>(context.eventBits);
  }

  // What has been written since the last call.
  std::string text() {
    RK_OutputFlush(context.sink->output);
    std::ifstream file(path_, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(seen_));
    std::string fresh{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    seen_ += fresh.size();
    return fresh;
  }
  std::string drained() {
    KLTT_DrainDelayed(context);
    return text();
  }

  KLTT_Context context;

 private:
  std::string path_;
  size_t seen_ = 0;
};
