// Allocates all heap memory of the program.
//
// All allocations, including operator new and delete, use the four replaceable hooks in
// PAL_allocators, so that standard containers have the same contract: a failed allocation is
// retried as long as the `retry` hook says so, and otherwise ends the process with one message and
// status 1. So no caller has to check whether memory is exhausted. The module also has temporary
// blocks (whose allocation isn't retried) and a pack format for structured data in a growing byte
// buffer. Failed allocations are reported through pal_error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

// The process-wide hooks. `retry` may be null; it is called when an allocation has failed and
// returns nonzero for "try again". A nonzero `noFree` disables every release.
struct PAL_AllocatorTable {
  void* (*malloc)(size_t);
  void* (*calloc)(size_t, size_t);
  void* (*realloc)(void*, size_t);
  void (*free)(void*);
  int (*retry)();
  int noFree;
};
extern PAL_AllocatorTable PAL_allocators;

// Sets each of the four functions of PAL_allocators that is null to the standard library's. Only
// the first call has an effect. The table can also be used before that call, since it initially
// contains these functions.
void PAL_MemInit();

// Reports "out of memory" for a request of `bytes` bytes made at `file`:`line` and ends the process
// with status 1. Allocates no memory itself. Exit handlers run, so buffered output is not lost.
[[noreturn]] void PAL_OutOfMemory(size_t bytes, const char* file, int line);

// The allocations that the typed operations below use. They return null only for a size of 0, for
// which they allocate nothing.
[[nodiscard]] void* PAL_Allocate(size_t bytes, const char* file, int line);
[[nodiscard]] void* PAL_AllocateZeroed(size_t count, size_t size, const char* file, int line);
[[nodiscard]] void* PAL_Reallocate(void* block, size_t bytes, const char* file, int line);
void PAL_Release(void* block);

// Sets the source location that "out of memory" reports for operator new, which doesn't know its
// caller. The location is valid in the current thread until the end of the object's scope; then
// that of the surrounding PAL_Place is valid again.
class PAL_Place {
 public:
  explicit PAL_Place(const char* file = __builtin_FILE(), int line = __builtin_LINE())
      : outerFile_(file_), outerLine_(line_) {
    file_ = file;
    line_ = line;
  }
  ~PAL_Place() {
    file_ = outerFile_;
    line_ = outerLine_;
  }
  PAL_Place(const PAL_Place&) = delete;
  PAL_Place& operator=(const PAL_Place&) = delete;

  [[nodiscard]] static const char* file() { return file_; }
  [[nodiscard]] static int line() { return line_; }

 private:
  static inline constinit thread_local const char* file_ = __builtin_FILE();
  static inline constinit thread_local int line_ = __builtin_LINE();

  const char* outerFile_;
  int outerLine_;
};

template <class Vector>
[[gnu::cold, gnu::noinline]] void PAL_DoubleRoom(Vector& vector, const char* file, int line) {
  const PAL_Place here(file, line);
  vector.reserve(vector.empty() ? 1 : 2 * vector.size());
}
// Makes room in `vector` for one more element. Sets the source location for "out of memory" only if
// the vector grows, because a PAL_Place in each call would take time.
template <class Vector>
[[gnu::always_inline]] inline void PAL_MakeRoom(Vector& vector, const char* file = __builtin_FILE(),
                                                int line = __builtin_LINE()) {
  if (vector.size() == vector.capacity()) [[unlikely]]
    PAL_DoubleRoom(vector, file, line);
}

// Points `pointer` to a new block of `bytes` bytes, or makes it null for 0 bytes.
template <class T>
void PAL_MALLOC(T*& pointer, size_t bytes, const char* file = __builtin_FILE(),
                int line = __builtin_LINE()) {
  pointer = static_cast<T*>(PAL_Allocate(bytes, file, line));
}

// Points `pointer` to `count` zeroed items of `size` bytes, or makes it null if either is 0.
template <class T>
void PAL_CALLOC(T*& pointer, size_t count, size_t size, const char* file = __builtin_FILE(),
                int line = __builtin_LINE()) {
  pointer = static_cast<T*>(PAL_AllocateZeroed(count, size, file, line));
}

// Resizes the block at `pointer`. A null pointer allocates; 0 bytes release the block and set null.
template <class T>
void PAL_REALLOC(T*& pointer, size_t bytes, const char* file = __builtin_FILE(),
                 int line = __builtin_LINE()) {
  pointer = static_cast<T*>(PAL_Reallocate(pointer, bytes, file, line));
}

// Releases the block at `pointer`, which may be null, and sets `pointer` to null.
template <class T>
void PAL_FREE(T*& pointer) {
  PAL_Release(pointer);
  pointer = nullptr;
}

// A heap copy of `text` that the caller releases with PAL_FREE; null if `text` is null.
[[nodiscard]] char* PAL_StrDup(const char* text, const char* file = __builtin_FILE(),
                               int line = __builtin_LINE());

