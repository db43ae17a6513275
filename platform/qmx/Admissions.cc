#include "platform/qmx/Admissions.h"

#include "platform/qmx/Limits.h"

namespace platform::qmx {

std::shared_ptr<void> Admissions::admit(pid_t pid) {
  if (total_ >= kMaximumConnections) return nullptr;
  size_t& ofProcess = perProcess_[pid];
  if (ofProcess >= kMaximumConnectionsPerProcess) return nullptr;
  ++ofProcess;
  ++total_;
  // Only the releasing counts; the pointer points at nothing of its own.
  return std::shared_ptr<void>(this,
                               [admissions = shared_from_this(), pid](void*) { admissions->leave(pid); });
}

void Admissions::leave(pid_t pid) {
  --total_;
  const auto ofProcess = perProcess_.find(pid);
  if (--ofProcess->second == 0) perProcess_.erase(ofProcess);
  if (left_) left_();
}

}  // namespace platform::qmx
