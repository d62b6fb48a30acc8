/*
 * dispatch.cpp - one ioctl on a simulated descriptor: faults first, then the
 * driver that owns the node (the video node's own requests, its controls,
 * or the platform node), then the log entry with the record as the program
 * sent it and the errno it got back.
 */
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <linux/ioctl.h>
#include <sys/ioctl.h>

#include "client_requests.h"
#include "core.h"

namespace zsim::detail {
namespace {

std::vector<uint8_t> raw_record(uint32_t request, const void *arg)
{
    size_t size = _IOC_SIZE(request);
    if (!arg || _IOC_DIR(request) == _IOC_NONE || size == 0)
        return {};
    const uint8_t *bytes = static_cast<const uint8_t *>(arg);
    return std::vector<uint8_t>(bytes, bytes + size);
}

// Non-blocking mode set through the generic request rather than fcntl.
int set_nonblocking(OpenFile &file, const void *arg, LogNote *note)
{
    if (!arg)
        return EFAULT;
    int on = *static_cast<const int *>(arg);
    file.flags = on ? (file.flags | O_NONBLOCK) : (file.flags & ~O_NONBLOCK);
    note->detail = on ? "on" : "off";
    return 0;
}

// The driver's answer; called with the lock held, returns with it held.
int answer(CoreLock &held, const std::shared_ptr<OpenFile> &shared, uint32_t request, void *arg, LogNote *note)
{
    OpenFile &file = *shared;
    if (request == FIONBIO && file.node >= 0)
        return set_nonblocking(file, arg, note);
    // An exported buffer or a node that is a plain file has no driver, and
    // an unplugged camera's driver is gone.
    if (file.node < 0 || file.plain)
        return ENOTTY;
    if (node_disconnected(file.node))
        return ENODEV;
    int err = 0;
    if (file.node == kMiscNode) {
        held.unlock();
        bool known = handle_misc_request(request, arg, &err, note);
        held.lock();
        return known ? err : ENOTTY;
    }
    State &s = state();
    const int camera = camera_of_node(file.node);
    adopt_board_setup(s, camera);
    if (int busy = check_priority(s, file.node, file, request))
        return busy;
    if (int busy = check_queue_owner(s, file.node, shared, request, arg))
        return busy;
    if (handle_client_request(s, file.node, file, request, arg, &err, note) ||
        handle_video_request(held, file.node, file, request, arg, &err, note)) {
        if (!err && changes_setup(request))
            publish_setup(s, camera);
        if (!err)
            note_queue_owner(s, file.node, shared, request, arg);
        if (request == uint32_t(VIDIOC_REQBUFS))
            settle_queue_claim(s, file.node);
        return err;
    }
    // Control events report changes of value, so the values are read
    // before the request as well as after it.
    std::vector<ControlSnapshot> before = control_snapshot(camera, request, arg);
    held.unlock();
    bool known = handle_control_request(camera, request, arg, &err, note);
    held.lock();
    if (known && !err && !before.empty())
        notify_control_changes(s, camera, file, before);
    return known ? err : ENOTTY;
}

} // namespace

int dispatch_ioctl(int fd, uint32_t request, void *arg, bool *handled)
{
    if (fd == -1 && request == kProbeRequest && arg) {
        *handled = true;
        std::memcpy(arg, &kProbeAnswer, sizeof kProbeAnswer);
        return 0;
    }
    if (fd < 0)
        return 0;
    State &s = state();
    CoreLock held;
    std::shared_ptr<OpenFile> file = find_descriptor(s, fd);
    if (!file)
        return 0;
    *handled = true;
    // The record as the program sent it, before the driver writes its answer.
    LogEntry entry{file->path, request, "", "", logging(s) ? raw_record(request, arg) : std::vector<uint8_t>(), 0};
    LogNote note;
    int err = take_fault(s, request, file->path);
    if (!err)
        err = answer(held, file, request, arg, &note);
    // A queued buffer or a stream-on may have let scripted frames end.
    run_paint_jobs(held);
    entry.detail = std::move(note.detail);
    if (note.raw_set)
        entry.raw = std::move(note.raw);
    return finish_request(s, std::move(entry), err, 0, &note);
}

} // namespace zsim::detail
