// Reads ELF files. See klt_elf.h.
#include "record/convert/klt_elf.h"

#include <cxxabi.h>
#include <elf.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace record {
namespace {

// The structure at `at`, zeroed if the file is too short.
template <class T>
T structAt(std::span<const std::byte> bytes, uint64_t at) {
  T value{};
  if (at <= bytes.size() && bytes.size() - at >= sizeof value)
    std::memcpy(&value, bytes.data() + at, sizeof value);
  return value;
}

bool isElf(std::span<const std::byte> bytes) {
  return bytes.size() >= sizeof(Elf64_Ehdr) && std::memcmp(bytes.data(), ELFMAG, SELFMAG) == 0;
}

bool isElf64(std::span<const std::byte> bytes) {
  constexpr auto kNative =
      std::byte{__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? ELFDATA2LSB : ELFDATA2MSB};
  return isElf(bytes) && bytes[EI_CLASS] == std::byte{ELFCLASS64} && bytes[EI_DATA] == kNative;
}

// The name as the program's source has it: of C++, and of a procedure in a module of gfortran
// (__MODULE_MOD_PROCEDURE).
std::string demangled(const std::string& name) {
  int status = 0;
  const size_t module = name.find("_MOD_");
  if (name.starts_with("__") && module != std::string::npos)
    return name.substr(2, module - 2) + "::" + name.substr(module + 5);
  const std::unique_ptr<char, void (*)(void*)> text(
      abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status), &std::free);
  return status == 0 && text != nullptr ? text.get() : name;
}

}  // namespace

ProgramKind kindOfProgram(const std::string& path) {
  const MappedFile file(path);
  const std::span<const std::byte> bytes = file.bytes();
  if (!isElf(bytes)) return ProgramKind::kOther;
  if (!isElf64(bytes)) return ProgramKind::kStatic;
  const auto head = structAt<Elf64_Ehdr>(bytes, 0);
  for (uint64_t i = 0; i < head.e_phnum; ++i) {
    const auto segment = structAt<Elf64_Phdr>(bytes, head.e_phoff + i * sizeof(Elf64_Phdr));
    if (segment.p_type == PT_INTERP) return ProgramKind::kDynamic;
  }
  return ProgramKind::kStatic;
}

Symbols::Symbols(const std::string& path) : file_(path) {
  if (!isElf64(file_.bytes())) return;
  readSegments();
  readTables();
  std::sort(functions_.begin(), functions_.end(), [](const Function& a, const Function& b) {
    return a.address != b.address ? a.address < b.address : a.name < b.name;
  });
}

void Symbols::readSegments() {
  const auto head = structAt<Elf64_Ehdr>(file_.bytes(), 0);
  for (uint64_t i = 0; i < head.e_phnum; ++i) {
    const auto segment = structAt<Elf64_Phdr>(file_.bytes(), head.e_phoff + i * sizeof(Elf64_Phdr));
    if (segment.p_type == PT_LOAD && (segment.p_flags & PF_X) != 0)
      segments_.push_back({segment.p_offset, segment.p_filesz, segment.p_vaddr});
  }
}

// The symbol table, and that of the dynamic linker, which remains in a stripped file.
void Symbols::readTables() {
  const auto head = structAt<Elf64_Ehdr>(file_.bytes(), 0);
  for (uint64_t i = 0; i < head.e_shnum; ++i) {
    const auto table = structAt<Elf64_Shdr>(file_.bytes(), head.e_shoff + i * sizeof(Elf64_Shdr));
    if (table.sh_type != SHT_SYMTAB && table.sh_type != SHT_DYNSYM) continue;
    if (table.sh_link >= head.e_shnum) continue;
    const auto texts =
        structAt<Elf64_Shdr>(file_.bytes(), head.e_shoff + table.sh_link * sizeof(Elf64_Shdr));
    readTable(table.sh_offset, table.sh_size, texts.sh_offset, texts.sh_size);
  }
}

void Symbols::readTable(uint64_t offset, uint64_t size, uint64_t texts, uint64_t textBytes) {
  const uint64_t bytes = file_.bytes().size();
  if (offset > bytes || size > bytes - offset || texts > bytes || textBytes > bytes - texts) return;
  for (uint64_t at = offset; at + sizeof(Elf64_Sym) <= offset + size; at += sizeof(Elf64_Sym)) {
    const auto symbol = structAt<Elf64_Sym>(file_.bytes(), at);
    if (ELF64_ST_TYPE(symbol.st_info) != STT_FUNC || symbol.st_value == 0) continue;
    if (symbol.st_name >= textBytes) continue;
    functions_.push_back(
        {symbol.st_value, symbol.st_size, texts + symbol.st_name, texts + textBytes});
  }
}

std::string Symbols::nameAt(uint64_t fileOffset) const {
  for (const Segment& segment : segments_) {
    if (fileOffset < segment.offset || fileOffset - segment.offset >= segment.size) continue;
    const uint64_t address = fileOffset - segment.offset + segment.address;
    auto next = std::upper_bound(
        functions_.begin(), functions_.end(), address,
        [](uint64_t wanted, const Function& function) { return wanted < function.address; });
    if (next == functions_.begin()) return {};
    const Function& function = *--next;
    if (address - function.address >= std::max<uint64_t>(function.size, 1)) return {};
    const char* text = reinterpret_cast<const char*>(file_.bytes().data()) + function.name;
    return demangled({text, strnlen(text, function.nameEnd - function.name)});
  }
  return {};
}

}  // namespace record
