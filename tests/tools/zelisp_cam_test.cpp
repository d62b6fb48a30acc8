// zelisp_cam_test.cpp - zelisp-cam end to end on the simulated driver: the
// commands' output and exit status, and the files a capture writes (sizes,
// PNGs that decode to the view's size, and the frame number painted by the
// simulated sensor matching the sequence number in the file's name).
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include <nlohmann/json.hpp>

#include "tool_run.h"
#include "zelisp.h"

namespace zelisp_tool_test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

// "zelisp-cam: <context>: <the library's sentence> (<code>)"
std::string failure_line(const std::string &context, int result)
{
    return "zelisp-cam: " + context + ": " + isp_get_result_text(result) + " (" + std::to_string(result) + ")\n";
}

json summary_file(const std::string &folder)
{
    std::ifstream file(fs::path(folder) / "summary.json");
    return json::parse(file);
}

// Every file of the camera's view: the size the format needs and, read back
// as luma, the frame number equal to the sequence number in its name.
void expect_frames_numbered(const std::vector<std::string> &files, bool png, uint32_t width, uint32_t height)
{
    ASSERT_FALSE(files.empty());
    for (const std::string &path : files) {
        SCOPED_TRACE(path);
        std::optional<LumaImage> image;
        if (png) {
            image = read_png_luma(path);
            ASSERT_TRUE(image);
            EXPECT_EQ(image->width, width);
            EXPECT_EQ(image->height, height);
        } else {
            EXPECT_EQ(fs::file_size(path), size_t(width) * height * 3 / 2); // NV12
            image = read_raw_luma(path, width, height);
            ASSERT_TRUE(image);
        }
        EXPECT_EQ(frame_number(*image), sequence_in_name(path));
    }
}

TEST(ZelispCam, ListShowsTheValidCamerasAndWhichNodesExist)
{
    ToolRun run = run_tool("list");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "4 valid cameras\n"
                       "CAMERA  MODE 1 NODE            MODE 2 NODE           \n"
                       "0       /dev/video0            /dev/video12          \n"
                       "1       /dev/video1            /dev/video13          \n"
                       "2       /dev/video2            /dev/video14          \n"
                       "3       /dev/video3            /dev/video15          \n");

    run = run_tool("list", "[cameras]\npresent = 5\n[node /dev/video17]\nkind = missing\n");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "1 valid camera\n"
                       "CAMERA  MODE 1 NODE            MODE 2 NODE           \n"
                       "5       /dev/video5            /dev/video17 (missing)\n");
}

TEST(ZelispCam, InfoShowsViewsSupportedCombinationAndEveryControl)
{
    ToolRun run = run_tool("info -c 1", "[camera 1]\nsupported_combination = 5\nview2 = YUYV 320x240\n");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "camera 1: /dev/video1 (mode 1)\n"
                       "supported view combination: 5 (views 0, 2)\n"
                       "views:\n"
                       "  view 0: NV12 1920x1080\n"
                       "  view 1: NV12 1280x720\n"
                       "  view 2: YUYV 320x240\n"
                       "controls:\n"
                       "  brightness  128\n"
                       "  contrast    128\n"
                       "  saturation  128\n"
                       "  hue         128\n"
                       "  sharpness   5\n"
                       "  gamma       100\n"
                       "  denoise     5 5\n"
                       "  awb         1\n"
                       "  mwb         (set only)\n"
                       "  aec         0\n"
                       "  mec         (set only)\n"
                       "  abnormal    00 00 00 00 00 00 00 00 00 00 00 00 00 00\n");
}

