/*
 * messages_test.cpp - the library's lines taken over by a message handler:
 * what each kind of line carries, that the console is untouched without a
 * handler, and that a handler can be replaced while another thread reads
 * frames.
 *
 * Every other library test also runs once with a handler that prints what
 * it is given as the console would (the "routed." tests), which proves the
 * texts line by line; here are the fields and the lifetimes.
 */
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "driver/isp_requests.h"
#include "sim_fixture.h"

namespace zelisp_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct Line {
    int kind;
    int error_number;
    std::string text;
    std::string label; // "(none)" when the line has none
    std::string dev_path;

    bool operator==(const Line &other) const
    {
        return kind == other.kind && error_number == other.error_number && text == other.text &&
               label == other.label && dev_path == other.dev_path;
    }
};

std::ostream &operator<<(std::ostream &out, const Line &line)
{
    return out << "{" << line.kind << ", " << line.error_number << ", \"" << line.text << "\", \"" << line.label
               << "\", \"" << line.dev_path << "\"}";
}

constexpr const char *kNone = "(none)";

Line Progress(const std::string &text, const std::string &dev_path = kNone)
{
    return {ISP_MESSAGE_PROGRESS, 0, text, kNone, dev_path};
}
Line Failure(const std::string &text, const std::string &dev_path = kNone)
{
    return {ISP_MESSAGE_FAILURE, 0, text, kNone, dev_path};
}
Line SystemError(const std::string &label, int err, const std::string &dev_path = kNone)
{
    return {ISP_MESSAGE_SYSTEM_ERROR, err, label + ": " + ErrorText(err), label, dev_path};
}

// Keeps every line it is handed, from any thread.
class Recorder {
public:
    static void Handle(const zelvideo::_isp_message_t *message, void *user)
    {
        auto *recorder = static_cast<Recorder *>(user);
        std::lock_guard<std::mutex> lock(recorder->mutex_);
        recorder->lines_.push_back({message->kind, message->error_number, message->text,
                                    message->label != nullptr ? message->label : kNone,
                                    message->dev_path != nullptr ? message->dev_path : kNone});
    }
    std::vector<Line> Take()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::move(lines_);
    }

private:
    std::mutex mutex_;
    std::vector<Line> lines_;
};

class MessageHandler : public SimTest {
protected:
    void TearDown() override
    {
        isp_set_message_handler(nullptr, nullptr);
        for (unsigned long handle : handles_)
            isp_close_video(handle);
        SimTest::TearDown();
    }
    unsigned long Open(uint32_t camera = 0)
    {
        const unsigned long handle = isp_open_video(camera, 1);
        EXPECT_NE(handle, 0u);
        handles_.push_back(handle);
        return handle;
    }

    Recorder recorder_;
    std::vector<unsigned long> handles_;
};

// A run that prints every kind of line, camera, platform and group lines
// among them, and one line the console leaves open.
void PrintEveryKindOfLine()
{
    zsim::fail_request(VIDIOC_S_CTRL, 1, EIO, "/dev/video1");
    const unsigned long camera = isp_open_video(1, 1);
    isp_init_video(camera, 5, 3);
    isp_camera_set_brightness(camera, 10);
    isp_start_capture(camera);
    isp_start_capture(camera);
    isp_set_i2c_ctrl(1, 1);
    unsigned long group = 0;
    isp_create_empty_video_group(&group, 1, "rig", 2);
    unsigned long handle = 0;
    isp_group_get_camera_handle(group, 1, &handle);
    isp_destroy_video_group(group);
    const int members[] = {2};
    isp_create_video_group(&group, 1, "mixed", members, 1);
    int opened[1];
    isp_group_open_video(group, 1, opened);
    zelvideo::isp_group_set_view_format(group, 0, {zsim::kNV12, 640, 360});
    isp_destroy_video_group(group);
    isp_close_video(camera);
}

TEST_F(MessageHandler, EachKindOfLineCarriesItsTextErrnoLabelAndCamera)
{
    isp_set_message_handler(Recorder::Handle, &recorder_);
    OutputCapture console;
    PrintEveryKindOfLine();
    console.Stop();

    EXPECT_EQ(console.out(), "");
    EXPECT_EQ(console.err(), "");
    EXPECT_THAT(recorder_.Take(),
                ElementsAre(Progress("/dev/video1 view input supported combination: 7", "/dev/video1"),
                            Progress("/dev/video1 view input combination: 5", "/dev/video1"),
                            Failure("/dev/video1 SetBrightness failed", "/dev/video1"),
                            SystemError("SetBrightness", EIO, "/dev/video1"),
                            Failure("StartCapture: bad state 4", "/dev/video1"),
                            Progress("set ARM to control i2c bus!"), SystemError("Empty group !!!\n", EIO),
                            Failure("Only the same camera is supported")));
}

TEST_F(MessageHandler, ConsoleIsUnchangedByteForByteWithoutAHandlerAndAfterOneIsRemoved)
{
    const std::string expected_out = "/dev/video1 view input supported combination: 7\n"
                                     "/dev/video1 view input combination: 5\n"
                                     "/dev/video1 SetBrightness failed\n"
                                     "StartCapture: bad state 4\n"
                                     "set ARM to control i2c bus!\n"
                                     "Only the same camera is supported";
    const std::string expected_err = "SetBrightness: " + ErrorText(EIO) + "\nEmpty group !!!\n: " + ErrorText(EIO) + "\n";

    OutputCapture before;
    PrintEveryKindOfLine();
    before.Stop();
    EXPECT_EQ(before.out(), expected_out);
    EXPECT_EQ(before.err(), expected_err);

    isp_set_message_handler(Recorder::Handle, &recorder_);
    isp_set_message_handler(nullptr, &recorder_);
    OutputCapture after;
    PrintEveryKindOfLine();
    after.Stop();
    EXPECT_EQ(after.out(), expected_out);
    EXPECT_EQ(after.err(), expected_err);
    EXPECT_THAT(recorder_.Take(), IsEmpty());
}

