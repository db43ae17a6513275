// share-card: the postcard plug-in of the examples. It is started by a host (examples/host), reads the items
// to share from standard input, one "TYPE<tab>TEXT" per line, and answers on standard output. While it works
// it marks itself busy, so that nobody gets a hold on its application.

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

#include "Ambrel/ABBundle.h"
#include "platform/launcher/ProcessAssertions.h"

namespace {

std::string environment(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? "(not given)" : value;
}

}  // namespace

int main() {
  const auto own = ambrel::ABBundle::initForMainBundle()->bundleIdentifier();
  const std::string identifier(own ? own->view() : "");
  const auto busy = platform::BusyAssertion::take(identifier);
  if (busy == nullptr) std::perror("share-card: cannot mark itself busy");

  int cards = 0;
  for (std::string line; std::getline(std::cin, line);) {
    const size_t separator = line.find('\t');
    const std::string type = line.substr(0, separator);
    const std::string text = separator == std::string::npos ? "" : line.substr(separator + 1);
    if (type.starts_with("image/")) ++cards;
    std::cout << "share-card: " << (type.starts_with("image/") ? "printed " : "wrote ") << text << '\n';
    std::cout.flush();
  }
  std::cout << "share-card: " << cards << " card(s) on " << environment("POSTCARD_PAPER")
            << " paper, drafts in " << environment("TMPDIR") << '\n';
  return 0;
}
