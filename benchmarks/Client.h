#pragma once

// The client side of every measurement: sends prepared frames over a local socket and counts the bytes that
// come back. The daemon and the bare servers are asked by the very same code. One thread.

#include <sys/un.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

/// Four bytes at `bytes` as a number.
inline uint32_t bigEndian32(const char* bytes) {
  const auto at = [bytes](int i) { return static_cast<uint32_t>(static_cast<uint8_t>(bytes[i])); };
  return at(0) << 24 | at(1) << 16 | at(2) << 8 | at(3);
}

/// Sends all of `bytes` on the blocking socket `fd` (borrowed); false when the peer has gone.
bool sendAll(int fd, std::string_view bytes);

/// One blocking connection.
class Client {
 public:
  explicit Client(const std::string& socketPath);
  ~Client();
  Client(Client&& other) noexcept;
  Client& operator=(Client&&) = delete;

  /// Sends `frame` and reads the whole reply, which is valid until the next call (frame head included).
  std::string_view roundTrip(std::string_view frame);
  int fd() const { return fd_; }

  static bool canConnect(const std::string& socketPath);
  static sockaddr_un address(const std::string& socketPath);

 private:
  int fd_ = -1;
  std::vector<char> buffer_;  // reused: fresh pages cost more than the copy
};

/// One request of a script.
struct Step {
  std::string frame;
  /// Where (from the frame's begin) the last 16 bytes of the previous reply go; 0: nowhere. So a hold's token
  /// reaches its release.
  size_t tokenOffset = 0;
};

struct LoadResult {
  double seconds = 0;             // for `requests` requests
  std::vector<double> latencies;  // of every request, in seconds
};

/// Connects `clients` times and keeps each connection busy with the steps of `script`, in order and over
/// again (client k begins with step k), until `requests` replies came: one request at a time, or `inFlight`
/// of them (then no step may have a token). One loop drives all connections. The first request of each, which
/// waits for the connection to be accepted, does not count.
LoadResult runLoad(const std::string& socketPath, const std::vector<Step>& script, size_t clients,
                   size_t inFlight, size_t requests);

}  // namespace bench
