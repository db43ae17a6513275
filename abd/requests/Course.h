#pragma once

// The course of one request through its handler. A handler that walks a list is a coroutine: where it says
// `co_await giveWay()` it goes on at once as long as its slice of time lasts, and else stops until the
// requests of other clients have had their turns. Handlers without lists are plain functions that return an
// empty course. Only on the service queue; an unfinished course that is dropped ends where it stands.

#include <chrono>
#include <coroutine>
#include <exception>
#include <utility>

namespace abd {

/// How long one client's request runs while others may wait.
inline constexpr std::chrono::microseconds kSlice{250};

class Slice {
 public:
  using Clock = std::chrono::steady_clock;
  void begin(Clock::time_point now) { end_ = now + kSlice; }
  bool isOver() const { return Clock::now() >= end_; }

 private:
  Clock::time_point end_;
};

class Course {
 public:
  struct promise_type {
    Course get_return_object() { return Course(Handle::from_promise(*this)); }
    std::suspend_never initial_suspend() noexcept { return {}; }
    std::suspend_always final_suspend() noexcept { return {}; }
    void return_void() {}
    void unhandled_exception() noexcept { failure = std::current_exception(); }

    std::exception_ptr failure;
  };
  /// What a handler awaits.
  struct Pause {
    const Slice& slice;
    bool await_ready() const { return !slice.isOver(); }
    void await_suspend(std::coroutine_handle<>) const {}
    void await_resume() const {}
  };

  /// Goes on after others had a turn, slice or not.
  using Turn = std::suspend_always;

  Course() = default;
  Course(Course&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
  Course& operator=(Course&& other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;
  }
  ~Course() {
    if (handle_) handle_.destroy();
  }

  bool isOver() const { return !handle_ || handle_.done(); }
  /// REQUIRES: not over.
  void goOn() { handle_.resume(); }
  /// Throws what the handler threw, when it ended so.
  void throwIfFailed() const {
    if (handle_ && handle_.promise().failure) std::rethrow_exception(handle_.promise().failure);
  }

 private:
  using Handle = std::coroutine_handle<promise_type>;
  explicit Course(Handle handle) : handle_(handle) {}

  Handle handle_;
};

}  // namespace abd
