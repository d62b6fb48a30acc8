// The simulator's device nodes as the C library shows them: what the stat
// and open families report for each node kind, the descriptors handed out
// and tracked, and the paths it must leave alone.
#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <algorithm>
#include <vector>
#include <string>

#include "sim_fixture.h"
#include "video_test_node.h"

extern "C" int __xstat(int version, const char *path, struct stat *st);
extern "C" int __open_2(const char *path, int flags);

namespace {

// "c 81:3" for a character device, "- " / "d " for a file or directory,
// else the errno's name.
std::string Describe(int result, const struct stat &st)
{
    if (result != 0)
        return strerrorname_np(errno);
    char kind = S_ISCHR(st.st_mode) ? 'c' : S_ISDIR(st.st_mode) ? 'd' : S_ISREG(st.st_mode) ? '-' : '?';
    if (kind != 'c')
        return std::string(1, kind);
    return "c " + std::to_string(major(st.st_rdev)) + ":" + std::to_string(minor(st.st_rdev));
}

std::string Stat(const char *path)
{
    struct stat st {};
    return Describe(stat(path, &st), st);
}

std::string OpenErrno(const char *path)
{
    int fd = open(path, O_RDWR);
    if (fd < 0)
        return strerrorname_np(errno);
    close(fd);
    return "ok";
}

class CoreNodesTest : public zelisp_test::SimTest {};

TEST_F(CoreNodesTest, DefaultNodesAreCharacterDevicesInEveryStatCall)
{
    EXPECT_EQ(Stat("/dev/video3"), "c 81:3");
    EXPECT_EQ(Stat("/dev/video15"), "c 81:15");
    EXPECT_EQ(Stat("/dev/isp_misc"), "c 10:121");
    EXPECT_EQ(Stat("/dev/video16"), "ENOENT");
    EXPECT_EQ(Stat("/dev/video99"), "ENOENT");
    EXPECT_EQ(OpenErrno("/dev/video4"), "ENOENT");

    // The whole family agrees, the legacy and fortified entry points of
    // older and hardened programs included.
    struct stat st {};
    EXPECT_EQ(Describe(fstatat(AT_FDCWD, "/dev/video2", &st, AT_SYMLINK_NOFOLLOW), st), "c 81:2");
    EXPECT_EQ(Describe(__xstat(1, "/dev/video1", &st), st), "c 81:1");
    struct statx sx {};
    ASSERT_EQ(statx(AT_FDCWD, "/dev/video2", 0, STATX_BASIC_STATS, &sx), 0);
    EXPECT_TRUE(S_ISCHR(sx.stx_mode));
    EXPECT_EQ(sx.stx_rdev_major * 100 + sx.stx_rdev_minor, 8102u);
    int fd = __open_2("/dev/video1", O_RDWR);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(Describe(fstat(fd, &st), st), "c 81:1");
    close(fd);
}

TEST_F(CoreNodesTest, CallsWithoutOptionalArgumentsAreSafe)
{
    // O_DIRECTORY passes no mode: the bits of O_TMPFILE alone must not make
    // the simulator read one. A node is no directory, the real /dev is.
    EXPECT_EQ(open("/dev/video0", O_RDONLY | O_DIRECTORY), -1);
    EXPECT_EQ(errno, ENOTDIR);
    int dir = open("/dev", O_RDONLY | O_DIRECTORY);
    ASSERT_GE(dir, 0);
    close(dir);

    // statx with a null path: EFAULT from the kernel, or (newer kernels,
    // with AT_EMPTY_PATH) the descriptor itself.
    // The C library declares the path never null, which a program need not
    // believe.
    struct statx sx {};
    // volatile: neither the optimiser (-Werror=nonnull at -O2) nor the
    // undefined-behaviour sanitizer may see which function is called.
    int (*volatile call_statx)(int, const char *, int, unsigned, struct statx *) = &statx;
    EXPECT_EQ(call_statx(AT_FDCWD, nullptr, 0, STATX_BASIC_STATS, &sx), -1);
    EXPECT_EQ(errno, EFAULT);
    int fd = open("/dev/video2", O_RDWR);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(call_statx(fd, nullptr, AT_EMPTY_PATH, STATX_BASIC_STATS, &sx), 0);
    EXPECT_EQ(sx.stx_rdev_major * 100 + sx.stx_rdev_minor, 8102u);
    close(fd);
}

TEST_F(CoreNodesTest, ListingDevShowsTheNodesOnce)
{
    zsim::remove_camera(3);
    std::vector<std::string> names;
    DIR *dev = opendir("/dev");
    ASSERT_NE(dev, nullptr);
    while (struct dirent *entry = readdir(dev))
        if (std::strncmp(entry->d_name, "video", 5) == 0 || std::strcmp(entry->d_name, "isp_misc") == 0)
            names.push_back(std::string(entry->d_name) + (entry->d_type == DT_CHR ? " c" : " ?"));
    closedir(dev);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"isp_misc c", "video0 c", "video1 c", "video12 c", "video13 c",
                                               "video14 c", "video2 c"}));
}

