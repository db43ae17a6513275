#include "platform/value/URL.h"

namespace platform {

URL URL::file(std::string_view path, bool isDirectory) {
  URL url;
  while (path.size() > 1 && path.back() == '/') {
    path.remove_suffix(1);
    isDirectory = true;
  }
  url.path_ = path;
  url.isDirectory_ = isDirectory;
  return url;
}

URL URL::appending(std::string_view component, bool isDirectory) const {
  std::string path = path_;
  if (path.empty() || path.back() != '/') path += '/';
  while (!component.empty() && component.front() == '/') component.remove_prefix(1);
  path += component;
  return file(path, isDirectory);
}

std::string_view URL::lastComponent() const {
  const size_t slash = path_.rfind('/');
  return std::string_view(path_).substr(slash == std::string::npos ? 0 : slash + 1);
}

URL URL::parent() const {
  const size_t slash = path_.rfind('/');
  if (slash == std::string::npos || slash == 0) return file("/", true);
  return file(std::string_view(path_).substr(0, slash), true);
}

std::string URL::description() const {
  constexpr char kDigits[] = "0123456789ABCDEF";
  constexpr std::string_view kPlain = "-._~/!$&'()*+,;=:@";
  std::string text = "file://";
  for (const char c : path_) {
    const auto byte = static_cast<unsigned char>(c);
    const bool isAlphanumeric =
        (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z');
    if (isAlphanumeric || kPlain.find(c) != std::string_view::npos) {
      text += c;
    } else {
      text += '%';
      text += kDigits[byte >> 4];
      text += kDigits[byte & 15];
    }
  }
  if (isDirectory_ && path_ != "/") text += '/';
  return text;
}

}  // namespace platform
