// Reads spools. See klt_spool_reader.h.
#include "record/convert/klt_spool_reader.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <utility>

#include "record/mpi/klt_calls.h"

namespace record {
namespace {

constexpr uint32_t kMaxProcesses = 0x10000;

template <class T>
T loadAt(std::span<const std::byte> bytes, size_t at) {
  T value;
  std::memcpy(&value, bytes.data() + at, sizeof value);
  return value;
}

// Why a header can't be used, or an empty text.
std::string_view problemOf(const klt_spool_header& header) {
  if (header.magic != KLT_SPOOL_MAGIC) return "is no spool, or was killed at its start";
  if (header.version != KLT_SPOOL_VERSION || header.slot_bytes != KLT_SLOT_BYTES ||
      header.calls != KLT_CALL_COUNT)
    return "is of another version of klt-record";
  if (header.size == 0 || header.size > kMaxProcesses || header.rank >= header.size)
    return "has an invalid process number";
  return {};
}

}  // namespace

MappedFile::MappedFile(const std::string& path) {
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) return;
  struct stat status {};
  if (fstat(file, &status) == 0 && status.st_size > 0) {
    const auto size = static_cast<size_t>(status.st_size);
    void* mapped = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, file, 0);
    if (mapped != MAP_FAILED) {
      data_ = static_cast<const std::byte*>(mapped);
      size_ = size;
    }
  }
  close(file);
}

MappedFile::~MappedFile() {
  if (data_ != nullptr) munmap(const_cast<std::byte*>(data_), size_);
}

MappedFile::MappedFile(MappedFile&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}

MappedFile& MappedFile::operator=(MappedFile&& other) noexcept {
  std::swap(data_, other.data_);
  std::swap(size_, other.size_);
  return *this;
}

std::vector<ThreadRecords> Process::threads(const MappedFile& file) {
  const std::span<const std::byte> bytes = file.bytes();
  std::map<uint32_t, std::map<uint64_t, std::span<const klt_record>>> found;
  for (size_t at = KLT_SLOT_BYTES; at + sizeof(klt_spool_slot) <= bytes.size();
       at += KLT_SLOT_BYTES) {
    const auto slot = loadAt<klt_spool_slot>(bytes, at);
    if (slot.magic != KLT_SLOT_MAGIC || slot.thread > 0xffff) continue;
    const size_t room = std::min<size_t>(KLT_SLOT_BYTES, bytes.size() - at) - sizeof slot;
    const size_t used = std::min<uint64_t>(slot.used, room / sizeof(klt_record));
    // Slots are aligned, and the compiler has no other object at this place.
    const auto* records =
        reinterpret_cast<const klt_record*>(bytes.data() + at + sizeof(klt_spool_slot));
    found[slot.thread].try_emplace(slot.sequence, records, used);
  }
  std::vector<ThreadRecords> threads;
  for (const auto& [thread, slots] : found) {
    ThreadRecords& records = threads.emplace_back();
    records.thread = thread;
    for (const auto& [sequence, part] : slots) records.parts.push_back(part);
  }
  return threads;
}

std::vector<Definition> Process::definitions(const MappedFile& file) {
  const std::span<const std::byte> bytes = file.bytes();
  std::vector<Definition> result;
  size_t at = 0;
  while (at + sizeof(klt_spool_def) <= bytes.size()) {
    const auto def = loadAt<klt_spool_def>(bytes, at);
    at += sizeof def;
    if (def.bytes > bytes.size() - at) break;  // cut short
    result.push_back({def.kind,
                      def.id,
                      def.other,
                      {reinterpret_cast<const char*>(bytes.data()) + at, def.bytes}});
    at += def.bytes;
  }
  return result;
}

std::vector<Process> readSpools(const std::string& directory, std::vector<std::string>& problems) {
  std::vector<Process> processes;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
    if (entry.path().extension() != ".spool") continue;
    Process process;
    const MappedFile file(entry.path());
    if (file.bytes().size() >= sizeof process.header)
      process.header = loadAt<klt_spool_header>(file.bytes(), 0);
    if (const std::string_view problem = problemOf(process.header); !problem.empty()) {
      problems.push_back(entry.path().filename().string() + " " + std::string(problem));
      continue;
    }
    process.header.host[sizeof process.header.host - 1] = '\0';
    process.header.program[sizeof process.header.program - 1] = '\0';
    process.path = (entry.path().parent_path() / entry.path().stem()).string();
    processes.push_back(std::move(process));
  }
  if (error) problems.push_back(directory + ": " + error.message());
  return processes;
}

}  // namespace record
