// Preparing a plug-in for use by a host: tokens for what it shares, its registration with the service
// launcher, and whether it is in use.
//
// Tokens are sealed from what is known. A token is bound to path, device and inode, and whoever is handed one
// compares them with what lies there then; so issuing one needs no proof that nothing has changed since the
// last look, it only should not hand out what is useless. For the bundle itself the registry knows, because
// it watches; for a resource inside, which it does not watch, one look tells whether it is what was judged
// before (by a full look: canonical, inside the bundle, readable).

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Ambrel/ABBundle.h"
#include "Ambrel/ABRecordTrace.h"
#include "abd/RequestSettings.h"
#include "abd/plugin/ABDPlugIn.h"
#include "platform/launcher/ProcessAssertions.h"
#include "platform/launcher/ServiceLauncher.h"
#include "platform/log/Log.h"
#include "platform/policy/Consent.h"
#include "platform/propertylist/PropertyList.h"
#include "platform/security/Sandbox.h"

namespace abd {

namespace {

constexpr const char* kKeyboardPoint = "com.veltra.keyboard-service";
constexpr const char* kFilterPoint = "com.veltra.fennix.filter-data";

constexpr const char* kEnvironmentVariables = "EnvironmentVariables";
constexpr const char* kTestSDKVariable = "ABTEST_SDK";
constexpr const char* kServicePackageType = "QMX!";
/// Containers of a launch registration around the service description: the registration, the launch
/// description.
constexpr int kContainersAroundService = 2;

}  // namespace

std::optional<std::string> ABDPlugIn::resourceToken(const String& name, const std::string& target) const {
  std::shared_ptr<const FoundFile> known;
  {
    const std::lock_guard lock(mutex_);
    const auto found = resources_.find(name);
    if (found != resources_.end()) known = found->second;
  }
  if (known == nullptr || !known->isStillIn(path(), target)) {
    auto judged = findReadableInside(path(), target);
    if (!judged) return std::nullopt;
    known = std::make_shared<const FoundFile>(*std::move(judged));
    const std::lock_guard lock(mutex_);
    resources_[name] = known;
  }
  return issueReadToken(known->path, known->place);
}

Dictionary ABDPlugIn::issueResourceExtensions(const Value& shared) const {
  Dictionary tokens;
  // When something else lies in the bundle's place there is nothing of the bundle's to share.
  const auto bundle = hlproxy_->bundlePlace();
  const int refusal = errno;
  const auto issue = [&](const String& name) {
    const bool isBundle = name.view() == ".";
    const std::string target = isBundle ? path() : url()->appending(name.view()).path();
    errno = refusal;
    const auto token = !bundle    ? std::nullopt
                       : isBundle ? issueReadToken(target, *bundle)
                                  : resourceToken(name, target);
    if (token) {
      tokens.set(name, *token);
    } else {
      systemLog("failed to make extension for %@ in plug-in at %@: %s", target, path(), std::strerror(errno));
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
  if (const auto container = hlproxy_->preparedDataContainerURL()) {
    variables.set("HOME", container->path());
    variables.set("BWFIXED_USER_HOME", container->path());
    variables.set("TMPDIR", container->appending("tmp").path());
  } else {
    systemLog("no data container for plug-in %@(%@) %@ at %@", identifier().view(), version(), uuid(),
              path());
  }
  return variables;
}

const char* ABDPlugIn::sandboxProfile(RequestSettings& settings) const {
  const auto point = sdkSpec().string();
  if (point == kKeyboardPoint) {
    const bool isOpen = attributes()[attributekey::requestsOpenAccess].isTrue() &&
                        allowedQSVServices(settings).contains(kQSVServiceKeyboardNetwork);
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

void ABDPlugIn::reportUnlaunchableService(ABRecordTrace* trace) const {
  if (!bundleInfoDictionary()[bundlekey::service].isDictionary()) return;
  const Value service = launchDescription({}, "")[bundlekey::service];
  if (canBeWritten(service, kMaximumFileNesting - kContainersAroundService)) return;
  const std::string part = unwritablePart(service, kMaximumFileNesting - kContainersAroundService);
  systemLog("plug-in %@ at %@ cannot be launched: no registration can hold what its \"%@\" says at \"%@\"",
            identifier().view(), path(), bundlekey::service, part);
  if (trace != nullptr)
    trace->flaw({bundlekey::service}, "no launch registration can hold what it says at \"" + part + "\"");
}

std::optional<Error> ABDPlugIn::enableForPid(pid_t pid, RequestSettings& settings,
                                             const qmx::PeerIdentity* host) const {
  Dictionary variables = environment();
  const char* profile = sandboxProfile(settings);
  if (const char* directory = std::getenv(kTestSDKVariable)) variables.set(kTestSDKVariable, directory);
  Dictionary description = launchDescription(std::move(variables), profile);
  systemLog("assigning plug-in %@(%@) to %s sandbox", identifier().view(), version(), profile);
  systemLog("enabling pid=%d for plug-in %@(%@) %@ %@", pid, identifier().view(), version(), uuid(), path());

  // A link that was put in the bundle's place leads to another bundle.
  const auto bundle = ABBundle::initWithURL(*url());
  const auto executable = bundle->path() == path() ? bundle->executablePath() : std::nullopt;
  if (!executable)
    return ABErrorWithFormat(kABErrorRequest, "cannot obtain executable path for plug-in %@(%@)",
                             identifier().view(), uuid());
  const ExternalService service{.plugInUUID = uuid(),
                                .plugInIdentifier = std::string(identifier().view()),
                                .bundleIdentifier = hlproxy_->bundleIdentifier().value_or(""),
                                .bundleVersion = hlproxy_->bundleVersion().value_or("")};
  const auto isHostGone = [host] { return host != nullptr && !host->isAlive(); };
  int refusal = isHostGone() ? ESRCH : addExternalService(pid, *executable, description, service);
  // Who uninstalls the plug-in from now on takes this registration away; who did it before may have missed
  // it. And the pid may be another process's by now.
  if (refusal == 0 && (hlproxy_->isUninstalled() || isHostGone())) {
    withdrawExternalService(pid, uuid());
    refusal = hlproxy_->isUninstalled() ? ENOENT : ESRCH;
  }
  if (refusal != 0) {
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
