// timers.cpp - the console's timer thread.
#include "timers.h"

#include <algorithm>

namespace zcam {

Timers::Timers() : thread_([this] { run(); }) {}

Timers::~Timers()
{
    stop();
}

Timers::Id Timers::after(Clock::duration delay, std::function<void()> callback)
{
    std::lock_guard<std::mutex> lock(mutex_);
    Id id = next_id_++;
    waiting_.emplace(Clock::now() + delay, Entry{id, std::move(callback), Clock::duration::zero()});
    changed_.notify_one();
    return id;
}

void Timers::every(Clock::duration period, std::function<void()> callback)
{
    std::lock_guard<std::mutex> lock(mutex_);
    waiting_.emplace(Clock::now() + period, Entry{next_id_++, std::move(callback), period});
    changed_.notify_one();
}

bool Timers::cancel(Id id)
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = std::find_if(waiting_.begin(), waiting_.end(), [id](const auto &entry) { return entry.second.id == id; });
    if (it == waiting_.end())
        return false;
    waiting_.erase(it);
    return true;
}

void Timers::stop()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        waiting_.clear();
    }
    changed_.notify_one();
    if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id())
        thread_.join();
}

void Timers::run()
{
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopping_) {
        if (waiting_.empty()) {
            changed_.wait(lock);
            continue;
        }
        auto first = waiting_.begin();
        if (Clock::now() < first->first) {
            // A copy: the entry may be cancelled while this waits.
            Clock::time_point due = first->first;
            changed_.wait_until(lock, due);
            continue;
        }
        Entry entry = std::move(first->second);
        waiting_.erase(first);
        if (entry.period != Clock::duration::zero())
            waiting_.emplace(Clock::now() + entry.period, Entry{entry.id, entry.callback, entry.period});
        // The callback may set or cancel timers itself.
        lock.unlock();
        entry.callback();
        lock.lock();
    }
}

} // namespace zcam
