/*
 * real_libc.cpp - finds the C library's entry points behind the interposed
 * ones, once, with a per-thread guard against re-entry during the lookup.
 */
#include "real_libc.h"

#include <atomic>
#include <cerrno>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace zsim::real {
namespace {

__attribute__((tls_model("initial-exec"))) thread_local bool resolving = false;

// The real symbol, or nullptr while this thread is inside dlsym (the caller
// then issues the system call itself).
void *lookup(std::atomic<void *> &slot, const char *name)
{
    void *found = slot.load(std::memory_order_acquire);
    if (found || resolving)
        return found;
    resolving = true;
    found = dlsym(RTLD_NEXT, name);
    resolving = false;
    slot.store(found, std::memory_order_release);
    return found;
}

#define REAL(name, type)                                                                           \
    static std::atomic<void *> slot_##name{nullptr};                                               \
    auto name##_fn = reinterpret_cast<type>(lookup(slot_##name, #name))

} // namespace

int openat(int dirfd, const char *path, int flags, mode_t mode)
{
    REAL(openat, int (*)(int, const char *, int, ...));
    if (openat_fn)
        return openat_fn(dirfd, path, flags, mode);
    return int(::syscall(SYS_openat, dirfd, path, flags, mode));
}

int close(int fd)
{
    REAL(close, int (*)(int));
    if (close_fn)
        return close_fn(fd);
    return int(::syscall(SYS_close, fd));
}

int fstatat(int dirfd, const char *path, struct stat *st, int flags)
{
    REAL(fstatat, int (*)(int, const char *, struct stat *, int));
    if (fstatat_fn)
        return fstatat_fn(dirfd, path, st, flags);
    return int(::syscall(SYS_newfstatat, dirfd, path, st, flags));
}

int statx(int dirfd, const char *path, int flags, unsigned mask, struct statx *st)
{
    REAL(statx, int (*)(int, const char *, int, unsigned, struct statx *));
    if (statx_fn)
        return statx_fn(dirfd, path, flags, mask, st);
    return int(::syscall(SYS_statx, dirfd, path, flags, mask, st));
}

int dup(int fd)
{
    REAL(dup, int (*)(int));
    if (dup_fn)
        return dup_fn(fd);
    return int(::syscall(SYS_dup, fd));
}

int dup3(int oldfd, int newfd, int flags)
{
    if (flags == 0) {
        REAL(dup2, int (*)(int, int));
        if (dup2_fn)
            return dup2_fn(oldfd, newfd);
        if (oldfd == newfd)
            return int(::syscall(SYS_fcntl, oldfd, F_GETFD)) < 0 ? -1 : newfd;
        return int(::syscall(SYS_dup3, oldfd, newfd, 0));
    }
    REAL(dup3, int (*)(int, int, int));
    if (dup3_fn)
        return dup3_fn(oldfd, newfd, flags);
    return int(::syscall(SYS_dup3, oldfd, newfd, flags));
}

int fcntl(int fd, int cmd, unsigned long arg)
{
    REAL(fcntl, int (*)(int, int, ...));
    if (fcntl_fn)
        return fcntl_fn(fd, cmd, arg);
    return int(::syscall(SYS_fcntl, fd, cmd, arg));
}

int ioctl(int fd, unsigned long request, void *arg)
{
    REAL(ioctl, int (*)(int, unsigned long, ...));
    if (ioctl_fn)
        return ioctl_fn(fd, request, arg);
    return int(::syscall(SYS_ioctl, fd, request, arg));
}

void *mmap(void *addr, size_t length, int prot, int flags, int fd, off_t offset)
{
    REAL(mmap, void *(*)(void *, size_t, int, int, int, off_t));
    if (mmap_fn)
        return mmap_fn(addr, length, prot, flags, fd, offset);
    return reinterpret_cast<void *>(::syscall(SYS_mmap, addr, length, prot, flags, fd, offset));
}

int munmap(void *addr, size_t length)
{
    REAL(munmap, int (*)(void *, size_t));
    if (munmap_fn)
        return munmap_fn(addr, length);
    return int(::syscall(SYS_munmap, addr, length));
}

FILE *fopen(const char *path, const char *mode)
{
    REAL(fopen, FILE *(*)(const char *, const char *));
    if (fopen_fn)
        return fopen_fn(path, mode);
    errno = EAGAIN; // a stream cannot be built from a bare system call
    return nullptr;
}

ssize_t getxattr(const char *path, const char *name, void *value, size_t size, bool nofollow)
{
    if (nofollow) {
        REAL(lgetxattr, ssize_t (*)(const char *, const char *, void *, size_t));
        if (lgetxattr_fn)
            return lgetxattr_fn(path, name, value, size);
        return ssize_t(::syscall(SYS_lgetxattr, path, name, value, size));
    }
    REAL(getxattr, ssize_t (*)(const char *, const char *, void *, size_t));
    if (getxattr_fn)
        return getxattr_fn(path, name, value, size);
    return ssize_t(::syscall(SYS_getxattr, path, name, value, size));
}

