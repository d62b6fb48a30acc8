/*
 * request_log.cpp - the record of every request the simulated drivers
 * received, and the faults a test plants in front of them.
 */
#include <cerrno>
#include <algorithm>
#include <cstdio>
#include <iterator>

#include <linux/videodev2.h>

#include "core.h"
#include "driver/isp_requests.h"

namespace zsim::detail {
namespace {

struct RequestName {
    uint32_t request;
    const char *name;
};

#define NAMED(request) {uint32_t(request), #request}
const RequestName kNames[] = {
    NAMED(VIDIOC_QUERYCAP),
    NAMED(VIDIOC_ENUM_FMT),
    NAMED(VIDIOC_G_FMT),
    NAMED(VIDIOC_S_FMT),
    NAMED(VIDIOC_REQBUFS),
    NAMED(VIDIOC_QUERYBUF),
    NAMED(VIDIOC_G_FBUF),
    NAMED(VIDIOC_S_FBUF),
    NAMED(VIDIOC_OVERLAY),
    NAMED(VIDIOC_QBUF),
    NAMED(VIDIOC_EXPBUF),
    NAMED(VIDIOC_DQBUF),
    NAMED(VIDIOC_STREAMON),
    NAMED(VIDIOC_STREAMOFF),
    NAMED(VIDIOC_G_PARM),
    NAMED(VIDIOC_S_PARM),
    NAMED(VIDIOC_G_STD),
    NAMED(VIDIOC_S_STD),
    NAMED(VIDIOC_ENUMSTD),
    NAMED(VIDIOC_ENUMINPUT),
    NAMED(VIDIOC_G_CTRL),
    NAMED(VIDIOC_S_CTRL),
    NAMED(VIDIOC_G_TUNER),
    NAMED(VIDIOC_S_TUNER),
    NAMED(VIDIOC_G_AUDIO),
    NAMED(VIDIOC_S_AUDIO),
    NAMED(VIDIOC_QUERYCTRL),
    NAMED(VIDIOC_QUERYMENU),
    NAMED(VIDIOC_G_INPUT),
    NAMED(VIDIOC_S_INPUT),
    NAMED(VIDIOC_G_OUTPUT),
    NAMED(VIDIOC_S_OUTPUT),
    NAMED(VIDIOC_ENUMOUTPUT),
    NAMED(VIDIOC_G_AUDOUT),
    NAMED(VIDIOC_S_AUDOUT),
    NAMED(VIDIOC_G_MODULATOR),
    NAMED(VIDIOC_S_MODULATOR),
    NAMED(VIDIOC_G_FREQUENCY),
    NAMED(VIDIOC_S_FREQUENCY),
    NAMED(VIDIOC_CROPCAP),
    NAMED(VIDIOC_G_CROP),
    NAMED(VIDIOC_S_CROP),
    NAMED(VIDIOC_G_JPEGCOMP),
    NAMED(VIDIOC_S_JPEGCOMP),
    NAMED(VIDIOC_QUERYSTD),
    NAMED(VIDIOC_TRY_FMT),
    NAMED(VIDIOC_ENUMAUDIO),
    NAMED(VIDIOC_ENUMAUDOUT),
    NAMED(VIDIOC_G_PRIORITY),
    NAMED(VIDIOC_S_PRIORITY),
    NAMED(VIDIOC_G_SLICED_VBI_CAP),
    NAMED(VIDIOC_LOG_STATUS),
    NAMED(VIDIOC_G_EXT_CTRLS),
    NAMED(VIDIOC_S_EXT_CTRLS),
    NAMED(VIDIOC_TRY_EXT_CTRLS),
    NAMED(VIDIOC_ENUM_FRAMESIZES),
    NAMED(VIDIOC_ENUM_FRAMEINTERVALS),
    NAMED(VIDIOC_G_ENC_INDEX),
    NAMED(VIDIOC_ENCODER_CMD),
    NAMED(VIDIOC_TRY_ENCODER_CMD),
    NAMED(VIDIOC_S_HW_FREQ_SEEK),
    NAMED(VIDIOC_CREATE_BUFS),
    NAMED(VIDIOC_PREPARE_BUF),
    NAMED(VIDIOC_G_SELECTION),
    NAMED(VIDIOC_S_SELECTION),
    NAMED(VIDIOC_DECODER_CMD),
    NAMED(VIDIOC_TRY_DECODER_CMD),
    NAMED(VIDIOC_ENUM_DV_TIMINGS),
    NAMED(VIDIOC_QUERY_DV_TIMINGS),
    NAMED(VIDIOC_DV_TIMINGS_CAP),
    NAMED(VIDIOC_ENUM_FREQ_BANDS),
    NAMED(VIDIOC_DBG_G_CHIP_INFO),
    NAMED(VIDIOC_QUERY_EXT_CTRL),
    {uint32_t(zelisp::VIDIOC_ISP_SET_RESIZE), "VIDIOC_ISP_SET_RESIZE"},
    {uint32_t(zelisp::VIDIOC_ISP_GET_ABNORMAL_INFO), "VIDIOC_ISP_GET_ABNORMAL_INFO"},
    {uint32_t(zelisp::GET_VAILED_CAMERA_INFO), "GET_VAILED_CAMERA_INFO"},
    {uint32_t(zelisp::IOC_SET_I2C_CTRL), "IOC_SET_I2C_CTRL"},
    {uint32_t(zelisp::IOC_SET_MIPI_TRIGGER_MODE), "IOC_SET_MIPI_TRIGGER_MODE"},
    {0x5421, "FIONBIO"},
    {kOpen, "open"},
    {kClose, "close"},
    {kMmap, "mmap"},
    {kMunmap, "munmap"},
};
#undef NAMED

bool matches(const std::string &wanted, const std::string &path) { return wanted.empty() || wanted == path; }

} // namespace

std::string request_name(uint32_t request)
{
    for (const RequestName &known : kNames)
        if (known.request == request)
            return known.name;
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", request);
    return text;
}

bool logging(const State &s) { return s.log_limit > 0; }

// Recording costs a copy of the record; names and the details of the
// requests of every frame are formatted when a test reads the log.
void append_log(State &s, LogEntry entry, const LogNote *note)
{
    if (!logging(s))
        return;
    while (s.log.size() >= s.log_limit)
        s.log.pop_front();
    LoggedRequest logged{std::move(entry), nullptr, {0, 0, 0}};
    if (note && note->format) {
        logged.format = note->format;
        std::copy(std::begin(note->values), std::end(note->values), logged.values);
    }
    s.log.push_back(std::move(logged));
}

int finish_request(State &s, LogEntry entry, int err, int result, const LogNote *note)
{
    entry.error = err;
    append_log(s, std::move(entry), note);
    if (err) {
        errno = err;
        return -1;
    }
    return result;
}

namespace {

LogEntry readable(const LoggedRequest &logged)
{
    LogEntry entry = logged.entry;
    if (entry.name.empty())
        entry.name = request_name(entry.request);
    if (logged.format) {
        char text[96];
        std::snprintf(text, sizeof text, logged.format, logged.values[0], logged.values[1], logged.values[2]);
        entry.detail = text;
    }
    return entry;
}

} // namespace

int take_fault(State &s, uint32_t request, const std::string &path)
{
    int injected = 0;
    for (auto it = s.faults.begin(); it != s.faults.end();) {
        Fault &f = *it;
        if (f.request != request || !matches(f.path, path)) {
            ++it;
            continue;
        }
        int err = 0;
        bool spent = false;
        if (f.interrupt) {
            if (f.remaining > 0) {
                --f.remaining;
                err = EINTR;
            } else if (f.sticky) {
                f.remaining = f.times; // this one goes through, the next is interrupted again
            } else {
                spent = true;
            }
        } else if (f.skip > 0) {
            --f.skip;
        } else {
            err = f.err;
            spent = --f.remaining <= 0;
        }
        if (!injected)
            injected = err;
        it = spent ? s.faults.erase(it) : it + 1;
    }
    return injected;
}

} // namespace zsim::detail

