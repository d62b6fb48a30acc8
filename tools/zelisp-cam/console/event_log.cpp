// event_log.cpp - the event panel's log and the library's message handler.
#include "event_log.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include <nlohmann/json.hpp>

#include "library_lines.h"
#include "timers.h"

namespace zcam {

namespace {

constexpr auto kDrainPeriod = std::chrono::milliseconds(100);

// The library's lines after their camera, as the tool's other commands show
// them; the console's own after the tool's name.
void print_event(const Event &event)
{
    if (event.source == "library")
        show_library_line(library_line(0, 0, event.text.c_str(), event.node.c_str()));
    else
        fprintf(stderr, "zelisp-cam: %s\n", event.text.c_str());
}

int64_t unix_ms_now()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

void copy_text(char *to, size_t size, const char *from)
{
    if (from == nullptr) {
        to[0] = '\0';
        return;
    }
    strncpy(to, from, size - 1);
    to[size - 1] = '\0';
}

const char *kind_name(int32_t kind)
{
    switch (kind) {
    case ISP_MESSAGE_PROGRESS: return "progress";
    case ISP_MESSAGE_FAILURE: return "failure";
    default: return "system-error";
    }
}

} // namespace

EventLog::EventLog(Timers &timers) : timers_(timers)
{
    sem_init(&arrived_, 0, 0);
}

EventLog::~EventLog()
{
    stop();
    sem_destroy(&arrived_);
}

void EventLog::start()
{
    thread_ = std::thread([this] { run(); });
    isp_set_message_handler(&EventLog::on_library_message, this);
    handler_set_ = true;
}

void EventLog::stop()
{
    if (handler_set_) {
        // Once this returns no handler call is running or will run.
        isp_set_message_handler(nullptr, nullptr);
        handler_set_ = false;
    }
    stopping_ = true;
    sem_post(&arrived_);
    if (thread_.joinable())
        thread_.join();
}

// On the thread of the library call that made the line: copy and go. The
// capture thread's watch sees the line first, and holds back the lines of
// taking a frame: it logs a refused frame's line once, then counts them.
void EventLog::on_library_message(const zelvideo::_isp_message_t *message, void *log)
{
    if (keep_in_watch(*message))
        return;
    QueuedLine line;
    line.kind = message->kind;
    line.error_number = message->error_number;
    copy_text(line.text, sizeof line.text, message->text);
    copy_text(line.label, sizeof line.label, message->label);
    copy_text(line.node, sizeof line.node, message->dev_path);
    auto *self = static_cast<EventLog *>(log);
    if (self->ring_.put(line))
        sem_post(&self->arrived_);
}

// Straight into the log, as a note is: a console warning about the line that
// follows it keeps its place after the line.
void EventLog::library_line(const LibraryLine &line)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        add_locked({0, 0, "library", kind_name(line.kind), line.dev_path, line.text});
    }
    sem_post(&arrived_);
}

void EventLog::add_locked(Event event)
{
    event.id = next_id_++;
    event.unix_ms = unix_ms_now();
    events_.push_back(std::move(event));
    if (events_.size() > kKept)
        events_.pop_front();
}

void EventLog::note(const std::string &kind, const std::string &text, const std::string &node)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        add_locked({0, 0, "console", kind, node, text});
    }
    sem_post(&arrived_);
}

// Moves the library's lines into the log, prints what is new on standard
// error, and answers the waiting polls. Printing may wait on a full pipe:
// only this thread waits then, never the capture thread or the server.
void EventLog::run()
{
    uint64_t printed = 0;
    for (bool last = false; !last;) {
        timespec until{};
        clock_gettime(CLOCK_REALTIME, &until);
        until.tv_nsec += long(std::chrono::nanoseconds(kDrainPeriod).count());
        until.tv_sec += until.tv_nsec / 1000000000;
        until.tv_nsec %= 1000000000;
        sem_timedwait(&arrived_, &until);
        while (sem_trywait(&arrived_) == 0) {
        } // one pass takes everything that came
        last = stopping_; // the lines of the cameras' closing come before the stop: one more pass prints them
        std::unique_lock<std::mutex> lock(mutex_);
        QueuedLine line;
        while (ring_.get(&line))
            add_locked({0, 0, "library", kind_name(line.kind), line.node, line.text});
        uint64_t lost = ring_.take_lost();
        lost_ += lost;
        std::vector<Event> fresh;
        for (const Event &event : events_)
            if (event.id > printed)
                fresh.push_back(event);
        if (fresh.empty() && lost == 0)
            continue;
        if (!fresh.empty())
            printed = fresh.back().id;
        std::vector<std::shared_ptr<HttpExchange>> waiting;
        for (const Poller &poller : pollers_)
            waiting.push_back(poller.exchange);
        lock.unlock();
        for (const Event &event : fresh)
            print_event(event);
        if (lost > 0)
            fprintf(stderr, "zelisp-cam: %llu lines of the library were lost: they came faster than they could be shown\n",
                    static_cast<unsigned long long>(lost));
        answer(waiting);
    }
}

std::vector<Event> EventLog::after(uint64_t id) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Event> found;
    for (const Event &event : events_)
        if (event.id > id)
            found.push_back(event);
    return found;
}

uint64_t EventLog::lost() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return lost_;
}

void EventLog::answer(const std::vector<std::shared_ptr<HttpExchange>> &exchanges)
{
    for (const auto &exchange : exchanges) {
        uint64_t after_id = 0;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            auto it = std::find_if(pollers_.begin(), pollers_.end(),
                                   [&](const Poller &poller) { return poller.exchange == exchange; });
            if (it == pollers_.end())
                continue;
            after_id = it->after;
            pollers_.erase(it);
        }
        std::vector<Event> events = after(after_id);
        HttpResponse response;
        response.body = events_json(events, events.empty() ? after_id : events.back().id, lost());
        response.headers = {{"Cache-Control", "no-store"}};
        exchange->reply(std::move(response));
    }
}

void EventLog::poll(uint64_t after_id, const std::shared_ptr<HttpExchange> &exchange, std::chrono::milliseconds wait)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        bool any = !events_.empty() && events_.back().id > after_id;
        pollers_.push_back({after_id, exchange});
        if (!any) {
            timers_.after(wait, [this, exchange] { expire(exchange); });
            return;
        }
    }
    answer({exchange});
}

void EventLog::expire(const std::shared_ptr<HttpExchange> &exchange)
{
    answer({exchange}); // nothing came: the poll gets the empty list
}

std::string events_json(const std::vector<Event> &events, uint64_t next, uint64_t lost)
{
    nlohmann::json list = nlohmann::json::array();
    for (const Event &event : events)
        list.push_back({{"id", event.id},
                        {"time_ms", event.unix_ms},
                        {"source", event.source},
                        {"kind", event.kind},
                        {"node", event.node.empty() ? nlohmann::json(nullptr) : nlohmann::json(event.node)},
                        {"text", event.text}});
    return nlohmann::json{{"events", list}, {"next", next}, {"lost", lost}}.dump(-1, ' ', false,
                                                                                 nlohmann::json::error_handler_t::replace);
}

} // namespace zcam
