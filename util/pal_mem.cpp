// Implements the allocator hooks, the global operators that use them, temporary blocks and packing.
//
// Owns PAL_allocators. A failed allocation is reported by PAL_Error and ends the process. The
// functions called for this report must work without heap memory.
#include "util/pal_mem.h"

#include <unistd.h>

#include <cstdlib>
#include <new>

#include "util/pal_error.h"

constinit PAL_AllocatorTable PAL_allocators = {&std::malloc, &std::calloc, &std::realloc,
                                               &std::free,   nullptr,      0};

namespace {

[[noreturn]] void EndProcess() {
  // If an exit handler runs out of memory too, the handlers aren't started again.
  static bool ending = false;
  if (ending) _exit(1);
  ending = true;
  std::exit(1);
}

[[noreturn]] void OutOfStackMemory(size_t bytes, const char* file, int line) {
  PAL_Error("out of stack memory (%zu byte) [%s:%d], aborting.", bytes, file, line);
  EndProcess();
}

bool Retry() { return PAL_allocators.retry != nullptr && PAL_allocators.retry() != 0; }

}  // namespace

void PAL_MemInit() {
  static bool initialised = false;
  if (initialised) return;
  initialised = true;
  if (PAL_allocators.malloc == nullptr) PAL_allocators.malloc = &std::malloc;
  if (PAL_allocators.calloc == nullptr) PAL_allocators.calloc = &std::calloc;
  if (PAL_allocators.realloc == nullptr) PAL_allocators.realloc = &std::realloc;
  if (PAL_allocators.free == nullptr) PAL_allocators.free = &std::free;
}

void PAL_OutOfMemory(size_t bytes, const char* file, int line) {
  PAL_messages.errorEnabled = 1;  // the process never ends without a message
  PAL_Error("out of memory (%zu byte) [%s:%d], aborting.", bytes, file, line);
  EndProcess();
}

void* PAL_Allocate(size_t bytes, const char* file, int line) {
  if (bytes == 0) return nullptr;
  for (;;) {
    void* block = PAL_allocators.malloc(bytes);
    if (block != nullptr) [[likely]]
      return block;
    if (!Retry()) PAL_OutOfMemory(bytes, file, line);
  }
}

void* PAL_AllocateZeroed(size_t count, size_t size, const char* file, int line) {
  if (count == 0 || size == 0) return nullptr;
  for (;;) {
    void* block = PAL_allocators.calloc(count, size);
    if (block != nullptr) [[likely]]
      return block;
    if (!Retry()) PAL_OutOfMemory(count * size, file, line);
  }
}

void* PAL_Reallocate(void* block, size_t bytes, const char* file, int line) {
  if (bytes == 0) {
    PAL_Release(block);
    return nullptr;
  }
  if (block == nullptr) return PAL_Allocate(bytes, file, line);
  for (;;) {
    void* resized = PAL_allocators.realloc(block, bytes);
    if (resized != nullptr) [[likely]]
      return resized;
    if (!Retry()) PAL_OutOfMemory(bytes, file, line);
  }
}

void PAL_Release(void* block) {
  if (block != nullptr && PAL_allocators.noFree == 0) PAL_allocators.free(block);
}

char* PAL_StrDup(const char* text, const char* file, int line) {
  if (text == nullptr) return nullptr;
  const size_t bytes = std::strlen(text) + 1;
  return static_cast<char*>(std::memcpy(PAL_Allocate(bytes, file, line), text, bytes));
}

namespace {

// The first word of each temporary block says whether it is on the heap or in a frame.
constexpr size_t kStackHeaderBytes = 16;
constexpr uint32_t kFromHeap = 0;
constexpr uint32_t kFromFrame = 1;

}  // namespace

void* PAL_StackBlock(void* frame, size_t bytes, const char* file, int line) {
  if (bytes == 0) return nullptr;
  uint32_t header = kFromFrame;
  if (PAL_StackFrameBytes(bytes) == 0) {
    header = kFromHeap;
    const bool fits = bytes <= SIZE_MAX - kStackHeaderBytes;
    frame = fits ? PAL_allocators.malloc(bytes + kStackHeaderBytes) : nullptr;
    if (frame == nullptr) OutOfStackMemory(bytes, file, line);
  }
  std::memcpy(frame, &header, sizeof header);
  return static_cast<unsigned char*>(frame) + kStackHeaderBytes;
}

void PAL_StackRelease(void* block) {
  if (block == nullptr) return;
  void* start = static_cast<unsigned char*>(block) - kStackHeaderBytes;
  uint32_t header;
  std::memcpy(&header, start, sizeof header);
  if (header == kFromHeap) PAL_Release(start);
}

// --- packing ------------------------------------------------------------------------------------

