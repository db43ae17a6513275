#include "Ambrel/ABSandbox.h"

#include "platform/security/Sandbox.h"

namespace ambrel {

std::optional<std::string> ABIssueSandboxExtension(const URL& url) {
  return issueReadToken(url.path());
}

std::optional<std::string> ABIssueSandboxExtension(const URL& url, const URL& bundle) {
  return issueReadTokenInside(bundle.path(), url.path());
}

}  // namespace ambrel
