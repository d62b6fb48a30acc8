// Requests on the simulated nodes: the capture device's identity, unknown
// requests, the request log and the faults a test plants.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "sim_fixture.h"
#include "video_test_node.h"

namespace {

using zelisp_test::VideoNode;

class CoreRequestsTest : public zelisp_test::SimTest {
protected:
    int GetInput(const VideoNode &node)
    {
        int input = -1;
        int err = node.Request(VIDIOC_G_INPUT, &input);
        return err ? -err : input;
    }
};

TEST_F(CoreRequestsTest, QuerycapDescribesAMultiPlanarStreamingCaptureDevice)
{
    VideoNode node("/dev/video1");
    ASSERT_GE(node.fd(), 0);
    v4l2_capability cap{};
    ASSERT_EQ(node.Request(VIDIOC_QUERYCAP, &cap), 0);
    const uint32_t kDeviceCaps = V4L2_CAP_VIDEO_CAPTURE_MPLANE | V4L2_CAP_STREAMING | V4L2_CAP_EXT_PIX_FORMAT;
    EXPECT_EQ(cap.device_caps, kDeviceCaps);
    EXPECT_EQ(cap.capabilities, cap.device_caps | V4L2_CAP_DEVICE_CAPS);
    EXPECT_STREQ(reinterpret_cast<char *>(cap.card), "ISP camera 1");

    // VIDIOC_QUERYCAP has the top bit set: a program that passes the
    // request as a sign-extended int still reaches the driver.
    unsigned long widened = static_cast<unsigned long>(static_cast<long>(static_cast<int>(VIDIOC_QUERYCAP)));
    ASSERT_NE(widened, static_cast<unsigned long>(VIDIOC_QUERYCAP));
    std::memset(&cap, 0, sizeof cap);
    ASSERT_EQ(ioctl(node.fd(), widened, &cap), 0);
    EXPECT_EQ(cap.device_caps, kDeviceCaps);

    // What the ISP lacks is answered as by any driver without the feature.
    v4l2_standard standard{};
    EXPECT_EQ(node.Request(VIDIOC_ENUMSTD, &standard), ENOTTY);
    VideoNode misc("/dev/isp_misc");
    EXPECT_EQ(misc.Request(VIDIOC_QUERYCAP, &cap), ENOTTY);
    auto log = zsim::request_log();
    ASSERT_EQ(log.size(), 6u); // open, two QUERYCAP, ENUMSTD, open, QUERYCAP
    EXPECT_EQ(log[3].name, "VIDIOC_ENUMSTD");
    EXPECT_EQ(log[3].error, ENOTTY);
    EXPECT_EQ(log[5].path, "/dev/isp_misc");
    EXPECT_EQ(log[5].error, ENOTTY);
}

TEST_F(CoreRequestsTest, LogKeepsTheRecordAsSentAndItsDecodedFields)
{
    VideoNode node("/dev/video2");
    zsim::clear_log();
    int input = 5;
    ASSERT_EQ(node.Request(VIDIOC_S_INPUT, &input), 0);
    input = 8; // a view the ISP does not have
    EXPECT_EQ(node.Request(VIDIOC_S_INPUT, &input), EINVAL);

    auto log = zsim::requests(uint32_t(VIDIOC_S_INPUT));
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log[0].path, "/dev/video2");
    EXPECT_EQ(log[0].name, "VIDIOC_S_INPUT");
    EXPECT_EQ(log[0].detail, "input=5");
    EXPECT_EQ(log[0].raw, (std::vector<uint8_t>{5, 0, 0, 0}));
    EXPECT_EQ(log[0].error, 0);
    EXPECT_EQ(log[1].detail, "input=8");
    EXPECT_EQ(log[1].error, EINVAL);
    zsim::clear_log();
    EXPECT_TRUE(zsim::request_log().empty());
}

TEST_F(CoreRequestsTest, LogIsBoundedAndCanBeTurnedOff)
{
    VideoNode node("/dev/video1");
    int input = 3;
    for (int i = 0; i < 4100; ++i)
        ASSERT_EQ(node.Request(VIDIOC_S_INPUT, &input), 0);
    EXPECT_EQ(zsim::request_log().size(), 4096u); // the default after reset()

    zsim::set_log_limit(3);
    EXPECT_EQ(zsim::request_log().size(), 3u); // the latest kept
    input = 1;
    ASSERT_EQ(node.Request(VIDIOC_S_INPUT, &input), 0);
    auto log = zsim::request_log();
    ASSERT_EQ(log.size(), 3u);
    EXPECT_EQ(log.back().detail, "input=1");
    EXPECT_EQ(log.back().name, "VIDIOC_S_INPUT");

    zsim::set_log_limit(0);
    EXPECT_TRUE(zsim::request_log().empty());
    ASSERT_EQ(node.Request(VIDIOC_S_INPUT, &input), 0);
    EXPECT_TRUE(zsim::request_log().empty());
}

TEST_F(CoreRequestsTest, FailRequestHitsTheNthOccurrenceForCountTimes)
{
    VideoNode node("/dev/video0");
    VideoNode other("/dev/video1");
    zsim::fail_request(uint32_t(VIDIOC_G_INPUT), 2, EIO, "/dev/video0", 2);
    EXPECT_EQ(GetInput(other), 7); // another node is not counted
    EXPECT_EQ(GetInput(node), 7);
    EXPECT_EQ(GetInput(node), -EIO);
    EXPECT_EQ(GetInput(node), -EIO);
    EXPECT_EQ(GetInput(node), 7);
    auto log = zsim::requests(uint32_t(VIDIOC_G_INPUT));
    ASSERT_EQ(log.size(), 5u);
    EXPECT_EQ(log[2].error, EIO);

    // Faults on the pseudo requests: the second open of any node.
    zsim::fail_request(zsim::kOpen, 2, EBUSY);
    VideoNode first("/dev/video3");
    VideoNode second("/dev/video3");
    EXPECT_GE(first.fd(), 0);
    EXPECT_EQ(second.fd(), -1);
    zsim::clear_faults();
    zsim::fail_request(uint32_t(VIDIOC_G_INPUT), 1, EIO);
    zsim::clear_faults();
    EXPECT_EQ(GetInput(node), 7);
}

TEST_F(CoreRequestsTest, InterruptRequestReturnsEintrBeforeGoingThrough)
{
    VideoNode node("/dev/video0");
    zsim::interrupt_request(uint32_t(VIDIOC_G_INPUT), 2);
    EXPECT_EQ(GetInput(node), -EINTR);
    EXPECT_EQ(GetInput(node), -EINTR);
    EXPECT_EQ(GetInput(node), 7);
    EXPECT_EQ(GetInput(node), 7);

    // Sticky: every occurrence is interrupted once before it goes through.
    zsim::interrupt_request(uint32_t(VIDIOC_G_INPUT), 1, "/dev/video0", true);
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(GetInput(node), -EINTR);
        EXPECT_EQ(GetInput(node), 7);
    }
    auto log = zsim::requests(uint32_t(VIDIOC_G_INPUT));
    ASSERT_EQ(log.size(), 10u);
    EXPECT_EQ(log[0].error, EINTR);
    EXPECT_EQ(log[2].error, 0);
}

} // namespace
