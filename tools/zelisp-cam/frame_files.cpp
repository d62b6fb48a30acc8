// frame_files.cpp - choosing which frames become files and naming them.
#include "frame_files.h"

#include <cctype>
#include <cstdio>
#include <filesystem>

#include "png_writer.h"
#include "raw_writer.h"
#include "tool_errors.h"

namespace zcam {

std::string FrameFiles::prepare()
{
    if (!options_.writes_files())
        return "";
    std::error_code error;
    std::filesystem::create_directories(options_.out_dir, error);
    if (error) {
        failed_path_ = options_.out_dir;
        return error.message();
    }
    return "";
}

std::string FrameFiles::path_for(int camera, const ViewSlot &view, uint32_t sequence) const
{
    char name[128];
    if (options_.format == "raw") {
        // Everything needed to read the bytes back: format, size and the
        // bytes per row of the first plane.
        snprintf(name, sizeof name, "cam%d-view%d-%s-%ux%u-s%zu-%06u.raw", camera, view.view,
                 fourcc_name(view.format.format).c_str(), view.format.width, view.format.height,
                 row_bytes(view.format), sequence);
    } else {
        snprintf(name, sizeof name, "cam%d-view%d-%06u.png", camera, view.view, sequence);
    }
    return (std::filesystem::path(options_.out_dir) / name).string();
}

std::string FrameFiles::write_views(int camera, const std::vector<ViewSlot> &views, const zelvideo::_isp_buf_t &buf)
{
    uint32_t sequence = buf.views[views.front().view].sequence;
    for (const ViewSlot &view : views) {
        std::string path = path_for(camera, view, sequence);
        ViewImage image = view_image(buf, view.view, view.format);
        std::string error;
        if (options_.format == "raw") {
            error = write_raw(path, image);
        } else {
            RgbImage &rgb = &view == &views.front() ? first_view_rgb_[camera] : rgb_;
            error = to_rgb(image, &rgb);
            if (error.empty())
                error = write_png(path, rgb);
        }
        if (!error.empty()) {
            failed_path_ = path;
            return error;
        }
        written_.push_back(path);
    }
    last_written_[camera] = sequence;
    return "";
}

std::string FrameFiles::frame(int camera, const std::vector<ViewSlot> &views, const zelvideo::_isp_buf_t &buf,
                              uint64_t index)
{
    if (!options_.writes_files() || options_.every == 0 || index % uint64_t(options_.every) != 0)
        return "";
    return write_views(camera, views, buf);
}

std::string FrameFiles::last(int camera, const std::vector<ViewSlot> &views, const zelvideo::_isp_buf_t &buf)
{
    if (!options_.writes_files())
        return "";
    uint32_t sequence = buf.views[views.front().view].sequence;
    auto done = last_written_.find(camera);
    if (done == last_written_.end() || done->second != sequence) {
        std::string error = write_views(camera, views, buf);
        if (!error.empty())
            return error;
    }
    if (options_.format != "png")
        return "";
    // The sheet shows view 0, or the first view captured when view 0 is off:
    // the conversion made when this frame was written.
    auto tile = first_view_rgb_.find(camera);
    if (tile == first_view_rgb_.end()) {
        tile = first_view_rgb_.emplace(camera, RgbImage()).first;
        std::string error = to_rgb(view_image(buf, views.front().view, views.front().format), &tile->second);
        if (!error.empty()) {
            failed_path_ = options_.out_dir;
            return error;
        }
    }
    SheetTile labelled;
    labelled.picture = std::move(tile->second);
    labelled.label[0] = "cam " + std::to_string(camera) + "  view " + std::to_string(views.front().view);
    labelled.label[1] = describe(views.front().format) + "  #" + std::to_string(sequence);
    sheet_.add(std::move(labelled));
    first_view_rgb_.erase(tile);
    return "";
}

std::string FrameFiles::finish()
{
    if (!options_.writes_files() || sheet_.empty())
        return "";
    std::string path = (std::filesystem::path(options_.out_dir) / "contact-sheet.png").string();
    std::string unlabelled;
    std::string error = sheet_.write(path, &unlabelled);
    if (!error.empty()) {
        failed_path_ = path;
        return error;
    }
    if (!unlabelled.empty())
        report_warning(unlabelled + ": the contact sheet has no labels (install fonts-dejavu-core, or set "
                                    "ZELISP_CAM_FONT to a TrueType font)");
    contact_sheet_ = path;
    return "";
}

} // namespace zcam
