/*
 * waiting.cpp - polls on camera nodes without the interpreter lock, woken
 * by frames, time, signals or a cancel from another thread.
 */
#include "waiting.h"

#include "core.h"
#include "interpreter_lock.h"

#include <pybind11/pybind11.h>

#include <cerrno>
#include <cstring>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace py = pybind11;

namespace zelpy {

Deadline::Deadline(int timeout_ms)
    : limited_(timeout_ms >= 0),
      end_(std::chrono::steady_clock::now() + std::chrono::milliseconds(limited_ ? timeout_ms : 0))
{
}

int Deadline::remaining_ms() const
{
    if (!limited_)
        return -1;
    auto left = std::chrono::ceil<std::chrono::milliseconds>(end_ - std::chrono::steady_clock::now()).count();
    return left <= 0 ? 0 : int(left);
}

WaitCancel::WaitCancel() : wake_fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), opener_(getpid())
{
    if (wake_fd_ < 0) {
        PyErr_SetFromErrno(PyExc_OSError);
        throw py::error_already_set();
    }
}

WaitCancel::~WaitCancel() { ::close(wake_fd_); }

void WaitCancel::check(uint64_t since, const char *call) const
{
    if (epoch_ != since)
        throw CallError{ISP_ERR_STATE, call, std::string(by_) + " ended the wait",
                        true};
}

void WaitCancel::cancel(const char *by)
{
    ++epoch_;
    by_ = by;
    // In a forked child the waiting threads, and the count and lock that
    // follow them, are the parent's (and so is the wake descriptor): none
    // of the child's own can wait, its waits on the camera being refused.
    if (getpid() != opener_)
        return;
    std::unique_lock<std::mutex> lock(mutex_);
    if (waiting_ == 0)
        return;
    // The interpreter lock stays held: no new wait can begin meanwhile, and
    // a waiter leaves its poll without needing the lock.
    // Adding 1 fails only with the count at its limit, readable anyway.
    const uint64_t one = 1;
    const ssize_t written = write(wake_fd_, &one, sizeof one);
    left_.wait(lock, [this] { return waiting_ == 0; });
    // Back to unreadable for the waits to come.
    uint64_t count;
    const ssize_t drained = read(wake_fd_, &count, sizeof count);
    (void)written;
    (void)drained;
}

void WaitCancel::enter()
{
    std::lock_guard<std::mutex> lock(mutex_);
    ++waiting_;
}

void WaitCancel::leave()
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (--waiting_ == 0)
        left_.notify_all();
}

bool wait_for_nodes(const std::vector<WaitTarget> &targets, WaitFor wanted, const Deadline &deadline,
                    const char *call)
{
    std::vector<int> pending;
    for (const WaitTarget &target : targets)
        pending.push_back(target.node);
    std::vector<pollfd> set;
    for (;;) {
        for (const WaitTarget &target : targets)
            target.cancel->check(target.since, call);
        set.clear();
        for (int node : pending)
            set.push_back(pollfd{node, POLLIN, 0});
        for (const WaitTarget &target : targets)
            set.push_back(pollfd{target.cancel->descriptor(), POLLIN, 0});
        const int timeout = deadline.remaining_ms();

        for (const WaitTarget &target : targets)
            target.cancel->enter();
        PyThreadState *state = release_interpreter();
        const int result = ::poll(set.data(), nfds_t(set.size()), timeout);
        const int error = errno;
        for (const WaitTarget &target : targets)
            target.cancel->leave();
        reacquire_interpreter(state);

        if (result < 0) {
            if (error != EINTR)
                fail(ISP_ERR_SELECT, "poll", std::strerror(error));
            if (PyErr_CheckSignals() != 0)
                throw py::error_already_set();
            continue;
        }
        if (result == 0)
            return false;
        std::vector<int> still;
        for (size_t i = 0; i < pending.size(); ++i) {
            if (set[i].revents & (POLLERR | POLLNVAL))
                fail(ISP_ERR_SELECT, "poll", "the camera's descriptor reports an error");
            if (!(set[i].revents & POLLIN))
                still.push_back(pending[i]);
        }
        if (wanted == WaitFor::Any ? still.size() < pending.size() : still.empty())
            return true;
        pending = std::move(still);
    }
}

} // namespace zelpy