namespace zsim {

using namespace detail;

std::vector<LogEntry> request_log()
{
    CoreLock held;
    std::vector<LogEntry> entries;
    for (const LoggedRequest &logged : state().log)
        entries.push_back(readable(logged));
    return entries;
}

void set_log_limit(size_t entries)
{
    CoreLock held;
    State &s = state();
    s.log_limit = entries;
    while (s.log.size() > entries)
        s.log.pop_front();
}

void clear_log()
{
    CoreLock held;
    state().log.clear();
}

std::vector<LogEntry> requests(uint32_t request)
{
    CoreLock held;
    std::vector<LogEntry> found;
    for (const LoggedRequest &logged : state().log)
        if (logged.entry.request == request)
            found.push_back(readable(logged));
    return found;
}

void fail_request(uint32_t request, int nth, int err, const std::string &path, int count)
{
    if (nth < 1 || count < 1)
        return;
    CoreLock held;
    state().faults.push_back(Fault{request, path, false, nth - 1, count, err, 0, false});
}

void interrupt_request(uint32_t request, int times, const std::string &path, bool sticky)
{
    if (times < 1)
        return;
    CoreLock held;
    state().faults.push_back(Fault{request, path, true, 0, times, EINTR, times, sticky});
}

void clear_faults()
{
    CoreLock held;
    state().faults.clear();
}

} // namespace zsim
