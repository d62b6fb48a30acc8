/*
 * group_capture - four cameras as one group: create the group of cameras 0
 * to 3, set the internal MIPI trigger so that their sensors expose on one
 * clock, then open, set up and start the group and read frame sets. For each
 * set it prints the members' sequence numbers and the skew, the largest
 * minus the smallest capture time in the set (0 when the trigger holds the
 * sensors together). The first argument is the number of sets (default 10).
 */
#include <cstdio>
#include <cstdlib>

#include "zelisp.h"

namespace {

constexpr int kMembers = 4;
constexpr int kCameraIndices[kMembers] = {0, 1, 2, 3};
constexpr uint32_t kViews = 1u << 0; // view 0 only: one plane per buffer
constexpr uint32_t kBuffers = 4;
constexpr int kTimeoutMs = 1000;

bool Check(const char *step, int result)
{
    if (result != ISP_OK)
        fprintf(stderr, "%s: %s\n", step, isp_get_result_text(result));
    return result == ISP_OK;
}

// Prints one line per frame set and gives the frames back.
bool ReadFrameSets(unsigned long group, int sets)
{
    for (int set = 0; set < sets; ++set) {
        zelvideo::_isp_buf_t frames[kMembers];
        if (!Check("frame set", zelvideo::isp_group_get_sync_frame(group, frames, kMembers, kTimeoutMs)))
            return false;
        uint64_t earliest = frames[0].views[0].timestamp;
        uint64_t latest = earliest;
        printf("set %d: sequence", set);
        for (const zelvideo::_isp_buf_t &frame : frames) {
            const zelvideo::_isp_view_buf_t &view = frame.views[0];
            printf(" %u", view.sequence);
            earliest = view.timestamp < earliest ? view.timestamp : earliest;
            latest = view.timestamp > latest ? view.timestamp : latest;
        }
        printf("  skew %llu us\n", static_cast<unsigned long long>(latest - earliest));
        if (!Check("give back", zelvideo::isp_group_put_frame(group, frames, kMembers)))
            return false;
    }
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    const int sets = argc > 1 ? atoi(argv[1]) : 10;
    unsigned long group = 0;
    if (!Check("create", isp_create_video_group(&group, 0, "group_capture", kCameraIndices, kMembers)))
        return 1;
    // The trigger parameters are the ISP driver's; the first mode of each.
    isp_group_set_internal_trigger(group, 0, 0, 0);

    int open_results[kMembers];
    bool ok = Check("open", isp_group_open_video(group, 1, open_results));
    if (ok) {
        ok = Check("init", isp_group_init_video(group, kViews, kBuffers)) &&
             Check("start", isp_group_start_captrue(group));
        if (ok) {
            ok = ReadFrameSets(group, sets);
            ok = Check("stop", isp_group_stop_captrue(group)) && ok;
        }
        isp_group_close_video(group);
    }
    // Also closes the members that opened when the group open failed.
    isp_destroy_video_group(group);
    return ok ? 0 : 1;
}
