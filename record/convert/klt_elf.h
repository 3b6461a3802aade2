// Reads ELF files: whether a program is linked dynamically, and the names of its functions.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "record/convert/klt_spool_reader.h"

namespace record {

enum class ProgramKind { kOther, kStatic, kDynamic };  // kOther: no ELF file, perhaps a script

[[nodiscard]] ProgramKind kindOfProgram(const std::string& path);

// The functions of an ELF file of 64 bits, by address. Names are those of C++, demangled.
class Symbols {
 public:
  explicit Symbols(const std::string& path);

  // The name of the function at an offset of the file, or an empty text.
  [[nodiscard]] std::string nameAt(uint64_t fileOffset) const;

 private:
  struct Segment {
    uint64_t offset = 0;
    uint64_t size = 0;
    uint64_t address = 0;
  };
  struct Function {
    uint64_t address = 0;
    uint64_t size = 0;
    uint64_t name = 0;  // place in the file
    uint64_t nameEnd = 0;
  };

  void readSegments();
  void readTables();
  void readTable(uint64_t offset, uint64_t size, uint64_t texts, uint64_t textBytes);

  MappedFile file_;
  std::vector<Segment> segments_;
  std::vector<Function> functions_;
};

}  // namespace record
