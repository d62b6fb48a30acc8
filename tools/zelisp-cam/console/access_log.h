/*
 * access_log.h - one line per answered request, in the combined log format
 * web servers use (so log tools read it), with the time the answer took at
 * the end. A token never reaches the log: the value of a token argument is
 * written as "*", and no header but the referrer (so treated too) and the
 * user agent is written. Control characters and quotes are escaped, so a
 * request cannot forge lines. Lines are written by a thread of their own:
 * a slow disk or a full pipe never holds up the server; when more than a
 * thousand lines wait, the newest are counted as lost instead.
 */
#ifndef ZELISP_CAM_CONSOLE_ACCESS_LOG_H
#define ZELISP_CAM_CONSOLE_ACCESS_LOG_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "http_exchange.h"

namespace zcam {

class AccessLog {
public:
    AccessLog() = default;
    ~AccessLog();
    AccessLog(const AccessLog &) = delete;
    AccessLog &operator=(const AccessLog &) = delete;

    // Opens FILE for appending, or "-" for standard output. "" or why not.
    std::string open(const std::string &path);
    void record(const HttpRequest &request, int status, uint64_t bytes, std::chrono::steady_clock::duration took);
    // Writes what waits and closes the file.
    void close();

    // The line for one request (without its line end).
    static std::string line(const HttpRequest &request, int status, uint64_t bytes, double milliseconds,
                            time_t when);

private:
    void run();

    FILE *file_ = nullptr;
    bool own_file_ = false;
    std::mutex mutex_;
    std::condition_variable waiting_;
    std::deque<std::string> lines_;
    uint64_t lost_ = 0;
    bool closing_ = false;
    std::thread writer_;
};

} // namespace zcam

#endif
