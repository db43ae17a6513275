#include "Ambrel/ABSandbox.h"

#include "platform/security/Sandbox.h"

namespace ambrel {

std::optional<std::string> ABIssueSandboxExtension(const URL& url) {
  return issueReadToken(url.path());
}

}  // namespace ambrel
