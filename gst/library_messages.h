/*
 * library_messages.h - the library's lines in GStreamer's debug log
 * (category "zelisp") instead of on standard output, where they would run
 * into the video of "fdsink fd=1" or a piped pipeline; its failure lines
 * also as warnings of the element whose call made them.
 *
 * The library's handler is process-wide and knows no element, but it runs
 * on the thread of the call that made the line: each element marks its
 * calls with a LibraryCalls scope on its own thread, and the handler finds
 * the element there. Lines of calls made outside any scope (a camera closed
 * by the thread that frees its last frame) are logged without an element;
 * they name the camera's node.
 */
#ifndef GST_ZELISP_LIBRARY_MESSAGES_H
#define GST_ZELISP_LIBRARY_MESSAGES_H

#include <gst/gst.h>

#include <string>
#include <vector>

namespace gstzelisp {

// Sends the library's lines to the debug log from now on (plugin_init).
void route_library_messages();

// While alive, the library calls of this thread are `owner`'s: their lines
// are logged on it and, with `warn`, its failure lines are also posted as
// warnings of the element (not in the frame loop, where a refused frame is
// counted instead). Scopes nest; the innermost one counts.
class LibraryCalls {
public:
    LibraryCalls(GstObject *owner, bool warn);
    ~LibraryCalls();
    LibraryCalls(const LibraryCalls &) = delete;
    LibraryCalls &operator=(const LibraryCalls &) = delete;

    // The failure and system-error lines of the calls made in this scope.
    const std::vector<std::string> &failures() const { return failures_; }
    // The innermost scope of this thread, or nullptr.
    static LibraryCalls *current();

private:
    friend struct LineRouting;
    GstObject *owner_;
    bool warn_;
    std::vector<std::string> failures_;
    LibraryCalls *outer_;
};

// The failure lines of the current scope, joined for an error's details
// ("" outside any scope).
std::string library_lines();

} // namespace gstzelisp

#endif
