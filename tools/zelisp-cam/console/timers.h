/*
 * timers.h - the console's clock: one thread that runs short callbacks at
 * their deadlines (a poll that found no new picture, a camera command the
 * capture thread has not taken in time, the sweep for connections that are
 * too slow to send their request). A callback must not block: it answers a
 * parked request or hands work on.
 */
#ifndef ZELISP_CAM_CONSOLE_TIMERS_H
#define ZELISP_CAM_CONSOLE_TIMERS_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

namespace zcam {

class Timers {
public:
    using Clock = std::chrono::steady_clock;
    using Id = uint64_t;

    Timers();
    ~Timers();
    Timers(const Timers &) = delete;
    Timers &operator=(const Timers &) = delete;

    // Runs `callback` on the timer thread once `delay` has passed.
    Id after(Clock::duration delay, std::function<void()> callback);
    // Runs `callback` every `period` until the timers stop.
    void every(Clock::duration period, std::function<void()> callback);
    // Forgets a timer that has not fired: true if it was still waiting.
    bool cancel(Id id);
    // Ends the thread; timers still waiting never fire.
    void stop();

private:
    struct Entry {
        Id id;
        std::function<void()> callback;
        Clock::duration period; // zero for a one-shot timer
    };
    void run();

    std::mutex mutex_;
    std::condition_variable changed_;
    std::multimap<Clock::time_point, Entry> waiting_;
    Id next_id_ = 1;
    bool stopping_ = false;
    std::thread thread_;
};

} // namespace zcam

#endif
