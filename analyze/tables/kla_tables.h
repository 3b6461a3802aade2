// Builds the tables of klt-analyze from an analysis. docs/analysis.md describes their columns.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "analyze/pass/kla_pass.h"
#include "analyze/tables/kla_table.h"

namespace kla {

// A table that users can ask for.
struct TableKind {
  const char* name;
  const char* contents;
  Table (*build)(const Analysis& analysis);
  Wanted needs;
};
[[nodiscard]] std::span<const TableKind> tableKinds();
// Null if there is none with this name.
[[nodiscard]] const TableKind* findTable(std::string_view name);

[[nodiscard]] Table overviewTable(const Analysis& analysis);
[[nodiscard]] Table functionsTable(const Analysis& analysis);
[[nodiscard]] Table callPathsTable(const Analysis& analysis);
[[nodiscard]] Table messagesTable(const Analysis& analysis);
[[nodiscard]] Table messageSizesTable(const Analysis& analysis);
[[nodiscard]] Table collectivesTable(const Analysis& analysis);
[[nodiscard]] Table waitsTable(const Analysis& analysis);
[[nodiscard]] Table efficiencyTable(const Analysis& analysis);
[[nodiscard]] Table countersTable(const Analysis& analysis);
[[nodiscard]] Table filesTable(const Analysis& analysis);

// The name of a function; "(no call)" for kNone.
[[nodiscard]] std::string functionName(const Analysis& analysis, uint32_t function);
// The efficiency of the whole span.
[[nodiscard]] EfficiencyRow wholeEfficiency(const Analysis& analysis);
// The call paths as folded stacks: a line for each path, with its exclusive time in microseconds.
// Calls `put` for each line.
void foldedStacks(const Analysis& analysis, const std::function<void(const std::string&)>& put);
// What the trace lacks for these tables, or what limits their meaning; a sentence each.
[[nodiscard]] std::vector<std::string> notesOn(const Analysis& analysis, const Wanted& wanted,
                                               const std::string& trace);

}  // namespace kla
