/*
 * sensor_bus.cpp - who drives a camera sensor's I2C bus: the ISP (its own
 * sensor control loop) or the ARM side (an application talking to the
 * sensor directly). The platform driver switches it per camera slot; the
 * camera itself need not be open.
 */

#include "library/messages.h"
#include "platform/misc_node.h"
#include "platform/misc_session.h"

namespace zelisp {

namespace {

I2cCtrlRecord I2cCtrl(uint32_t camera_index, uint32_t i2c_bus_ctrler)
{
    I2cCtrlRecord record{};
    record.camera_index = camera_index;
    record.i2c_bus_ctrler = i2c_bus_ctrler;
    return record;
}

} // namespace

int SetI2cCtrl(uint32_t camera_index, uint32_t i2c_bus_ctrler)
{
    MiscSession node;
    if (!node.opened()) {
        EmitSystemError("open isp_misc error\n");
        return ISP_ERR_OPEN;
    }
    I2cCtrlRecord record = I2cCtrl(camera_index, i2c_bus_ctrler);
    // Giving the bus back to the ISP must survive a signal, or its sensor
    // loop would stay locked out; it is repeated while interrupted. Handing
    // the bus to the ARM side is sent once: an interrupted hand-over is a
    // failure the application sees and decides about.
    const bool to_isp = i2c_bus_ctrler == kBusIsp;
    if (DriverRequest(node.fd(), IOC_SET_I2C_CTRL, &record, to_isp ? Retry::WhileInterrupted : Retry::Once) != 0) {
        EmitLine(ISP_MESSAGE_FAILURE, Console::Stdio, nullptr, "ioctl IOC_SET_I2C_CTRL failed! ");
        return ISP_ERR_OPEN;
    }
    EmitLine(ISP_MESSAGE_PROGRESS, Console::Stdio, nullptr,
             to_isp ? "set ISP to control i2c bus!" : "set ARM to control i2c bus!");
    return ISP_OK;
}

} // namespace zelisp