ssize_t listxattr(const char *path, char *list, size_t size, bool nofollow)
{
    if (nofollow) {
        REAL(llistxattr, ssize_t (*)(const char *, char *, size_t));
        if (llistxattr_fn)
            return llistxattr_fn(path, list, size);
        return ssize_t(::syscall(SYS_llistxattr, path, list, size));
    }
    REAL(listxattr, ssize_t (*)(const char *, char *, size_t));
    if (listxattr_fn)
        return listxattr_fn(path, list, size);
    return ssize_t(::syscall(SYS_listxattr, path, list, size));
}

int select(int nfds, fd_set *read, fd_set *write, fd_set *except, struct timeval *timeout)
{
    REAL(select, int (*)(int, fd_set *, fd_set *, fd_set *, struct timeval *));
    if (select_fn)
        return select_fn(nfds, read, write, except, timeout);
#ifdef SYS_select
    return int(::syscall(SYS_select, nfds, read, write, except, timeout));
#else
    // Arm64 has no select system call, only pselect6: it takes the limit as a
    // timespec (normalised here, as select's own would be) and, like select,
    // writes back the time left.
    struct timespec limit {};
    if (timeout)
        limit = {timeout->tv_sec + timeout->tv_usec / 1000000, (timeout->tv_usec % 1000000) * 1000};
    int result = int(::syscall(SYS_pselect6, nfds, read, write, except, timeout ? &limit : nullptr, nullptr));
    if (timeout)
        *timeout = {limit.tv_sec, limit.tv_nsec / 1000};
    return result;
#endif
}

int poll(struct pollfd *fds, nfds_t count, int timeout_ms)
{
    REAL(poll, int (*)(struct pollfd *, nfds_t, int));
    if (poll_fn)
        return poll_fn(fds, count, timeout_ms);
    struct timespec limit = {timeout_ms / 1000, long(timeout_ms % 1000) * 1000000};
    return int(::syscall(SYS_ppoll, fds, count, timeout_ms < 0 ? nullptr : &limit, nullptr, 0));
}

int ppoll(struct pollfd *fds, nfds_t count, const struct timespec *timeout, const sigset_t *mask)
{
    REAL(ppoll, int (*)(struct pollfd *, nfds_t, const struct timespec *, const sigset_t *));
    if (ppoll_fn)
        return ppoll_fn(fds, count, timeout, mask);
    return int(::syscall(SYS_ppoll, fds, count, timeout, mask, _NSIG / 8));
}

ssize_t read(int fd, void *buffer, size_t count)
{
    REAL(read, ssize_t (*)(int, void *, size_t));
    if (read_fn)
        return read_fn(fd, buffer, count);
    return ssize_t(::syscall(SYS_read, fd, buffer, count));
}

ssize_t write(int fd, const void *buffer, size_t count)
{
    REAL(write, ssize_t (*)(int, const void *, size_t));
    if (write_fn)
        return write_fn(fd, buffer, count);
    return ssize_t(::syscall(SYS_write, fd, buffer, count));
}

int clock_gettime(clockid_t clock, struct timespec *now)
{
    REAL(clock_gettime, int (*)(clockid_t, struct timespec *));
    if (clock_gettime_fn)
        return clock_gettime_fn(clock, now);
    return int(::syscall(SYS_clock_gettime, clock, now));
}

int gettimeofday(struct timeval *now, void *zone)
{
    REAL(gettimeofday, int (*)(struct timeval *, void *));
    if (gettimeofday_fn)
        return gettimeofday_fn(now, zone);
    return int(::syscall(SYS_gettimeofday, now, zone));
}

int timespec_get(struct timespec *now, int base)
{
    REAL(timespec_get, int (*)(struct timespec *, int));
    if (timespec_get_fn)
        return timespec_get_fn(now, base);
    return base == TIME_UTC && real::clock_gettime(CLOCK_REALTIME, now) == 0 ? base : 0;
}

int clock_nanosleep(clockid_t clock, int flags, const struct timespec *request, struct timespec *remain)
{
    REAL(clock_nanosleep, int (*)(clockid_t, int, const struct timespec *, struct timespec *));
    if (clock_nanosleep_fn)
        return clock_nanosleep_fn(clock, flags, request, remain);
    // The C function answers with the error number, not -1 and errno.
    return ::syscall(SYS_clock_nanosleep, clock, flags, request, remain) < 0 ? errno : 0;
}

#define REAL_OR_ENOSYS(name, type, ...)                                                            \
    REAL(name, type);                                                                              \
    return name##_fn ? name##_fn(__VA_ARGS__) : ENOSYS

int pthread_cond_timedwait(pthread_cond_t *cond, pthread_mutex_t *mutex, const struct timespec *deadline)
{
    REAL_OR_ENOSYS(pthread_cond_timedwait, int (*)(pthread_cond_t *, pthread_mutex_t *, const struct timespec *),
                   cond, mutex, deadline);
}

