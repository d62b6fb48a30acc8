/*
 * interpose.cpp - the C library entry points through which a program reaches
 * a device path or a descriptor of a simulated node. Each one hands simulated
 * paths and descriptors to the core and everything else to the C library
 * untouched.
 *
 * Built without _FORTIFY_SOURCE and _FILE_OFFSET_BITS: glibc would otherwise
 * turn these definitions into inline wrappers or rename them. Programs built
 * with fortification call the __open_2 family, and programs built against
 * older glibc the __xstat family, so both are here too.
 */
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "core.h"
#include "real_libc.h"

using namespace zsim::detail;
namespace real = zsim::real;

namespace {

// The mode argument exists only with O_CREAT or O_TMPFILE; O_TMPFILE
// includes O_DIRECTORY's bit, so it is tested whole.
mode_t mode_argument(int flags, va_list args)
{
    if ((flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE)
        return mode_t(va_arg(args, int));
    return 0;
}

// No exception may leave an interposed call: the program is C, or C++ that
// expects errno. A failure inside the simulator (memory) answers ENOMEM.
template <typename Result, typename Call>
Result guarded(Result failure, Call call) noexcept
{
    try {
        return call();
    } catch (...) {
        errno = ENOMEM;
        return failure;
    }
}

int open_path(int dirfd, const char *path, int flags, mode_t mode)
{
    if (!inside_core() && path && node_of_path(path) >= 0)
        return guarded(-1, [&] { return sim_open(dirfd, path, flags, mode); });
    return real::openat(dirfd, path, flags, mode);
}

// stat and lstat alike: a simulated node is never a symbolic link.
int stat_path(int dirfd, const char *path, struct stat *st, int flags)
{
    if (!inside_core() && path && st) {
        if (path[0] == '\0' && (flags & AT_EMPTY_PATH) && guarded(false, [&] { return sim_fstat(dirfd, st); }))
            return 0;
        int err = 0;
        if (node_of_path(path) >= 0 && guarded(false, [&] { return sim_stat(path, st, &err); })) {
            if (err) {
                errno = err;
                return -1;
            }
            return 0;
        }
    }
    return real::fstatat(dirfd, path, st, flags);
}

int stat_descriptor(int fd, struct stat *st)
{
    if (!inside_core() && guarded(false, [&] { return sim_fstat(fd, st); }))
        return 0;
    return real::fstatat(fd, "", st, AT_EMPTY_PATH);
}

void fill_statx(const struct stat &st, struct statx *out)
{
    std::memset(out, 0, sizeof *out);
    out->stx_mask = STATX_BASIC_STATS;
    out->stx_blksize = uint32_t(st.st_blksize);
    out->stx_nlink = uint32_t(st.st_nlink);
    out->stx_uid = st.st_uid;
    out->stx_gid = st.st_gid;
    out->stx_mode = uint16_t(st.st_mode);
    out->stx_ino = st.st_ino;
    out->stx_size = uint64_t(st.st_size);
    out->stx_blocks = uint64_t(st.st_blocks);
    out->stx_atime.tv_sec = st.st_atim.tv_sec;
    out->stx_btime.tv_sec = st.st_ctim.tv_sec;
    out->stx_ctime.tv_sec = st.st_ctim.tv_sec;
    out->stx_mtime.tv_sec = st.st_mtim.tv_sec;
    out->stx_rdev_major = major(st.st_rdev);
    out->stx_rdev_minor = minor(st.st_rdev);
    out->stx_dev_major = major(st.st_dev);
    out->stx_dev_minor = minor(st.st_dev);
}

int dup_descriptor(int oldfd, int newfd, int flags, int how)
{
    if (!inside_core())
        return guarded(-1, [&] { return sim_dup(oldfd, newfd, flags, how); });
    if (how == kDupAny)
        return real::dup(oldfd);
    return real::dup3(oldfd, newfd, flags);
}

int fcntl_descriptor(int fd, int cmd, unsigned long arg)
{
    bool handled = false;
    if (!inside_core()) {
        int result = guarded(-1, [&] { return sim_fcntl(fd, cmd, arg, &handled); });
        if (handled)
            return result;
    }
    return real::fcntl(fd, cmd, arg);
}

void *map_descriptor(void *addr, size_t length, int prot, int flags, int fd, off_t offset)
{
    if (fd >= 0 && !(flags & MAP_ANONYMOUS) && !inside_core()) {
        bool handled = false;
        void *result = guarded(MAP_FAILED, [&] { return sim_mmap(addr, length, prot, flags, fd, offset, &handled); });
        if (handled)
            return result;
    }
    return real::mmap(addr, length, prot, flags, fd, offset);
}

// The answer for an extended attribute of a node: none (ENODATA), or
// ENOENT for a node that does not exist.
ssize_t no_attribute(const char *path)
{
    struct stat st;
    int err = 0;
    guarded(false, [&] { return sim_stat(path, &st, &err); });
    errno = err ? err : ENODATA;
    return -1;
}

// What the driver adds to a simulated descriptor's readiness: POLLPRI for
// a waiting control event (the descriptor itself, an eventfd, can only
// signal frames), and POLLERR | POLLHUP (| POLLPRI) for an unplugged
// camera, as the kernel's V4L2 core answers for an unregistered device.
short driver_readiness(int fd, short events)
{
    if (inside_core() || !maybe_simulated(fd))
        return 0;
    short extra = 0;
    if (any_camera_disconnected() && guarded(false, [&] { return descriptor_disconnected(fd); }))
        extra = short(POLLERR | POLLHUP | (events & POLLPRI));
    else if ((events & POLLPRI) && guarded(false, [&] { return events_pending(fd); }))
        extra = POLLPRI;
    return extra;
}

// A wait that the driver answers at once: the readiness the C library
// finds without waiting, and the driver's added to it. Most waits have
// nothing to add and go to the C library as they are.
template <typename RealPoll>
int poll_with_driver(struct pollfd *fds, nfds_t count, RealPoll real_poll)
{
    bool any = false;
    for (nfds_t i = 0; fds && i < count && !any; ++i)
        any = driver_readiness(fds[i].fd, fds[i].events) != 0;
    if (!any)
        return real_poll(false);
    int ready = real_poll(true);
    if (ready < 0)
        return ready;
    for (nfds_t i = 0; i < count; ++i) {
        const short extra = driver_readiness(fds[i].fd, fds[i].events);
        if (!extra)
            continue;
        if (!fds[i].revents)
            ++ready;
        fds[i].revents = short(fds[i].revents | extra);
    }
    return ready;
}

} // namespace

extern "C" {

int open(const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    mode_t mode = mode_argument(flags, args);
    va_end(args);
    return open_path(AT_FDCWD, path, flags, mode);
}

int open64(const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    mode_t mode = mode_argument(flags, args);
    va_end(args);
    return open_path(AT_FDCWD, path, flags, mode);
}

int openat(int dirfd, const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    mode_t mode = mode_argument(flags, args);
    va_end(args);
    return open_path(dirfd, path, flags, mode);
}

int openat64(int dirfd, const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    mode_t mode = mode_argument(flags, args);
    va_end(args);
    return open_path(dirfd, path, flags, mode);
}

// The checked entry points of fortified programs: the same call without a
// mode (the compiler already proved none is needed).
int __open_2(const char *path, int flags) { return open_path(AT_FDCWD, path, flags, 0); }
int __open64_2(const char *path, int flags) { return open_path(AT_FDCWD, path, flags, 0); }
int __openat_2(int dirfd, const char *path, int flags) { return open_path(dirfd, path, flags, 0); }
int __openat64_2(int dirfd, const char *path, int flags)
{
    return open_path(dirfd, path, flags, 0);
}

int close(int fd)
{
    if (!inside_core()) {
        int result = guarded(-1, [&] { return sim_close(fd); });
        if (result != 1)
            return result;
    }
    return real::close(fd);
}

int stat(const char *path, struct stat *st) noexcept { return stat_path(AT_FDCWD, path, st, 0); }
int stat64(const char *path, struct stat64 *st) noexcept
{
    return stat_path(AT_FDCWD, path, reinterpret_cast<struct stat *>(st), 0);
}
int lstat(const char *path, struct stat *st) noexcept
{
    return stat_path(AT_FDCWD, path, st, AT_SYMLINK_NOFOLLOW);
}
int lstat64(const char *path, struct stat64 *st) noexcept
{
    return stat_path(AT_FDCWD, path, reinterpret_cast<struct stat *>(st), AT_SYMLINK_NOFOLLOW);
}
int fstat(int fd, struct stat *st) noexcept { return stat_descriptor(fd, st); }
int fstat64(int fd, struct stat64 *st) noexcept
{
    return stat_descriptor(fd, reinterpret_cast<struct stat *>(st));
}
int fstatat(int dirfd, const char *path, struct stat *st, int flags) noexcept
{
    return stat_path(dirfd, path, st, flags);
}
int fstatat64(int dirfd, const char *path, struct stat64 *st, int flags) noexcept
{
    return stat_path(dirfd, path, reinterpret_cast<struct stat *>(st), flags);
}

int statx(int dirfd, const char *given_path, int flags, unsigned int mask, struct statx *given_out) noexcept
{
    const char *path = real::unchecked(given_path);
    struct statx *out = real::unchecked(given_out);
    // A null path is the kernel's to refuse (EFAULT), or with AT_EMPTY_PATH
    // (Linux 6.11 and later) names dirfd itself.
    if (!inside_core() && out && (path || (flags & AT_EMPTY_PATH))) {
        struct stat st;
        int err = 0;
        bool simulated = false;
        if ((!path || path[0] == '\0') && (flags & AT_EMPTY_PATH))
            simulated = guarded(false, [&] { return sim_fstat(dirfd, &st); });
        else if (node_of_path(path) >= 0)
            simulated = guarded(false, [&] { return sim_stat(path, &st, &err); });
        if (simulated) {
            if (err) {
                errno = err;
                return -1;
            }
            fill_statx(st, out);
            return 0;
        }
    }
    return real::statx(dirfd, given_path, flags, mask, given_out);
}

// glibc before 2.33 compiled stat() into calls of these, with a structure
// version that on 64-bit Linux always names today's struct stat.
int __xstat(int, const char *path, struct stat *st) { return stat(path, st); }
int __xstat64(int, const char *path, struct stat64 *st) { return stat64(path, st); }
int __lxstat(int, const char *path, struct stat *st) { return lstat(path, st); }
int __lxstat64(int, const char *path, struct stat64 *st) { return lstat64(path, st); }
int __fxstat(int, int fd, struct stat *st) { return fstat(fd, st); }
int __fxstat64(int, int fd, struct stat64 *st) { return fstat64(fd, st); }
int __fxstatat(int, int dirfd, const char *path, struct stat *st, int flags)
{
    return fstatat(dirfd, path, st, flags);
}
int __fxstatat64(int, int dirfd, const char *path, struct stat64 *st, int flags)
{
    return fstatat64(dirfd, path, st, flags);
}

int dup(int fd) noexcept { return dup_descriptor(fd, -1, 0, kDupAny); }
int dup2(int oldfd, int newfd) noexcept { return dup_descriptor(oldfd, newfd, 0, kDupOnto); }
int dup3(int oldfd, int newfd, int flags) noexcept { return dup_descriptor(oldfd, newfd, flags, kDupOnto); }

int fcntl(int fd, int cmd, ...)
{
    va_list args;
    va_start(args, cmd);
    // Every fcntl argument is an int or a pointer; both travel in one
    // register-sized slot.
    unsigned long arg = va_arg(args, unsigned long);
    va_end(args);
    return fcntl_descriptor(fd, cmd, arg);
}

int fcntl64(int fd, int cmd, ...)
{
    va_list args;
    va_start(args, cmd);
    unsigned long arg = va_arg(args, unsigned long);
    va_end(args);
    return fcntl_descriptor(fd, cmd, arg);
}

int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list args;
    va_start(args, request);
    void *arg = va_arg(args, void *);
    va_end(args);
    // Request numbers are 32 bits; a program that passed an int has them
    // sign-extended (VIDIOC_QUERYCAP has the top bit set).
    uint32_t number = uint32_t(request);
    if (!inside_core()) {
        bool handled = false;
        int result = guarded(-1, [&] { return dispatch_ioctl(fd, number, arg, &handled); });
        if (handled)
            return result;
    }
    return real::ioctl(fd, request, arg);
}

void *mmap(void *addr, size_t length, int prot, int flags, int fd, off_t offset) noexcept
{
    return map_descriptor(addr, length, prot, flags, fd, offset);
}

void *mmap64(void *addr, size_t length, int prot, int flags, int fd, off64_t offset) noexcept
{
    return map_descriptor(addr, length, prot, flags, fd, offset);
}

int munmap(void *addr, size_t length) noexcept
{
    if (!inside_core()) {
        bool handled = false;
        int result = guarded(-1, [&] { return sim_munmap(addr, length, &handled); });
        if (handled)
            return result;
    }
    return real::munmap(addr, length);
}

// ls and other file tools read a file's access-control list and security
// label; a device node has neither.
ssize_t getxattr(const char *path, const char *name, void *value, size_t size) noexcept
{
    if (!inside_core() && node_of_path(path) >= 0)
        return no_attribute(path);
    return real::getxattr(path, name, value, size, false);
}

ssize_t lgetxattr(const char *path, const char *name, void *value, size_t size) noexcept
{
    if (!inside_core() && node_of_path(path) >= 0)
        return no_attribute(path);
    return real::getxattr(path, name, value, size, true);
}

ssize_t listxattr(const char *path, char *list, size_t size) noexcept
{
    if (!inside_core() && node_of_path(path) >= 0)
        return no_attribute(path) < 0 && errno == ENOENT ? -1 : 0;
    return real::listxattr(path, list, size, false);
}

ssize_t llistxattr(const char *path, char *list, size_t size) noexcept
{
    if (!inside_core() && node_of_path(path) >= 0)
        return no_attribute(path) < 0 && errno == ENOENT ? -1 : 0;
    return real::listxattr(path, list, size, true);
}

// select sees an error as readable (and writable), a control event as an
// exceptional condition.
int select(int nfds, fd_set *read, fd_set *write, fd_set *except, struct timeval *timeout)
{
    if (!inside_core() && nfds > 0) {
        fd_set readable, writable, exceptional;
        FD_ZERO(&readable);
        FD_ZERO(&writable);
        FD_ZERO(&exceptional);
        bool any = false;
        for (int fd = 0; fd < nfds && fd < FD_SETSIZE; ++fd) {
            const bool in_read = read && FD_ISSET(fd, read), in_write = write && FD_ISSET(fd, write);
            const bool in_except = except && FD_ISSET(fd, except);
            if (!in_read && !in_write && !in_except)
                continue;
            const short extra = driver_readiness(fd, in_except ? POLLPRI : 0);
            if (extra & POLLERR) {
                if (in_read)
                    FD_SET(fd, &readable);
                if (in_write)
                    FD_SET(fd, &writable);
            }
            if (extra & POLLPRI)
                FD_SET(fd, &exceptional);
            any |= extra != 0;
        }
        if (any) {
            timeval now = {0, 0};
            int ready = real::select(nfds, read, write, except, &now);
            if (ready < 0)
                return ready;
            for (int fd = 0; fd < nfds && fd < FD_SETSIZE; ++fd)
                for (auto [added, set] : {std::pair{&readable, read}, {&writable, write}, {&exceptional, except}})
                    if (FD_ISSET(fd, added) && !FD_ISSET(fd, set)) {
                        FD_SET(fd, set);
                        ++ready;
                    }
            return ready;
        }
    }
    return real::select(nfds, read, write, except, timeout);
}

int poll(struct pollfd *fds, nfds_t count, int timeout_ms)
{
    return poll_with_driver(fds, count,
                            [&](bool answered) { return real::poll(fds, count, answered ? 0 : timeout_ms); });
}

int ppoll(struct pollfd *fds, nfds_t count, const struct timespec *timeout, const sigset_t *mask)
{
    static const timespec kNow = {0, 0};
    return poll_with_driver(fds, count,
                            [&](bool answered) { return real::ppoll(fds, count, answered ? &kNow : timeout, mask); });
}

// The nodes have no read or write I/O.
ssize_t read(int fd, void *buffer, size_t count)
{
    if (!inside_core() && maybe_simulated(fd))
        if (int err = guarded(0, [&] { return sim_read_write(fd); })) {
            errno = err;
            return -1;
        }
    return real::read(fd, buffer, count);
}

ssize_t write(int fd, const void *buffer, size_t count)
{
    if (!inside_core() && maybe_simulated(fd))
        if (int err = guarded(0, [&] { return sim_read_write(fd); })) {
            errno = err;
            return -1;
        }
    return real::write(fd, buffer, count);
}

// Fortified programs read through this check of the buffer's size.
ssize_t __read_chk(int fd, void *buffer, size_t count, size_t buffer_length)
{
    if (count > buffer_length)
        abort(); // what the C library's own check does: a buffer overflow
    return read(fd, buffer, count);
}

// Fortified programs call poll through this check of the array's size.
int __poll_chk(struct pollfd *fds, nfds_t count, int timeout_ms, size_t fds_length)
{
    if (fds_length / sizeof *fds < count)
        abort(); // what the C library's own check does: a buffer overflow
    return poll(fds, count, timeout_ms);
}

FILE *fopen(const char *path, const char *mode)
{
    if (!inside_core()) {
        bool handled = false;
        FILE *file = guarded<FILE *>(nullptr, [&] { return sim_fopen(path, mode, &handled); });
        if (handled)
            return file;
    }
    return real::fopen(path, mode);
}

FILE *fopen64(const char *path, const char *mode) { return fopen(path, mode); }

} // extern "C"
