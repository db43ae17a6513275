#pragma once

// Requests of the daemon's protocol as prepared frames, and what is needed of its replies. One thread.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/value/Value.h"

namespace bench {

/// A request frame, head included; `body` without "version".
std::string requestFrame(platform::Dictionary body, uint64_t id = 1);

std::string matchFrame(const platform::Dictionary& rules);
/// A request named `name` for plug-ins.
std::string uuidsFrame(std::string_view name, const std::vector<platform::UUID>& uuids);

/// The body of a reply frame. Gives up when it is not a well-formed, successful reply.
platform::Dictionary replyBody(std::string_view frame);
/// The forms of a match reply.
platform::Array matches(std::string_view frame);

/// Rules that only the first `count` plug-ins, from number `from` on, satisfy: their identifiers.
platform::Dictionary identifierRules(size_t from, size_t count);
/// Rules that the plug-ins of one extension point satisfy.
platform::Dictionary pointRules(std::string_view point);

}  // namespace bench
