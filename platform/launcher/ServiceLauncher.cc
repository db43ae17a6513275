#include "platform/launcher/ServiceLauncher.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>
#include <variant>

#include "platform/launcher/RegistrationFiles.h"
#include "platform/propertylist/PropertyList.h"
#include "platform/queue/RunLoop.h"

namespace platform {

namespace {

/// Why execve(2) would refuse the file: an error number, or 0.
int checkExecutable(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return errno;
  if (!S_ISREG(status.st_mode)) return EACCES;
  return faccessat(AT_FDCWD, path.c_str(), X_OK, AT_EACCESS) == 0 ? 0 : errno;
}

}  // namespace

int addExternalService(pid_t host, const std::string& executablePath, const Dictionary& launchDescription,
                       const ExternalService& service) {
  const auto startTime = processStartTime(host);
  if (!startTime) return ESRCH;
  if (const int number = checkExecutable(executablePath)) return number;
  const Result<std::string> bytes = serializePropertyList(Dictionary{
      {"PlugInIdentifier", service.plugInIdentifier},
      {"BundleIdentifier", service.bundleIdentifier},
      {"BundleVersion", service.bundleVersion},
      {"ExecutablePath", executablePath},
      {"HostStartTime", *startTime},
      {"LaunchDescription", launchDescription},
  });
  if (std::holds_alternative<Error>(bytes)) return EINVAL;
  bool isNewHost = false;
  const int number =
      RegistrationFiles::write(host, service.plugInUUID, std::get<std::string>(bytes), isNewHost);
  // Hosts come and go; each one that comes sees to those that went.
  if (isNewHost) {
    RunLoop::background().async(
        [upTo = RegistrationFiles::lastWrite()] { RegistrationFiles::remove(nullptr, nullptr, upTo); });
  }
  return number;
}

void removeExternalService(const std::string& bundleIdentifier, const std::string& bundleVersion,
                           SerialQueue& queue, std::function<void(int32_t result)> completion) {
  RunLoop::background().async([bundleIdentifier, bundleVersion, upTo = RegistrationFiles::lastWrite(), &queue,
                               completion = std::move(completion)]() mutable {
    const auto removal = RegistrationFiles::remove(&bundleIdentifier, &bundleVersion, upTo);
    const int32_t result = removal.error != 0   ? removal.error
                           : removal.removedAny ? kRemovalDone
                                                : kRemovalNoSuchService;
    queue.async([completion = std::move(completion), result] { completion(result); });
  });
}

std::optional<Dictionary> externalService(pid_t host, const UUID& plugInUUID) {
  const auto startTime = processStartTime(host);
  if (!startTime || RegistrationFiles::directory().empty()) return std::nullopt;
  auto registration = readDictionaryFile(RegistrationFiles::path(host, plugInUUID));
  // One for an earlier process of the same id is not this host's.
  if (!registration || (*registration)["HostStartTime"].unsignedValue() != *startTime) return std::nullopt;
  return registration;
}

}  // namespace platform
