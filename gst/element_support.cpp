// element_support.cpp - errors, clock mapping, waits and view buffers of the
// source elements.
#include "element_support.h"

#include "camera_table.h"
#include "library_messages.h"
#include "property_syntax.h"

#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>

namespace gstzelisp {

std::string library_error_text(const char *call, int result)
{
    return std::string(call) + ": " + isp_get_result_text(result) + " (" + std::to_string(result) + ")";
}

void post_library_error(GstElement *element, const char *call, int result)
{
    std::string text = library_error_text(call, result);
    std::string lines = library_lines();
    GST_ELEMENT_ERROR(element, RESOURCE, FAILED, ("%s", text.c_str()),
                      ("%s", lines.empty() ? "the library printed nothing" : lines.c_str()));
}

void refuse_property(GObject *object, const char *property, const std::string &reason)
{
    g_warning("%s: refused %s: %s; the value stays as it was", GST_OBJECT_NAME(object), property, reason.c_str());
}

bool check_camera_present(GstElement *element, int camera, int mode)
{
    const CameraTable table = read_camera_table();
    if (table.was_read()) {
        if (table.lists(camera))
            return true;
        const std::vector<int> &cameras = table.cameras;
        GST_ELEMENT_ERROR(element, RESOURCE, NOT_FOUND,
                          ("camera %d does not exist: the platform lists camera%s %s", camera,
                           cameras.size() == 1 ? "" : "s", cameras.empty() ? "none" : format_number_list(cameras).c_str()),
                          (nullptr));
        return false;
    }
    // Without the platform's table, the node itself tells.
    std::string node = "/dev/video" + std::to_string(camera + (mode == 2 ? 12 : 0));
    struct stat status {};
    if (stat(node.c_str(), &status) == 0 && S_ISCHR(status.st_mode))
        return true;
    GST_ELEMENT_ERROR(element, RESOURCE, NOT_FOUND, ("camera %d does not exist: %s is missing", camera, node.c_str()),
                      (nullptr));
    return false;
}

GstClockTime running_time_ago(GstClock *clock, GstClockTime base_time, gint64 age_us)
{
    if (!clock)
        return GST_CLOCK_TIME_NONE;
    GstClockTime now = gst_clock_get_time(clock);
    GstClockTime age = GstClockTime(MAX(age_us, 0)) * GST_USECOND;
    if (now < base_time + age)
        return 0;
    return now - age - base_time;
}

WaitResult wait_readable(GstPoll *poll, GstClockTime timeout)
{
    for (;;) {
        gint ready = gst_poll_wait(poll, timeout);
        if (ready > 0)
            return WaitResult::Ready;
        if (ready == 0)
            return WaitResult::TimedOut;
        if (errno == EBUSY)
            return WaitResult::Flushing;
        if (errno != EINTR && errno != EAGAIN)
            return WaitResult::Failed;
    }
}

bool node_hung_up(const std::vector<GstPollFD> &fds)
{
    std::vector<pollfd> probe;
    for (const GstPollFD &fd : fds)
        probe.push_back({fd.fd, 0, 0});
    if (poll(probe.data(), probe.size(), 0) <= 0)
        return false;
    for (const pollfd &fd : probe)
        if (fd.revents & (POLLERR | POLLHUP | POLLNVAL))
            return true;
    return false;
}

GstBuffer *view_buffer(Stream *stream, Stream::Frame *frame, const zelvideo::_isp_buf_t &buf, ViewOutput &output,
                       bool copy, int most_copies, bool *copy_limit)
{
    const zelvideo::_isp_view_buf_t &plane = buf.views[output.view];
    gsize size = GST_VIDEO_INFO_SIZE(&output.info);
    if (plane.length < size || !plane.addr || plane.addr == MAP_FAILED)
        return nullptr;
    GstBuffer *buffer = nullptr;
    if (copy) {
        CopyPool::Result result = output.copies.copy(plane.addr, size, output.dmabuf, most_copies, &buffer);
        *copy_limit = result == CopyPool::Result::Full;
        if (result != CopyPool::Result::Copied)
            return nullptr;
    } else {
        buffer = stream->wrap(frame, buf, output.view, size, output.dmabuf);
    }
    if (!buffer)
        return nullptr;
    const GstVideoInfo &info = output.info;
    gst_buffer_add_video_meta_full(buffer, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_INFO_FORMAT(&info),
                                   GST_VIDEO_INFO_WIDTH(&info), GST_VIDEO_INFO_HEIGHT(&info),
                                   GST_VIDEO_INFO_N_PLANES(&info), const_cast<gsize *>(info.offset),
                                   const_cast<gint *>(info.stride));
    GST_BUFFER_OFFSET(buffer) = plane.sequence;
    GST_BUFFER_OFFSET_END(buffer) = guint64(plane.sequence) + 1;
    return buffer;
}

} // namespace gstzelisp
