#pragma once

// One piece of work: a closure without arguments that is run once. Movable, not copyable; captures of up to
// 48 bytes are held inside the object, so queueing a typical closure allocates nothing.

#include <concepts>
#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#pragma GCC visibility push(default)

namespace platform {

class Work {
 public:
  Work() = default;
  template <typename F>
  requires(!std::same_as<std::remove_cvref_t<F>, Work> && std::invocable<std::remove_cvref_t<F>&>)
      Work(F&& closure) {  // NOLINT: every closure converts
    using Closure = std::remove_cvref_t<F>;
    if constexpr (fits<Closure>) {
      new (storage_) Closure(std::forward<F>(closure));
      operations_ = &kOperations<Closure>;
    } else {
      using Boxed = Box<Closure>;
      new (storage_) Boxed{std::make_unique<Closure>(std::forward<F>(closure))};
      operations_ = &kOperations<Boxed>;
    }
  }
  Work(Work&& other) noexcept { takeFrom(other); }
  Work& operator=(Work&& other) noexcept {
    if (this != &other) {
      destroy();
      takeFrom(other);
    }
    return *this;
  }
  ~Work() { destroy(); }

  explicit operator bool() const { return operations_ != nullptr; }
  /// REQUIRES: not empty.
  void operator()() { operations_->run(storage_); }

 private:
  static constexpr size_t kInline = 48;
  template <typename F>
  static constexpr bool fits =
      sizeof(F) <= kInline &&
      alignof(F) <= alignof(std::max_align_t) && std::is_nothrow_move_constructible_v<F>;
  /// A closure that is too large to be held inside.
  template <typename F>
  struct Box {
    std::unique_ptr<F> closure;
    void operator()() { (*closure)(); }
  };
  struct Operations {
    void (*run)(void* closure);
    /// Moves into raw storage and destroys the original.
    void (*move)(void* from, void* to) noexcept;
    void (*destroy)(void* closure) noexcept;
  };
  template <typename F>
  static constexpr Operations kOperations = {
      [](void* closure) { (*static_cast<F*>(closure))(); },
      [](void* from, void* to) noexcept {
        new (to) F(std::move(*static_cast<F*>(from)));
        static_cast<F*>(from)->~F();
      },
      [](void* closure) noexcept { static_cast<F*>(closure)->~F(); },
  };

  void takeFrom(Work& other) noexcept {
    operations_ = std::exchange(other.operations_, nullptr);
    if (operations_ != nullptr) operations_->move(other.storage_, storage_);
  }
  void destroy() noexcept {
    if (const Operations* operations = std::exchange(operations_, nullptr)) operations->destroy(storage_);
  }

  const Operations* operations_ = nullptr;
  alignas(std::max_align_t) std::byte storage_[kInline];
};

}  // namespace platform

#pragma GCC visibility pop