namespace {

constexpr uint32_t kMinGrowth = 1024;  // of a buffer, in bytes
constexpr size_t kPadBytes = 8;        // bytes that unpacking a padding item clears

size_t PackedItemSize(uint32_t kind) {
  switch (kind) {
    case PAL_PACK_BYTE:
      return 1;
    case PAL_PACK_INT32:
    case PAL_PACK_UINT32:
      return 4;
    case PAL_PACK_INT64:
    case PAL_PACK_UINT64:
      return 8;
    default:
      return 0;
  }
}

size_t PackedSize(const PAL_PackType* types) {
  size_t size = 0;
  for (; types->kind != PAL_PACK_END; ++types) size += PackedItemSize(types->kind);
  return size;
}

bool IsPackedSize(const PAL_PackType* types, size_t count, size_t bytes) {
  size_t expected;
  return !__builtin_mul_overflow(PackedSize(types), count, &expected) && expected == bytes;
}

// Makes room for `bytes` more bytes and returns it; null if the buffer can't become that large.
unsigned char* Reserve(PAL_Buffer& buffer, size_t bytes) {
  if (bytes > UINT32_MAX - buffer.length) return nullptr;
  const auto needed = static_cast<uint32_t>(buffer.length + bytes);
  if (needed > buffer.capacity) {
    const uint32_t grown =
        buffer.capacity > UINT32_MAX - kMinGrowth ? UINT32_MAX : buffer.capacity + kMinGrowth;
    const uint32_t capacity = grown > needed ? grown : needed;
    PAL_REALLOC(buffer.data, capacity);
    buffer.capacity = capacity;
  }
  return buffer.data + buffer.length;
}

size_t Remaining(const PAL_Buffer& buffer) {
  return buffer.length < buffer.capacity ? buffer.capacity - buffer.length : 0;
}

bool PackNumber(uint32_t value, PAL_Buffer& buffer) {
  return PAL_Pack(&value, nullptr, 1, sizeof value, buffer);
}

bool UnpackNumber(uint32_t& value, PAL_Buffer& buffer) {
  return PAL_Unpack(&value, nullptr, 1, sizeof value, buffer);
}

// Whether the buffer still has `count` elements. Checked before memory for them is allocated.
bool HoldsElements(const PAL_Buffer& buffer, size_t count, size_t packedSize, size_t itemSize) {
  size_t packed;
  size_t unpacked;
  return !__builtin_mul_overflow(count, packedSize, &packed) &&
         !__builtin_mul_overflow(count, itemSize, &unpacked) && packed <= Remaining(buffer) &&
         (packedSize != 0 || count == 0);
}

}  // namespace

bool PAL_Pack(const void* source, const PAL_PackType* types, size_t count, size_t bytes,
              PAL_Buffer& buffer) {
  if (types != nullptr && !IsPackedSize(types, count, bytes)) return false;
  if (bytes == 0) return true;
  unsigned char* to = Reserve(buffer, bytes);
  if (to == nullptr) return false;
  buffer.length += static_cast<uint32_t>(bytes);
  if (types == nullptr) {
    std::memcpy(to, source, bytes);
    return true;
  }
  const auto* from = static_cast<const unsigned char*>(source);
  for (size_t i = 0; i < count; ++i) {
    for (const PAL_PackType* type = types; type->kind != PAL_PACK_END; ++type) {
      const size_t size = PackedItemSize(type->kind);
      std::memcpy(to, from, size);
      to += size;
      from += type->step;
    }
  }
  return true;
}

bool PAL_Unpack(void* target, const PAL_PackType* types, size_t count, size_t bytes,
                PAL_Buffer& buffer) {
  if (types != nullptr && !IsPackedSize(types, count, bytes)) return false;
  if (bytes > Remaining(buffer)) return false;
  const unsigned char* from = buffer.data + buffer.length;
  buffer.length += static_cast<uint32_t>(bytes);
  if (types == nullptr) {
    if (bytes != 0) std::memcpy(target, from, bytes);
    return true;
  }
  auto* to = static_cast<unsigned char*>(target);
  for (size_t i = 0; i < count; ++i) {
    for (const PAL_PackType* type = types; type->kind != PAL_PACK_END; ++type) {
      const size_t size = PackedItemSize(type->kind);
      if (type->kind == PAL_PACK_PAD) {
        std::memset(to, 0, kPadBytes);
      } else {
        std::memcpy(to, from, size);
      }
      from += size;
      to += type->step;
    }
  }
  return true;
}

bool PAL_PackArray(const PAL_Array& array, const PAL_PackType* types, size_t itemSize,
                   PAL_Buffer& buffer) {
  const size_t packedSize = types != nullptr ? PackedSize(types) : itemSize;
  size_t bytes;
  if (__builtin_mul_overflow(packedSize, size_t{array.length}, &bytes)) return false;
  const uint32_t start = buffer.length;
  if (PackNumber(array.length, buffer) &&
      PAL_Pack(array.data, types, array.length, bytes, buffer)) {
    return true;
  }
  buffer.length = start;
  return false;
}

