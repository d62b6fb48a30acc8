/*
 * misc_session.h - a descriptor of /dev/isp_misc held for the length of one
 * call. Discovery, bus ownership and the single-camera trigger requests each
 * open the node, send one request and close it again, so that nothing is
 * cached and concurrent callers never share a descriptor.
 */
#ifndef ZELISP_PLATFORM_MISC_SESSION_H
#define ZELISP_PLATFORM_MISC_SESSION_H

#include <fcntl.h>
#include <unistd.h>

#include "platform/misc_node.h"

namespace zelisp {

class MiscSession {
public:
    // Opens the node read-write. When it fails, opened() is false and errno
    // still tells why, for the caller's perror line.
    MiscSession() : fd_(open(kMiscNodePath, O_RDWR)) {}
    ~MiscSession()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    MiscSession(const MiscSession &) = delete;
    MiscSession &operator=(const MiscSession &) = delete;

    bool opened() const { return fd_ >= 0; }
    int fd() const { return fd_; }

private:
    int fd_;
};

} // namespace zelisp

#endif