TEST(ZelispCam, SetReadsTheValueBackAndFailuresBecomeSentencesAndStatuses)
{
    ToolRun run = run_tool("set -c 0 brightness 200");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "brightness: 200\n");

    run = run_tool("set -c 2 denoise 3 0x7");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "denoise: 3 7\n");

    run = run_tool("set -c 0 awb off");
    EXPECT_EQ(run.out, "awb: 0\n");
    run = run_tool("set -c 0 mwb 1 2 3");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "");

    run = run_tool("get -c 3 gamma");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "gamma: 100\n");

    // The library refuses the value: its sentence, and the code as the status.
    run = run_tool("set -c 0 sharpness 11");
    EXPECT_EQ(run.status, 15);
    EXPECT_EQ(run.err, failure_line("camera 0: setting sharpness (0..10)", ISP_ERR_INVALID));

    // No node: the camera cannot be opened.
    run = run_tool("get -c 7 brightness");
    EXPECT_EQ(run.status, 7);
    EXPECT_EQ(run.err, failure_line("camera 7", ISP_ERR_NO_NODE));

    // Command-line mistakes are the tool's own, status 64, nothing opened.
    EXPECT_EQ(run_tool("set -c 0 brightness 1 2").status, 64);
    EXPECT_EQ(run_tool("set -c 0 brightness -1").status, 64);
    EXPECT_EQ(run_tool("get -c 0 mec").status, 64);
    EXPECT_EQ(run_tool("set -c 0 abnormal 1").status, 64);
    EXPECT_EQ(run_tool("get -c 0 exposure").status, 64);
    EXPECT_EQ(run_tool("get -c 12 brightness").status, 64);
}

TEST(ZelispCam, RawCaptureWritesEachViewsImageWithItsFrameNumber)
{
    std::string out = test_folder();
    ToolRun run = run_tool("capture -c 0 --views 0,2 --frames 6 --every 2 --format raw --out " + out);
    ASSERT_EQ(run.status, 0) << run.out << run.err;

    // Frames 1, 3 and 5 of the run by --every, and the last one.
    std::vector<std::string> view0 = files_in(out, "cam0-view0-");
    std::vector<std::string> view2 = files_in(out, "cam0-view2-");
    EXPECT_EQ(view0.size(), 4u);
    EXPECT_EQ(view2.size(), 4u);
    EXPECT_TRUE(files_in(out, "cam0-view1-").empty());
    expect_frames_numbered(view0, false, 1920, 1080);
    expect_frames_numbered(view2, false, 640, 360);
    EXPECT_TRUE(files_in(out, "contact-sheet").empty()); // PNG captures only

    json summary = summary_file(out);
    EXPECT_EQ(summary["how"], "single");
    ASSERT_EQ(summary["cameras"].size(), 1u);
    const json &camera = summary["cameras"][0];
    EXPECT_EQ(camera["frames"], 6);
    EXPECT_EQ(camera["refused"], 0);
    EXPECT_EQ(camera["last_sequence"], sequence_in_name(view0.back()));
    EXPECT_EQ(camera["views"][1], json({{"view", 2}, {"format", "NV12"}, {"width", 640}, {"height", 360}}));
    EXPECT_EQ(summary["files"].size(), 8u);
}

TEST(ZelispCam, PngCaptureDecodesToTheViewSizeAndMakesAContactSheet)
{
    std::string out = test_folder();
    ToolRun run = run_tool("capture -c 1,3 --views 1,2 --frames 4 --format png --out " + out,
                           "[camera 3]\nview1 = YUYV 640x480\nview2 = NV21 320x240\n");
    ASSERT_EQ(run.status, 0) << run.out << run.err;

    expect_frames_numbered(files_in(out, "cam1-view1-"), true, 1280, 720);
    expect_frames_numbered(files_in(out, "cam1-view2-"), true, 640, 360);
    expect_frames_numbered(files_in(out, "cam3-view1-"), true, 640, 480);
    expect_frames_numbered(files_in(out, "cam3-view2-"), true, 320, 240);

    // The first view captured of each camera, side by side at 360 rows at most.
    std::optional<LumaImage> sheet = read_png_luma(out + "/contact-sheet.png");
    ASSERT_TRUE(sheet);
    EXPECT_EQ(sheet->height, 360u);
    EXPECT_EQ(sheet->width, 640u + 480u);

    json summary = summary_file(out);
    EXPECT_EQ(summary["how"], "wait");
    for (const json &camera : summary["cameras"]) {
        EXPECT_EQ(camera["frames"], 4);
        EXPECT_EQ(camera["refused"], 0);
    }
}

