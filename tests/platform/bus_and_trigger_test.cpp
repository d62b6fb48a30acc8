// Sensor bus ownership and the single-camera trigger modes against the
// simulated /dev/isp_misc: exact records, ranges, which requests are
// repeated after an interruption, and refusals that still succeed.
#include <cerrno>
#include <cstdint>
#include <vector>

#include "driver/isp_requests.h"
#include "sim_fixture.h"

namespace {

// The trigger record names no camera: the handle is only tested against 0.
constexpr unsigned long kAnyHandle = 1;

using Bytes = std::vector<uint8_t>;
using zelisp_test::ErrorText;
using zelisp_test::OutputCapture;

class BusAndTriggerTest : public zelisp_test::SimTest {
protected:
    static std::vector<Bytes> Sent(uint32_t request)
    {
        std::vector<Bytes> sent;
        for (const zsim::LogEntry &entry : zsim::requests(request))
            sent.push_back(entry.raw);
        return sent;
    }
};

TEST_F(BusAndTriggerTest, BusOwnershipSendsTheSlotAndTheOwner)
{
    OutputCapture output;
    EXPECT_EQ(isp_set_i2c_ctrl(11, 1), 0); // camera 11 was never opened
    EXPECT_EQ(isp_set_i2c_ctrl(0, 0), 0);
    EXPECT_EQ(isp_set_i2c_ctrl(12, 0), -15);
    EXPECT_EQ(isp_set_i2c_ctrl(0, 2), -15);
    output.Stop();
    EXPECT_EQ(output.out(), "set ARM to control i2c bus!\nset ISP to control i2c bus!\n");
    EXPECT_EQ(Sent(zelisp::IOC_SET_I2C_CTRL), (std::vector<Bytes>{{11, 0, 0, 0, 1, 0, 0, 0}, {0, 0, 0, 0, 0, 0, 0, 0}}));
    EXPECT_EQ(zsim::requests(zsim::kOpen).size(), 2u); // the refusals opened nothing
}

TEST_F(BusAndTriggerTest, BusToIspIsRepeatedAfterASignalBusToArmIsNot)
{
    OutputCapture output;
    zsim::interrupt_request(zelisp::IOC_SET_I2C_CTRL, 1);
    EXPECT_EQ(isp_set_i2c_ctrl(3, 0), 0);
    zsim::interrupt_request(zelisp::IOC_SET_I2C_CTRL, 1);
    EXPECT_EQ(isp_set_i2c_ctrl(3, 1), -9);
    zsim::fail_request(zelisp::IOC_SET_I2C_CTRL, 1, EIO);
    EXPECT_EQ(isp_set_i2c_ctrl(3, 0), -9);
    output.Stop();
    EXPECT_EQ(output.out(), "set ISP to control i2c bus!\nioctl IOC_SET_I2C_CTRL failed! \n"
                            "ioctl IOC_SET_I2C_CTRL failed! \n");
    EXPECT_EQ(zsim::requests(zelisp::IOC_SET_I2C_CTRL).size(), 4u);
}

TEST_F(BusAndTriggerTest, InternalTriggerRecordLeavesTheExternalWordZero)
{
    EXPECT_EQ(isp_set_internal_trigger(kAnyHandle, 2, 7, 0xFFFFFFFF), 0);
    EXPECT_EQ(Sent(zelisp::IOC_SET_MIPI_TRIGGER_MODE),
              (std::vector<Bytes>{{0, 0, 0, 0, 2, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 7, 0, 0, 0, 0, 0, 0, 0}}));
    EXPECT_EQ(zsim::trigger_mode(), zsim::TriggerMode::Internal);

    zsim::clear_log();
    EXPECT_EQ(isp_set_internal_trigger(0, 0, 0, 0), -15);
    EXPECT_EQ(isp_set_internal_trigger(kAnyHandle, 3, 0, 0), -15);
    EXPECT_EQ(isp_set_internal_trigger(kAnyHandle, 0, 8, 0), -15);
    EXPECT_TRUE(zsim::request_log().empty());
}

TEST_F(BusAndTriggerTest, ExternalTriggerRecordLeavesTheInternalWordZero)
{
    EXPECT_EQ(isp_set_external_trigger(kAnyHandle, 1, 5, 2), 0);
    EXPECT_EQ(Sent(zelisp::IOC_SET_MIPI_TRIGGER_MODE),
              (std::vector<Bytes>{{1, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 5, 0, 0, 0, 2, 0, 0, 0}}));
    EXPECT_EQ(zsim::trigger_mode(), zsim::TriggerMode::External);

    zsim::clear_log();
    EXPECT_EQ(isp_set_external_trigger(0, 0, 0, 0), -15);
    EXPECT_EQ(isp_set_external_trigger(kAnyHandle, 3, 0, 0), -15);
    EXPECT_EQ(isp_set_external_trigger(kAnyHandle, 0, 8, 0), -15);
    EXPECT_EQ(isp_set_external_trigger(kAnyHandle, 0, 0, 3), -15);
    EXPECT_TRUE(zsim::request_log().empty());
}

TEST_F(BusAndTriggerTest, RefusedTriggerIsPrintedAndStillSucceeds)
{
    OutputCapture output;
    zsim::fail_request(zelisp::IOC_SET_MIPI_TRIGGER_MODE, 1, EIO);
    EXPECT_EQ(isp_set_internal_trigger(kAnyHandle, 0, 0, 0), 0);
    zsim::fail_request(zelisp::IOC_SET_MIPI_TRIGGER_MODE, 1, EIO);
    EXPECT_EQ(isp_set_external_trigger(kAnyHandle, 0, 0, 0), 0);
    // Internal mode goes through a signal; external mode is sent once.
    zsim::interrupt_request(zelisp::IOC_SET_MIPI_TRIGGER_MODE, 1);
    EXPECT_EQ(isp_set_internal_trigger(kAnyHandle, 0, 0, 0), 0);
    zsim::interrupt_request(zelisp::IOC_SET_MIPI_TRIGGER_MODE, 1);
    EXPECT_EQ(isp_set_external_trigger(kAnyHandle, 0, 0, 0), 0);
    output.Stop();
    EXPECT_EQ(output.out(), "ioctl IOC_SET_MIPI_TRIGGER_MODE failed! \n");
    EXPECT_EQ(output.err(), "ioctl IOC_SET_MIPI_TRIGGER_MODE failed! \n: " + ErrorText(EIO) + "\n" +
                                "ioctl IOC_SET_MIPI_TRIGGER_MODE failed! \n: " + ErrorText(EINTR) + "\n");
    EXPECT_EQ(zsim::requests(zelisp::IOC_SET_MIPI_TRIGGER_MODE).size(), 5u);
}

TEST_F(BusAndTriggerTest, MissingNodeFailsEveryCallWithMinus9)
{
    zsim::set_node_kind("/dev/isp_misc", zsim::NodeKind::Missing);
    OutputCapture output;
    EXPECT_EQ(isp_set_i2c_ctrl(0, 0), -9);
    EXPECT_EQ(isp_set_internal_trigger(kAnyHandle, 0, 0, 0), -9);
    EXPECT_EQ(isp_set_external_trigger(kAnyHandle, 0, 0, 0), -9);
    output.Stop();
    const std::string line = "open isp_misc error\n: " + ErrorText(ENOENT) + "\n";
    EXPECT_EQ(output.err(), line + line + line);
    EXPECT_EQ(output.out(), "");
}

} // namespace
