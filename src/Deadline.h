// Deadline.h: the one way the library waits with a time-out.
//
// A Deadline is a point on the monotonic clock, fixed when it is made from a time-out in milliseconds, so
// that a loop that waits in several steps (a retry, a partial read, a spurious wake-up) spends the time-out
// once in all, not once per step, and is not moved by changes of the wall clock. A negative time-out
// means "never": such a deadline is never expired (ms_left() gives -1 for it, left() the longest duration).
//
// Thread safety: a Deadline is a plain value; const operations may be called from any thread.
#pragma once

#include <chrono>
#include <climits>
#include <cstdint>

namespace tarvik {

class Deadline {
public:
    using Clock = std::chrono::steady_clock;

    // A deadline `ms` milliseconds from now; a negative `ms` never expires. A time-out beyond a century is
    // taken as a century, so that the clock's range is never exceeded.
    static Deadline in_ms(std::int64_t ms) {
        constexpr std::int64_t kLongestMs = std::int64_t{100} * 366 * 24 * 3600 * 1000;
        if (ms < 0) return Deadline();
        return Deadline(Clock::now() + std::chrono::milliseconds(ms < kLongestMs ? ms : kLongestMs));
    }
    // A deadline that is never reached.
    static Deadline never() { return Deadline(); }
    // A deadline at an absolute instant of the monotonic clock.
    static Deadline at(Clock::time_point when) { return Deadline(when); }

    bool is_never() const { return never_; }
    bool expired() const { return !never_ && Clock::now() >= when_; }
    Clock::time_point when() const { return never_ ? Clock::time_point::max() : when_; }

    // Milliseconds left, rounded up so that a wait of that length does not wake just before the deadline;
    // 0 once expired, -1 for a deadline that never expires (the convention of poll() and the library's
    // own wait operations).
    int ms_left() const {
        if (never_) return -1;
        auto const left = when_ - Clock::now();
        if (left <= Clock::duration::zero()) return 0;
        auto const ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
        return ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
    }
    // Time left as a duration, zero once expired, Clock::duration::max() for a deadline that never expires.
    Clock::duration left() const {
        if (never_) return Clock::duration::max();
        auto const left = when_ - Clock::now();
        return left > Clock::duration::zero() ? left : Clock::duration::zero();
    }

private:
    Deadline() = default;
    explicit Deadline(Clock::time_point when) : when_(when), never_(false) {}

    Clock::time_point when_{};
    bool never_ = true;
};

}  // namespace tarvik
