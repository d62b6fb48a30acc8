/*
 * command_queue.h - requests for the capture thread (a control to set, a
 * camera to stop), which alone uses the cameras. The queue is bounded: when
 * it is full the request is refused at once rather than piling up behind a
 * stalled camera. A requester that stops waiting withdraws its command, and
 * a withdrawn command is never run: "did not answer in time" then also
 * means "not applied", never "applied later".
 */
#ifndef ZELISP_CAM_CONSOLE_COMMAND_QUEUE_H
#define ZELISP_CAM_CONSOLE_COMMAND_QUEUE_H

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace zcam {

class Command {
public:
    explicit Command(std::function<void()> work) : work_(std::move(work)) {}

    // The capture thread takes the command: false if it was withdrawn.
    bool claim();
    // The requester gives up: false if the capture thread has taken it
    // already (its answer then follows).
    bool withdraw();
    bool withdrawn() const;
    // Runs the work of a claimed command.
    void run() { work_(); }

private:
    enum State { kWaiting, kClaimed, kWithdrawn };
    std::atomic<int> state_{kWaiting};
    std::function<void()> work_;
};

class CommandQueue {
public:
    explicit CommandQueue(size_t capacity) : capacity_(capacity) {}

    // False when `capacity` commands wait already.
    bool push(std::shared_ptr<Command> command);
    // Everything waiting, oldest first. The capture thread claims each just
    // before it runs it, so a command further back can still be withdrawn.
    std::vector<std::shared_ptr<Command>> take();
    size_t capacity() const { return capacity_; }

private:
    const size_t capacity_;
    std::mutex mutex_;
    std::deque<std::shared_ptr<Command>> waiting_;
};

} // namespace zcam

#endif
