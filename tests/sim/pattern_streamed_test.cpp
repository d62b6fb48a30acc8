// The test pattern as a V4L2 client receives it: every plane of a dequeued
// buffer carries its view's format and the frame's sequence number.
#include <sys/mman.h>

#include <vector>

#include "../../sim/src/sim_internal.h"
#include "sim_fixture.h"
#include "video_test_node.h"

namespace {

using zelisp_test::BufferRecord;
using zelisp_test::VideoNode;

class PatternStreamedTest : public zelisp_test::SimTest {};

TEST_F(PatternStreamedTest, EveryPlaneCarriesTheFrameNumberInItsViewsFormat)
{
    zsim::CameraConfig config;
    config.views[0] = {zsim::kYUYV, 640, 360};
    config.views[1] = {zsim::kRGB24, 320, 240};
    config.views[2] = {zsim::kGREY, 320, 240};
    zsim::set_camera(1, config);
    zsim::set_frame_mode(1, zsim::FrameMode::Scripted);

    VideoNode node("/dev/video1");
    ASSERT_GE(node.fd(), 0);
    uint32_t count = 1;
    ASSERT_EQ(node.RequestBuffers(&count), 0);
    BufferRecord record;
    ASSERT_EQ(node.Request(VIDIOC_QUERYBUF, &record.buf), 0);
    ASSERT_EQ(record.buf.length, 3u);
    std::vector<void *> planes;
    for (int j = 0; j < 3; ++j) {
        void *plane = mmap(nullptr, record.plane[j].length, PROT_READ, MAP_SHARED, node.fd(),
                           record.plane[j].m.mem_offset);
        ASSERT_NE(plane, MAP_FAILED);
        planes.push_back(plane);
    }
    ASSERT_EQ(node.Request(VIDIOC_QBUF, &record.buf), 0);
    ASSERT_EQ(node.Stream(VIDIOC_STREAMON), 0);

    zsim::ScriptedFrame frame;
    frame.sequence = 0x00C0FFEE;
    frame.paint = true;
    zsim::push_frame(1, frame);
    BufferRecord filled;
    ASSERT_EQ(node.Request(VIDIOC_DQBUF, &filled.buf), 0);
    for (int j = 0; j < 3; ++j) {
        uint32_t sequence = 0;
        EXPECT_TRUE(zsim::detail::read_frame_number(static_cast<const uint8_t *>(planes[j]),
                                                    record.plane[j].length, config.views[j], &sequence))
            << "plane " << j;
        EXPECT_EQ(sequence, 0x00C0FFEEu) << "plane " << j;
    }

    ASSERT_EQ(node.Stream(VIDIOC_STREAMOFF), 0);
    for (int j = 0; j < 3; ++j)
        munmap(planes[j], record.plane[j].length);
}

} // namespace
