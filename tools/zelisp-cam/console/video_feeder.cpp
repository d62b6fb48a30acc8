// video_feeder.cpp - frames from the capture thread into an appsrc.
#include "video_feeder.h"

#include <gst/app/gstappsrc.h>

#include <cerrno>
#include <cstring>

#include "picture_workers.h"

namespace zcam {

VideoFeeder::VideoFeeder(size_t frame_bytes)
{
    sem_init(&ready_, 0, 0);
    for (Slot &slot : slots_)
        slot.pixels.resize(frame_bytes);
}

VideoFeeder::~VideoFeeder()
{
    stop();
    sem_destroy(&ready_);
}

void VideoFeeder::start(GstElement *source, int niceness)
{
    source_ = source;
    thread_ = std::thread([this, niceness] { push(niceness); });
}

bool VideoFeeder::offer(const uint8_t *data, size_t bytes)
{
    for (size_t i = 0; i < slots_.size(); ++i) {
        Slot &slot = slots_[i];
        int free = kFree;
        if (bytes > slot.pixels.size() || !slot.state.compare_exchange_strong(free, kFilling))
            continue;
        memcpy(slot.pixels.data(), data, bytes);
        slot.bytes = bytes;
        slot.state = kPosted;
        int replaced = posted_.exchange(int(i));
        if (replaced >= 0)
            slots_[size_t(replaced)].state = kFree; // never pushed: the newer frame goes instead
        sem_post(&ready_);
        return true;
    }
    return false;
}

void VideoFeeder::push(int niceness)
{
    set_thread_niceness(niceness);
    while (!stopping_) {
        if (sem_wait(&ready_) != 0 && errno == EINTR)
            continue;
        int taken = posted_.exchange(-1);
        if (taken < 0 || stopping_)
            continue;
        Slot &slot = slots_[size_t(taken)];
        slot.state = kInPipeline;
        GstBuffer *buffer = gst_buffer_new_wrapped_full(
            GST_MEMORY_FLAG_READONLY, slot.pixels.data(), slot.pixels.size(), 0, slot.bytes, &slot,
            [](gpointer released) { static_cast<Slot *>(released)->state = kFree; });
        gst_app_src_push_buffer(GST_APP_SRC(source_), buffer);
    }
}

void VideoFeeder::stop()
{
    stopping_ = true;
    sem_post(&ready_);
    if (thread_.joinable())
        thread_.join();
}

} // namespace zcam
