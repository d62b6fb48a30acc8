// Camera discovery against the simulated /dev/isp_misc: counts against the
// records asked for, records byte for byte, a driver that reports more than
// the table holds, and a node that is missing or refuses.
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <vector>

#include "driver/isp_requests.h"
#include "sim_fixture.h"

namespace {

constexpr uint8_t kUntouched = 0xA5;

using zelvideo::_camera_info_t;

class CameraDiscoveryTest : public zelisp_test::SimTest {
protected:
    void SetUp() override
    {
        SimTest::SetUp();
        memset(records_, kUntouched, sizeof records_);
    }
    bool Untouched(int first, int last) const
    {
        const auto *bytes = reinterpret_cast<const uint8_t *>(&records_[first]);
        for (size_t i = 0; i < sizeof(_camera_info_t) * size_t(last - first); ++i)
            if (bytes[i] != kUntouched)
                return false;
        return true;
    }
    static std::vector<uint8_t> Bytes(const _camera_info_t &record)
    {
        const auto *bytes = reinterpret_cast<const uint8_t *>(&record);
        return std::vector<uint8_t>(bytes, bytes + sizeof record);
    }

    _camera_info_t records_[14];
};

TEST_F(CameraDiscoveryTest, NoValidCameraGivesCountZeroAndNoRecord)
{
    zsim::set_valid_camera_count(0);
    uint32_t count = 9;
    EXPECT_EQ(isp_get_valid_camera_count(&count), 0);
    EXPECT_EQ(count, 0u);
    count = 9;
    EXPECT_EQ(isp_get_valid_camera_info(records_, 0, &count), 0);
    EXPECT_EQ(count, 0u);

    count = 9;
    zelisp_test::OutputCapture output;
    EXPECT_EQ(isp_get_valid_camera_info(records_, 1, &count), -15);
    output.Stop();
    EXPECT_EQ(output.out(), "invailed camera_num! \n");
    EXPECT_EQ(count, 0u);
    EXPECT_TRUE(Untouched(0, 14));
}

TEST_F(CameraDiscoveryTest, FourCamerasReachTheCallerByteForByte)
{
    zsim::set_valid_camera_count(4);
    uint32_t count = 0;
    ASSERT_EQ(isp_get_valid_camera_info(records_, 4, &count), 0);
    EXPECT_EQ(count, 4u);
    for (int slot = 0; slot < 4; ++slot) {
        EXPECT_EQ(Bytes(records_[slot]), zsim::camera_info_record(slot));
        EXPECT_EQ(records_[slot].camera_index, slot);
    }
    EXPECT_TRUE(Untouched(4, 14));

    memset(records_, kUntouched, sizeof records_);
    zelisp_test::OutputCapture output;
    count = 0;
    EXPECT_EQ(isp_get_valid_camera_info(records_, 5, &count), -15);
    EXPECT_EQ(count, 4u); // stored before the check
    count = 0;
    EXPECT_EQ(isp_get_valid_camera_info(records_, uint32_t(-1), &count), -15);
    EXPECT_EQ(count, 4u);
    output.Stop();
    EXPECT_EQ(output.out(), "invailed camera_num! \ninvailed camera_num! \n");
    EXPECT_TRUE(Untouched(0, 14));

    // Nothing is cached: each call asks the driver on a node of its own.
    zsim::set_valid_camera_count(2);
    EXPECT_EQ(isp_get_valid_camera_count(&count), 0);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(zsim::requests(zelisp::GET_VAILED_CAMERA_INFO).size(), 4u);
    EXPECT_EQ(zsim::requests(zsim::kOpen).size(), zsim::requests(zsim::kClose).size());
}

TEST_F(CameraDiscoveryTest, DriverCountAboveTwelveIsHeldToTheTable)
{
    zsim::set_valid_camera_count(40);
    uint32_t count = 0;
    EXPECT_EQ(isp_get_valid_camera_count(&count), 0);
    EXPECT_EQ(count, 12u);
    EXPECT_EQ(isp_get_valid_camera_info(records_, 12, &count), 0);
    EXPECT_TRUE(Untouched(12, 14));
    memset(records_, kUntouched, sizeof records_);
    zelisp_test::OutputCapture output;
    EXPECT_EQ(isp_get_valid_camera_info(records_, 13, &count), -15);
    EXPECT_TRUE(Untouched(0, 14));
}

TEST_F(CameraDiscoveryTest, MissingOrRefusingNodeLeavesCountZero)
{
    zsim::set_node_kind("/dev/isp_misc", zsim::NodeKind::Missing);
    uint32_t count = 9;
    zelisp_test::OutputCapture missing;
    EXPECT_EQ(isp_get_valid_camera_count(&count), -9);
    EXPECT_EQ(isp_get_valid_camera_info(records_, 1, &count), -9);
    missing.Stop();
    EXPECT_EQ(count, 0u);
    const std::string line = "open error\n: " + zelisp_test::ErrorText(ENOENT) + "\n";
    EXPECT_EQ(missing.err(), line + line);

    zsim::set_node_kind("/dev/isp_misc", zsim::NodeKind::CharDevice);
    zsim::clear_log();
    zelisp_test::OutputCapture refused;
    zsim::fail_request(zelisp::GET_VAILED_CAMERA_INFO, 1, EIO);
    count = 9;
    EXPECT_EQ(isp_get_valid_camera_count(&count), -11);
    EXPECT_EQ(count, 0u);
    // The table request is sent once: an interruption fails the call too.
    zsim::interrupt_request(zelisp::GET_VAILED_CAMERA_INFO, 1);
    count = 9;
    EXPECT_EQ(isp_get_valid_camera_info(records_, 1, &count), -11);
    EXPECT_EQ(count, 9u);
    refused.Stop();
    EXPECT_EQ(refused.out(), "ioctl GET_VAILED_CAMERA_INFO failed! \nioctl GET_VAILED_CAMERA_INFO failed! \n");
    EXPECT_EQ(zsim::requests(zelisp::GET_VAILED_CAMERA_INFO).size(), 2u);
    EXPECT_TRUE(Untouched(0, 14));
}

TEST_F(CameraDiscoveryTest, NullArgumentsAreRefusedBeforeTheNodeIsOpened)
{
    uint32_t count = 9;
    EXPECT_EQ(isp_get_valid_camera_count(nullptr), -15);
    EXPECT_EQ(isp_get_valid_camera_info(records_, 1, nullptr), -15);
    EXPECT_EQ(isp_get_valid_camera_info(nullptr, 1, &count), -15);
    EXPECT_TRUE(zsim::request_log().empty());
    EXPECT_EQ(isp_get_valid_camera_info(nullptr, 0, &count), 0); // no record wanted, none needed
    EXPECT_EQ(count, 4u);
}

} // namespace
