// A whole trace as bytes: a container taken apart, changed and put together again, and the base
// trace that targets hang their components on.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "fuzz/fuzz_records.h"
#include "tests/builder/trace_files.h"

namespace fuzz {

// The components of a container, if its directory is sound.
[[nodiscard]] std::optional<tb::TraceFiles> takeApart(std::string_view container);

// Changes records of a component, its bytes, or the set of components.
void mutateTrace(Random& random, tb::TraceFiles& files);
// Puts records of a component of `donor` into the one of that name.
void crossTraces(Random& random, tb::TraceFiles& files, const tb::TraceFiles& donor);

// A small trace with definitions of every kind and the components .f.0 to .f.3: any category of any
// thread; calls, scopes and input of threads 0 to 3; counters and communication; raw events. Each
// has anchors.
[[nodiscard]] const tb::TraceFiles& baseTrace();

// A directory for the files of this process, gone at its end.
[[nodiscard]] const tb::TempDir& directory();
// Removes what earlier inputs have left there.
void clearDirectory();

}  // namespace fuzz
