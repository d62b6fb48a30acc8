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

#include <poll.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/types.h>

namespace zsim::real {

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

} // namespace zsim::real

#endif
