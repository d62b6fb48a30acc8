/*
 * event_log.h - what the page's event panel shows: the library's own lines
 * (received through its message handler) and the console's events (a
 * camera stopped, a view format changed, a client refused). The library
 * calls the handler on the capture thread, inside its calls, so the handler
 * only puts the line into a ring that never waits (line_ring.h); the log's
 * own thread moves the lines into the log, prints them on standard error as
 * the library would have printed them, and answers the page's long polls.
 */
#ifndef ZELISP_CAM_CONSOLE_EVENT_LOG_H
#define ZELISP_CAM_CONSOLE_EVENT_LOG_H

#include <semaphore.h>

#include <chrono>
#include <cstdint>
#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "http_exchange.h"
#include "library_lines.h"
#include "line_ring.h"
#include "zelisp.h"

namespace zcam {

class Timers;

struct Event {
    uint64_t id = 0;
    int64_t unix_ms = 0;
    std::string source; // "library" or "console"
    std::string kind;   // library: progress, failure, system-error; console: info, warning
    std::string node;   // the camera's node, when the line is about one camera
    std::string text;
};

class EventLog {
public:
    explicit EventLog(Timers &timers);
    ~EventLog();
    EventLog(const EventLog &) = delete;
    EventLog &operator=(const EventLog &) = delete;

    // Routes the library's lines here (until stop()).
    void start();
    // Gives the library its console back and ends the log's thread.
    void stop();

    // The console's own events: any thread.
    void note(const std::string &kind, const std::string &text, const std::string &node = "");
    // A library line a watch held back, logged after all (any thread).
    void library_line(const LibraryLine &line);
    // Events after `after` for `exchange`: at once when there are any, else
    // when the next comes, or an empty list after `wait`.
    void poll(uint64_t after, const std::shared_ptr<HttpExchange> &exchange, std::chrono::milliseconds wait);
    std::vector<Event> after(uint64_t id) const;
    // Library lines that found the ring full.
    uint64_t lost() const;

    static constexpr size_t kKept = 500; // the newest events are kept, the older forgotten

private:
    static void on_library_message(const zelvideo::_isp_message_t *message, void *log);
    void run();
    void add_locked(Event event);
    void answer(const std::vector<std::shared_ptr<HttpExchange>> &pollers);
    void expire(const std::shared_ptr<HttpExchange> &exchange);

    Timers &timers_;
    LineRing ring_;
    mutable std::mutex mutex_;
    sem_t arrived_; // posted by the handler: a futex wake, it never waits
    std::deque<Event> events_;
    uint64_t next_id_ = 1;
    uint64_t lost_ = 0;
    struct Poller {
        uint64_t after;
        std::shared_ptr<HttpExchange> exchange;
    };
    std::vector<Poller> pollers_;
    std::atomic<bool> stopping_{false};
    bool handler_set_ = false;
    std::thread thread_;
};

// The events as the page and scripts read them: {"events": [...], "next": ID, "lost": N}.
std::string events_json(const std::vector<Event> &events, uint64_t next, uint64_t lost);

} // namespace zcam

#endif
