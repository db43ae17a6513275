#pragma once

// The shared storage behind values (Value.h): one heap block per string, container or other piece, with the
// count of its holders at its head and the contents right behind. Internal to values.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "platform/value/UUID.h"

#pragma GCC visibility push(default)

namespace platform {
namespace detail {

/// The head of every piece of shared storage.
struct Counted {
  /// Set in the count of what stays for ever and is not counted any more: counting is the larger part of what
  /// sharing costs, and the few strings that stand everywhere (see String::interned()) need none.
  static constexpr uint32_t kForever = uint32_t{1} << 31;
  std::atomic<uint32_t> references{1};

  void retain() noexcept {
    if (references.load(std::memory_order_relaxed) < kForever)
      references.fetch_add(1, std::memory_order_relaxed);
  }
  /// True when the caller was the last holder.
  bool release() noexcept {
    const uint32_t count = references.load(std::memory_order_acquire);
    // The only holder need not count down: nobody else can take hold any more.
    return count == 1 || (count < kForever && references.fetch_sub(1, std::memory_order_acq_rel) == 1);
  }
};

struct BytesNode : Counted {
  uint32_t size = 0;

  const uint8_t* bytes() const { return reinterpret_cast<const uint8_t*>(this + 1); }
  uint8_t* bytes() { return reinterpret_cast<uint8_t*>(this + 1); }
};

/// Elements right behind the head: `count` are alive, room is for `capacity`.
template <typename T>
struct alignas(8) Block : Counted {
  uint32_t count = 0;
  uint32_t capacity = 0;

  const T* begin() const { return reinterpret_cast<const T*>(this + 1); }
  const T* end() const { return begin() + count; }
  T* begin() { return reinterpret_cast<T*>(this + 1); }
  T* end() { return begin() + count; }
};

struct ArrayNode;
struct DictionaryNode;
struct EncodedNode;

struct UUIDNode : Counted {
  explicit UUIDNode(const UUID& value) : uuid(value) {}
  UUID uuid;
};

// The second argument only selects the overload.
void destroyNode(Counted* node, const BytesNode*) noexcept;
void destroyNode(Counted* node, const ArrayNode*) noexcept;
void destroyNode(Counted* node, const DictionaryNode*) noexcept;
void destroyNode(Counted* node, const EncodedNode*) noexcept;
void destroyNode(Counted* node, const UUIDNode*) noexcept;

/// Counts the holders of one piece of shared storage; the last one destroys it.
template <typename T>
class Shared {
 public:
  Shared() = default;
  /// Takes over the one reference that `node` was made with.
  explicit Shared(T* node) noexcept : node_(node) {}
  Shared(const Shared& other) noexcept : node_(other.node_) {
    if (node_ != nullptr) node_->retain();
  }
  Shared(Shared&& other) noexcept : node_(std::exchange(other.node_, nullptr)) {}
  Shared& operator=(const Shared& other) noexcept { return *this = Shared(other); }
  Shared& operator=(Shared&& other) noexcept {
    std::swap(node_, other.node_);
    return *this;
  }
  ~Shared() {
    if (node_ != nullptr && node_->release()) destroyNode(node_, static_cast<const T*>(nullptr));
  }
  /// REQUIRES: T is complete where this is used.
  T* get() const { return static_cast<T*>(node_); }
  T* operator->() const { return get(); }
  bool isNull() const { return node_ == nullptr; }
  /// Whether nobody else holds it, so that it may be changed. REQUIRES: !isNull().
  bool isUnique() const { return node_->references.load(std::memory_order_acquire) == 1; }
  bool isSame(const Shared& other) const { return node_ == other.node_; }

 private:
  Counted* node_ = nullptr;
};

}  // namespace detail
}  // namespace platform

#pragma GCC visibility pop
