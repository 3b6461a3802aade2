// A stack of trivially copyable items, for short functions on hot paths.
//
// A function that uses std::vector::push_back(), inlined or not, saves six registers each time it
// is called, although only the rare growth of the vector needs them. Here growth is a separate
// function that is never inlined.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <type_traits>
#include <utility>

template <class T>
class PAL_Stack {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  PAL_Stack() = default;
  ~PAL_Stack() = default;
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
  [[nodiscard]] const T* begin() const { return items_.get(); }
  [[nodiscard]] const T* end() const { return items_.get() + size_; }

 private:
  void swap(PAL_Stack& other) {
    std::swap(items_, other.items_);
    std::swap(size_, other.size_);
    std::swap(capacity_, other.capacity_);
  }
  [[gnu::noinline, gnu::cold]] void grow() {
    constexpr size_t kFirst = 4;
    const size_t capacity = std::max(kFirst, 2 * capacity_);
    auto larger = std::make_unique_for_overwrite<T[]>(capacity);
    std::copy(begin(), end(), larger.get());
    items_ = std::move(larger);
    capacity_ = capacity;
  }

  std::unique_ptr<T[]> items_;
  size_t size_ = 0;
  size_t capacity_ = 0;
};
