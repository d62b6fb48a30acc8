// picture_workers.cpp - the console's picture threads.
#include "picture_workers.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace zcam {

void set_thread_niceness(int niceness)
{
    setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), niceness);
}

PictureWorkers::PictureWorkers(unsigned threads)
{
    sem_init(&due_, 0, 0);
    for (unsigned i = 0; i < threads; ++i)
        threads_.emplace_back([this] { run(); });
}

PictureWorkers::~PictureWorkers()
{
    stop();
    sem_destroy(&due_);
}

void PictureWorkers::enlist(std::shared_ptr<PictureJob> job)
{
    std::lock_guard<std::mutex> lock(jobs_mutex_);
    jobs_.push_back(std::move(job));
}

void PictureWorkers::wake(PictureJob &job)
{
    job.due_.store(true);
    sem_post(&due_);
}

void PictureWorkers::stop()
{
    stopping_ = true;
    for (size_t i = 0; i < threads_.size(); ++i)
        sem_post(&due_);
    for (auto &thread : threads_)
        if (thread.joinable())
            thread.join();
    threads_.clear();
}

// One post, one job: a post whose job another worker took finds none. The
// search goes round from after the job taken last, so that when the
// workers cannot keep up every job still gets its turn.
bool PictureWorkers::run_one_due()
{
    std::vector<std::shared_ptr<PictureJob>> jobs;
    {
        std::lock_guard<std::mutex> lock(jobs_mutex_);
        jobs = jobs_;
    }
    size_t start = next_.load();
    for (size_t i = 0; i < jobs.size(); ++i) {
        size_t at = (start + i) % jobs.size();
        if (jobs[at]->due_.exchange(false)) {
            next_ = at + 1;
            jobs[at]->work();
            return true;
        }
    }
    return false;
}

void PictureWorkers::run()
{
    set_thread_niceness(kPictureNiceness);
    while (!stopping_) {
        if (sem_wait(&due_) != 0 && errno == EINTR)
            continue;
        if (!stopping_)
            run_one_due();
    }
}

} // namespace zcam
