/*
 * video_feeder.h - hands a view's frames from the capture thread to a
 * pipeline's appsrc, without the capture thread ever waiting. appsrc takes
 * its own lock to queue a buffer, and its streaming thread (at the picture
 * workers' low priority) holds that lock too; a capture thread that pushed
 * itself could wait as long as that thread waits for the processor. So the
 * capture thread copies the frame into one of a few buffers made once,
 * posts it with an atomic exchange (a newer frame replaces one not yet
 * taken) and a semaphore, and a thread of the feeder's own pushes it.
 */
#ifndef ZELISP_CAM_CONSOLE_VIDEO_FEEDER_H
#define ZELISP_CAM_CONSOLE_VIDEO_FEEDER_H

#include <semaphore.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

typedef struct _GstElement GstElement;

namespace zcam {

class VideoFeeder {
public:
    explicit VideoFeeder(size_t frame_bytes);
    ~VideoFeeder();
    VideoFeeder(const VideoFeeder &) = delete;
    VideoFeeder &operator=(const VideoFeeder &) = delete;

    // Starts pushing into `source` (an appsrc, kept referenced by the
    // caller) from a thread of the given niceness.
    void start(GstElement *source, int niceness);
    // Capture thread: copies the frame if a buffer is free; false when all
    // are still with the encoder (the frame is skipped).
    bool offer(const uint8_t *data, size_t bytes);
    // Ends the pushing thread; the buffers stay valid until the pipeline
    // has released them.
    void stop();

private:
    enum { kFree, kFilling, kPosted, kInPipeline };
    struct Slot {
        std::vector<uint8_t> pixels;
        size_t bytes = 0;
        std::atomic<int> state{kFree};
    };
    void push(int niceness);

    std::array<Slot, 3> slots_;
    std::atomic<int> posted_{-1}; // the slot waiting to be pushed
    sem_t ready_;
    std::atomic<bool> stopping_{false};
    GstElement *source_ = nullptr;
    std::thread thread_;
};

} // namespace zcam

#endif
