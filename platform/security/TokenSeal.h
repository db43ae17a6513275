#pragma once

// The text form of read tokens and the secret that authenticates them: state/Sandbox.key, 32 random bytes in
// a file of this user alone, made when it is missing and read once by each process. Any thread.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

class TokenSeal {
 public:
  /// What a token says.
  struct Contents {
    std::string path;
    uint64_t device = 0, inode = 0;
  };
  /// A new token, different each time; none, with errno set, when the key cannot be had.
  static std::optional<std::string> seal(const Contents& contents);
  /// What an authentic token says; none, with errno set (EBADMSG when it is not authentic).
  static std::optional<Contents> open(std::string_view token);

  /// Where the key lies; "" without a state directory.
  static std::string keyFile();
  /// Whether the key in that file can be used: 0, or an error number (EPERM when it is not a regular file of
  /// this user alone, EINVAL when it is no key). Makes nothing.
  static int checkKey();
};

}  // namespace platform
