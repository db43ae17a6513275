#pragma once

// The service manager that started this process, systemd or whoever does as it does: what it handed over
// (sd_listen_fds(3)) and what it is told (sd_notify(3)). Without one nothing happens.

#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "platform/queue/RunLoop.h"
#include "platform/system/FileDescriptor.h"
#include "platform/value/Error.h"

namespace platform {

/// Takes the manager's words for this process out of the environment, where children would find them, and
/// keeps them. REQUIRES: no other thread uses the environment.
void meetServiceManager();

/// A local stream socket that the manager opened for this process: the one whose file is named `service`, or
/// where it opened but one, that one for whoever asks first. Non-blocking; each is given once. None: the
/// service has to open one. Errors: it is of another kind, or of several none is the first service's. One
/// thread at a time.
std::optional<std::variant<FileDescriptor, Error>> takeServiceManagerSocket(const std::string& service);

/// Tells the manager `text`, assignments one to a line. Never waits; false when the manager lags so far
/// behind that the text was dropped. Any thread.
bool tellServiceManager(std::string_view text);

/// Tells the manager that the process serves, and from then on, where it wants signs of life, that `loop`
/// turns. A signal that ends the process is announced first. On the thread of `loop`, which lives on.
void announceService(RunLoop& loop);

}  // namespace platform
