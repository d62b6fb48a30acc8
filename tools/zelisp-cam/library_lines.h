/*
 * library_lines.h - where the library's own lines go in zelisp-cam.
 *
 * The library would print its progress and failure lines on standard
 * output, in the middle of a table, a JSON document or raw image data. The
 * tool takes them through the library's message handler and writes them on
 * standard error instead, each prefixed with the camera it is about
 * ("camera 0: /dev/video0 set view format failed"), so that standard output
 * carries only what the tool means to print.
 *
 * Some outcomes the library tells only in a line: a refused trigger mode
 * (every trigger call answers 0), a failed close (isp_close_video answers
 * 0), which member stopped a group's put, why a frame was refused. A
 * LineWatch collects the lines of the calls its thread makes while it
 * lives, so that the command can act on them.
 */
#ifndef ZELISP_CAM_LIBRARY_LINES_H
#define ZELISP_CAM_LIBRARY_LINES_H

#include <string>
#include <vector>

#include "zelisp.h"

namespace zcam {

// One line of the library, copied out of the handler call.
struct LibraryLine {
    int kind = 0;         // IspMessageKind
    int error_number = 0; // errno of a system-error line
    std::string text;     // as the tool shows it (see show_library_line)
    std::string dev_path; // the camera's node, "" for platform and group lines
};

// Installs the message handler: from here on the library prints nothing
// itself. Called once, first thing in main.
void route_library_lines();

// A line of the library as the tool shows it. Several of the library's
// perror labels end in a line break of their own, which its console shows
// as a line holding ": <reason>": the tool shows the label, ": " and the
// reason on one line.
LibraryLine library_line(int kind, int error_number, const char *text, const char *dev_path);

// For a handler of the tool's own (the web console's): the watch of the
// calling thread, if it has one, keeps the line without showing it. True
// when that watch holds the line back (Echo::Keep): its caller shows what
// it wants of it, and the handler shows nothing.
bool keep_in_watch(const zelvideo::_isp_message_t &message);

// "camera N: <text>" on standard error ("<text>" for a line about no
// camera).
void show_library_line(const LibraryLine &line);

// The camera a node belongs to: /dev/video<N> in mode 1, /dev/video<N+12>
// in mode 2; -1 for any other path.
int camera_of_node(const std::string &dev_path);

class LineWatch {
public:
    enum class Echo {
        Show, // each line is shown on standard error as it comes (the usual case)
        Keep, // the lines are only collected: the caller decides what to show
    };
    explicit LineWatch(Echo echo = Echo::Show);
    ~LineWatch();
    LineWatch(const LineWatch &) = delete;
    LineWatch &operator=(const LineWatch &) = delete;

    const std::vector<LibraryLine> &lines() const { return lines_; }
    // A failure or system-error line was seen.
    bool failed() const;
    // The errno of the last system-error line, 0 when there was none.
    int system_error() const;
    // The first line about a camera node, or nullptr.
    const LibraryLine *first_about_camera() const;
    // Lines collected so far are forgotten (the watch goes on).
    void clear() { lines_.clear(); }
    // Its caller decides which of its lines are shown.
    bool holds_back() const { return echo_ == Echo::Keep; }

    // Called by the handler on the watching thread. Watches nest: the
    // innermost one shows the line (or not), every one keeps it.
    void add(LibraryLine line);
    // Every watch keeps the line, none shows it.
    void keep(LibraryLine line);

private:
    Echo echo_;
    LineWatch *outer_;
    std::vector<LibraryLine> lines_;
};

} // namespace zcam

#endif
