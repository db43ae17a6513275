#include "platform/system/FileAge.h"

#include <ctime>

namespace platform {

bool isSettled(const FileIdentity& identity) {
  constexpr int64_t kNanoseconds = 1'000'000'000;
  constexpr int64_t kSettlesIn = 100'000'000;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec * kNanoseconds + now.tv_nsec - identity.changeNanoseconds >= kSettlesIn;
}

}  // namespace platform
