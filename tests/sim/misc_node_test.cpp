// The simulated platform driver behind /dev/isp_misc, reached with raw
// requests: the valid-camera table, bus ownership and trigger records.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "sim_fixture.h"

namespace {

constexpr unsigned long kGetValidCameraInfo = 0x80047941;
constexpr unsigned long kSetI2cCtrl = 0x40047944;
constexpr unsigned long kSetTriggerMode = 0x80047943;

using Bytes = std::vector<uint8_t>;

class MiscNodeTest : public zelisp_test::SimTest {
protected:
    void SetUp() override
    {
        SimTest::SetUp();
        fd_ = open("/dev/isp_misc", O_RDWR);
        ASSERT_GE(fd_, 0);
    }
    void TearDown() override
    {
        close(fd_);
        SimTest::TearDown();
    }
    int Request(unsigned long request, void *arg) { return ioctl(fd_, request, arg) == 0 ? 0 : errno; }
    // Reads the 488-byte table into table_ (with a guard after it).
    uint32_t ReadTable()
    {
        memset(table_, 0xEE, sizeof table_);
        EXPECT_EQ(Request(kGetValidCameraInfo, table_), 0);
        uint32_t count;
        memcpy(&count, table_ + 480, 4);
        return count;
    }
    Bytes Record(int slot) const { return Bytes(table_ + 40 * slot, table_ + 40 * slot + 40); }
    static Bytes Words(std::initializer_list<uint32_t> words)
    {
        Bytes bytes;
        for (uint32_t word : words)
            for (int shift = 0; shift < 32; shift += 8)
                bytes.push_back(uint8_t(word >> shift));
        return bytes;
    }

    int fd_ = -1;
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
        EXPECT_EQ(Bytes(record.begin() + 32, record.begin() + 36), Words({uint32_t(cameras[slot])}));
        // The driver's own bytes around the index: a pattern of the camera.
        EXPECT_EQ(record[0], uint8_t(0xC0 ^ (cameras[slot] * 0x15)));
        EXPECT_EQ(record[39], uint8_t((0xC0 + 39) ^ (cameras[slot] * 0x15)));
    }
    for (int slot = 4; slot < 12; ++slot)
        EXPECT_EQ(Record(slot), Bytes(40, 0));
    EXPECT_EQ(Bytes(table_ + 484, table_ + 488), Bytes(4, 0));
    EXPECT_EQ(Bytes(table_ + 488, table_ + 496), Bytes(8, 0xEE)); // never past 488 bytes
    EXPECT_TRUE(zsim::camera_info_record(12).empty());

    const zsim::LogEntry entry = zsim::requests(uint32_t(kGetValidCameraInfo)).back();
    EXPECT_EQ(entry.detail, "count=4 cameras=0,2,3,9");
    EXPECT_EQ(entry.raw.size(), 488u);
}

TEST_F(MiscNodeTest, CountOverrideIsReportedAsGivenOverTheSameRecords)
{
    for (int count : {0, 4, 12, 13, 40}) {
        zsim::set_valid_camera_count(count);
        EXPECT_EQ(ReadTable(), uint32_t(count));
        EXPECT_EQ(Record(0), zsim::camera_info_record(0));
        EXPECT_EQ(Bytes(table_ + 488, table_ + 496), Bytes(8, 0xEE));
    }
    zsim::set_valid_camera_count(-1);
    EXPECT_EQ(ReadTable(), 4u);
    zsim::set_valid_camera_count(0);
    zsim::reset();
    EXPECT_EQ(ReadTable(), 4u);
}

TEST_F(MiscNodeTest, BusOwnershipRecordIsLoggedWholeAndChecked)
{
    uint32_t record[2] = {11, 1};
    EXPECT_EQ(Request(kSetI2cCtrl, record), 0); // a camera nobody opened, or absent
    record[0] = 12;
    EXPECT_EQ(Request(kSetI2cCtrl, record), EINVAL);
    record[0] = 0;
    record[1] = 2;
    EXPECT_EQ(Request(kSetI2cCtrl, record), EINVAL);
    const std::vector<zsim::LogEntry> sent = zsim::requests(uint32_t(kSetI2cCtrl));
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_EQ(sent[0].raw, Words({11, 1}));
    EXPECT_EQ(sent[0].detail, "camera_index=11 i2c_bus_ctrler=1");
    EXPECT_EQ(sent[2].error, EINVAL);
}

TEST_F(MiscNodeTest, TriggerRecordSetsTheModeWhenTheDriverAcceptsIt)
{
    EXPECT_EQ(zsim::trigger_mode(), zsim::TriggerMode::None);
    uint32_t internal[5] = {0, 2, 0xFFFFFFFF, 7, 0};
    ASSERT_EQ(Request(kSetTriggerMode, internal), 0);
    EXPECT_EQ(zsim::trigger_mode(), zsim::TriggerMode::Internal);
    EXPECT_EQ(zsim::requests(uint32_t(kSetTriggerMode)).back().raw, Words({0, 2, 0xFFFFFFFF, 7, 0}));
    EXPECT_EQ(zsim::requests(uint32_t(kSetTriggerMode)).back().detail,
              "trigger_mode=0 trigger_param1=2 internal_param3=4294967295 trigger_param2=7 external_param3=0");

    uint32_t external[5] = {1, 0, 0, 0, 2};
    ASSERT_EQ(Request(kSetTriggerMode, external), 0);
    EXPECT_EQ(zsim::trigger_mode(), zsim::TriggerMode::External);

    // Parameters outside the firmware's ranges, or an unknown mode, change nothing.
    for (const auto &bad : {std::vector<uint32_t>{0, 3, 0, 0, 0}, std::vector<uint32_t>{0, 0, 0, 8, 0},
                            std::vector<uint32_t>{1, 0, 0, 0, 3}, std::vector<uint32_t>{2, 0, 0, 0, 0}}) {
        std::vector<uint32_t> record = bad;
        EXPECT_EQ(Request(kSetTriggerMode, record.data()), EINVAL);
    }
    EXPECT_EQ(zsim::trigger_mode(), zsim::TriggerMode::External);
    zsim::reset();
    EXPECT_EQ(zsim::trigger_mode(), zsim::TriggerMode::None);
}

} // namespace