TEST(ZelispCam, GroupCaptureReadsFrameSetsOnOneTrigger)
{
    std::string out = test_folder();
    ToolRun run =
        run_tool("capture -c 0,1,2,3 --group --trigger internal --views 2 --buffers 8 --frames 8 --json --out " + out);
    ASSERT_EQ(run.status, 0) << run.err;

    // With --json the document is all of standard output.
    json summary = json::parse(run.out);
    EXPECT_EQ(summary, summary_file(out));
    EXPECT_EQ(summary["how"], "group");
    EXPECT_EQ(summary["group"]["frame_sets"], 8);
    EXPECT_EQ(summary["group"]["incomplete_sets"], 0);
    // One trigger drives every sensor: the members' frames carry one time.
    EXPECT_EQ(summary["group"]["skew_max_us"], 0);
    ASSERT_EQ(summary["cameras"].size(), 4u);
    for (int camera = 0; camera < 4; ++camera) {
        SCOPED_TRACE(camera);
        EXPECT_EQ(summary["cameras"][camera]["camera"], camera);
        EXPECT_EQ(summary["cameras"][camera]["frames"], 8);
        EXPECT_EQ(summary["cameras"][camera]["refused"], 0);
        expect_frames_numbered(files_in(out, "cam" + std::to_string(camera) + "-view2-"), true, 640, 360);
    }
    std::optional<LumaImage> sheet = read_png_luma(out + "/contact-sheet.png");
    ASSERT_TRUE(sheet);
    EXPECT_EQ(sheet->width, 4u * 640u);
    EXPECT_EQ(sheet->height, 360u);
}

TEST(ZelispCam, DecimationSkipsTheRulesFramesWithoutCountingThemLost)
{
    // 30/10: one frame in three is dropped, those whose sequence is a multiple of 3.
    std::string out = test_folder();
    ToolRun run = run_tool("capture -c 2 --views 2 --drop 30/10 --frames 6 --every 1 --format raw --out " + out);
    ASSERT_EQ(run.status, 0) << run.err;
    std::vector<std::string> files = files_in(out, "cam2-view2-");
    ASSERT_EQ(files.size(), 6u);
    for (const std::string &path : files)
        EXPECT_NE(sequence_in_name(path) % 3, 0u) << path;
    // Every sequence number between the first and the last frame is either
    // accepted, skipped by the rule, or lost (a loaded machine may lose some).
    const json camera = summary_file(out)["cameras"][0];
    EXPECT_GE(camera["decimated"], 2);
    EXPECT_EQ(camera["frames"].get<int>() + camera["decimated"].get<int>() + camera["dropped"].get<int>(),
              camera["last_sequence"].get<int>() - camera["first_sequence"].get<int>() + 1);
}

TEST(ZelispCam, CaptureRefusalsAreReportedBeforeAnythingRuns)
{
    ToolRun run = run_tool("capture -c 0,1 --group --drop 30/10");
    EXPECT_EQ(run.status, 64);
    EXPECT_NE(run.err.find("--drop cannot be used with --group"), std::string::npos) << run.err;
    EXPECT_EQ(run_tool("capture -c 0,0").status, 64);
    EXPECT_EQ(run_tool("capture -c 0 --frames 5 --seconds 1").status, 64);
    EXPECT_EQ(run_tool("capture -c 0 --resize 0,0,640").status, 64);
    EXPECT_EQ(run_tool("capture -c 0 --trigger sometimes").status, 64);
    EXPECT_EQ(run_tool("capture -c 0,1,2,3,4,5,6,7,8").status, 64);

    // A camera that is not there: the library's reason, as sentence and status.
    run = run_tool("capture -c 6 --frames 1");
    EXPECT_EQ(run.status, 7);
    EXPECT_EQ(run.err, failure_line("camera 6", ISP_ERR_NO_NODE));
    // The first crop must fit in view 1 (1280x720): set-up fails in the library.
    run = run_tool("capture -c 0 --frames 1 --resize 0,0,1920,1080");
    EXPECT_EQ(run.status, 11);
    EXPECT_NE(run.err.find(failure_line("camera 0: setting the stream up", ISP_ERR_REQUEST)), std::string::npos)
        << run.err;
}

} // namespace
} // namespace zelisp_tool_test
