// Gives the definitions of all processes common ids.
//
// The ids of a spool are those of its process. A communicator is defined by each of its members;
// the definitions are of the same one if its parent, the call that made it, the tag and the members
// are, and if it is the same one of several that are equal in all this. No member has to know more.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "klt/klt_writer.h"
#include "record/convert/klt_elf.h"
#include "record/convert/klt_spool_reader.h"

namespace record {

// The common ids of the definitions of one process.
struct LocalIds {
  std::unordered_map<uint32_t, uint32_t> communicators;
  std::unordered_map<uint32_t, uint32_t> files;
  std::unordered_map<uint32_t, uint32_t> functions;
  std::unordered_map<uint32_t, uint32_t> scopes;
  std::unordered_map<uint32_t, uint32_t> counters;
  std::unordered_map<uint32_t, std::string> comments;
  std::unordered_map<uint64_t, uint32_t> code;  // functions by address, filled by codeFunction
  struct Range {
    uint64_t start = 0;
    uint64_t end = 0;
    uint64_t offset = 0;
    std::string object;
  };
  std::vector<Range> maps;
};

class Names {
 public:
  explicit Names(KLT_TraceWriter* writer) : writer_(writer) {}

  // The ids of a process, whose new definitions are written to the trace.
  [[nodiscard]] LocalIds define(const std::vector<Definition>& definitions);
  // Writes the communicators, whose names and number are known when all processes are defined.
  void finish();
  // The function of a call, or main; defined at its first use.
  [[nodiscard]] uint32_t callFunction(uint32_t call);
  [[nodiscard]] uint32_t mainFunction();
  // The writer's id of an operation of the table of calls; 0: there is none.
  [[nodiscard]] static uint32_t collectiveOperation(uint32_t number);
  // The function at an address of a process; 0 for its main.
  [[nodiscard]] uint32_t codeFunction(LocalIds& ids, uint64_t address);
  // Communicators that have no id because there are too many.
  [[nodiscard]] uint64_t lostCommunicators() const { return lost_; }

 private:
  struct Communicator {
    uint32_t id = 0;
    std::string name;
    std::vector<uint32_t> members;
    int32_t leftSize = -2;
  };
  using Key = std::string;  // of a communicator: its properties as bytes

  void defineCommunicator(const Definition& definition, LocalIds& ids,
                          std::map<Key, uint32_t>& seen);
  uint32_t shared(std::map<std::string, uint32_t>& table, std::string_view key);
  void defineFile(const Definition& definition, LocalIds& ids);
  void defineCounter(const Definition& definition, LocalIds& ids);
  static void readMaps(std::string_view text, LocalIds& ids);
  const Symbols& symbolsOf(const std::string& object);

  KLT_TraceWriter* writer_;
  std::map<Key, size_t> communicatorPlaces_;  // in communicators_
  std::vector<Communicator> communicators_;
  std::map<uint32_t, uint32_t> made_;  // number of communicators by call
  std::map<std::string, uint32_t> functions_;
  std::map<std::string, uint32_t> scopes_;
  std::map<std::string, uint32_t> counters_;
  std::map<std::string, uint32_t> files_;
  std::map<std::string, std::unique_ptr<Symbols>> symbols_;
  std::vector<bool> definedCalls_;
  bool hasMain_ = false;
  uint64_t lost_ = 0;
};

}  // namespace record
