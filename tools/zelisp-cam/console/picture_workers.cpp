// picture_workers.cpp - the console's picture threads.
#include "picture_workers.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace zcam {

void lower_thread_priority()
{
    // Only lowers it: an unprivileged user may always do that.
    setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), kPictureNiceness);
}

PictureWorkers::PictureWorkers(unsigned threads)
{
    for (unsigned i = 0; i < threads; ++i)
        threads_.emplace_back([this] { run(); });
}

PictureWorkers::~PictureWorkers()
{
    stop();
}

void PictureWorkers::post(std::function<void()> job)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_)
            return;
        jobs_.push_back(std::move(job));
    }
    waiting_.notify_one();
}

void PictureWorkers::stop()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    waiting_.notify_all();
    for (auto &thread : threads_)
        if (thread.joinable())
            thread.join();
    threads_.clear();
}

void PictureWorkers::run()
{
    lower_thread_priority();
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        waiting_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
        if (jobs_.empty())
            return;
        std::function<void()> job = std::move(jobs_.front());
        jobs_.pop_front();
        lock.unlock();
        job();
        lock.lock();
    }
}

} // namespace zcam
