#pragma once

// A first-in-first-out list that keeps its storage: in a steady state neither end allocates. Plain container;
// one thread at a time.

#include <cstddef>
#include <utility>
#include <vector>

namespace platform {

template <typename T>
class Fifo {
 public:
  bool empty() const { return next_ == items_.size(); }
  size_t size() const { return items_.size() - next_; }
  T* begin() { return items_.data() + next_; }
  T* end() { return items_.data() + items_.size(); }
  const T* begin() const { return items_.data() + next_; }
  const T* end() const { return items_.data() + items_.size(); }
  /// REQUIRES: not empty.
  T& front() { return items_[next_]; }
  /// REQUIRES: not empty.
  T& back() { return items_.back(); }

  void push(T item) {
    // What was taken is given back before the list would grow for it.
    if (items_.size() == items_.capacity() && next_ > items_.size() / 2) {
      items_.erase(items_.begin(), items_.begin() + static_cast<std::ptrdiff_t>(next_));
      next_ = 0;
    }
    items_.push_back(std::move(item));
  }

  /// REQUIRES: not empty.
  T pop() {
    T item = std::move(items_[next_]);
    if (++next_ == items_.size()) clear();
    return item;
  }

  void clear() {
    items_.clear();
    next_ = 0;
  }

 private:
  std::vector<T> items_;
  size_t next_ = 0;
};

}  // namespace platform
