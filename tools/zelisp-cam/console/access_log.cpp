// access_log.cpp - the console's access log and its writer thread.
#include "access_log.h"

#include <cerrno>
#include <cstring>
#include <ctime>

namespace zcam {

namespace {

constexpr size_t kMaxWaitingLines = 1000;

// Quotes, backslashes and control characters as \xHH: a line per request.
std::string escaped(const std::string &text)
{
    std::string out;
    for (unsigned char c : text) {
        if (c < 0x20 || c == 0x7f || c == '"' || c == '\\') {
            char code[5];
            snprintf(code, sizeof code, "\\x%02x", c);
            out += code;
        } else {
            out += char(c);
        }
    }
    return out;
}

// The path and its arguments, a token's value replaced by "*".
std::string target(const HttpRequest &request)
{
    std::string text = request.path;
    char separator = '?';
    for (const auto &[name, value] : request.query) {
        text += separator + name + "=" + (name == "token" ? "*" : value);
        separator = '&';
    }
    return text;
}

// A referrer is a URL the browser came from, which may carry ?token=.
std::string without_token(const std::string &url)
{
    std::string out = url;
    for (size_t at = out.find("token="); at != std::string::npos; at = out.find("token=", at + 1)) {
        size_t end = out.find_first_of("&#", at);
        out.replace(at + 6, (end == std::string::npos ? out.size() : end) - at - 6, "*");
    }
    return out;
}

std::string or_dash(const std::string &text)
{
    return text.empty() ? "-" : text;
}

} // namespace

AccessLog::~AccessLog()
{
    close();
}

std::string AccessLog::open(const std::string &path)
{
    if (path == "-") {
        file_ = stdout;
    } else {
        file_ = fopen(path.c_str(), "ae");
        if (file_ == nullptr)
            return strerror(errno);
        own_file_ = true;
    }
    writer_ = std::thread([this] { run(); });
    return "";
}

std::string AccessLog::line(const HttpRequest &request, int status, uint64_t bytes, double milliseconds,
                            time_t when)
{
    char date[64];
    struct tm utc;
    gmtime_r(&when, &utc);
    strftime(date, sizeof date, "%d/%b/%Y:%H:%M:%S +0000", &utc);
    char took[32];
    snprintf(took, sizeof took, "%.1fms", milliseconds);
    return request.peer + " - - [" + date + "] \"" + escaped(request.method + " " + target(request) + " " +
                                                           request.version) +
           "\" " + std::to_string(status) + " " + std::to_string(bytes) + " \"" +
           escaped(or_dash(without_token(request.header("Referer")))) + "\" \"" +
           escaped(or_dash(request.header("User-Agent"))) + "\" " + took;
}

void AccessLog::record(const HttpRequest &request, int status, uint64_t bytes,
                       std::chrono::steady_clock::duration took)
{
    if (file_ == nullptr)
        return;
    std::string text =
        line(request, status, bytes, std::chrono::duration<double, std::milli>(took).count(), time(nullptr));
    std::lock_guard<std::mutex> lock(mutex_);
    if (lines_.size() >= kMaxWaitingLines) {
        ++lost_;
        return;
    }
    lines_.push_back(std::move(text));
    waiting_.notify_one();
}

void AccessLog::close()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closing_ = true;
    }
    waiting_.notify_one();
    if (writer_.joinable())
        writer_.join();
    if (own_file_)
        fclose(file_);
    else if (file_ != nullptr)
        fflush(file_);
    file_ = nullptr;
    own_file_ = false;
}

void AccessLog::run()
{
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        waiting_.wait(lock, [this] { return closing_ || !lines_.empty(); });
        if (lines_.empty())
            return; // closing, and everything written
        std::deque<std::string> batch;
        batch.swap(lines_);
        uint64_t lost = lost_;
        lost_ = 0;
        lock.unlock();
        if (lost > 0)
            fprintf(file_, "# %llu lines lost: the log could not be written fast enough\n",
                    static_cast<unsigned long long>(lost));
        for (const std::string &text : batch)
            fprintf(file_, "%s\n", text.c_str());
        fflush(file_);
        lock.lock();
    }
}

} // namespace zcam
