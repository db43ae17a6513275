#pragma once

// One running plug-in: its standard input and output are pipes to this object. Used by one thread; the
// destructor waits for the plug-in's end.

#include <sys/types.h>

#include <string>
#include <string_view>
#include <utility>

#include "platform/value/Value.h"

class PlugInProcess {
 public:
  /// Starts `executable` with the given environment (a dictionary of strings), and of the host's own only
  /// what says where the device is. Throws std::system_error.
  PlugInProcess(const std::string& executable, const platform::Value& environment);
  ~PlugInProcess();
  PlugInProcess(const PlugInProcess&) = delete;
  PlugInProcess& operator=(const PlugInProcess&) = delete;

  /// A plug-in that no longer reads is no error.
  void write(std::string_view text);
  /// Ends its input; answers all it wrote and its exit status. Once.
  std::pair<std::string, int> finish();

 private:
  void closeInput();
  pid_t pid_ = -1;
  int input_ = -1, output_ = -1;
};
