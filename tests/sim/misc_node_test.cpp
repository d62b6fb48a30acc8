// The simulated platform driver behind /dev/isp_misc, reached with raw
// requests: the valid-camera table and the records it checks.
#include <cstring>
#include <vector>

#include "driver/isp_requests.h"
#include "sim_fixture.h"
#include "video_test_node.h"

namespace {


using Bytes = std::vector<uint8_t>;

class MiscNodeTest : public zelisp_test::SimTest {
protected:
    // Reads the 488-byte table into table_, which has a guard after it.
    uint32_t ReadTable()
    {
        zelisp_test::VideoNode misc("/dev/isp_misc");
        memset(table_, 0xEE, sizeof table_);
        EXPECT_EQ(misc.Request(zelisp::GET_VAILED_CAMERA_INFO, table_), 0);
        return table_[480] | table_[481] << 8 | table_[482] << 16 | uint32_t(table_[483]) << 24;
    }
    static int Send(unsigned long request, std::vector<uint32_t> words)
    {
        zelisp_test::VideoNode misc("/dev/isp_misc");
        return misc.Request(request, words.data());
    }
    Bytes Record(int slot) const { return Bytes(table_ + 40 * slot, table_ + 40 * slot + 40); }

    uint8_t table_[496];
};

TEST_F(MiscNodeTest, TableListsThePresentCamerasWithTheirDriverData)
{
    zsim::remove_camera(1);
    zsim::set_camera(9, zsim::CameraConfig{});
    ASSERT_EQ(ReadTable(), 4u);
    const int cameras[] = {0, 2, 3, 9};
    for (int slot = 0; slot < 4; ++slot) {
        const Bytes record = Record(slot);
        EXPECT_EQ(record, zsim::camera_info_record(slot));
        EXPECT_EQ(Bytes(record.begin() + 32, record.begin() + 36), (Bytes{uint8_t(cameras[slot]), 0, 0, 0}));
        EXPECT_EQ(record[0], uint8_t(0xC0 ^ (cameras[slot] * 0x15))); // the driver's own bytes
        EXPECT_EQ(record[39], uint8_t((0xC0 + 39) ^ (cameras[slot] * 0x15)));
    }
    for (int slot = 4; slot < 12; ++slot)
        EXPECT_EQ(Record(slot), Bytes(40, 0));
    EXPECT_EQ(Bytes(table_ + 484, table_ + 496), (Bytes{0, 0, 0, 0, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE}));
    const zsim::LogEntry entry = zsim::requests(uint32_t(zelisp::GET_VAILED_CAMERA_INFO)).back();
    EXPECT_EQ(entry.detail, "count=4 cameras=0,2,3,9");
    EXPECT_EQ(entry.raw.size(), 488u);

    for (int count : {0, 12, 40}) {
        zsim::set_valid_camera_count(count);
        EXPECT_EQ(ReadTable(), uint32_t(count));
        EXPECT_EQ(Record(3), zsim::camera_info_record(3));
        EXPECT_EQ(table_[488], 0xEE); // never past 488 bytes
    }
    zsim::reset();
    EXPECT_EQ(ReadTable(), 4u);
}

TEST_F(MiscNodeTest, BusAndTriggerRecordsAreCheckedLikeTheFirmwareDoes)
{
    EXPECT_EQ(Send(zelisp::IOC_SET_I2C_CTRL, {11, 1}), 0); // a camera that is not even present
    EXPECT_EQ(Send(zelisp::IOC_SET_I2C_CTRL, {12, 0}), EINVAL);
    EXPECT_EQ(Send(zelisp::IOC_SET_I2C_CTRL, {0, 2}), EINVAL);
    EXPECT_EQ(zsim::requests(uint32_t(zelisp::IOC_SET_I2C_CTRL)).front().raw, (Bytes{11, 0, 0, 0, 1, 0, 0, 0}));

    EXPECT_EQ(zsim::trigger_mode(), zsim::TriggerMode::None);
    ASSERT_EQ(Send(zelisp::IOC_SET_MIPI_TRIGGER_MODE, {0, 2, 0xFFFFFFFF, 7, 0}), 0);
    EXPECT_EQ(zsim::trigger_mode(), zsim::TriggerMode::Internal);
    EXPECT_EQ(zsim::requests(uint32_t(zelisp::IOC_SET_MIPI_TRIGGER_MODE)).back().detail,
              "trigger_mode=0 trigger_param1=2 internal_param3=4294967295 trigger_param2=7 external_param3=0");
    ASSERT_EQ(Send(zelisp::IOC_SET_MIPI_TRIGGER_MODE, {1, 0, 0, 0, 2}), 0);
    EXPECT_EQ(zsim::trigger_mode(), zsim::TriggerMode::External);
    // Out of the firmware's ranges, or an unknown mode: refused, nothing changes.
    for (const std::vector<uint32_t> &bad : {std::vector<uint32_t>{0, 3, 0, 0, 0}, {0, 0, 0, 8, 0},
                                             {1, 0, 0, 0, 3}, {2, 0, 0, 0, 0}})
        EXPECT_EQ(Send(zelisp::IOC_SET_MIPI_TRIGGER_MODE, bad), EINVAL);
    EXPECT_EQ(zsim::trigger_mode(), zsim::TriggerMode::External);
    zsim::reset();
    EXPECT_EQ(zsim::trigger_mode(), zsim::TriggerMode::None);
}

} // namespace
