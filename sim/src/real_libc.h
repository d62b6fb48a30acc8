/*
 * real_libc.h - the C library's own entry points behind the interposed ones.
 *
 * Each is looked up once with dlsym(RTLD_NEXT). dlsym may allocate, and an
 * allocator may open or map files, which lands in the interposer again
 * before the lookup has finished; such a nested call goes straight to the
 * system call instead.
 */
#ifndef ZELISP_SIM_REAL_LIBC_H
#define ZELISP_SIM_REAL_LIBC_H

#include <cstdio>
#include <ctime>

#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/types.h>

namespace zsim::real {

// glibc declares some pointer arguments never null, which lets the
// compiler drop a check of them; a program may pass null all the same.
template <typename T>
T *unchecked(T *pointer)
{
    asm volatile("" : "+r"(pointer));
    return pointer;
}

int openat(int dirfd, const char *path, int flags, mode_t mode);
int close(int fd);
int fstatat(int dirfd, const char *path, struct stat *st, int flags);
int statx(int dirfd, const char *path, int flags, unsigned mask, struct statx *st);
int dup(int fd);
int dup3(int oldfd, int newfd, int flags); // flags 0 and oldfd == newfd behave as dup2
int fcntl(int fd, int cmd, unsigned long arg);
int ioctl(int fd, unsigned long request, void *arg);
void *mmap(void *addr, size_t length, int prot, int flags, int fd, off_t offset);
int munmap(void *addr, size_t length);
FILE *fopen(const char *path, const char *mode);
ssize_t getxattr(const char *path, const char *name, void *value, size_t size, bool nofollow);
ssize_t listxattr(const char *path, char *list, size_t size, bool nofollow);
int select(int nfds, fd_set *read, fd_set *write, fd_set *except, struct timeval *timeout);
int poll(struct pollfd *fds, nfds_t count, int timeout_ms);
int ppoll(struct pollfd *fds, nfds_t count, const struct timespec *timeout, const sigset_t *mask);
ssize_t read(int fd, void *buffer, size_t count);
ssize_t write(int fd, const void *buffer, size_t count);

// Clocks and the waits that take a deadline on one (board_clock.h shifts
// them). The pthread and semaphore ones answer ENOSYS should the C library
// lack them; dlsym itself never waits on them.
int clock_gettime(clockid_t clock, struct timespec *now);
int gettimeofday(struct timeval *now, void *zone);
int timespec_get(struct timespec *now, int base);
int clock_nanosleep(clockid_t clock, int flags, const struct timespec *request, struct timespec *remain);
int pthread_cond_timedwait(pthread_cond_t *cond, pthread_mutex_t *mutex, const struct timespec *deadline);
int pthread_cond_clockwait(pthread_cond_t *cond, pthread_mutex_t *mutex, clockid_t clock,
                           const struct timespec *deadline);
int sem_timedwait(sem_t *sem, const struct timespec *deadline);
int sem_clockwait(sem_t *sem, clockid_t clock, const struct timespec *deadline);
int pthread_mutex_timedlock(pthread_mutex_t *mutex, const struct timespec *deadline);
int pthread_mutex_clocklock(pthread_mutex_t *mutex, clockid_t clock, const struct timespec *deadline);
int pthread_rwlock_timedrdlock(pthread_rwlock_t *lock, const struct timespec *deadline);
int pthread_rwlock_timedwrlock(pthread_rwlock_t *lock, const struct timespec *deadline);
int pthread_rwlock_clockrdlock(pthread_rwlock_t *lock, clockid_t clock, const struct timespec *deadline);
int pthread_rwlock_clockwrlock(pthread_rwlock_t *lock, clockid_t clock, const struct timespec *deadline);
int pthread_timedjoin_np(pthread_t thread, void **result, const struct timespec *deadline);
int pthread_clockjoin_np(pthread_t thread, void **result, clockid_t clock, const struct timespec *deadline);
int timerfd_settime(int fd, int flags, const struct itimerspec *value, struct itimerspec *old);
long syscall(long number, long a, long b, long c, long d, long e, long f);

} // namespace zsim::real

#endif
