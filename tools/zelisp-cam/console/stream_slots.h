/*
 * stream_slots.h - the console's endless answers (MJPEG streams and WebRTC
 * viewers) share one limit, --max-streams: each holds a slot while it runs.
 */
#ifndef ZELISP_CAM_CONSOLE_STREAM_SLOTS_H
#define ZELISP_CAM_CONSOLE_STREAM_SLOTS_H

#include <atomic>
#include <cstdint>

namespace zcam {

class StreamSlots {
public:
    explicit StreamSlots(int max) : max_(max) {}

    // False when every slot is taken (and the refusal counted).
    bool take()
    {
        if (active_.fetch_add(1) >= max_) {
            active_.fetch_sub(1);
            ++refused_;
            return false;
        }
        ++served_;
        return true;
    }
    void give_back() { active_.fetch_sub(1); }

    int max() const { return max_; }
    int active() const { return active_.load(); }
    uint64_t served() const { return served_.load(); }
    uint64_t refused() const { return refused_.load(); }

private:
    const int max_;
    std::atomic<int> active_{0};
    std::atomic<uint64_t> served_{0}, refused_{0};
};

} // namespace zcam

#endif
