// A hardened, large-file program reaches the simulator too: glibc's
// fortified open becomes __open_2 or an inline wrapper, and the 64-bit
// file-offset names stat64, open64 and mmap64. The simulator itself is
// built without these macros; this file is compiled with them.
#undef _FORTIFY_SOURCE
#ifdef __OPTIMIZE__ // glibc fortifies optimised builds only
#define _FORTIFY_SOURCE 2
#endif
#undef _FILE_OFFSET_BITS
#define _FILE_OFFSET_BITS 64

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "sim_fixture.h"
#include "video_test_node.h"

namespace {

class CoreFortifiedCallsTest : public zelisp_test::SimTest {};

// Flags the compiler cannot see, so that fortification keeps the checked call.
int OpaqueFlags()
{
    static volatile int flags = O_RDWR | O_NONBLOCK;
    return flags;
}

TEST_F(CoreFortifiedCallsTest, OpenStatAndMapReachTheSimulatedNode)
{
    struct stat st {};
    ASSERT_EQ(stat("/dev/video0", &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    EXPECT_EQ(major(st.st_rdev), 81u);

    int fd = open("/dev/video0", OpaqueFlags());
    ASSERT_GE(fd, 0);
    int at = openat(AT_FDCWD, "/dev/video12", OpaqueFlags());
    ASSERT_GE(at, 0);
    EXPECT_EQ(zsim::live_descriptors(), 2u);

    v4l2_requestbuffers req{};
    req.count = 3;
    req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    req.memory = V4L2_MEMORY_MMAP;
    ASSERT_EQ(ioctl(fd, VIDIOC_REQBUFS, &req), 0);
    zelisp_test::BufferRecord record(0);
    ASSERT_EQ(ioctl(fd, VIDIOC_QUERYBUF, &record.buf), 0);
    void *plane = mmap(nullptr, record.plane[0].length, PROT_READ | PROT_WRITE, MAP_SHARED, fd,
                       record.plane[0].m.mem_offset);
    ASSERT_NE(plane, MAP_FAILED);
    EXPECT_EQ(zsim::live_mappings(), 1u);
    EXPECT_EQ(munmap(plane, record.plane[0].length), 0);
    EXPECT_EQ(close(at), 0);
    EXPECT_EQ(close(fd), 0);
}

} // namespace
