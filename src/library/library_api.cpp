/*
 * library_api.cpp - what belongs to the library as a whole rather than to a
 * camera: its version string, the words for each result code, so that
 * applications and tools explain a failure the same way, and where its
 * lines go.
 */
#include "library/messages.h"
#include "zelisp.h"

namespace {

struct ResultText {
    int result;
    const char *text;
};

constexpr ResultText kResultTexts[] = {
    {ISP_OK, "success"},
    {ISP_ERR_SELECT, "waiting for the video node failed"},
    {ISP_ERR_BUFFER_COUNT, "the buffer count must be between 3 and 8"},
    {ISP_ERR_STATE, "the camera or group is not in a state that allows this call"},
    {ISP_ERR_NO_NODE, "the video node does not exist, or the valid-camera table could not be read"},
    {ISP_ERR_MISSING, "something needed is missing or too large"},
    {ISP_ERR_OPEN, "a device node could not be opened, or the sensor bus could not be taken"},
    {ISP_ERR_CLOSE, "closing the video node failed"},
    {ISP_ERR_REQUEST, "a driver request failed, or the frame was refused"},
    {ISP_ERR_MAP, "mapping a capture buffer into memory failed"},
    {ISP_ERR_TIMEOUT, "no frame arrived within the time limit"},
    {ISP_ERR_NOT_READY, "no frame is ready yet, or the wait was interrupted"},
    {ISP_ERR_INVALID, "invalid argument"},
    {ISP_ERR_WAIT_INTERRUPTED, "the wait for several cameras was interrupted by a signal"},
    {ISP_ERR_NO_VALID_CAMERA, "the group has no valid camera"},
};

} // namespace

extern "C" ZELISP_API const char *isp_get_sdk_version(void)
{
    return "zelisp:v1.3.0";
}

extern "C" ZELISP_API const char *isp_get_result_text(int result)
{
    for (const ResultText &entry : kResultTexts) {
        if (entry.result == result)
            return entry.text;
    }
    return "unknown result code";
}

extern "C" ZELISP_API void isp_set_message_handler(isp_message_handler_t handler, void *user)
{
    zelisp::SetMessageRoute(handler, user);
}
