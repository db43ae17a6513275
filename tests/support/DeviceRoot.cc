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

Dictionary merged(Dictionary dictionary, const Dictionary& more) {
  for (const auto& [key, value] : more) dictionary.set(key, value);
  return dictionary;
}

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

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

Dictionary infoDictionary(const PlugInBundle& bundle) {
  Dictionary attributes = bundle.attributes;
  if (!bundle.point.empty()) attributes.set("ZQExtensionPointName", bundle.point);
  const Dictionary info = {{"BWBundleIdentifier", bundle.identifier},
                           {"BWBundleVersion", "100"},
                           {"BWBundleShortVersionString", bundle.version},
                           {"BWBundleExecutable", "run"},
                           {"BWBundleName", bundle.identifier},
                           {"ZQExtension", merged({{"ZQExtensionAttributes", attributes}}, bundle.plugIn)}};
  return merged(info, bundle.info);
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

std::vector<std::string> DeviceRoot::environment(std::vector<std::string> more) const {
  for (const char* variable :
       {"XDG_DATA_HOME=/data", "XDG_DATA_DIRS=/share", "XDG_CONFIG_HOME=/config", "XDG_CONFIG_DIRS=/device",
        "XDG_STATE_HOME=/state", "XDG_RUNTIME_DIR=/run", "HOME="})
    more.push_back(std::string(variable).insert(std::string_view(variable).find('=') + 1, path_));
  more.insert(more.end(), {"LC_ALL=C.UTF-8", "ABD_LOG=stderr", "TSAN_OPTIONS=halt_on_error=1"});
  for (const char* name : {"PATH", "ASAN_OPTIONS", "LSAN_OPTIONS", "UBSAN_OPTIONS"})
    if (const char* value = std::getenv(name)) more.push_back(std::string(name) + "=" + value);
  return more;
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
