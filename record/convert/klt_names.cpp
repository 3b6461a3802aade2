// Gives definitions common ids. See klt_names.h.
#include "record/convert/klt_names.h"

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>

#define KLT_CALL_NAMES
#include "record/mpi/klt_calls.h"

namespace record {
namespace {

// Ids of functions: main, the calls by number, then the others in order of appearance.
constexpr uint32_t kMain = 1;
constexpr uint32_t kFirstCall = 2;
constexpr uint32_t kFirstOther = kFirstCall + KLT_CALL_COUNT;
constexpr uint32_t kMostIds = 0xffff;

uint64_t hexadecimal(std::string_view text) {
  uint64_t value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value, 16);
  return value;
}

// The next word of a line, which is removed from it.
std::string_view nextWord(std::string_view& line) {
  const size_t start = std::min(line.find_first_not_of(' '), line.size());
  const size_t end = std::min(line.find(' ', start), line.size());
  const std::string_view word = line.substr(start, end - start);
  line.remove_prefix(end);
  return word;
}

// Open MPI gives names of this form by itself; they mean nothing to a user.
bool isOwnName(std::string_view name) { return !name.starts_with("MPI COMMUNICATOR"); }

}  // namespace

uint32_t Names::shared(std::map<std::string, uint32_t>& table, std::string_view key) {
  return table.try_emplace(std::string(key), static_cast<uint32_t>(table.size()) + 1).first->second;
}

void Names::defineCommunicator(const Definition& definition, LocalIds& ids,
                               std::map<Key, uint32_t>& seen) {
  klt_def_communicator head{};
  if (definition.bytes.size() < sizeof head) return;
  std::memcpy(&head, definition.bytes.data(), sizeof head);
  const std::string_view members = definition.bytes.substr(sizeof head);
  if (head.members != members.size() / sizeof(uint32_t) || head.members == 0) return;
  const auto parent = ids.communicators.find(head.parent);
  head.parent = parent == ids.communicators.end() ? 0 : parent->second;
  Key key(reinterpret_cast<const char*>(&head), sizeof head);
  key.append(members);
  const uint32_t order = seen[key]++;
  key.append(reinterpret_cast<const char*>(&order), sizeof order);
  const auto [place, isNew] = communicatorPlaces_.try_emplace(key, communicators_.size());
  if (isNew) {
    Communicator& made = communicators_.emplace_back();
    made.id = communicators_.size() <= kMostIds ? static_cast<uint32_t>(communicators_.size()) : 0;
    made.members.resize(head.members);
    std::memcpy(made.members.data(), members.data(), members.size());
    std::erase(made.members, KLT_NO_PROCESS);
    made.leftSize = head.left_size;
    if (head.call < KLT_CALL_COUNT) {
      made.name = head.call == 0 ? "communicator" : kCallNames[head.call];
      made.name += '#' + std::to_string(++made_[head.call]);
    }
    if (made.id == 0) ++lost_;
  }
  ids.communicators[definition.id] = communicators_[place->second].id;
}

void Names::finish() {
  for (const Communicator& comm : communicators_) {
    if (comm.id == 0 || comm.members.empty()) continue;
    KLT_DefineCommunicator(writer_, comm.id, comm.name.c_str(), comm.members, comm.leftSize);
  }
}

void Names::defineFile(const Definition& definition, LocalIds& ids) {
  const auto comm = ids.communicators.find(definition.other);
  const uint32_t communicator = comm == ids.communicators.end() ? 0 : comm->second;
  const std::string name(definition.bytes);
  const size_t known = files_.size();
  const uint32_t id = shared(files_, name + '\n' + std::to_string(communicator));
  if (id > kMostIds) return;
  if (id > known) KLT_DefineFile(writer_, id, name.c_str(), communicator);
  ids.files[definition.id] = id;
}

void Names::defineCounter(const Definition& definition, LocalIds& ids) {
  const size_t known = counters_.size();
  const uint32_t id =
      shared(counters_, std::string(definition.bytes) + '\n' + std::to_string(definition.other));
  const size_t newline = std::min(definition.bytes.find('\n'), definition.bytes.size());
  const std::string name(definition.bytes.substr(0, newline));
  const std::string unit(definition.bytes.substr(std::min(newline + 1, definition.bytes.size())));
  if (id > kMostIds) return;
  if (id > known)
    KLT_DefineCounter(writer_, id, name.c_str(), unit.c_str(), definition.other != 0,
                      kKltAllProcesses);
  ids.counters[definition.id] = id;
}

