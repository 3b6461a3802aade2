// Stores the texts of a trace. See klt_texts.h.
#include "klt/index/klt_texts.h"

#include <algorithm>
#include <cstring>
#include <functional>

namespace {

constexpr size_t kLargestBlock = size_t{1} << 20;

}  // namespace

KLT_Texts::Head KLT_Texts::headOf(const char* text) {
  Head head;
  std::memcpy(&head, text - sizeof head, sizeof head);
  return head;
}

// The number of the text at this address; 0 if none of the texts begins there.
uint32_t KLT_Texts::storedNumber(const char* text) const {
  const std::less<const char*> before;
  const auto next = std::upper_bound(
      blocks_.begin(), blocks_.end(), text,
      [&](const char* address, const Block& block) { return before(address, block.bytes.get()); });
  if (next == blocks_.begin()) return 0;
  const Block& block = *(next - 1);
  const char* const first = block.bytes.get() + sizeof(Head);
  if (before(text, first) || !before(text, block.bytes.get() + block.size)) return 0;
  const uint32_t number = headOf(text).number;
  return number - 1 < texts_.size() && at(number) == text ? number : 0;
}

uint32_t KLT_Texts::number(const char* text) {
  if (text == nullptr) return 0;
  const uint32_t known = storedNumber(text);
  return known != 0 ? known : number(std::string_view(text));
}

uint32_t KLT_Texts::number(std::string_view text) {
  const auto hash = static_cast<uint32_t>(PAL_KeyHash()(text));
  const uint32_t known = index_.find(hash, [&](uint32_t number) {
    return std::string_view(at(number), headOf(at(number)).bytes) == text;
  });
  if (known != 0) return known;
  const Head head{.number = static_cast<uint32_t>(texts_.size()) + 1,
                  .bytes = static_cast<uint32_t>(text.size())};
  char* const to = allocate(sizeof head + text.size() + 1);
  std::memcpy(to, &head, sizeof head);
  std::copy(text.begin(), text.end(), to + sizeof head);
  to[sizeof head + text.size()] = '\0';
  texts_.push_back(to + sizeof head);
  index_.add(hash, head.number);
  return head.number;
}

// The least size of a block doubles up to a limit, so that few texts take little memory.
char* KLT_Texts::allocate(size_t bytes) {
  if (bytes > freeBytes_) {
    const size_t size = std::max(bytes, nextBlock_);
    nextBlock_ = std::min(2 * nextBlock_, kLargestBlock);
    Block block{std::make_unique_for_overwrite<char[]>(size), size};
    free_ = block.bytes.get();
    freeBytes_ = size;
    const auto next = std::find_if(blocks_.begin(), blocks_.end(), [&](const Block& other) {
      return std::less<const char*>()(free_, other.bytes.get());
    });
    blocks_.insert(next, std::move(block));
  }
  char* const result = free_;
  free_ += bytes;
  freeBytes_ -= bytes;
  return result;
}
