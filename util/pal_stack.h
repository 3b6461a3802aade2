// A stack for functions so short that the registers they save count.
//
// Where a vector's growth is inlined, or its push_back() called, the function around it saves six
// registers that it mostly has no use for.
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
    if (size_ == room_) [[unlikely]]
      grow();
    items_[size_++] = item;
  }
  // REQUIRES, as top(): not empty.
  void pop() { --size_; }
  [[nodiscard]] T& top() { return items_[size_ - 1]; }

  [[nodiscard]] bool empty() const { return size_ == 0; }
  [[nodiscard]] size_t size() const { return size_; }
  // From the bottom to the top.
  [[nodiscard]] const T* begin() const { return items_.get(); }
  [[nodiscard]] const T* end() const { return items_.get() + size_; }

 private:
  void swap(PAL_Stack& other) {
    std::swap(items_, other.items_);
    std::swap(size_, other.size_);
    std::swap(room_, other.room_);
  }
  [[gnu::noinline, gnu::cold]] void grow() {
    constexpr size_t kFirst = 4;
    const size_t room = std::max(kFirst, 2 * room_);
    auto larger = std::make_unique_for_overwrite<T[]>(room);
    std::copy(begin(), end(), larger.get());
    items_ = std::move(larger);
    room_ = room;
  }

  std::unique_ptr<T[]> items_;
  size_t size_ = 0;
  size_t room_ = 0;
};
