#pragma once

// One running plug-in: its standard input and output are pipes to this object. Used by one thread; the
// destructor waits for the plug-in's end.

#include <sys/types.h>

#include <string>
#include <string_view>
#include <utility>

#include "Ambrel/ABHost.h"
#include "platform/system/FileDescriptor.h"

class PlugInProcess {
 public:
  /// Starts it. Throws std::runtime_error when that fails.
  explicit PlugInProcess(const ambrel::PlugInLaunch& launch);
  ~PlugInProcess();
  PlugInProcess(const PlugInProcess&) = delete;
  PlugInProcess& operator=(const PlugInProcess&) = delete;

  /// A plug-in that no longer reads is no error.
  void write(std::string_view text);
  /// Ends its input; answers all it wrote and its exit status. Once.
  std::pair<std::string, int> finish();

 private:
  pid_t pid_ = -1;
  platform::FileDescriptor input_, output_;
};
