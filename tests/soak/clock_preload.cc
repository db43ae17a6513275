// Moves the wall clock of the program it is loaded into, and nothing else's: by as many seconds as the file
// named by SOAK_CLOCK is long in bytes, backwards when it can be executed. Times to wait for on that clock
// are moved back, as the system keeps the real one.

#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>

#define SHOWN extern "C" __attribute__((visibility("default")))

namespace {

time_t shift() {
  struct stat status;
  const char* const path = getenv("SOAK_CLOCK");
  if (path == nullptr || stat(path, &status) != 0) return 0;
  return (status.st_mode & S_IXUSR) != 0 ? -status.st_size : status.st_size;
}

}  // namespace

SHOWN int clock_gettime(clockid_t clock, timespec* result) noexcept {
  const long status = syscall(SYS_clock_gettime, clock, result);
  if (status == 0 && clock == CLOCK_REALTIME) result->tv_sec += shift();
  return static_cast<int>(status);
}

SHOWN time_t time(time_t* result) noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  if (result != nullptr) *result = now.tv_sec;
  return now.tv_sec;
}

SHOWN int gettimeofday(timeval* result, void*) noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  *result = {.tv_sec = now.tv_sec, .tv_usec = now.tv_nsec / 1000};
  return 0;
}

SHOWN int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* time) {
  const timespec moved = {.tv_sec = time->tv_sec - shift(), .tv_nsec = time->tv_nsec};
  return pthread_cond_clockwait(condition, mutex, CLOCK_REALTIME, &moved);
}
