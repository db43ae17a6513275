#include "platform/hollin/SeenNames.h"

#include "platform/propertylist/PropertyList.h"

namespace platform::hollin {

qmx::BundleNames SeenNames::keep(std::unique_ptr<const Seen> seen) {
  qmx::BundleNames names = seen->names;
  const Seen* none = nullptr;
  if (names.isCertain && seen_.compare_exchange_strong(none, seen.get(), std::memory_order_acq_rel))
    seen.release();
  return names;
}

// The states of files are taken before they are read: what changes meanwhile is found to have changed.

qmx::BundleNames SeenNames::get(const std::string& path, const qmx::BundleNames& own) {
  if (const Seen* seen = kept()) return seen->names;
  auto seen = std::make_unique<Seen>();
  seen->localizations = qmx::localizationFiles(path);
  seen->names = qmx::localizedBundleNames(path, own, seen->localizations);
  return keep(std::move(seen));
}

qmx::BundleNames SeenNames::get(const std::string& path) {
  if (const Seen* seen = kept()) return seen->names;
  auto seen = std::make_unique<Seen>();
  seen->isInfoRead = true;
  seen->localizations = qmx::localizationFiles(path);
  const Result<Value> info =
      readPropertyListFile(path + "/Info.plist", kMaximumPropertyListFile, &seen->info);
  const Error* error = std::get_if<Error>(&info);
  const Dictionary* dictionary = error == nullptr ? std::get<Value>(info).dictionary() : nullptr;
  // A bundle without an Info dictionary has no words either.
  if (dictionary != nullptr)
    seen->names = qmx::localizedBundleNames(path, qmx::BundleNames::of(*dictionary), seen->localizations);
  if (error != nullptr && error->domain == kPOSIXErrorDomain) seen->names.isCertain = false;
  if (seen->info != FileIdentity() && !seen->info.isSettled()) seen->names.isCertain = false;
  return keep(std::move(seen));
}

bool SeenNames::areOutdated(const std::string& path) const {
  const Seen* seen = kept();
  if (seen == nullptr) return false;
  if (seen->localizations != qmx::localizationFiles(path)) return true;
  return seen->isInfoRead &&
         seen->info != FileIdentity::ofFile(path + "/Info.plist").value_or(FileIdentity());
}

}  // namespace platform::hollin
