/*
 * uevent.cpp - /sys/dev/char/MAJOR:MINOR/uevent of the simulated nodes.
 *
 * V4L2 clients find the name of the device behind a descriptor from its
 * device number: fstat gives major and minor, and the uevent record of that
 * character device carries DEVNAME. Only the record is served; the rest of
 * sysfs (the media-controller links) is absent, as on a driver without a
 * media device.
 */
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <sys/mman.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "core.h"
#include "real_libc.h"

namespace zsim::detail {
namespace {

constexpr char kPrefix[] = "/sys/dev/char/";

// The node whose uevent path this is, or -1.
int node_of_uevent(const char *path)
{
    if (!path || std::strncmp(path, kPrefix, sizeof kPrefix - 1) != 0)
        return -1;
    unsigned major_number = 0, minor_number = 0;
    int consumed = 0;
    if (std::sscanf(path + sizeof kPrefix - 1, "%u:%u/uevent%n", &major_number, &minor_number, &consumed) != 2 ||
        path[sizeof kPrefix - 1 + size_t(consumed)] != '\0' || consumed == 0)
        return -1;
    for (int node = 0; node < kNodes; ++node)
        if (node_rdev(node) == makedev(major_number, minor_number))
            return node;
    return -1;
}

} // namespace

FILE *sim_fopen(const char *path, const char *mode, bool *handled)
{
    int node = node_of_uevent(path);
    if (node < 0)
        return nullptr;
    {
        CoreLock held;
        if (state().nodes[node].kind != NodeKind::CharDevice)
            return nullptr; // no such device: sysfs answers ENOENT itself
    }
    *handled = true;
    if (mode[0] != 'r') {
        errno = EACCES;
        return nullptr;
    }
    std::string name = node_path(node).substr(5); // without "/dev/"
    char record[128];
    int length = std::snprintf(record, sizeof record, "MAJOR=%u\nMINOR=%u\nDEVNAME=%s\n", major(node_rdev(node)),
                               minor(node_rdev(node)), name.c_str());
    // A real descriptor behind the stream: C++ file streams read through it.
    int fd = memfd_create("uevent", MFD_CLOEXEC);
    if (fd < 0)
        return nullptr;
    FILE *file = nullptr;
    if (write(fd, record, size_t(length)) == length && lseek(fd, 0, SEEK_SET) == 0)
        file = fdopen(fd, "r");
    if (!file)
        real::close(fd);
    return file;
}

} // namespace zsim::detail
