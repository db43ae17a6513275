#pragma once

// Broken invariants of ours. They stop the process: nothing on the request path catches them, and the
// terminate handler writes their message to the log first.

#include <stdexcept>
#include <string>

#include "platform/log/Format.h"

namespace platform {

class InternalInconsistency : public std::logic_error {
 public:
  using std::logic_error::logic_error;
};

template <typename... Args>
[[noreturn]] void raiseInternalInconsistency(Format<Args...> text, const Args&... args) {
  throw InternalInconsistency(format<Args...>(text, args...));
}

/// A failed assertion: names the assertion, the operation, the source and the line.
[[noreturn]] void assertionFailure(const char* assertion, const char* operation, const char* source,
                                   int line);

/// Makes std::terminate write the current exception's message to the log before the process aborts. Called
/// once by each process's entry.
void installTerminateHandler();

}  // namespace platform
