#include "tests/support/DeviceRoot.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "platform/propertylist/PropertyList.h"

namespace testsupport {

namespace {

void addAll(Dictionary& dictionary, const Dictionary& more) {
  for (const auto& [key, value] : more) dictionary.set(key, value);
}

}  // namespace

void writeText(const std::string& path, std::string_view text, unsigned mode) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary).write(text.data(), static_cast<std::streamsize>(text.size()));
  chmod(path.c_str(), mode);
}

void writePropertyList(const std::string& path, const Value& value) {
  writeText(path, std::get<std::string>(serializePropertyList(value)));
}

std::string readText(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

Dictionary infoDictionary(const PlugInBundle& bundle) {
  Dictionary attributes = bundle.attributes;
  if (!bundle.point.empty()) attributes.set("ZQExtensionPointName", bundle.point);
  Dictionary plugIn = {{"ZQExtensionAttributes", attributes}};
  addAll(plugIn, bundle.plugIn);
  Dictionary info = {{"BWBundleIdentifier", bundle.identifier},
                     {"BWBundleVersion", "100"},
                     {"BWBundleShortVersionString", bundle.version},
                     {"BWBundleExecutable", "run"},
                     {"BWBundleName", bundle.identifier},
                     {"ZQExtension", plugIn}};
  addAll(info, bundle.info);
  return info;
}

DeviceRoot::DeviceRoot() {
  std::string name = (fs::temp_directory_path() / "abd-test-XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary directory");
  path_ = fs::canonical(name).string();
  for (const std::string& each : {dataUser() + "/Applications", dataSystem() + "/Applications", configUser(),
                                  configDevice(), state(), runtime()})
    fs::create_directories(each);
  for (const std::string& each : {path_ + "/run", runtime()}) chmod(each.c_str(), 0700);
}

DeviceRoot::~DeviceRoot() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::vector<std::string> DeviceRoot::environment() const {
  std::vector<std::string> variables = {"XDG_DATA_HOME=" + path_ + "/data",
                                        "XDG_DATA_DIRS=" + path_ + "/share",
                                        "XDG_CONFIG_HOME=" + path_ + "/config",
                                        "XDG_CONFIG_DIRS=" + path_ + "/device",
                                        "XDG_STATE_HOME=" + path_ + "/state",
                                        "XDG_RUNTIME_DIR=" + path_ + "/run",
                                        "HOME=" + path_,
                                        "LC_ALL=C.UTF-8"};
  for (const char* name : {"PATH", "ASAN_OPTIONS", "LSAN_OPTIONS", "UBSAN_OPTIONS"})
    if (const char* value = std::getenv(name)) variables.push_back(std::string(name) + "=" + value);
  return variables;
}

size_t DeviceRoot::changeNotifications(std::string_view name) const {
  std::error_code error;
  const auto size = fs::file_size(runtime() + "/Notifications/" + std::string(name), error);
  return error ? 0 : static_cast<size_t>(size);
}

Dictionary DeviceRoot::storedAnnotations() const {
  const std::optional<Dictionary> file = readDictionaryFile(annotationFile());
  if (!file || (*file)["version"].integerValue() != 16) return {};
  const Dictionary* table = (*file)["data"].dictionary();
  return table != nullptr ? *table : Dictionary();
}

void DeviceRoot::writeBundle(const std::string& path, const PlugInBundle& bundle) const {
  writePropertyList(path + "/Info.plist", infoDictionary(bundle));
  writeText(path + "/run", "#!/bin/sh\necho running\n", 0755);
  if (!bundle.entitlements.empty()) writePropertyList(path + "/Entitlements.plist", bundle.entitlements);
}

std::string DeviceRoot::install(const std::string& place, const std::vector<PlugInBundle>& plugIns,
                                bool onSystemVolume) const {
  static std::atomic<unsigned> count{0};
  const std::string staging = path_ + "/staging" + std::to_string(count++);
  const std::string name = fs::path(place).stem().string();
  writePropertyList(staging + "/Info.plist", Dictionary{{"BWBundleIdentifier", "app." + name},
                                                        {"BWBundleName", name},
                                                        {"BWBundleExecutable", "main"}});
  for (const PlugInBundle& each : plugIns) writeBundle(plugInPath(staging, each.identifier), each);
  const std::string target = (onSystemVolume ? dataSystem() : dataUser()) + "/Applications/" + place;
  fs::create_directories(fs::path(target).parent_path());
  fs::rename(staging, target);
  return target;
}

}  // namespace testsupport