TEST_F(CoreNodesTest, NodeKindsAndCamerasAreConfigurable)
{
    zsim::set_node_kind("/dev/video1", zsim::NodeKind::RegularFile);
    zsim::set_node_kind("/dev/video2", zsim::NodeKind::Directory);
    zsim::set_node_kind("/dev/isp_misc", zsim::NodeKind::Missing);
    EXPECT_EQ(Stat("/dev/video1"), "-");
    EXPECT_EQ(Stat("/dev/video2"), "d");
    EXPECT_EQ(Stat("/dev/isp_misc"), "ENOENT");
    // A plain file opens but has no driver behind it.
    zelisp_test::VideoNode file("/dev/video1");
    v4l2_capability cap{};
    EXPECT_EQ(file.Request(VIDIOC_QUERYCAP, &cap), ENOTTY);
    EXPECT_EQ(OpenErrno("/dev/video2"), "EISDIR");

    zsim::set_camera(9, zsim::CameraConfig());
    EXPECT_EQ(Stat("/dev/video21"), "c 81:21");
    EXPECT_EQ(OpenErrno("/dev/video9"), "ok");
    zsim::remove_camera(0);
    EXPECT_EQ(Stat("/dev/video0"), "ENOENT");
    EXPECT_EQ(Stat("/dev/video12"), "ENOENT");
    // A device node without its camera has no driver to open.
    zsim::set_node_kind("/dev/video0", zsim::NodeKind::CharDevice);
    EXPECT_EQ(OpenErrno("/dev/video0"), "ENXIO");
}

TEST_F(CoreNodesTest, OpenAndCloseFailAsConfiguredAndAreLogged)
{
    zsim::set_open_errno("/dev/video3", EACCES);
    EXPECT_EQ(OpenErrno("/dev/video3"), "EACCES");
    zsim::set_close_errno("/dev/video2", EIO);
    int fd = open("/dev/video2", O_RDWR | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(close(fd), -1);
    EXPECT_EQ(errno, EIO);
    // Linux releases the descriptor even when close reports an error.
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);

    auto opens = zsim::requests(zsim::kOpen);
    ASSERT_EQ(opens.size(), 2u);
    EXPECT_EQ(opens[0].path, "/dev/video3");
    EXPECT_EQ(opens[0].error, EACCES);
    EXPECT_EQ(opens[1].detail, "flags=0x802 fd=" + std::to_string(fd));
    auto closes = zsim::requests(zsim::kClose);
    ASSERT_EQ(closes.size(), 1u);
    EXPECT_EQ(closes[0].path, "/dev/video2");
    EXPECT_EQ(closes[0].error, EIO);
}

TEST_F(CoreNodesTest, DuplicatesAreTrackedAndShareTheOpenFile)
{
    int fd = open("/dev/video0", O_RDWR | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    int copy = dup(fd);
    int cloexec = fcntl(fd, F_DUPFD_CLOEXEC, 100);
    EXPECT_GE(cloexec, 100);
    EXPECT_EQ(dup2(fd, 200), 200);
    EXPECT_EQ(dup3(fd, 201, O_CLOEXEC), 201);
    EXPECT_EQ(zsim::live_descriptors(), 5u);
    v4l2_capability cap{};
    EXPECT_EQ(zelisp_test::Request(201, VIDIOC_QUERYCAP, &cap), 0);

    // The flags belong to the open file: a duplicate sees a change.
    EXPECT_EQ(fcntl(copy, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    ASSERT_EQ(fcntl(fd, F_SETFL, O_RDWR), 0);
    EXPECT_EQ(fcntl(copy, F_GETFL) & (O_NONBLOCK | O_ACCMODE), O_RDWR);

    // dup2 onto a simulated descriptor replaces it with a plain one.
    int null_fd = open("/dev/null", O_RDONLY);
    ASSERT_EQ(dup2(null_fd, 200), 200);
    EXPECT_EQ(zsim::live_descriptors(), 4u);
    EXPECT_EQ(zelisp_test::Request(200, VIDIOC_QUERYCAP, &cap), ENOTTY);
    for (int d : {fd, copy, cloexec, 201, null_fd, 200})
        EXPECT_EQ(close(d), 0);
    EXPECT_EQ(zsim::live_descriptors(), 0u);

    // The table forgets a descriptor before the real close, so a number the
    // kernel hands out again at once belongs to the new file.
    int reused = open("/dev/null", O_RDWR);
    ASSERT_EQ(reused, fd);
    struct stat st {};
    EXPECT_EQ(Describe(fstat(reused, &st), st), "c 1:3");
    close(reused);

    // A driver whose descriptors all lie high up.
    zsim::Quirks quirks;
    quirks.descriptor_floor = 600;
    zsim::set_quirks(0, quirks);
    zelisp_test::VideoNode high("/dev/video0");
    EXPECT_GE(high.fd(), 600);
    int high_copy = dup(high.fd());
    EXPECT_GE(high_copy, 600);
    close(high_copy);

    // Anonymous memory never reaches the simulator.
    void *anonymous = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(anonymous, MAP_FAILED);
    EXPECT_EQ(munmap(anonymous, 4096), 0);
    EXPECT_EQ(zsim::requests(zsim::kMmap).size() + zsim::requests(zsim::kMunmap).size(), 0u);
}

} // namespace
