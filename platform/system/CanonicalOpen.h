#pragma once

// Telling with one system call that a path is canonical already, which most paths are. Pure functions; any
// thread.

#include <cstdint>
#include <string>

#include "platform/system/FileDescriptor.h"

namespace platform {

/// A descriptor (O_PATH) of the file at `path` when `path` is its canonical form: absolute, without empty
/// components, "." and "..", and without a symbolic link in it. None otherwise, or when there is no such
/// file. `flags` may add O_DIRECTORY: none for what is no directory.
FileDescriptor openCanonical(const std::string& path, uint64_t flags = 0);

}  // namespace platform
