// Loaded before a daemon's libraries: makes one call of the system, or one allocation of the main thread,
// fail. Which, the file that $ABD_FAULTS names says, which is mapped and may be changed at any time.

#undef _FILE_OFFSET_BITS  // the calls have the names that libraries call them by
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <string_view>

#define EXPORT extern "C" __attribute__((visibility("default")))

namespace {

enum Kind : int64_t { none, systemCalls, allocations };

/// tests/soak/failures.py writes it.
struct Control {
  std::atomic<int64_t> kind, countdown;    // the call that brings it to 0 fails
  std::atomic<int64_t> error;              // 0: a write writes half, and nothing else counts
  std::atomic<int64_t> calls;              // that counted
  std::atomic<int64_t> live;               // allocations that were not freed yet
  char below[4096 - 5 * sizeof(int64_t)];  // system calls count for files whose path begins so
};

/// The function of that name which this one stands before.
template <typename F>
F* next(const char* name) {
  return reinterpret_cast<F*>(dlsym(RTLD_NEXT, name));
}

Control* map() {
  const char* path = getenv("ABD_FAULTS");
  if (path == nullptr) _exit(70);
  const int fd = next<int(const char*, int)>("open")(path, O_RDWR | O_CLOEXEC);
  void* page = mmap(nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (page == MAP_FAILED) _exit(70);
  next<int(int)>("close")(fd);
  return static_cast<Control*>(page);
}

Control& control() {
  static Control* const mapped = map();
  return *mapped;
}

bool isDue() {
  control().calls++;
  return --control().countdown == 0;
}

/// Whether the call about the file fails; `isWrite`: it may also write half.
bool fails(const char* path, bool isWrite = false) {
  Control& c = control();
  if (c.kind != systemCalls || (c.error == 0 && !isWrite)) return false;
  if (!std::string_view(path).starts_with(c.below) || !isDue()) return false;
  errno = static_cast<int>(c.error);
  return true;
}

bool fails(int fd, bool isWrite = false) {
  if (control().kind != systemCalls) return false;
  char link[32] = "/proc/self/fd/", path[4096] = "";
  *std::to_chars(link + 14, link + 31, fd).ptr = '\0';
  static const auto real = next<ssize_t(const char*, char*, size_t)>("readlink");
  return real(link, path, sizeof path - 1) > 0 && fails(path, isWrite);
}

bool lacksMemory() {
  if (control().kind != allocations || gettid() != getpid() || !isDue()) return false;
  errno = ENOMEM;
  return true;
}

void* counted(void* block) {
  if (block != nullptr) control().live++;
  return block;
}

}  // namespace

// --- Calls about files ---

#define FAILING(name, result, parameters, about, arguments)  \
  EXPORT result name parameters {                            \
    static const auto real = next<result parameters>(#name); \
    return fails(about) ? -1 : real arguments;               \
  }
#define WRITING(name, parameters, arguments)                                      \
  EXPORT ssize_t name parameters {                                                \
    static const auto real = next<ssize_t parameters>(#name);                     \
    if (fails(fd, true) && (control().error != 0 || (size /= 2) == 0)) return -1; \
    return real arguments;                                                        \
  }
#define OPENING(name)                                                 \
  EXPORT int name(const char* path, int flags, ...) {                 \
    static const auto real = next<int(const char*, int, ...)>(#name); \
    va_list more;                                                     \
    va_start(more, flags);                                            \
    const int mode = va_arg(more, int);                               \
    va_end(more);                                                     \
    return fails(path) ? -1 : real(path, flags, mode);                \
  }

OPENING(open)
OPENING(open64)
WRITING(write, (int fd, const void* bytes, size_t size), (fd, bytes, size))
WRITING(pwrite64, (int fd, const void* bytes, size_t size, off64_t at), (fd, bytes, size, at))
FAILING(read, ssize_t, (int fd, void* bytes, size_t size), fd, (fd, bytes, size))
FAILING(pread64, ssize_t, (int fd, void* bytes, size_t size, off64_t at), fd, (fd, bytes, size, at))
FAILING(fsync, int, (int fd), fd, (fd))
FAILING(fdatasync, int, (int fd), fd, (fd))
FAILING(ftruncate64, int, (int fd, off64_t size) noexcept, fd, (fd, size))
FAILING(rename, int, (const char* path, const char* to) noexcept, path, (path, to))
FAILING(link, int, (const char* path, const char* to) noexcept, path, (path, to))
FAILING(unlink, int, (const char* path) noexcept, path, (path))
FAILING(mkdir, int, (const char* path, mode_t mode) noexcept, path, (path, mode))

/// A failing one closes, too.
EXPORT int close(int fd) {
  static const auto real = next<int(int)>("close");
  const bool hasFailed = fails(fd);
  const int error = errno, result = real(fd);
  if (!hasFailed) return result;
  errno = error;
  return -1;
}

// --- Allocations ---

#define ALLOCATING(name, parameters, arguments)               \
  EXPORT void* name parameters noexcept {                     \
    static const auto real = next<void * parameters>(#name);  \
    return lacksMemory() ? nullptr : counted(real arguments); \
  }

ALLOCATING(malloc, (size_t size), (size))
ALLOCATING(calloc, (size_t count, size_t size), (count, size))
ALLOCATING(aligned_alloc, (size_t alignment, size_t size), (alignment, size))
EXPORT void* realloc(void* block, size_t size) noexcept {
  static const auto real = next<void*(void*, size_t)>("realloc");
  if (lacksMemory()) return nullptr;
  return block == nullptr ? counted(real(block, size)) : real(block, size);
}
EXPORT void free(void* block) noexcept {
  static const auto real = next<void(void*)>("free");
  if (block != nullptr) control().live--;
  real(block);
}

// The allocator has operators of its own, which would call nothing of the above.
static void* orThrow(void* block) {
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
#define OPERATOR(signature, body)                         \
  __attribute__((visibility("default"))) void signature { \
    body;                                                 \
  }

OPERATOR(*operator new(size_t size), return orThrow(malloc(size)))
OPERATOR(*operator new[](size_t size), return orThrow(malloc(size)))
OPERATOR(*operator new(size_t size, const std::nothrow_t&) noexcept, return malloc(size))
OPERATOR(*operator new(size_t size, std::align_val_t to), return orThrow(aligned_alloc(size_t(to), size)))
OPERATOR(operator delete(void* block) noexcept, free(block))
OPERATOR(operator delete[](void* block) noexcept, free(block))
OPERATOR(operator delete(void* block, size_t) noexcept, free(block))
OPERATOR(operator delete[](void* block, size_t) noexcept, free(block))
OPERATOR(operator delete(void* block, std::align_val_t) noexcept, free(block))
OPERATOR(operator delete(void* block, size_t, std::align_val_t) noexcept, free(block))
