#include "platform/value/LargeBlocks.h"

#include <sys/mman.h>

#include <array>
#include <mutex>
#include <new>

namespace platform::detail {

namespace {

/// What replies are collected in before it is shared, and a form more, fits into one.
constexpr size_t kCommonSize = 72u << 10;
constexpr size_t kKeptBlocks = 32;

struct Kept {
  std::mutex mutex;
  std::array<void*, kKeptBlocks> blocks;
  size_t count = 0;
};

/// Never destroyed: values may be freed while the process ends.
Kept& kept() {
  static Kept& blocks = *new Kept;
  return blocks;
}

size_t sizeOfMapping(size_t size) {
  return size <= kCommonSize ? kCommonSize : size;
}

}  // namespace

void* takeLargeBlock(size_t size) {
  if (size <= kCommonSize) {
    Kept& store = kept();
    const std::lock_guard lock(store.mutex);
    if (store.count > 0) return store.blocks[--store.count];
  }
  void* const block =
      mmap(nullptr, sizeOfMapping(size), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (block == MAP_FAILED) throw std::bad_alloc();
  return block;
}

void giveLargeBlock(void* block, size_t size) noexcept {
  if (size <= kCommonSize) {
    Kept& store = kept();
    const std::lock_guard lock(store.mutex);
    if (store.count < kKeptBlocks) {
      store.blocks[store.count++] = block;
      return;
    }
  }
  // Fails only when the address space has too many parts; then the contents go and the addresses stay.
  if (munmap(block, sizeOfMapping(size)) != 0) madvise(block, sizeOfMapping(size), MADV_DONTNEED);
}

}  // namespace platform::detail
