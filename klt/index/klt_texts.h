// Stores the texts of a trace, each of them once.
//
// Any number of definitions can refer to one text of 64 KiB, so a text isn't copied, hashed or
// measured for each reference. Equal texts have one number and one address, which never change. A
// trace and the writer of an extraction or merge share a KLT_Texts, to which their tables refer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "util/pal_hash.h"

class KLT_Texts {
 public:
  // The number of a text, from 1 in order of addition. A new text is added. Null: 0. If at()
  // has returned this address, the bytes of the text aren't read.
  [[nodiscard]] uint32_t number(const char* text);
  [[nodiscard]] uint32_t number(std::string_view text);
  // The text with this number, with a zero byte at its end. REQUIRES: `number` isn't 0.
  [[nodiscard]] const char* at(uint32_t number) const { return texts_[number - 1]; }
  // The stored text that equals `text`; null for null.
  [[nodiscard]] const char* keep(const char* text) {
    return text == nullptr ? nullptr : at(number(text));
  }

 private:
  // Precedes each text.
  struct Head {
    uint32_t number;
    uint32_t bytes;
  };
  struct Block {
    std::unique_ptr<char[]> bytes;
    size_t size;
  };

  [[nodiscard]] static Head headOf(const char* text);
  [[nodiscard]] uint32_t storedNumber(const char* text) const;
  [[nodiscard]] char* allocate(size_t bytes);

  std::vector<const char*> texts_;  // by number
  std::vector<Block> blocks_;       // by address
  char* free_ = nullptr;            // unused bytes of the block that was added last
  size_t freeBytes_ = 0;
  size_t nextBlock_ = 4096;
  PAL_KeyIndex<1> index_;
};
