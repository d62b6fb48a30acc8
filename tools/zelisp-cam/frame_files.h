/*
 * frame_files.h - the files a capture writes into --out: each view of the
 * last frame of every camera (and of every Nth frame with --every), raw or
 * as PNG, the contact sheet, and the names of everything written.
 *
 * Names carry the camera, the view and the frame's sequence number:
 * cam<C>-view<V>-<SEQUENCE>.png; raw files also the format, the size and
 * the bytes per row: cam0-view1-NV12-1280x720-s1280-000042.raw.
 */
#ifndef ZELISP_CAM_FRAME_FILES_H
#define ZELISP_CAM_FRAME_FILES_H

#include <map>
#include <string>
#include <vector>

#include "capture_options.h"
#include "contact_sheet.h"
#include "zelisp.h"

namespace zcam {

struct ViewSlot {
    int view;
    zelvideo::_view_format_t format;
};

class FrameFiles {
public:
    explicit FrameFiles(const CaptureOptions &options) : options_(options) {}

    // Creates the output folder; returns "" or why not.
    std::string prepare();
    // An accepted frame, the index-th of its camera (from 0).
    std::string frame(int camera, const std::vector<ViewSlot> &views, const zelvideo::_isp_buf_t &buf,
                      uint64_t index);
    // The camera's last frame, while its buffer is still mapped: written
    // unless --every wrote it already, and put on the contact sheet.
    std::string last(int camera, const std::vector<ViewSlot> &views, const zelvideo::_isp_buf_t &buf);
    // Writes the contact sheet (PNG captures of one or more cameras).
    std::string finish();

    const std::vector<std::string> &written() const { return written_; }
    const std::string &contact_sheet() const { return contact_sheet_; }
    // The path that failed last, for the error message.
    const std::string &failed_path() const { return failed_path_; }

private:
    std::string write_views(int camera, const std::vector<ViewSlot> &views, const zelvideo::_isp_buf_t &buf);
    std::string path_for(int camera, const ViewSlot &view, uint32_t sequence) const;

    const CaptureOptions &options_;
    std::map<int, uint32_t> last_written_; // camera -> sequence of its last written frame
    ContactSheet sheet_;
    std::vector<std::string> written_;
    std::string contact_sheet_;
    std::string failed_path_;
};

} // namespace zcam

#endif