int pthread_cond_clockwait(pthread_cond_t *cond, pthread_mutex_t *mutex, clockid_t clock,
                           const struct timespec *deadline)
{
    REAL_OR_ENOSYS(pthread_cond_clockwait,
                   int (*)(pthread_cond_t *, pthread_mutex_t *, clockid_t, const struct timespec *), cond, mutex,
                   clock, deadline);
}

int sem_timedwait(sem_t *sem, const struct timespec *deadline)
{
    REAL_OR_ENOSYS(sem_timedwait, int (*)(sem_t *, const struct timespec *), sem, deadline);
}

int sem_clockwait(sem_t *sem, clockid_t clock, const struct timespec *deadline)
{
    REAL_OR_ENOSYS(sem_clockwait, int (*)(sem_t *, clockid_t, const struct timespec *), sem, clock, deadline);
}

int pthread_mutex_timedlock(pthread_mutex_t *mutex, const struct timespec *deadline)
{
    REAL_OR_ENOSYS(pthread_mutex_timedlock, int (*)(pthread_mutex_t *, const struct timespec *), mutex, deadline);
}

int pthread_mutex_clocklock(pthread_mutex_t *mutex, clockid_t clock, const struct timespec *deadline)
{
    REAL_OR_ENOSYS(pthread_mutex_clocklock, int (*)(pthread_mutex_t *, clockid_t, const struct timespec *), mutex,
                   clock, deadline);
}

int pthread_rwlock_timedrdlock(pthread_rwlock_t *lock, const struct timespec *deadline)
{
    REAL_OR_ENOSYS(pthread_rwlock_timedrdlock, int (*)(pthread_rwlock_t *, const struct timespec *), lock,
                   deadline);
}

int pthread_rwlock_timedwrlock(pthread_rwlock_t *lock, const struct timespec *deadline)
{
    REAL_OR_ENOSYS(pthread_rwlock_timedwrlock, int (*)(pthread_rwlock_t *, const struct timespec *), lock,
                   deadline);
}

int pthread_rwlock_clockrdlock(pthread_rwlock_t *lock, clockid_t clock, const struct timespec *deadline)
{
    REAL_OR_ENOSYS(pthread_rwlock_clockrdlock, int (*)(pthread_rwlock_t *, clockid_t, const struct timespec *),
                   lock, clock, deadline);
}

int pthread_rwlock_clockwrlock(pthread_rwlock_t *lock, clockid_t clock, const struct timespec *deadline)
{
    REAL_OR_ENOSYS(pthread_rwlock_clockwrlock, int (*)(pthread_rwlock_t *, clockid_t, const struct timespec *),
                   lock, clock, deadline);
}

int pthread_timedjoin_np(pthread_t thread, void **result, const struct timespec *deadline)
{
    REAL_OR_ENOSYS(pthread_timedjoin_np, int (*)(pthread_t, void **, const struct timespec *), thread, result,
                   deadline);
}

int pthread_clockjoin_np(pthread_t thread, void **result, clockid_t clock, const struct timespec *deadline)
{
    REAL_OR_ENOSYS(pthread_clockjoin_np, int (*)(pthread_t, void **, clockid_t, const struct timespec *), thread,
                   result, clock, deadline);
}

int timerfd_settime(int fd, int flags, const struct itimerspec *value, struct itimerspec *old)
{
    REAL(timerfd_settime, int (*)(int, int, const struct itimerspec *, struct itimerspec *));
    if (timerfd_settime_fn)
        return timerfd_settime_fn(fd, flags, value, old);
    return int(::syscall(SYS_timerfd_settime, fd, flags, value, old));
}

namespace {

// A system call without the C library's syscall(), which this library
// interposes: for the moments its own lookup is under way.
long direct_syscall(long number, long a, long b, long c, long d, long e, long f)
{
    long result;
#if defined(__x86_64__)
    register long r10 asm("r10") = d;
    register long r8 asm("r8") = e;
    register long r9 asm("r9") = f;
    asm volatile("syscall"
                 : "=a"(result)
                 : "a"(number), "D"(a), "S"(b), "d"(c), "r"(r10), "r"(r8), "r"(r9)
                 : "rcx", "r11", "memory");
#elif defined(__aarch64__)
    register long x8 asm("x8") = number;
    register long x0 asm("x0") = a;
    register long x1 asm("x1") = b;
    register long x2 asm("x2") = c;
    register long x3 asm("x3") = d;
    register long x4 asm("x4") = e;
    register long x5 asm("x5") = f;
    asm volatile("svc 0" : "+r"(x0) : "r"(x8), "r"(x1), "r"(x2), "r"(x3), "r"(x4), "r"(x5) : "memory");
    result = x0;
#else
#error "direct_syscall: only x86-64 and Arm64 are supported"
#endif
    if (result < 0 && result > -4096) {
        errno = int(-result);
        return -1;
    }
    return result;
}

} // namespace

long syscall(long number, long a, long b, long c, long d, long e, long f)
{
    REAL(syscall, long (*)(long, ...));
    if (syscall_fn)
        return syscall_fn(number, a, b, c, d, e, f);
    return direct_syscall(number, a, b, c, d, e, f);
}

} // namespace zsim::real
