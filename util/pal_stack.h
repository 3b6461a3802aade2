// A stack of trivially copyable items, for short functions on hot paths.
//
// A function that uses std::vector::push_back(), inlined or not, saves six registers each time it
// is called, although only the rare growth of the vector needs them. Here growth is a separate
// function that is never inlined. It doesn't copy a large stack, which would need memory for both.
#pragma once

#include <algorithm>
#include <cstddef>
#include <type_traits>
#include <utility>

#include "util/pal_mem.h"

template <class T>
class PAL_Stack {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  PAL_Stack() = default;
  ~PAL_Stack() { PAL_FREE(items_); }
  PAL_Stack(const PAL_Stack&) = delete;
  PAL_Stack& operator=(const PAL_Stack&) = delete;
  PAL_Stack(PAL_Stack&& other) noexcept { swap(other); }
  PAL_Stack& operator=(PAL_Stack&& other) noexcept {
    swap(other);
    return *this;
  }

  void push(T item) {
    if (size_ == capacity_) [[unlikely]]
      grow();
    items_[size_++] = item;
  }
  // pop() and top() REQUIRE that the stack isn't empty.
  void pop() { --size_; }
  [[nodiscard]] T& top() { return items_[size_ - 1]; }

  [[nodiscard]] bool empty() const { return size_ == 0; }
  [[nodiscard]] size_t size() const { return size_; }
  // The items from the bottom to the top.
  [[nodiscard]] const T* begin() const { return items_; }
  [[nodiscard]] const T* end() const { return items_ + size_; }
  // Removes all items and frees the memory.
  void release() {
    PAL_FREE(items_);
    size_ = capacity_ = 0;
  }

 private:
  void swap(PAL_Stack& other) {
    std::swap(items_, other.items_);
    std::swap(size_, other.size_);
    std::swap(capacity_, other.capacity_);
  }
  [[gnu::noinline, gnu::cold]] void grow() {
    constexpr size_t kFirst = 4;
    capacity_ = std::max(kFirst, 2 * capacity_);
    PAL_REALLOC(items_, capacity_ * sizeof(T), PAL_Place::file(), PAL_Place::line());
  }

  T* items_ = nullptr;
  size_t size_ = 0;
  size_t capacity_ = 0;
};
