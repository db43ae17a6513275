#include "platform/log/Failure.h"

#include <cstdlib>
#include <exception>

#include "platform/log/Log.h"

namespace platform {

void assertionFailure(const char* assertion, const char* operation, const char* source, int line) {
  raiseInternalInconsistency("assertion failure: \"%s\" in %s, %s:%d", assertion, operation, source, line);
}

void installTerminateHandler() {
  std::set_terminate([] {
    try {
      if (const auto exception = std::current_exception()) std::rethrow_exception(exception);
      writeLogEntry("terminating");
    } catch (const std::exception& exception) {
      writeLogEntry(exception.what());
    } catch (...) {
      writeLogEntry("terminating after an unknown exception");
    }
    std::abort();
  });
}

}  // namespace platform