// Lines of /proc/PID/maps: START-END RIGHTS OFFSET DEVICE INODE PATH.
void Names::readMaps(std::string_view text, LocalIds& ids) {
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    const std::string_view range = nextWord(line);
    nextWord(line);
    const std::string_view offset = nextWord(line);
    nextWord(line);
    nextWord(line);
    const size_t path = line.find('/');
    const size_t dash = range.find('-');
    if (path == std::string_view::npos || dash == std::string_view::npos) continue;
    ids.maps.push_back({hexadecimal(range.substr(0, dash)), hexadecimal(range.substr(dash + 1)),
                        hexadecimal(offset), std::string(line.substr(path))});
  }
}

LocalIds Names::define(const std::vector<Definition>& definitions) {
  LocalIds ids;
  std::map<Key, uint32_t> seen;
  for (const Definition& definition : definitions) {
    const std::string text(definition.bytes);
    switch (definition.kind) {
      case KLT_DEF_COMMUNICATOR:
        defineCommunicator(definition, ids, seen);
        break;
      case KLT_DEF_COMM_NAME:
        if (const auto known = ids.communicators.find(definition.id);
            known != ids.communicators.end() && known->second != 0 && isOwnName(text))
          communicators_[known->second - 1].name = text;
        break;
      case KLT_DEF_FILE:
        defineFile(definition, ids);
        break;
      case KLT_DEF_FUNCTION: {
        const size_t known = functions_.size();
        const uint32_t number = shared(functions_, "n" + text);
        if (number > known)
          KLT_DefineFunction(writer_, kFirstOther + number, text.c_str(), kKltClassApplication);
        ids.functions[definition.id] = kFirstOther + number;
        break;
      }
      case KLT_DEF_SCOPE: {
        const size_t known = scopes_.size();
        const uint32_t number = shared(scopes_, text);
        if (number > known) KLT_DefineScope(writer_, number, text.c_str(), kKltClassApplication);
        ids.scopes[definition.id] = number;
        break;
      }
      case KLT_DEF_COUNTER:
        defineCounter(definition, ids);
        break;
      case KLT_DEF_COMMENT:
        ids.comments[definition.id] = text;
        break;
      case KLT_DEF_MAPS:
        readMaps(definition.bytes, ids);
        break;
      default:
        break;
    }
  }
  return ids;
}

uint32_t Names::callFunction(uint32_t call) {
  if (call >= KLT_CALL_COUNT) return mainFunction();
  definedCalls_.resize(KLT_CALL_COUNT);
  if (!definedCalls_[call]) {
    definedCalls_[call] = true;
    KLT_DefineFunction(writer_, kFirstCall + call, kCallNames[call], kKltClassMpi);
  }
  return kFirstCall + call;
}

uint32_t Names::mainFunction() {
  if (!hasMain_) KLT_DefineFunction(writer_, kMain, "main", kKltClassApplication);
  hasMain_ = true;
  return kMain;
}

uint32_t Names::collectiveOperation(uint32_t number) {
  return number < std::size(kOperationNames) ? KLT_CollectiveOperation(kOperationNames[number]) : 0;
}

const Symbols& Names::symbolsOf(const std::string& object) {
  auto& symbols = symbols_[object];
  if (symbols == nullptr) symbols = std::make_unique<Symbols>(object);
  return *symbols;
}

uint32_t Names::codeFunction(LocalIds& ids, uint64_t address) {
  const auto [place, isNew] = ids.code.try_emplace(address, 0);
  if (!isNew) return place->second;
  // The last map is that of the end of the run, which also knows objects that were loaded later.
  const auto range = std::find_if(
      ids.maps.rbegin(), ids.maps.rend(),
      [address](const LocalIds::Range& r) { return address >= r.start && address < r.end; });
  std::string key;
  std::string name;
  if (range != ids.maps.rend()) {
    const uint64_t offset = address - range->start + range->offset;
    name = symbolsOf(range->object).nameAt(offset);
    key = range->object + '\n' + std::to_string(offset);
    if (name == "main") return 0;
    if (name.empty()) {
      char text[32];
      std::snprintf(text, sizeof text, "0x%" PRIx64 "@", offset);
      name = text + std::filesystem::path(range->object).filename().string();
    }
  } else {
    char text[32];
    std::snprintf(text, sizeof text, "0x%" PRIx64, address);
    key = name = text;
  }
  const size_t known = functions_.size();
  const uint32_t number = shared(functions_, "c" + key);
  if (number > known)
    KLT_DefineFunction(writer_, kFirstOther + number, name.c_str(), kKltClassApplication);
  return place->second = kFirstOther + number;
}

}  // namespace record
