#include "platform/security/TokenSeal.h"

#include <fcntl.h>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <utility>

#include "platform/log/Log.h"
#include "platform/system/Directories.h"
#include "platform/system/FileDescriptor.h"
#include "platform/value/UUID.h"

// A token is "v1." and, in URL-safe base64, the bytes
//   nonce (24) | device (8) | inode (8) | path | keyed BLAKE2b of "v1." and all before (32)
// with integers in big-endian order. The nonce is 16 random bytes of the process and a counter: never twice
// the same, and no system call for each token.

namespace platform {

namespace {

constexpr std::string_view kVersion = "v1.";
constexpr size_t kRandomPart = 16;
constexpr size_t kNonce = kRandomPart + sizeof(uint64_t);
constexpr size_t kHeader = kNonce + 2 * sizeof(uint64_t);
constexpr size_t kAuthenticator = crypto_generichash_BYTES;
constexpr int kBase64 = sodium_base64_VARIANT_URLSAFE_NO_PADDING;
constexpr size_t kLongestToken = 16384;

using Key = std::array<unsigned char, crypto_generichash_KEYBYTES>;

void appendInteger(std::string& out, uint64_t number) {
  for (int shift = 56; shift >= 0; shift -= 8) out += static_cast<char>(number >> shift);
}

uint64_t integerAt(std::string_view bytes, size_t at) {
  uint64_t number = 0;
  for (size_t i = 0; i < sizeof number; ++i) number = number << 8 | static_cast<unsigned char>(bytes[at + i]);
  return number;
}

std::array<unsigned char, kAuthenticator> authenticate(std::string_view bytes, const Key& key) {
  std::array<unsigned char, kAuthenticator> out;
  crypto_generichash_state state;
  crypto_generichash_init(&state, key.data(), key.size(), out.size());
  crypto_generichash_update(&state, reinterpret_cast<const unsigned char*>(kVersion.data()), kVersion.size());
  crypto_generichash_update(&state, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
  crypto_generichash_final(&state, out.data(), out.size());
  return out;
}

/// Reads the key file; an error number, or 0.
int readKey(const std::string& path, Key& key) {
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status {};
  if (!file || fstat(file.get(), &status) != 0) return errno;
  if (!S_ISREG(status.st_mode) || status.st_uid != geteuid() || (status.st_mode & 077) != 0) return EPERM;
  if (static_cast<size_t>(status.st_size) != key.size()) return EINVAL;
  const ssize_t count = read(file.get(), key.data(), key.size());
  if (count < 0) return errno;
  return static_cast<size_t>(count) == key.size() ? 0 : EINVAL;
}

/// Makes the key file, unless another process is faster; an error number, or 0. The file appears under its
/// name only when it is whole.
int makeKey(const std::string& directory, const std::string& path) {
  if (const int number = makeDirectories(directory)) return number;
  const std::string temporary = path + "." + UUID::random().string();
  Key key;
  randombytes_buf(key.data(), key.size());
  int number = 0;
  {
    const FileDescriptor file(open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!file) return errno;
    errno = EIO;  // for a short write
    const bool isWhole = write(file.get(), key.data(), key.size()) == static_cast<ssize_t>(key.size());
    if (!isWhole || fsync(file.get()) != 0) number = errno;
  }
  if (number == 0 && link(temporary.c_str(), path.c_str()) != 0 && errno != EEXIST) number = errno;
  unlink(temporary.c_str());
  sodium_memzero(key.data(), key.size());
  return number;
}

struct Secret {
  Key key{};
  std::array<char, kRandomPart> random{};
};

/// The secret of this process's tokens; null, with errno set, when it cannot be had. Failure is not kept: the
/// file may be mended.
const Secret* secret() {
  static std::atomic<const Secret*> shared{nullptr};
  static std::mutex loading;
  static Secret storage;
  if (const Secret* known = shared.load(std::memory_order_acquire)) return known;
  const std::lock_guard lock(loading);
  if (const Secret* known = shared.load(std::memory_order_acquire)) return known;
  const std::string path = TokenSeal::keyFile();
  int number = path.empty() ? ENOENT : sodium_init() < 0 ? EIO : 0;
  if (number == 0) {
    number = readKey(path, storage.key);
    if (number == ENOENT) {
      number = makeKey(Directories::shared().state, path);
      if (number == 0) number = readKey(path, storage.key);
    }
  }
  static int told = 0;  // one line for each reason: every token would say it again
  if (std::exchange(told, number) != number && number != 0)
    systemLog("the key of read tokens %s cannot be used: %s", path, std::strerror(number));
  if (number != 0) {
    errno = number;
    return nullptr;
  }
  randombytes_buf(storage.random.data(), storage.random.size());
  shared.store(&storage, std::memory_order_release);
  return &storage;
}

}  // namespace

std::string TokenSeal::keyFile() {
  const std::string& state = Directories::shared().state;
  return state.empty() ? std::string() : state + "/Sandbox.key";
}

int TokenSeal::checkKey() {
  Key key;
  const int number = readKey(keyFile(), key);
  sodium_memzero(key.data(), key.size());
  return number;
}

std::optional<std::string> TokenSeal::seal(const Contents& contents) {
  static std::atomic<uint64_t> count{0};
  const Secret* known = secret();
  if (known == nullptr) return std::nullopt;
  std::string bytes;
  bytes.reserve(kHeader + contents.path.size() + kAuthenticator);
  bytes.append(known->random.data(), known->random.size());
  appendInteger(bytes, count.fetch_add(1, std::memory_order_relaxed));
  appendInteger(bytes, contents.device);
  appendInteger(bytes, contents.inode);
  bytes += contents.path;
  const auto authenticator = authenticate(bytes, known->key);
  bytes.append(reinterpret_cast<const char*>(authenticator.data()), authenticator.size());

  const size_t length = sodium_base64_encoded_len(bytes.size(), kBase64);  // with the final NUL
  std::string token(kVersion.size() + length, '\0');
  std::memcpy(token.data(), kVersion.data(), kVersion.size());
  sodium_bin2base64(token.data() + kVersion.size(), length,
                    reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), kBase64);
  token.pop_back();
  return token;
}

std::optional<TokenSeal::Contents> TokenSeal::open(std::string_view token) {
  const Secret* known = secret();
  if (known == nullptr) return std::nullopt;
  errno = EBADMSG;
  if (!token.starts_with(kVersion) || token.size() > kLongestToken) return std::nullopt;
  token.remove_prefix(kVersion.size());
  std::string bytes(token.size(), '\0');
  size_t length = 0;
  const bool isText = sodium_base642bin(reinterpret_cast<unsigned char*>(bytes.data()), bytes.size(),
                                        token.data(), token.size(), nullptr, &length, nullptr, kBase64) == 0;
  errno = EBADMSG;
  if (!isText || length <= kHeader + kAuthenticator) return std::nullopt;
  bytes.resize(length);
  const std::string_view sealed = std::string_view(bytes).substr(0, length - kAuthenticator);
  const auto expected = authenticate(sealed, known->key);
  if (sodium_memcmp(expected.data(), bytes.data() + sealed.size(), expected.size()) != 0) return std::nullopt;
  return Contents{std::string(sealed.substr(kHeader)), integerAt(sealed, kNonce),
                  integerAt(sealed, kNonce + sizeof(uint64_t))};
}

}  // namespace platform
