/*
 * picture_workers.h - the threads that turn copied frames into pictures
 * (previews scaled and JPEG-encoded, snapshots as PNG). They run at a lower
 * scheduling priority than the capture thread, so that on a busy board the
 * pictures slow down and skip frames while the capture keeps every frame.
 */
#ifndef ZELISP_CAM_CONSOLE_PICTURE_WORKERS_H
#define ZELISP_CAM_CONSOLE_PICTURE_WORKERS_H

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace zcam {

// The niceness of the threads that make pictures and encode video: below
// the capture thread's (0), above nothing else in the console.
constexpr int kPictureNiceness = 10;

// Lowers the calling thread's scheduling priority to kPictureNiceness
// (Linux gives each thread its own nice value).
void lower_thread_priority();

class PictureWorkers {
public:
    explicit PictureWorkers(unsigned threads);
    ~PictureWorkers();
    PictureWorkers(const PictureWorkers &) = delete;
    PictureWorkers &operator=(const PictureWorkers &) = delete;

    // Runs `job` on a worker. Every producer keeps at most one job waiting,
    // so the queue stays as short as the number of producers.
    void post(std::function<void()> job);
    // Lets the waiting jobs finish and ends the threads.
    void stop();

private:
    void run();

    std::mutex mutex_;
    std::condition_variable waiting_;
    std::deque<std::function<void()>> jobs_;
    bool stopping_ = false;
    std::vector<std::thread> threads_;
};

} // namespace zcam

#endif
