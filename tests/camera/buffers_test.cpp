/* The buffer phase: request, map and export by the plane-to-view rule, and its undo. */
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "camera_fixture.h"

// On a board the driver's buffer memory takes no descriptor in the
// process; the simulated driver keeps each plane in a memfd. In this program
// those memfds never take the standard descriptors 0..2, so that a process
// with standard input closed sees its first export handed 0, as it would be.
extern "C" int memfd_create(const char *name, unsigned int flags)
{
    const int fd = int(syscall(SYS_memfd_create, name, flags));
    if (fd < 0 || fd > STDERR_FILENO)
        return fd;
    const int moved = fcntl(fd, (flags & MFD_CLOEXEC) != 0 ? F_DUPFD_CLOEXEC : F_DUPFD, STDERR_FILENO + 1);
    close(fd);
    return moved;
}

namespace zelisp_test {
namespace {

using Buffers = CameraTest;

void GrantBuffers(int count)
{
    zsim::Quirks quirks;
    quirks.grant_buffers = count;
    zsim::set_quirks(0, quirks);
}

TEST_F(Buffers, PlanesAreMappedAndExportedIntoTheirViewsEntries)
{
    const zelisp::IspVideo &video = Video(Inited(5, 4));
    auto request = Sent<v4l2_requestbuffers>(VIDIOC_REQBUFS);
    ASSERT_EQ(request.size(), 1u);
    EXPECT_EQ(request[0].count, 4u);
    EXPECT_EQ(request[0].type, uint32_t(V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE));
    EXPECT_EQ(request[0].memory, uint32_t(V4L2_MEMORY_MMAP));
    ASSERT_EQ(video.buffer_count, 4);
    EXPECT_EQ(zsim::live_mappings(), 8u);
    for (uint32_t i = 0; i < 4; ++i) {
        const zelvideo::_isp_buf_t &buffer = video.buffers[i];
        EXPECT_EQ(buffer.index, i);
        for (int view : {0, 2}) {
            EXPECT_EQ(buffer.views[view].index, i);
            EXPECT_GT(buffer.views[view].fd, 2);
            EXPECT_GE(buffer.views[view].length, view == 0 ? 1920u * 1080 * 3 / 2 : 640u * 360 * 3 / 2);
        }
        EXPECT_EQ(buffer.views[1].addr, nullptr); // view 1 untouched
    }
}

TEST_F(Buffers, GrantedCountIsUsedAndNeverOverrunsTheTable)
{
    GrantBuffers(3);
    EXPECT_EQ(Video(Inited(7, 5)).buffer_count, 3);
    EXPECT_EQ(zsim::requests(VIDIOC_QUERYBUF).size(), 3u);
    ASSERT_EQ(Close(handles_.back()), ISP_OK);

    GrantBuffers(0);
    const zelisp::IspVideo &none = Video(Inited(7, 5));
    EXPECT_EQ(none.buffer_count, 0);
    EXPECT_EQ(none.state, uint32_t(zelisp::VIDEO_INITED));
    ASSERT_EQ(Close(handles_.back()), ISP_OK);

    GrantBuffers(12);
    zsim::clear_log();
    unsigned long many = Inited(7, 8);
    EXPECT_EQ(Video(many).buffer_count, 8);
    EXPECT_EQ(zsim::requests(VIDIOC_QUERYBUF).size(), 8u);
    EXPECT_EQ(Video(many).view_formats[0].width, 1920u); // the field after the table is intact
    EXPECT_EQ(isp_start_capture(many), ISP_OK);
    EXPECT_EQ(zsim::requests(VIDIOC_QBUF).size(), 8u);
}

TEST_F(Buffers, FailuresUndoTheMappingsOfTheCallOnly)
{
    unsigned long handle = Open();
    zsim::fail_request(zsim::kMmap, 6, ENOMEM); // buffer 2, plane 1 of views 0 and 2
    Call map = Captured([&] { return isp_init_video(handle, 5, 4); });
    EXPECT_EQ(map.result, ISP_ERR_MAP);
    EXPECT_EQ(map.out.substr(map.out.find("mmap")), "mmap failed buffer  = 2 plane = 1\n");
    EXPECT_EQ(zsim::requests(zsim::kMunmap).size(), 5u);

    zsim::fail_request(VIDIOC_QUERYBUF, 3, EINVAL);
    Call query = Captured([&] { return isp_init_video(handle, 7, 4); });
    EXPECT_EQ(query.result, ISP_ERR_REQUEST);
    EXPECT_NE(query.out.find("/dev/video0query buffer 2 failed\n"), std::string::npos);
    EXPECT_EQ(query.err, Perror("query buf", EINVAL));

    zsim::fail_request(VIDIOC_REQBUFS, 1, EBUSY);
    Call request = Captured([&] { return isp_init_video(handle, 7, 4); });
    EXPECT_EQ(request.result, ISP_ERR_REQUEST);
    EXPECT_NE(request.out.find("/dev/video0 request buffers failed\n"), std::string::npos);
    EXPECT_EQ(request.err, Perror("request buf", EBUSY));
    EXPECT_EQ(zsim::live_mappings(), 0u);
    EXPECT_EQ(Video(handle).state, uint32_t(zelisp::VIDEO_OPENED));
}

TEST_F(Buffers, FailedExportIsMarkedAndSetupGoesOn)
{
    unsigned long handle = Open();
    zsim::fail_request(VIDIOC_EXPBUF, 3, EINVAL); // buffer 1, plane 0
    Call call = Captured([&] { return isp_init_video(handle, 5, 4); });
    EXPECT_EQ(call.result, ISP_OK);
    EXPECT_NE(call.out.find("export buf failed, index 1 plane 0\n"), std::string::npos);
    EXPECT_EQ(Video(handle).buffers[1].views[0].fd, -1);
    EXPECT_GT(Video(handle).buffers[1].views[2].fd, 2);
    EXPECT_EQ(isp_get_view_buf_fd(handle, 1, 0), -1);
}

// A daemon that closed its standard input is handed descriptor 0 by the
// first export; Close must give it back like any other.
TEST_F(Buffers, ExportedDescriptorZeroIsClosedAtClose)
{
    unsigned long handle = Open();
    const int saved_stdin = dup(STDIN_FILENO);
    ASSERT_GE(saved_stdin, 0);
    const Call init = Captured([&] {
        close(STDIN_FILENO); // after the capture has taken its descriptors
        return isp_init_video(handle, 1, 3);
    });
    EXPECT_EQ(init.result, ISP_OK);
    EXPECT_EQ(Video(handle).buffers[0].views[0].fd, 0);
    EXPECT_EQ(isp_get_view_buf_fd(handle, 0, 0), 0);
    EXPECT_EQ(Close(handle), ISP_OK);
    EXPECT_EQ(zsim::live_descriptors(), 0u);
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1); // nothing left on 0
    dup2(saved_stdin, STDIN_FILENO);
    close(saved_stdin);
}

} // namespace
} // namespace zelisp_test
