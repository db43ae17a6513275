// Preparing a plug-in for use by a host: tokens for what it shares, its registration with the service
// launcher, and whether it is in use. Nothing is kept between calls.

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Ambrel/ABBundle.h"
#include "Ambrel/ABSandbox.h"
#include "abd/plugin/ABDPlugIn.h"
#include "platform/launcher/ProcessAssertions.h"
#include "platform/launcher/ServiceLauncher.h"
#include "platform/log/Log.h"
#include "platform/policy/Consent.h"

namespace abd {

namespace {

constexpr const char* kKeyboardPoint = "com.veltra.keyboard-service";
constexpr const char* kFilterPoint = "com.veltra.fennix.filter-data";

constexpr const char* kEnvironmentVariables = "EnvironmentVariables";
constexpr const char* kTestSDKVariable = "ABTEST_SDK";
constexpr const char* kServicePackageType = "QMX!";

}  // namespace

Dictionary ABDPlugIn::issueResourceExtensions(const Value& shared) const {
  Dictionary tokens;
  const auto issue = [this, &tokens](const String& name) {
    const bool isBundle = name.view() == ".";
    const auto target = isBundle ? std::nullopt : std::optional(url()->appending(name.view()));
    if (const auto token =
            isBundle ? ABIssueSandboxExtension(*url()) : ABIssueSandboxExtension(*target, *url())) {
      tokens.set(name, *token);
    } else {
      systemLog("failed to make extension for %@ in plug-in at %@: %s", isBundle ? path() : target->path(),
                path(), std::strerror(errno));
    }
  };
  if (const String* name = shared.sharedString()) issue(*name);
  if (const Array* names = shared.array())
    for (const Value& each : *names)
      if (const String* name = each.sharedString()) issue(*name);
  return tokens;
}

void ABDPlugIn::augmentForm(PlugInForm& form) const {
  const Value& shared = form.kept().shared;
  if (!shared.isNone()) form.set(PlugInForm::extensions, issueResourceExtensions(shared));
}

Dictionary ABDPlugIn::environment() const {
  Dictionary variables;
  if (const auto container = hlproxy_->dataContainerURL()) {
    variables.set("HOME", container->path());
    variables.set("BWFIXED_USER_HOME", container->path());
    variables.set("TMPDIR", container->appending("tmp").path());
  } else {
    systemLog("no data container for plug-in %@(%@) %@ at %@", identifier().view(), version(), uuid(),
              path());
  }
  return variables;
}

const char* ABDPlugIn::sandboxProfile() const {
  const auto point = sdkSpec().string();
  if (point == kKeyboardPoint) {
    const bool isOpen = attributes()[attributekey::requestsOpenAccess].isTrue() &&
                        allowedQSVServices().contains(kQSVServiceKeyboardNetwork);
    return isOpen ? "plugin" : "keyboard";
  }
  return point == kFilterPoint ? "network-filter" : "plugin";
}

Dictionary ABDPlugIn::launchDescription(Dictionary environment, const char* profile) const {
  Dictionary service;
  if (const Dictionary* own = bundleInfoDictionary()[bundlekey::service].dictionary()) service = *own;
  if (const Dictionary* own = service[kEnvironmentVariables].dictionary())
    for (const auto& [name, value] : *own) environment.set(name, value);
  service.set(kEnvironmentVariables, std::move(environment));
  service.set("_SandboxProfile", profile);
  service.set("_OmitSandboxParameters", true);
  return {{bundlekey::service, std::move(service)}, {bundlekey::packageType, kServicePackageType}};
}

std::optional<Error> ABDPlugIn::enableForPid(pid_t pid) const {
  Dictionary variables = environment();
  const char* profile = sandboxProfile();
  if (const char* directory = std::getenv(kTestSDKVariable)) variables.set(kTestSDKVariable, directory);
  Dictionary description = launchDescription(std::move(variables), profile);
  systemLog("assigning plug-in %@(%@) to %s sandbox", identifier().view(), version(), profile);
  systemLog("enabling pid=%d for plug-in %@(%@) %@ %@", pid, identifier().view(), version(), uuid(), path());

  const auto executable = ABBundle::initWithURL(*url())->executablePath();
  if (!executable)
    return ABErrorWithFormat(kABErrorRequest, "cannot obtain executable path for plug-in %@(%@)",
                             identifier().view(), uuid());
  const ExternalService service{.plugInUUID = uuid(),
                                .plugInIdentifier = std::string(identifier().view()),
                                .bundleIdentifier = hlproxy_->bundleIdentifier().value_or(""),
                                .bundleVersion = hlproxy_->bundleVersion().value_or("")};
  if (const int refusal = addExternalService(pid, *executable, description, service); refusal != 0) {
    systemLog("qmx error %d allowing pid %d to use plug-in %@(%@) %@ at %@", refusal, pid,
              identifier().view(), version(), uuid(), path());
    return ABErrorWithFormat(kABErrorRequest, "unable to enable plug-in %@(%@) for pid %d",
                             identifier().view(), uuid(), pid);
  }
  return std::nullopt;
}

std::optional<Dictionary> ABDPlugIn::checkBusy() const {
  std::set<std::string> identifiers;
  if (const auto bundleIdentifier = bundleInfoDictionary()[bundlekey::identifier].string())
    identifiers.emplace(*bundleIdentifier);
  for (const Dictionary& instance : busyExtensionInstances(identifiers)) {
    if (const String* busy = instance[kLauncherBundleIdentifierKey].sharedString())
      return Dictionary{{kLauncherBundleIdentifierKey, *busy}};
    systemLog("marrowd reported incomplete bundle for plug-in %@", identifier().view());
  }
  return std::nullopt;
}

}  // namespace abd
