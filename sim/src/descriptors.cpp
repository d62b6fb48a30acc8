/*
 * descriptors.cpp - opening, duplicating, closing and inspecting the
 * descriptors of simulated nodes.
 *
 * Every descriptor handed to a program is a real kernel descriptor: a
 * duplicate of its node's eventfd, which holds one count per filled buffer,
 * so select() and poll() see the node readable exactly while a frame
 * waits. The table maps each descriptor to what it names; it is updated
 * before the real close, because the kernel hands the number out again at
 * once.
 */
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/eventfd.h>

#include "core.h"
#include "real_libc.h"

namespace zsim::detail {
namespace {

int open_error(const State &s, int node, int flags)
{
    const Node &n = s.nodes[node];
    if (n.kind == NodeKind::Missing || node_disconnected(node))
        return ENOENT;
    if ((flags & O_CREAT) && (flags & O_EXCL))
        return EEXIST;
    if (n.kind == NodeKind::Directory && (flags & O_ACCMODE) != O_RDONLY)
        return EISDIR;
    if (n.kind != NodeKind::Directory && (flags & O_DIRECTORY))
        return ENOTDIR;
    if (n.open_errno)
        return n.open_errno;
    int camera = camera_of_node(node);
    // A device node whose driver has no camera behind it.
    if (n.kind == NodeKind::CharDevice && camera >= 0 && !s.cameras[camera].present)
        return ENXIO;
    return 0;
}

int descriptor_floor(const State &s, const OpenFile &file)
{
    return file.node >= 0 && file.node < kVideoNodes ? s.nodes[file.node].quirks.descriptor_floor : 0;
}

// Which descriptor numbers name simulated files, for a look without the
// lock: read() and write() ask for every descriptor of the program. Numbers
// beyond the table always take the locked look.
constexpr int kMarkedDescriptors = 1 << 20;
std::atomic<uint64_t> g_marked[kMarkedDescriptors / 64];

void mark(int fd, bool simulated)
{
    if (fd < 0 || fd >= kMarkedDescriptors)
        return;
    const uint64_t bit = uint64_t(1) << (fd % 64);
    if (simulated)
        g_marked[fd / 64].fetch_or(bit, std::memory_order_relaxed);
    else
        g_marked[fd / 64].fetch_and(~bit, std::memory_order_relaxed);
}

// Sets (file non-null) or clears what descriptor fd names, keeping each
// node's count of descriptors and each exported plane's count of users;
// the last descriptor of a node closed releases its buffers and stream, as
// the driver does when its file is released.
void replace_descriptor(State &s, int fd, std::shared_ptr<OpenFile> file)
{
    std::shared_ptr<OpenFile> old = find_descriptor(s, fd);
    mark(fd, file != nullptr);
    if (file) {
        if (file->node >= 0)
            ++s.nodes[file->node].open_files;
        count_plane_user(s, file->plane, +1);
        s.descriptors[fd] = std::move(file);
    } else {
        s.descriptors.erase(fd);
    }
    if (!old)
        return;
    count_plane_user(s, old->plane, -1);
    if (old->node >= 0 && --s.nodes[old->node].open_files == 0)
        release_queue(s, old->node);
}

} // namespace

std::shared_ptr<OpenFile> find_descriptor(State &s, int fd)
{
    auto it = s.descriptors.find(fd);
    return it == s.descriptors.end() ? nullptr : it->second;
}

int track_descriptor(State &s, int realfd, std::shared_ptr<OpenFile> file)
{
    replace_descriptor(s, realfd, std::move(file));
    return realfd;
}

int sim_open(int, const char *path, int flags, mode_t)
{
    int node = node_of_path(path);
    State &s = state();
    CoreLock held;
    Node &n = s.nodes[node];
    LogEntry entry{node_path(node), kOpen, "open", "", {}, 0};
    char detail[48];
    std::snprintf(detail, sizeof detail, "flags=0x%x", unsigned(flags));
    entry.detail = detail;

    int err = take_fault(s, kOpen, entry.path);
    if (!err)
        err = open_error(s, node, flags);
    int fd = -1;
    if (!err && n.event_fd < 0) {
        n.event_fd = eventfd(0, EFD_NONBLOCK | EFD_SEMAPHORE | EFD_CLOEXEC);
        if (n.event_fd < 0)
            err = errno;
    }
    if (!err) {
        fd = real::fcntl(n.event_fd, (flags & O_CLOEXEC) ? F_DUPFD_CLOEXEC : F_DUPFD,
                         unsigned(n.quirks.descriptor_floor));
        if (fd < 0)
            err = errno;
    }
    if (!err) {
        auto file = std::make_shared<OpenFile>();
        file->node = node;
        file->flags = flags & (O_ACCMODE | O_NONBLOCK);
        file->path = entry.path;
        file->plain = n.kind != NodeKind::CharDevice;
        track_descriptor(s, fd, std::move(file));
        entry.detail += " fd=" + std::to_string(fd);
    }
    return finish_request(s, std::move(entry), err, fd);
}

int sim_close(int fd)
{
    if (fd < 0)
        return 1;
    State &s = state();
    CoreLock held;
    std::shared_ptr<OpenFile> file = find_descriptor(s, fd);
    if (!file)
        return 1;
    int err = take_fault(s, kClose, file->path);
    replace_descriptor(s, fd, nullptr);
    // Linux releases the descriptor even when close reports an error.
    if (real::close(fd) < 0 && !err)
        err = errno;
    if (!err && file->node >= 0)
        err = s.nodes[file->node].close_errno;
    return finish_request(s, LogEntry{file->path, kClose, "close", "fd=" + std::to_string(fd), {}, 0}, err, 0);
}

int sim_dup(int oldfd, int newfd, int flags, int how)
{
    State &s = state();
    CoreLock held;
    std::shared_ptr<OpenFile> file = find_descriptor(s, oldfd);
    std::shared_ptr<OpenFile> target = how == kDupAny ? nullptr : find_descriptor(s, newfd);
    if (!file && !target) {
        // Not ours: replacing newfd may close a file that blocks on close,
        // so the lock is not held over it.
        held.unlock();
        return how == kDupAny ? real::dup(oldfd) : real::dup3(oldfd, newfd, flags);
    }
    if (how != kDupAny && oldfd == newfd)
        return real::dup3(oldfd, newfd, flags);
    int result;
    if (how == kDupAny)
        result = real::fcntl(oldfd, F_DUPFD, unsigned(descriptor_floor(s, *file)));
    else
        result = real::dup3(oldfd, newfd, flags);
    if (result >= 0)
        replace_descriptor(s, result, file);
    return result;
}

int sim_fcntl(int fd, int cmd, unsigned long arg, bool *handled)
{
    if (fd < 0)
        return 0;
    State &s = state();
    CoreLock held;
    std::shared_ptr<OpenFile> file = find_descriptor(s, fd);
    if (!file)
        return 0;
    switch (cmd) {
    case F_GETFL:
        if (file->node < 0)
            return 0; // an export: the memfd's own flags
        *handled = true;
        return file->flags;
    case F_SETFL:
        if (file->node < 0)
            return 0;
        *handled = true;
        file->flags = (file->flags & ~O_NONBLOCK) | int(arg & O_NONBLOCK);
        return 0;
    case F_DUPFD:
    case F_DUPFD_CLOEXEC: {
        *handled = true;
        unsigned long minimum = std::max<unsigned long>(arg, unsigned(descriptor_floor(s, *file)));
        int result = real::fcntl(fd, cmd, minimum);
        if (result >= 0)
            replace_descriptor(s, result, file);
        return result;
    }
    default:
        return 0;
    }
}

bool sim_fstat(int fd, struct stat *st)
{
    if (fd < 0)
        return false;
    State &s = state();
    CoreLock held;
    std::shared_ptr<OpenFile> file = find_descriptor(s, fd);
    if (!file || file->node < 0)
        return false;
    fill_node_stat(file->node, st);
    return true;
}

bool sim_stat(const char *path, struct stat *st, int *err)
{
    int node = node_of_path(path);
    if (node < 0)
        return false;
    CoreLock held;
    if (state().nodes[node].kind == NodeKind::Missing || node_disconnected(node))
        *err = ENOENT;
    else
        fill_node_stat(node, st);
    return true;
}

bool maybe_simulated(int fd)
{
    if (fd < 0)
        return false;
    if (fd >= kMarkedDescriptors)
        return true;
    return (g_marked[fd / 64].load(std::memory_order_relaxed) >> (fd % 64)) & 1u;
}

bool descriptor_disconnected(int fd)
{
    State &s = state();
    CoreLock held;
    std::shared_ptr<OpenFile> file = find_descriptor(s, fd);
    return file && file->node >= 0 && node_disconnected(file->node);
}

// The nodes have no read/write I/O (streaming only), so the kernel's V4L2
// core answers EINVAL, or ENODEV once the device is gone; an export is a
// DMA buffer, which has no read or write either; a node made a directory
// is one.
int sim_read_write(int fd)
{
    State &s = state();
    CoreLock held;
    std::shared_ptr<OpenFile> file = find_descriptor(s, fd);
    if (!file)
        return 0;
    if (file->node >= 0 && node_disconnected(file->node))
        return ENODEV;
    if (file->node >= 0 && s.nodes[file->node].kind == NodeKind::Directory)
        return EISDIR;
    return EINVAL;
}

} // namespace zsim::detail
