#include "benchmarks/Plugins.h"

#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>

#include "benchmarks/Processes.h"

namespace bench {

namespace fs = std::filesystem;

namespace {

constexpr size_t kPlugInsPerApplication = 10;

const char* const kPoints[] = {"org.example.bench.share",   "org.example.bench.edit",
                               "org.example.bench.preview", "org.example.bench.keyboard",
                               "org.example.bench.sticker", "org.example.bench.export"};
constexpr size_t kPointsWithSDK = 3;

void write(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

/// Writes the entries of property lists, indented as tools write them.
class Writer {
 public:
  Writer() {
    text_ = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";
    open();
  }
  void key(const std::string& name) { line("<key>" + name + "</key>"); }
  void string(const std::string& name, const std::string& value) {
    key(name);
    line("<string>" + value + "</string>");
  }
  void integer(const std::string& name, size_t value) {
    key(name);
    line("<integer>" + std::to_string(value) + "</integer>");
  }
  void flag(const std::string& name, bool value) {
    key(name);
    line(value ? "<true/>" : "<false/>");
  }
  void strings(const std::string& name, const std::vector<std::string>& values) {
    key(name);
    line("<array>");
    depth_++;
    for (const std::string& value : values) line("<string>" + value + "</string>");
    depth_--;
    line("</array>");
  }
  void dictionary(const std::string& name) {
    key(name);
    open();
  }
  void open() {
    line("<dict>");
    depth_++;
  }
  void close() {
    depth_--;
    line("</dict>");
  }
  std::string finish() {
    close();
    return text_ + "</plist>\n";
  }

 private:
  void line(const std::string& content) { text_ += std::string(depth_, '\t') + content + "\n"; }
  std::string text_;
  size_t depth_ = 0;
};

void writeBuildEntries(Writer& w, size_t index) {
  w.string("BuildMachineBuild", "22G" + std::to_string(100 + index % 40));
  w.string("DTCompiler", "org.example.compilers.c.1_0");
  w.string("DTPlatformBuild", "21A" + std::to_string(300 + index % 7));
  w.string("DTPlatformName", "handheld");
  w.string("DTPlatformVersion", "17.0");
  w.string("DTSDKBuild", "21A326");
  w.string("DTSDKName", "handheld17.0");
  w.string("DTToolBuild", "15A240d");
  w.string("DTToolVersion", "1500");
  w.string("MinimumSystemVersion", "15.0");
  w.strings("SupportedPlatforms", {"Handheld"});
  w.strings("RequiredDeviceCapabilities", {"arm64"});
}

void writeAttributes(Writer& w, size_t index, const std::string& point) {
  w.dictionary("ZQExtensionAttributes");
  w.string("ZQExtensionPointName", point);
  w.string("ZQExtensionPointVersion", "1." + std::to_string(index % 4));
  w.dictionary("ZQExtensionActivationRule");
  w.integer("public.image", 1 + index % 20);
  w.integer("public.movie", 1 + index % 5);
  w.integer("public.file-url", 10);
  w.integer("public.url", 1);
  if (index % 3 == 0) w.integer("public.plain-text", 1);
  w.close();
  w.strings("SupportedMediaTypes", {"image", "video", "audio"});
  w.flag("SupportsBackgroundUploads", index % 2 == 0);
  w.integer("PreferredOrder", index % 100);
  // Files of real plug-ins differ in size mostly by lists like this one.
  std::vector<std::string> phrases;
  for (size_t i = 0; i < index % 16; i++)
    phrases.push_back("Offers entry " + std::to_string(i) + " for photographs & documents that are shared");
  for (std::string& phrase : phrases) phrase.replace(phrase.find('&'), 1, "&amp;");
  w.strings("ActionPhrases", phrases);
  w.close();
}

std::string infoFile(size_t index, const std::string& point, bool hasSDK) {
  const std::string number = std::to_string(index);
  Writer w;
  w.string("BWBundleDevelopmentRegion", "en");
  w.string("BWBundleDisplayName", "Share with Service " + number);
  w.string("BWBundleExecutable", "Extension");
  w.string("BWBundleIdentifier", plugInIdentifier(index));
  w.string("BWBundleInfoDictionaryVersion", "6.0");
  w.string("BWBundleName", "Service " + number);
  w.string("BWBundlePackageType", "QMX!");
  w.string("BWBundleShortVersionString", std::to_string(1 + index % 9) + "." + std::to_string(index % 13));
  w.string("BWBundleVersion", std::to_string(1000 + index % 777));
  writeBuildEntries(w, index);
  w.dictionary("FontProviders");
  w.strings("Families", {"Service Sans", "Service Serif", "Service Mono"});
  w.flag("Registered", true);
  w.close();
  w.dictionary("ZQExtension");
  writeAttributes(w, index, point);
  if (hasSDK) w.string("ZQExtensionPointIdentifier", point);
  w.string("MainInterface", "ShareInterface" + number);
  w.strings("AllowedOrigins", {"https://service" + number + ".example.org", "https://cdn.example.org"});
  w.close();
  return w.finish();
}

std::string sdkFile(const std::string& name) {
  Writer w;
  w.string("SDKDisplayName", name);
  w.dictionary("ZQExtension");
  w.integer("CleanTimeout", 30);
  w.string("ZQExtensionProtocol", "ZQObject");
  w.strings("Shared", {"."});
  w.dictionary("ZQExtensionAttributes");
  w.flag("WantsNetwork", true);
  w.string("HostInterface", name + ".host-interface");
  w.integer("MemoryLimit", 120);
  w.close();
  w.close();
  return w.finish();
}

std::string applicationFile(size_t number) {
  Writer w;
  w.string("BWBundleDisplayName", "Application " + std::to_string(number));
  w.string("BWBundleExecutable", "Application");
  w.string("BWBundleIdentifier", "org.example.bench.app" + std::to_string(number));
  w.string("BWBundleName", "App " + std::to_string(number));
  w.string("BWBundleShortVersionString", "2.4");
  w.string("BWBundleVersion", "204");
  writeBuildEntries(w, number);
  return w.finish();
}

Population generate(size_t count) {
  Population population;
  population.count = count;
  population.place = privateRoot() + "/n" + std::to_string(count);
  population.dataHome = population.place + "/data";
  const std::string veltra = population.dataHome + "/veltra";
  fs::create_directories(veltra + "/SDKs");
  for (const std::string& name : sdkNames()) write(veltra + "/SDKs/" + name + ".plist", sdkFile(name));
  // Ten plug-ins, spread evenly, serve the narrow extension point.
  const size_t stride = count / 10;
  double total = 0;
  for (size_t i = 0; i < count; i++) {
    const std::string application =
        veltra + "/Applications/App" + std::to_string(i / kPlugInsPerApplication) + ".app";
    if (i % kPlugInsPerApplication == 0) {
      fs::create_directories(application + "/PlugIns");
      write(application + "/Info.plist", applicationFile(i / kPlugInsPerApplication));
    }
    const std::string bundle = application + "/PlugIns/Extension" + std::to_string(i) + ".appex";
    mkdir(bundle.c_str(), 0755);
    const bool isNarrow = i % stride == 0 && i / stride < 10;
    const size_t point = i % std::size(kPoints);
    const std::string info =
        infoFile(i, isNarrow ? kNarrowPoint : kPoints[point], !isNarrow && point < kPointsWithSDK);
    total += static_cast<double>(info.size());
    write(bundle + "/Info.plist", info);
    write(bundle + "/Extension", "#!/bin/sh\n");
    chmod((bundle + "/Extension").c_str(), 0755);
    population.plugInPaths.push_back(bundle);
  }
  population.meanInfoSize = total / static_cast<double>(count);
  return population;
}

}  // namespace

std::string plugInIdentifier(size_t index) {
  return "org.example.bench.app" + std::to_string(index / kPlugInsPerApplication) + ".extension" +
         std::to_string(index);
}

std::vector<std::string> sdkNames() {
  return {kPoints, kPoints + kPointsWithSDK};
}

const Population& population(size_t count) {
  static std::map<size_t, Population> made;
  const auto found = made.find(count);
  if (found != made.end()) return found->second;
  fprintf(stderr, "writing %zu plug-ins\n", count);
  return made.emplace(count, generate(count)).first->second;
}

}  // namespace bench
