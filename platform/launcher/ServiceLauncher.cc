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

int checkExecutable(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return errno;
  if (!S_ISREG(status.st_mode)) return EACCES;
  return faccessat(AT_FDCWD, path.c_str(), X_OK, AT_EACCESS) == 0 ? 0 : errno;
}

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
    RunLoop::background().async([upTo = lastExternalService()] { RegistrationFiles::remove({}, upTo); });
  }
  return number;
}

void withdrawExternalService(pid_t host, const UUID& plugInUUID) {
  RegistrationFiles::removeOne(host, plugInUUID);
}

RegistrationNumber lastExternalService() {
  return RegistrationFiles::lastWrite();
}

void removeExternalServices(std::vector<ExternalServiceRemoval> removals, SerialQueue& queue,
                            std::function<void(std::span<const int32_t> results)> completion) {
  RunLoop::background().async([removals = std::move(removals), upTo = lastExternalService(), &queue,
                               completion = std::move(completion)]() mutable {
    std::vector<int32_t> results = RegistrationFiles::remove(removals, upTo);
    queue.async([completion = std::move(completion), results = std::move(results)] { completion(results); });
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
