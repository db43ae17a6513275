#include "Ambrel/ABBundle.h"

#include "Ambrel/ABInfoKeys.h"

namespace ambrel {

std::shared_ptr<ABBundle> ABBundle::initForMainBundle() {
  return initWithQMXBundle(qmx::Bundle::mainBundle());
}

std::shared_ptr<ABBundle> ABBundle::initWithPath(const std::string& path) {
  return initWithQMXBundle(qmx::Bundle::create(path, qmx::Bundle::directory));
}

std::shared_ptr<ABBundle> ABBundle::initWithExecutablePath(const std::string& path) {
  auto bundle = qmx::Bundle::create(path, qmx::Bundle::executable);
  // An executable in no bundle that the platform recognises.
  if (bundle == nullptr || !bundle->property(qmx::Bundle::bundlePath))
    bundle = qmx::Bundle::create(path, qmx::Bundle::directory);
  return initWithQMXBundle(std::move(bundle));
}

std::shared_ptr<ABBundle> ABBundle::initWithQMXBundle(std::shared_ptr<const qmx::Bundle> bundle) {
  return std::shared_ptr<ABBundle>(new ABBundle(std::move(bundle)));
}

std::optional<std::string> ABBundle::stringProperty(int number) const {
  if (bundle_ == nullptr) return std::nullopt;
  return bundle_->property(number);
}

std::optional<Dictionary> ABBundle::infoDictionary() const {
  if (bundle_ == nullptr) return std::nullopt;
  return bundle_->infoDictionary();
}

std::optional<String> ABBundle::bundleIdentifier() const {
  const auto info = infoDictionary();
  const String* identifier = info ? (*info)[bundlekey::identifier].sharedString() : nullptr;
  if (identifier == nullptr) return std::nullopt;
  return *identifier;
}

std::optional<URL> ABBundle::url() const {
  const auto bundlePath = path();
  if (!bundlePath) return std::nullopt;
  return URL::file(*bundlePath, true);
}

std::optional<std::string> ABBundle::path() const {
  return stringProperty(qmx::Bundle::bundlePath);
}

std::optional<std::string> ABBundle::supportPath() const {
  {
    const std::lock_guard lock(mutex_);
    if (supportPath_) return supportPath_;
  }
  auto found = stringProperty(qmx::Bundle::supportPathProperty);
  const std::lock_guard lock(mutex_);
  if (!supportPath_) supportPath_ = std::move(found);
  return supportPath_;
}

std::optional<std::string> ABBundle::bundleDirectory(std::string_view name) const {
  const auto directory = supportPath();
  if (!directory) return std::nullopt;
  return URL::file(*directory, true).appending(name).path();
}

std::optional<std::string> ABBundle::executablePath(const char** refusal) const {
  if (bundle_ == nullptr) return std::nullopt;
  if (auto executable = bundle_->executablePath(refusal)) return executable;
  return path();
}

}  // namespace ambrel
