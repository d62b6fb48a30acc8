/*
 * waiting.h - waiting for filled buffers with the interpreter lock
 * released, and ending those waits from another thread.
 *
 * The package waits on the cameras' node descriptors itself (poll), not
 * inside the library, and enters the library only with the lock held and a
 * zero time limit once a buffer is there. Each camera has a wake
 * descriptor (an eventfd) in every poll on it: stop(), close() and the
 * group's stop(), close() and destroy() write it, so that a thread blocked
 * in get_frame, frames, get_frame_set or wait on that camera comes back at
 * once and raises zelisp.Cancelled, and the stopping call completes after
 * every such thread has left its poll. A signal brings a waiting thread
 * back into the interpreter to run Python's handlers; unless they raise,
 * the wait goes on with the time that is left (PEP 475).
 */
#ifndef ZELISP_PYTHON_WAITING_H
#define ZELISP_PYTHON_WAITING_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <vector>

#include <sys/types.h>

namespace zelpy {

/* The end of a time limit; none for a wait without limit. */
class Deadline {
public:
    explicit Deadline(int timeout_ms); /* negative: no limit */
    /* Milliseconds left, for poll(): -1 without a limit, 0 once passed. */
    int remaining_ms() const;
    bool passed() const { return remaining_ms() == 0; }

private:
    bool limited_;
    std::chrono::steady_clock::time_point end_;
};

/*
 * The waits on one camera. epoch() changes with every cancel: a wait
 * notes it when it begins and ends with Cancelled when it has changed,
 * also when the cancel came while the waiting thread held the lock (in a
 * signal handler, say). Everything but enter/leave runs with the
 * interpreter lock held; that lock keeps a cancel and a wait's start apart.
 */
class WaitCancel {
public:
    WaitCancel();
    ~WaitCancel();
    WaitCancel(const WaitCancel &) = delete;
    WaitCancel &operator=(const WaitCancel &) = delete;

    int descriptor() const { return wake_fd_; }
    uint64_t epoch() const { return epoch_; }
    /* Raises zelisp.Cancelled (for `call`) when a cancel came since `since`. */
    void check(uint64_t since, const char *call) const;
    /* Wakes every waiting thread and returns once all have left their
     * poll. `by` names the cancelling call in the waiters' exception. */
    void cancel(const char *by);

    /* Around one poll, without the lock. */
    void enter();
    void leave();

private:
    int wake_fd_;
    uint64_t epoch_ = 0;
    const char *by_ = "";
    std::mutex mutex_;
    std::condition_variable left_;
    int waiting_ = 0;
    pid_t opener_;
};

/* One node descriptor a wait watches, the waits of its camera, and the
 * epoch noted when the call began. */
struct WaitTarget {
    int node;
    WaitCancel *cancel;
    uint64_t since;
};

enum class WaitFor { Any, All };

/*
 * Waits with the interpreter lock released until one (Any) or every (All)
 * node is readable: true, or false when the deadline passed first. Raises
 * Cancelled for `call` when a target's camera is cancelled, the exception
 * of a signal handler, or Error -1 when poll fails.
 */
bool wait_for_nodes(const std::vector<WaitTarget> &targets, WaitFor wanted, const Deadline &deadline,
                    const char *call);

} // namespace zelpy

#endif
