/*
 * picture_workers.h - the threads that turn copied frames into pictures
 * (previews scaled and JPEG-encoded, snapshots as PNG). They run at a lower
 * scheduling priority than the capture thread, so that on a busy board the
 * pictures slow down and skip frames while the capture keeps every frame.
 *
 * The capture thread hands work over without ever taking a lock a
 * low-priority thread could hold (which would make it wait as long as that
 * thread waits for the processor): each job is enlisted once, and waking it
 * is an atomic flag and a semaphore post.
 */
#ifndef ZELISP_CAM_CONSOLE_PICTURE_WORKERS_H
#define ZELISP_CAM_CONSOLE_PICTURE_WORKERS_H

#include <semaphore.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace zcam {

// The niceness of the threads that make pictures: below the capture
// thread's and the console's other threads.
constexpr int kPictureNiceness = 10;

// Sets the calling thread's niceness (Linux gives each thread its own);
// lowering it is always allowed.
void set_thread_niceness(int niceness);

// Work that a frame copy makes due. Its producer never makes it due again
// before work() has finished, so it never runs on two workers at once.
class PictureJob {
public:
    virtual ~PictureJob() = default;
    virtual void work() = 0;

private:
    friend class PictureWorkers;
    std::atomic<bool> due_{false};
};

class PictureWorkers {
public:
    explicit PictureWorkers(unsigned threads);
    ~PictureWorkers();
    PictureWorkers(const PictureWorkers &) = delete;
    PictureWorkers &operator=(const PictureWorkers &) = delete;

    // Makes `job` one the workers look after.
    void enlist(std::shared_ptr<PictureJob> job);
    // Any thread, never waits: `job` runs on a worker soon.
    void wake(PictureJob &job);
    // Lets the jobs due finish and ends the threads.
    void stop();

private:
    void run();
    bool run_one_due();

    sem_t due_;
    std::atomic<bool> stopping_{false};
    std::mutex jobs_mutex_; // the workers and enlist() only
    std::vector<std::shared_ptr<PictureJob>> jobs_;
    std::atomic<size_t> next_{0}; // where the next search for a due job starts
    std::vector<std::thread> threads_;
};

} // namespace zcam

#endif
