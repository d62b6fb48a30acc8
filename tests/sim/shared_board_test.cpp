// One board shared by several processes, as on the board itself: a control,
// a view format, the trigger mode and the sensor-bus owner set by one
// process are what the others find; a process that owns a node's queue
// makes another's set-up and queue requests on that camera fail with EBUSY
// until it frees the buffers, exits or is killed; and a control set by
// another process shows in the streaming process's next frame. Children
// are forked (the test program's board is theirs), so the tests run
// wherever the suite runs; whole programs under the runner are in
// shared_board_runner_test.cpp.
#include <poll.h>
#include <sys/mman.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>

#include "../../sim/src/board_state.h"
#include "driver/isp_requests.h"
#include "sim_fixture.h"
#include "video_test_node.h"

namespace {

using zelisp_test::BufferRecord;
using zelisp_test::VideoNode;

// A child process running `body`, told when to go on through pipes; every
// wait is bounded, so a stuck child ends the test instead of hanging it.
class Child {
public:
    explicit Child(const std::function<int(Child &self)> &body)
    {
        fflush(nullptr); // the child must not write the parent's buffered output again
        if (pipe(to_child_) != 0 || pipe(to_parent_) != 0)
            return;
        pid_ = fork();
        if (pid_ == 0) {
            alarm(60);
            _exit(body(*this));
        }
    }
    ~Child()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        for (int fd : {to_child_[0], to_child_[1], to_parent_[0], to_parent_[1]})
            if (fd >= 0)
                close(fd);
    }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;
    // In the child: tells the parent it reached a point, then waits for it.
    bool Report() { return Signal(to_parent_[1]) && Await(to_child_[0]); }
    // In the parent: waits for the child's report; lets it go on.
    bool AwaitReport() { return pid_ > 0 && Await(to_parent_[0]); }
    bool Resume() { return Signal(to_child_[1]); }
    // The child's exit status, once it ended; -1 when a signal ended it.
    int Wait()
    {
        int status = 0;
        const pid_t pid = pid_;
        pid_ = -1;
        if (pid <= 0 || waitpid(pid, &status, 0) != pid)
            return -2;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    void Kill() { kill(pid_, SIGKILL); }

private:
    static bool Signal(int fd) { return write(fd, "x", 1) == 1; }
    static bool Await(int fd)
    {
        pollfd ready{fd, POLLIN, 0};
        char byte;
        return poll(&ready, 1, 30000) == 1 && read(fd, &byte, 1) == 1;
    }
    pid_t pid_ = -1;
    int to_child_[2] = {-1, -1};
    int to_parent_[2] = {-1, -1};
};

v4l2_format ViewRequest(uint32_t view, uint32_t fourcc, uint32_t width, uint32_t height)
{
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    format.fmt.pix_mp.width = width;
    format.fmt.pix_mp.height = height;
    format.fmt.pix_mp.pixelformat = fourcc;
    format.fmt.pix_mp.num_planes = uint8_t(view);
    return format;
}

int GetControl(const VideoNode &node, uint32_t id)
{
    v4l2_control control{id, 0};
    return node.Request(VIDIOC_G_CTRL, &control) == 0 ? control.value : -1;
}

int SetControl(const VideoNode &node, uint32_t id, int32_t value)
{
    v4l2_control control{id, value};
    return node.Request(VIDIOC_S_CTRL, &control);
}

// The requests another process may not make on a camera whose queue this
// one owns, with the errno each gets.
struct Refusals {
    int set_format, set_input, set_rate, resize, buffers, stream_on, queue;
};

Refusals TryToTakeOver(const VideoNode &node)
{
    Refusals got{};
    v4l2_format format = ViewRequest(0, zsim::kNV12, 640, 360);
    got.set_format = node.Request(VIDIOC_S_FMT, &format);
    int input = 1;
    got.set_input = node.Request(VIDIOC_S_INPUT, &input);
    v4l2_streamparm rate{};
    rate.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    rate.parm.capture.timeperframe = {1, 15};
    got.set_rate = node.Request(VIDIOC_S_PARM, &rate);
    uint16_t resize[11] = {0, 720, 0, 1280, 0, 360, 0, 640, 640, 360, 0};
    got.resize = node.Request(zelisp::VIDIOC_ISP_SET_RESIZE, resize);
    uint32_t count = 3;
    got.buffers = node.RequestBuffers(&count);
    got.stream_on = node.Stream(VIDIOC_STREAMON);
    BufferRecord record(0);
    got.queue = node.Request(VIDIOC_QBUF, &record.buf);
    return got;
}

// The mean luma of the middle rows of an NV12 plane.
unsigned MiddleLuma(const uint8_t *plane, uint32_t width, uint32_t height)
{
    uint64_t sum = 0, count = 0;
    for (uint32_t y = height * 9 / 20; y < height * 11 / 20; ++y)
        for (uint32_t x = 0; x < width; x += 4, ++count)
            sum += plane[size_t(y) * width + x];
    return unsigned(sum / count);
}

class SharedBoardTest : public zelisp_test::SimTest {};

TEST_F(SharedBoardTest, WhatOneProcessSetsTheOthersFind)
{
    VideoNode node("/dev/video0");
    Child setter([](Child &) {
        VideoNode own("/dev/video0"), misc("/dev/isp_misc");
        v4l2_format format = ViewRequest(2, zsim::kYUYV, 320, 240);
        uint32_t i2c[2] = {3, 1};
        uint32_t external[5] = {1, 0, 0, 0, 0};
        return SetControl(own, V4L2_CID_BRIGHTNESS, 201) == 0 && SetControl(own, V4L2_CID_SATURATION, 7) == 0 &&
                       own.Request(VIDIOC_S_FMT, &format) == 0 && misc.Request(zelisp::IOC_SET_I2C_CTRL, i2c) == 0 &&
                       misc.Request(zelisp::IOC_SET_MIPI_TRIGGER_MODE, external) == 0
                   ? 0
                   : 1;
    });
    ASSERT_EQ(setter.Wait(), 0);
    EXPECT_EQ(GetControl(node, V4L2_CID_BRIGHTNESS), 201);
    EXPECT_EQ(GetControl(node, V4L2_CID_SATURATION), 7);
    const v4l2_format format = node.Format(); // view 2 in the words of plane_fmt[2]
    EXPECT_EQ(format.fmt.pix_mp.plane_fmt[2].reserved[2], 320);
    EXPECT_EQ(format.fmt.pix_mp.plane_fmt[2].reserved[3], 240);
    EXPECT_EQ(zsim::camera_config(0).views[2].fourcc, zsim::kYUYV);
    EXPECT_EQ(zsim::trigger_mode(), zsim::TriggerMode::External);
    EXPECT_EQ(zsim::sensor_bus_owner(3), 1);
    EXPECT_EQ(zsim::sensor_bus_owner(4), -1);

    // And back: what this process set is where the next one starts.
    ASSERT_EQ(SetControl(node, V4L2_CID_BRIGHTNESS, 17), 0);
    Child reader([](Child &) {
        VideoNode other("/dev/video12"); // the camera's other node
        return GetControl(other, V4L2_CID_BRIGHTNESS) == 17 ? 0 : 1;
    });
    EXPECT_EQ(reader.Wait(), 0);
}

TEST_F(SharedBoardTest, AnotherProcessOwningTheQueueMakesSetupAndQueueRequestsBusy)
{
    Child owner([](Child &self) {
        VideoNode own("/dev/video0");
        uint32_t count = 3, none = 0;
        if (own.RequestBuffers(&count) != 0 || own.Stream(VIDIOC_STREAMON) != 0 || !self.Report())
            return 1;
        // Frees the buffers: the queue is free again.
        if (own.Stream(VIDIOC_STREAMOFF) != 0 || own.RequestBuffers(&none) != 0 || !self.Report())
            return 2;
        // Takes it again, until killed.
        count = 3;
        if (own.RequestBuffers(&count) != 0)
            return 3;
        self.Report();
        return 4;
    });
    ASSERT_TRUE(owner.AwaitReport());
    VideoNode node("/dev/video0"), other_node("/dev/video12"), other_camera("/dev/video1");
    const Refusals refused = TryToTakeOver(node);
    EXPECT_EQ(refused.set_format, EBUSY);
    EXPECT_EQ(refused.set_input, EBUSY);
    EXPECT_EQ(refused.set_rate, EBUSY);
    EXPECT_EQ(refused.resize, EBUSY);
    EXPECT_EQ(refused.buffers, EBUSY);
    EXPECT_EQ(refused.stream_on, EBUSY);
    EXPECT_EQ(refused.queue, EBUSY);
    // Reading the set-up and tuning the picture are for everyone.
    EXPECT_EQ(node.Format().fmt.pix_mp.width, 1920u);
    EXPECT_EQ(SetControl(node, V4L2_CID_BRIGHTNESS, 99), 0);
    // The camera's other node has a queue of its own, but the set-up is
    // the camera's; another camera is free.
    v4l2_format format = ViewRequest(0, zsim::kNV12, 640, 360);
    EXPECT_EQ(other_node.Request(VIDIOC_S_FMT, &format), EBUSY);
    uint32_t count = 2;
    EXPECT_EQ(other_node.RequestBuffers(&count), 0);
    EXPECT_EQ(other_camera.Request(VIDIOC_S_FMT, &format), 0);
    EXPECT_EQ(other_camera.RequestBuffers(&count), 0);

    ASSERT_TRUE(owner.Resume());
    ASSERT_TRUE(owner.AwaitReport());
    count = 3;
    EXPECT_EQ(node.RequestBuffers(&count), 0) << "the freed queue can be taken";
    count = 0;
    EXPECT_EQ(node.RequestBuffers(&count), 0);

    ASSERT_TRUE(owner.Resume());
    ASSERT_TRUE(owner.AwaitReport());
    count = 3;
    EXPECT_EQ(node.RequestBuffers(&count), EBUSY);
    // A killed owner holds nothing.
    owner.Kill();
    EXPECT_EQ(owner.Wait(), -1);
    EXPECT_EQ(node.RequestBuffers(&count), 0);
    EXPECT_EQ(node.Stream(VIDIOC_STREAMON), 0);
}

TEST_F(SharedBoardTest, TheStreamingProcessShowsAnotherProcesssControlInItsNextFrame)
{
    zsim::set_frame_mode(0, zsim::FrameMode::Scripted);
    // Forked before this process has buffers and threads: a child would
    // inherit copies of them without their threads (and memcheck would
    // count the threads' memory lost in it).
    Child tuner([](Child &self) {
        VideoNode own("/dev/video0");
        return self.Report() ? SetControl(own, V4L2_CID_BRIGHTNESS, 250) : 1;
    });
    ASSERT_TRUE(tuner.AwaitReport());
    VideoNode node("/dev/video0");
    int view_zero = 1;
    ASSERT_EQ(node.Request(VIDIOC_S_INPUT, &view_zero), 0);
    uint32_t count = 1;
    ASSERT_EQ(node.RequestBuffers(&count), 0);
    BufferRecord query(0);
    ASSERT_EQ(node.Request(VIDIOC_QUERYBUF, &query.buf), 0);
    void *mapped = mmap(nullptr, query.plane[0].length, PROT_READ, MAP_SHARED, node.fd(), query.plane[0].m.mem_offset);
    ASSERT_NE(mapped, MAP_FAILED);
    const auto *plane = static_cast<const uint8_t *>(mapped);
    ASSERT_EQ(node.Stream(VIDIOC_STREAMON), 0);
    // Frame `sequence`, dequeued; its luma in the middle of the picture.
    auto frame = [&](uint32_t sequence) {
        BufferRecord record(0);
        EXPECT_EQ(node.Request(VIDIOC_QBUF, &record.buf), 0);
        zsim::ScriptedFrame scripted;
        scripted.sequence = sequence;
        scripted.paint = true;
        zsim::push_frame(0, scripted);
        EXPECT_EQ(node.Request(VIDIOC_DQBUF, &record.buf), 0);
        uint32_t painted = 0;
        EXPECT_TRUE(zsim::detail::read_frame_number(plane, query.plane[0].length, {zsim::kNV12, 1920, 1080},
                                                    &painted));
        EXPECT_EQ(painted, sequence);
        return MiddleLuma(plane, 1920, 1080);
    };
    const unsigned before = frame(1);
    ASSERT_TRUE(tuner.Resume());
    ASSERT_EQ(tuner.Wait(), 0);
    EXPECT_GE(frame(2), before + 60);
    munmap(mapped, query.plane[0].length);
}

TEST_F(SharedBoardTest, AProcessKilledHoldingTheBoardsLockDoesNotWedgeIt)
{
    Child holder([](Child &self) {
        zsim::detail::BoardLock hold;
        self.Report();
        return 0;
    });
    ASSERT_TRUE(holder.AwaitReport());
    holder.Kill();
    EXPECT_EQ(holder.Wait(), -1);
    VideoNode node("/dev/video0");
    EXPECT_EQ(SetControl(node, V4L2_CID_BRIGHTNESS, 50), 0);
    EXPECT_EQ(GetControl(node, V4L2_CID_BRIGHTNESS), 50);
}

} // namespace