// A handler is free to use errno; the library's own report after it still
// names the driver's refusal, and the caller finds errno as it was.
TEST_F(MessageHandler, HandlerThatChangesErrnoChangesNothingForTheLibrary)
{
    const auto clobber = [](const zelvideo::_isp_message_t *message, void *user) {
        Recorder::Handle(message, user);
        errno = EPERM;
    };
    const unsigned long camera = Open();
    isp_set_message_handler(clobber, &recorder_);
    zsim::fail_request(VIDIOC_G_CTRL, 1, ENODEV);
    uint32_t value = 7;
    errno = 0;
    EXPECT_EQ(isp_camera_get_contrast(camera, &value), ISP_ERR_REQUEST);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(value, 7u);
    EXPECT_THAT(recorder_.Take(), ElementsAre(Failure("/dev/video0 GetContrast failed", "/dev/video0"),
                                              SystemError("GetContrast", ENODEV, "/dev/video0")));
}

// The failed trigger request is only ever a line (the call succeeds), so a
// program learns of it from its handler.
TEST_F(MessageHandler, RefusedTriggerRequestsReachTheHandler)
{
    const unsigned long camera = Open();
    isp_set_message_handler(Recorder::Handle, &recorder_);
    zsim::fail_request(zelisp::IOC_SET_MIPI_TRIGGER_MODE, 1, EBUSY, "", 2);
    EXPECT_EQ(isp_set_internal_trigger(camera, 0, 0, 0), ISP_OK);
    EXPECT_EQ(isp_set_external_trigger(camera, 0, 0, 0), ISP_OK);
    EXPECT_THAT(recorder_.Take(), ElementsAre(Failure("ioctl IOC_SET_MIPI_TRIGGER_MODE failed! "),
                                              SystemError("ioctl IOC_SET_MIPI_TRIGGER_MODE failed! \n", EBUSY)));
}

// Handlers take turns with the console while another thread reads frames
// 2 ms apart, every other one refused with a line. Once the setter returns,
// the handler it replaced is neither running nor called again, and no line
// is lost or delivered twice.
struct CountingHandler {
    std::atomic<int> running{0};
    std::atomic<bool> retired{false};
    std::atomic<int> lines{0};
    std::atomic<int> calls_after_retirement{0};

    static void Handle(const zelvideo::_isp_message_t *, void *user)
    {
        auto *self = static_cast<CountingHandler *>(user);
        self->running.fetch_add(1);
        if (self->retired.load())
            self->calls_after_retirement.fetch_add(1);
        self->lines.fetch_add(1);
        self->running.fetch_sub(1);
    }
};

TEST_F(MessageHandler, HandlerReplacedFromAnotherThreadWhileFramesAreRead)
{
    constexpr int kFrames = 2000;
    const unsigned long camera = Open();
    zsim::set_frame_mode(0, zsim::FrameMode::Scripted);
    ASSERT_EQ(isp_init_video(camera, 1, 3), ISP_OK);
    ASSERT_EQ(isp_start_capture(camera), ISP_OK);

    OutputCapture console;
    std::atomic<bool> reading{true};
    int refused = 0;
    std::thread reader([&] {
        for (int frame = 1; frame <= kFrames; ++frame) {
            zsim::ScriptedFrame scripted;
            scripted.sequence = uint32_t(frame);
            scripted.timestamp_us = uint64_t(frame) * 2000;
            zsim::push_frame(0, scripted);
            zelvideo::_isp_buf_t buffer;
            const int result = isp_get_frame_buf(camera, &buffer, 10000);
            if (result == ISP_OK)
                isp_put_frame_buf(camera, &buffer);
            else if (result == ISP_ERR_REQUEST)
                ++refused;
            else
                ADD_FAILURE() << "frame " << frame << ": " << result;
        }
        reading = false;
    });

    // A handler's turn, then the console's, until the reader is done.
    std::vector<CountingHandler> handlers(64);
    for (size_t turn = 0; reading && turn < handlers.size(); ++turn) {
        isp_set_message_handler(CountingHandler::Handle, &handlers[turn]);
        std::this_thread::yield();
        isp_set_message_handler(nullptr, nullptr);
        handlers[turn].retired = true;
        EXPECT_EQ(handlers[turn].running.load(), 0);
        std::this_thread::yield();
    }
    reader.join();
    isp_set_message_handler(nullptr, nullptr);
    console.Stop();

    int handled = 0;
    for (const CountingHandler &handler : handlers) {
        EXPECT_EQ(handler.calls_after_retirement.load(), 0);
        handled += handler.lines.load();
    }
    int printed = 0;
    for (char c : console.out())
        printed += c == '\n';
    EXPECT_GT(refused, 0);
    EXPECT_EQ(handled + printed, refused);
    EXPECT_EQ(isp_stop_capture(camera), ISP_OK);
}

} // namespace
} // namespace zelisp_test
