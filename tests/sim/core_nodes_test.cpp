// The simulator's device nodes as the C library shows them: what stat and
// open report for each node kind, the descriptors it hands out and keeps
// track of, and the paths and descriptors it must leave alone.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "sim_fixture.h"
#include "video_test_node.h"

extern "C" int __xstat(int version, const char *path, struct stat *st);
extern "C" int __open_2(const char *path, int flags);

namespace {

using zelisp_test::VideoNode;

class CoreNodesTest : public zelisp_test::SimTest {
protected:
    static int StatErrno(const char *path, struct stat *st)
    {
        return stat(path, st) == 0 ? 0 : errno;
    }
    static int OpenErrno(const char *path, int flags = O_RDWR)
    {
        int fd = open(path, flags);
        if (fd < 0)
            return errno;
        close(fd);
        return 0;
    }
};

TEST_F(CoreNodesTest, DefaultNodesAreCharacterDevicesWithTheirNumbers)
{
    struct stat st {};
    ASSERT_EQ(StatErrno("/dev/video3", &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    EXPECT_EQ(major(st.st_rdev), 81u);
    EXPECT_EQ(minor(st.st_rdev), 3u);
    ASSERT_EQ(StatErrno("/dev/video15", &st), 0); // camera 3, mode 2
    EXPECT_EQ(minor(st.st_rdev), 15u);
    ASSERT_EQ(StatErrno("/dev/isp_misc", &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    EXPECT_NE(major(st.st_rdev), 81u);

    EXPECT_EQ(StatErrno("/dev/video4", &st), ENOENT);
    EXPECT_EQ(StatErrno("/dev/video16", &st), ENOENT);
    EXPECT_EQ(OpenErrno("/dev/video4"), ENOENT);

    // Every member of the stat family agrees, the legacy and fortified
    // entry points of older and hardened programs included.
    struct statx sx {};
    ASSERT_EQ(statx(AT_FDCWD, "/dev/video2", 0, STATX_BASIC_STATS, &sx), 0);
    EXPECT_TRUE(S_ISCHR(sx.stx_mode));
    EXPECT_EQ(sx.stx_rdev_major, 81u);
    EXPECT_EQ(sx.stx_rdev_minor, 2u);
    ASSERT_EQ(lstat("/dev/video2", &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    ASSERT_EQ(fstatat(AT_FDCWD, "/dev/video2", &st, 0), 0);
    EXPECT_EQ(minor(st.st_rdev), 2u);
    ASSERT_EQ(__xstat(1, "/dev/video1", &st), 0);
    EXPECT_EQ(minor(st.st_rdev), 1u);
    int fd = __open_2("/dev/video1", O_RDWR);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(fstat(fd, &st), 0);
    EXPECT_EQ(minor(st.st_rdev), 1u);
    close(fd);
}

TEST_F(CoreNodesTest, NodeKindsAndCamerasAreConfigurable)
{
    zsim::set_node_kind("/dev/video1", zsim::NodeKind::RegularFile);
    zsim::set_node_kind("/dev/video2", zsim::NodeKind::Directory);
    zsim::set_node_kind("/dev/isp_misc", zsim::NodeKind::Missing);
    struct stat st {};
    ASSERT_EQ(StatErrno("/dev/video1", &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    ASSERT_EQ(StatErrno("/dev/video2", &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(StatErrno("/dev/isp_misc", &st), ENOENT);

    // A plain file opens but has no driver behind it; a directory does not
    // open for writing.
    {
        VideoNode file("/dev/video1");
        ASSERT_GE(file.fd(), 0);
        v4l2_capability cap{};
        EXPECT_EQ(file.Request(VIDIOC_QUERYCAP, &cap), ENOTTY);
    }
    EXPECT_EQ(OpenErrno("/dev/video2"), EISDIR);

    zsim::set_camera(9, zsim::CameraConfig());
    ASSERT_EQ(StatErrno("/dev/video21", &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    EXPECT_EQ(OpenErrno("/dev/video9"), 0);
    zsim::remove_camera(0);
    EXPECT_EQ(StatErrno("/dev/video0", &st), ENOENT);
    EXPECT_EQ(StatErrno("/dev/video12", &st), ENOENT);
    // A device node without its camera has no driver to open.
    zsim::set_node_kind("/dev/video0", zsim::NodeKind::CharDevice);
    EXPECT_EQ(OpenErrno("/dev/video0"), ENXIO);
}

TEST_F(CoreNodesTest, OpenAndCloseFailAsConfiguredAndAreLogged)
{
    zsim::set_open_errno("/dev/video3", EACCES);
    EXPECT_EQ(OpenErrno("/dev/video3"), EACCES);
    EXPECT_EQ(OpenErrno("/dev/video15"), 0);

    zsim::set_close_errno("/dev/video2", EIO);
    int fd = open("/dev/video2", O_RDWR | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(close(fd), -1);
    EXPECT_EQ(errno, EIO);
    // Linux releases the descriptor even when close reports an error.
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(zsim::live_descriptors(), 0u);

    auto opens = zsim::requests(zsim::kOpen);
    ASSERT_EQ(opens.size(), 3u);
    EXPECT_EQ(opens[0].path, "/dev/video3");
    EXPECT_EQ(opens[0].name, "open");
    EXPECT_EQ(opens[0].error, EACCES);
    EXPECT_EQ(opens[2].detail, "flags=0x802 fd=" + std::to_string(fd));
    auto closes = zsim::requests(zsim::kClose);
    ASSERT_EQ(closes.size(), 2u);
    EXPECT_EQ(closes[1].path, "/dev/video2");
    EXPECT_EQ(closes[1].error, EIO);
}

TEST_F(CoreNodesTest, DuplicatesAreTrackedAndShareTheOpenFile)
{
    int fd = open("/dev/video0", O_RDWR | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    int copy = dup(fd);
    int cloexec = fcntl(fd, F_DUPFD_CLOEXEC, 100);
    int onto = dup2(fd, 200);
    int onto3 = dup3(fd, 201, O_CLOEXEC);
    EXPECT_GE(cloexec, 100);
    EXPECT_EQ(onto, 200);
    EXPECT_EQ(onto3, 201);
    EXPECT_EQ(zsim::live_descriptors(), 5u);
    v4l2_capability cap{};
    EXPECT_EQ(zelisp_test::Request(onto3, VIDIOC_QUERYCAP, &cap), 0);

    // The flags belong to the open file: a duplicate sees a change.
    EXPECT_EQ(fcntl(copy, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    ASSERT_EQ(fcntl(fd, F_SETFL, O_RDWR), 0);
    EXPECT_EQ(fcntl(copy, F_GETFL) & (O_NONBLOCK | O_ACCMODE), O_RDWR);

    // dup2 onto a simulated descriptor replaces it with a plain one.
    int null_fd = open("/dev/null", O_RDONLY);
    ASSERT_EQ(dup2(null_fd, 200), 200);
    EXPECT_EQ(zsim::live_descriptors(), 4u);
    EXPECT_EQ(zelisp_test::Request(200, VIDIOC_QUERYCAP, &cap), ENOTTY);
    for (int d : {fd, copy, cloexec, onto3, null_fd, 200})
        EXPECT_EQ(close(d), 0);
    EXPECT_EQ(zsim::live_descriptors(), 0u);
}

TEST_F(CoreNodesTest, ClosedNumberReusedByAnotherFileIsNotSimulated)
{
    // The table forgets a descriptor before the real close, so a number
    // the kernel hands out again at once belongs to the new file.
    int fd = open("/dev/video0", O_RDWR);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(close(fd), 0);
    int reused = open("/dev/null", O_RDWR);
    ASSERT_EQ(reused, fd);
    struct stat st {};
    ASSERT_EQ(fstat(reused, &st), 0);
    EXPECT_NE(major(st.st_rdev), 81u);
    EXPECT_EQ(zsim::live_descriptors(), 0u);
    close(reused);
}

TEST_F(CoreNodesTest, OtherPathsAndDescriptorsPassThroughUntouched)
{
    struct stat st {};
    ASSERT_EQ(stat("/dev/null", &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    EXPECT_EQ(major(st.st_rdev), 1u);
    EXPECT_EQ(StatErrno("/dev/video99", &st), ENOENT);
    int fd = open("/dev/null", O_RDWR);
    ASSERT_GE(fd, 0);
    void *anonymous = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(anonymous, MAP_FAILED);
    EXPECT_EQ(munmap(anonymous, 4096), 0);
    EXPECT_EQ(close(fd), 0);
    EXPECT_EQ(zsim::live_descriptors(), 0u);
    EXPECT_EQ(zsim::live_mappings(), 0u);
    EXPECT_TRUE(zsim::request_log().empty());
}

} // namespace