bool PAL_UnpackArray(PAL_Array& array, const PAL_PackType* types, size_t itemSize,
                     PAL_Buffer& buffer) {
  const size_t packedSize = types != nullptr ? PackedSize(types) : itemSize;
  const uint32_t start = buffer.length;
  uint32_t count;
  if (!UnpackNumber(count, buffer)) return false;
  if (!HoldsElements(buffer, count, packedSize, itemSize)) {
    buffer.length = start;
    return false;
  }
  if (count > array.capacity) {
    PAL_REALLOC(array.data, count * itemSize);
    array.capacity = count;
  }
  array.length = count;
  return PAL_Unpack(array.data, types, count, count * packedSize, buffer);
}

bool PAL_PackString(const char* text, PAL_Buffer& buffer) {
  const size_t bytes = text != nullptr ? std::strlen(text) + 1 : 0;
  if (bytes > UINT32_MAX) return false;
  const uint32_t start = buffer.length;
  if (PackNumber(static_cast<uint32_t>(bytes), buffer) &&
      PAL_Pack(text, nullptr, 1, bytes, buffer)) {
    return true;
  }
  buffer.length = start;
  return false;
}

const char* PAL_UnpackString(PAL_Buffer& buffer) {
  const uint32_t start = buffer.length;
  uint32_t bytes;
  if (!UnpackNumber(bytes, buffer) || bytes == 0) return nullptr;
  const unsigned char* text = buffer.data + buffer.length;
  if (bytes > Remaining(buffer) || text[bytes - 1] != 0) {
    buffer.length = start;
    return nullptr;
  }
  buffer.length += bytes;
  return reinterpret_cast<const char*>(text);
}

void PAL_UnpackStringCopy(char*& pointer, PAL_Buffer& buffer) {
  PAL_FREE(pointer);
  pointer = PAL_StrDup(PAL_UnpackString(buffer));
}

// --- global operators ---------------------------------------------------------------------------
//
// All forms use the hooks, also the non-throwing ones: the process never continues after a failed
// allocation. The hooks don't support alignment, so an over-aligned block is part of a larger
// block, whose address is stored in the word before the over-aligned one.

namespace {

void* NewBlock(size_t bytes) {
  return PAL_Allocate(bytes != 0 ? bytes : 1, PAL_Place::file(), PAL_Place::line());
}

void* NewAlignedBlock(size_t bytes, std::align_val_t alignment) {
  const size_t align = static_cast<size_t>(alignment);
  const size_t extra = align + sizeof(void*);
  if (bytes > SIZE_MAX - extra) PAL_OutOfMemory(bytes, PAL_Place::file(), PAL_Place::line());
  void* base = NewBlock(bytes + extra);
  const uintptr_t address = reinterpret_cast<uintptr_t>(base) + extra;
  auto* block = static_cast<unsigned char*>(base) + (extra - address % align);
  std::memcpy(block - sizeof base, &base, sizeof base);
  return block;
}

void DeleteAlignedBlock(void* block) {
  if (block == nullptr) return;
  void* base;
  std::memcpy(&base, static_cast<unsigned char*>(block) - sizeof base, sizeof base);
  PAL_Release(base);
}

}  // namespace

void* operator new(size_t bytes) { return NewBlock(bytes); }
void* operator new[](size_t bytes) { return NewBlock(bytes); }
void* operator new(size_t bytes, const std::nothrow_t&) noexcept { return NewBlock(bytes); }
void* operator new[](size_t bytes, const std::nothrow_t&) noexcept { return NewBlock(bytes); }
void* operator new(size_t bytes, std::align_val_t alignment) {
  return NewAlignedBlock(bytes, alignment);
}
void* operator new[](size_t bytes, std::align_val_t alignment) {
  return NewAlignedBlock(bytes, alignment);
}
void* operator new(size_t bytes, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  return NewAlignedBlock(bytes, alignment);
}
void* operator new[](size_t bytes, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  return NewAlignedBlock(bytes, alignment);
}

void operator delete(void* block) noexcept { PAL_Release(block); }
void operator delete[](void* block) noexcept { PAL_Release(block); }
void operator delete(void* block, size_t) noexcept { PAL_Release(block); }
void operator delete[](void* block, size_t) noexcept { PAL_Release(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { PAL_Release(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { PAL_Release(block); }
void operator delete(void* block, std::align_val_t) noexcept { DeleteAlignedBlock(block); }
void operator delete[](void* block, std::align_val_t) noexcept { DeleteAlignedBlock(block); }
void operator delete(void* block, size_t, std::align_val_t) noexcept { DeleteAlignedBlock(block); }
void operator delete[](void* block, size_t, std::align_val_t) noexcept {
  DeleteAlignedBlock(block);
}
void operator delete(void* block, std::align_val_t, const std::nothrow_t&) noexcept {
  DeleteAlignedBlock(block);
}
void operator delete[](void* block, std::align_val_t, const std::nothrow_t&) noexcept {
  DeleteAlignedBlock(block);
}