// Temporary blocks of at least this many bytes are on the heap, smaller ones in the caller's frame.
inline constexpr size_t kPalStackLimit = 65536;

// The bytes that PAL_STACK_ALLOC takes from the caller's frame for a block of `bytes` bytes.
[[nodiscard]] constexpr size_t PAL_StackFrameBytes(size_t bytes) {
  return bytes == 0 || bytes >= kPalStackLimit ? 0 : (bytes + 16 + 15) / 16 * 16;
}
// A block in `frame` or, if PAL_StackFrameBytes(bytes) is 0, on the heap; null for 0 bytes.
[[nodiscard]] void* PAL_StackBlock(void* frame, size_t bytes, const char* file, int line);
void PAL_StackRelease(void* block);

// Points `pointer` to a temporary block of `size` bytes, aligned to 16, or makes it null for 0
// bytes. The caller must release the block with PAL_STACK_FREE before it returns. A failed
// allocation ends the process. `size` is evaluated twice. This is a macro, because a function can't
// allocate memory in the frame of its caller.
#define PAL_STACK_ALLOC(pointer, size)                        \
  ((pointer) = static_cast<decltype(pointer)>(PAL_StackBlock( \
       __builtin_alloca(PAL_StackFrameBytes(size)), (size), __builtin_FILE(), __builtin_LINE())))

// Releases the block at `pointer`, which may be null, and sets `pointer` to null.
template <class T>
void PAL_STACK_FREE(T*& pointer) {
  PAL_StackRelease(pointer);
  pointer = nullptr;
}

// A growing byte buffer. While packing, `length` is the number of used bytes. While unpacking,
// `length` is the read position and `capacity` the number of readable bytes. `data` is null while
// `capacity` is 0; the owner releases it with PAL_FREE.
struct PAL_Buffer {
  unsigned char* data = nullptr;
  uint32_t capacity = 0;
  uint32_t length = 0;
};

// An array of `length` elements with room for `capacity`, for the pack operations.
struct PAL_Array {
  void* data = nullptr;
  uint32_t capacity = 0;
  uint32_t length = 0;
};

// The kinds of an item in a type description. PAD packs nothing and unpacks as 8 zero bytes; END
// ends the description.
enum PAL_PackKind : uint32_t {
  PAL_PACK_PAD = 0,
  PAL_PACK_BYTE = 1,
  PAL_PACK_INT32 = 2,
  PAL_PACK_INT64 = 3,
  PAL_PACK_UINT32 = 4,
  PAL_PACK_UINT64 = 5,
  PAL_PACK_END = 6,
};

// One item of a type description: the kind of the item, and its distance in bytes to the next item
// in the structure. The step of the last item is the distance to the next structure.
struct PAL_PackType {
  uint32_t kind;
  uint32_t step;
};

// Appends `bytes` bytes to `buffer`. Without `types` they are copied from `source`. With `types`,
// `count` structures at `source` are packed in host byte order, and `bytes` must be their packed
// size. Returns false and leaves the buffer unchanged if `bytes` differs from the packed size, or
// if the buffer's size wouldn't fit in 32 bits.
[[nodiscard]] bool PAL_Pack(const void* source, const PAL_PackType* types, size_t count,
                            size_t bytes, PAL_Buffer& buffer);

// The reverse of PAL_Pack: reads from the buffer's read position and advances it. Returns false and
// reads nothing if `bytes` isn't the packed size or the buffer doesn't have that many bytes left.
[[nodiscard]] bool PAL_Unpack(void* target, const PAL_PackType* types, size_t count, size_t bytes,
                              PAL_Buffer& buffer);

// Packs the 32-bit number of elements, then the elements, each `itemSize` bytes in the array.
// False, with the buffer unchanged, if its size wouldn't fit in 32 bits.
[[nodiscard]] bool PAL_PackArray(const PAL_Array& array, const PAL_PackType* types, size_t itemSize,
                                 PAL_Buffer& buffer);

// The reverse of PAL_PackArray; reallocates `array` if its capacity is too small. False, with array
// and position unchanged, if the buffer has fewer elements than its count says.
[[nodiscard]] bool PAL_UnpackArray(PAL_Array& array, const PAL_PackType* types, size_t itemSize,
                                   PAL_Buffer& buffer);

// Packs the 32-bit length of the text including its terminating zero, then the bytes; a null text
// has length 0. Fails like PAL_PackArray.
[[nodiscard]] bool PAL_PackString(const char* text, PAL_Buffer& buffer);

// The text at the read position, as a pointer into the buffer; null for a null text. Also null,
// with the position unchanged, if the text is incomplete or doesn't end with a zero byte.
[[nodiscard]] const char* PAL_UnpackString(PAL_Buffer& buffer);

// Releases the block at `pointer` and sets `pointer` to a heap copy of the text that
// PAL_UnpackString returns, or to null if it returns null.
void PAL_UnpackStringCopy(char*& pointer, PAL_Buffer& buffer);
