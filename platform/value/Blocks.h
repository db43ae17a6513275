#pragma once

// Making the blocks in which containers keep their elements. Internal to values.

#include <new>
#include <stdexcept>

#include "platform/value/Storage.h"

namespace platform::detail {

/// An empty block with room for `capacity` elements.
template <typename Node, typename T>
Node* newBlock(size_t capacity) {
  if (capacity > UINT32_MAX) throw std::length_error("a container of more than 2^32 elements");
  auto* node = new (::operator new(sizeof(Node) + capacity * sizeof(T))) Node;
  node->capacity = static_cast<uint32_t>(capacity);
  return node;
}

}  // namespace platform::detail
