// library_lines.cpp - the library's lines on standard error, and the
// watches that collect them for the command that made the call.
#include "library_lines.h"

#include <unistd.h>

#include <cstdio>

#include "zelisp.h"

namespace zcam {
namespace {

// The watch of this thread's current command step. The handler runs on the
// thread whose library call made the line (the web console's capture
// thread included), so each thread sees only its own calls' lines.
thread_local LineWatch *current_watch = nullptr;

constexpr int kModeTwoNodeOffset = 12;

// The text without its inner line breaks and the blanks before them.
std::string one_line(const char *text)
{
    std::string line;
    for (const char *c = text != nullptr ? text : ""; *c != '\0'; ++c) {
        if (*c != '\n') {
            line += *c;
            continue;
        }
        while (!line.empty() && line.back() == ' ')
            line.pop_back();
    }
    return line;
}

LibraryLine copy_line(const zelvideo::_isp_message_t &message)
{
    return library_line(message.kind, message.error_number, message.text, message.dev_path);
}

void on_library_line(const zelvideo::_isp_message_t *message, void *)
{
    LibraryLine line = copy_line(*message);
    if (current_watch != nullptr)
        current_watch->add(std::move(line));
    else
        show_library_line(line);
}

} // namespace

LibraryLine library_line(int kind, int error_number, const char *text, const char *dev_path)
{
    LibraryLine line;
    line.kind = kind;
    line.error_number = error_number;
    line.text = one_line(text);
    line.dev_path = dev_path != nullptr ? dev_path : "";
    return line;
}

bool keep_in_watch(const zelvideo::_isp_message_t &message)
{
    if (current_watch == nullptr)
        return false;
    current_watch->keep(copy_line(message));
    return current_watch->holds_back();
}

void route_library_lines()
{
    isp_set_message_handler(on_library_line, nullptr);
}

int camera_of_node(const std::string &dev_path)
{
    const std::string prefix = "/dev/video";
    if (dev_path.compare(0, prefix.size(), prefix) != 0 || dev_path.size() == prefix.size())
        return -1;
    int node = 0;
    for (size_t i = prefix.size(); i < dev_path.size(); ++i) {
        if (dev_path[i] < '0' || dev_path[i] > '9' || node > 100)
            return -1;
        node = node * 10 + (dev_path[i] - '0');
    }
    if (node >= 2 * kModeTwoNodeOffset)
        return -1;
    return node % kModeTwoNodeOffset;
}

void show_library_line(const LibraryLine &line)
{
    // Our own lines go to standard output in order with these: what was
    // printed before the call comes before the call's lines.
    fflush(stdout);
    // On a terminal the capture's progress line may be standing on the
    // last line: this one replaces it, and the progress line is drawn again
    // below at its next update.
    const char *erase = isatty(STDERR_FILENO) == 1 ? "\r\033[K" : "";
    int camera = camera_of_node(line.dev_path);
    if (camera >= 0)
        fprintf(stderr, "%scamera %d: %s\n", erase, camera, line.text.c_str());
    else
        fprintf(stderr, "%s%s\n", erase, line.text.c_str());
}

LineWatch::LineWatch(Echo echo) : echo_(echo), outer_(current_watch)
{
    current_watch = this;
}

LineWatch::~LineWatch()
{
    current_watch = outer_;
}

void LineWatch::add(LibraryLine line)
{
    if (echo_ == Echo::Show)
        show_library_line(line);
    keep(std::move(line));
}

void LineWatch::keep(LibraryLine line)
{
    // A watch around a longer step sees the lines of the calls inside it too.
    for (LineWatch *outer = outer_; outer != nullptr; outer = outer->outer_)
        outer->lines_.push_back(line);
    lines_.push_back(std::move(line));
}

bool LineWatch::failed() const
{
    for (const LibraryLine &line : lines_)
        if (line.kind != ISP_MESSAGE_PROGRESS)
            return true;
    return false;
}

int LineWatch::system_error() const
{
    for (auto line = lines_.rbegin(); line != lines_.rend(); ++line)
        if (line->kind == ISP_MESSAGE_SYSTEM_ERROR)
            return line->error_number;
    return 0;
}

const LibraryLine *LineWatch::first_about_camera() const
{
    for (const LibraryLine &line : lines_)
        if (!line.dev_path.empty())
            return &line;
    return nullptr;
}

} // namespace zcam
