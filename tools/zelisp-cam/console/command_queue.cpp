// command_queue.cpp - the capture thread's bounded queue of commands.
#include "command_queue.h"

#include <algorithm>

namespace zcam {

bool Command::claim()
{
    int waiting = kWaiting;
    return state_.compare_exchange_strong(waiting, kClaimed);
}

bool Command::withdraw()
{
    int waiting = kWaiting;
    return state_.compare_exchange_strong(waiting, kWithdrawn);
}

bool CommandQueue::push(std::shared_ptr<Command> command)
{
    std::lock_guard<std::mutex> lock(mutex_);
    // Withdrawn commands will never run: they do not count against the bound.
    waiting_.erase(std::remove_if(waiting_.begin(), waiting_.end(), [](const auto &c) { return c->withdrawn(); }),
                   waiting_.end());
    if (waiting_.size() >= capacity_)
        return false;
    waiting_.push_back(std::move(command));
    return true;
}

bool Command::withdrawn() const
{
    return state_.load() == kWithdrawn;
}

std::vector<std::shared_ptr<Command>> CommandQueue::take()
{
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::shared_ptr<Command>> taken(waiting_.begin(), waiting_.end());
    waiting_.clear();
    return taken;
}

} // namespace zcam
