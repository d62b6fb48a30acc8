// zelisp_cam_test.cpp - zelisp-cam end to end on the simulated driver: the
// commands' output and exit status, and the files a capture writes (sizes,
// PNGs that decode to the view's size, and the frame number painted by the
// simulated sensor matching the sequence number in the file's name).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

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

// The tool's own lines on standard error ("zelisp-cam: ..."), without the
// library's, which come before them prefixed with their camera.
std::string own_lines(const std::string &err)
{
    std::string own, line;
    std::istringstream lines(err);
    while (std::getline(lines, line))
        if (line.rfind("zelisp-cam: ", 0) == 0 || line.rfind("Run with --help", 0) == 0)
            own += line + "\n";
    return own;
}

// The contact sheet's label strip under the tiles, and its grey where no
// text is drawn.
constexpr uint32_t kLabelStrip = 38;
constexpr uint8_t kStripGrey = 40;

// A rectangle of a decoded image.
LumaImage crop(const LumaImage &image, uint32_t x, uint32_t y, uint32_t width, uint32_t height)
{
    LumaImage part;
    part.width = width;
    part.height = height;
    for (uint32_t row = y; row < y + height; ++row) {
        const uint8_t *start = image.luma.data() + size_t(row) * image.width + x;
        part.luma.insert(part.luma.end(), start, start + width);
    }
    return part;
}

size_t pixels_other_than(const LumaImage &image, uint8_t grey)
{
    return size_t(std::count_if(image.luma.begin(), image.luma.end(), [grey](uint8_t luma) { return luma != grey; }));
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
                       "CAMERA  MODE 1 NODE            MODE 2 NODE            FRAME RATE\n"
                       "0       /dev/video0            /dev/video12           30 fps\n"
                       "1       /dev/video1            /dev/video13           30 fps\n"
                       "2       /dev/video2            /dev/video14           30 fps\n"
                       "3       /dev/video3            /dev/video15           30 fps\n");

    run = run_tool("list", "[cameras]\npresent = 5\n[camera 5]\nfps = 60\n[node /dev/video17]\nkind = missing\n");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "1 valid camera\n"
                       "CAMERA  MODE 1 NODE            MODE 2 NODE            FRAME RATE\n"
                       "5       /dev/video5            /dev/video17 (missing) 60 fps\n");
}

TEST(ZelispCam, InfoShowsViewsSupportedCombinationAndEveryControl)
{
    ToolRun run = run_tool("info -c 1", "[camera 1]\nsupported_combination = 5\nview2 = YUYV 320x240\nfps = 25\n");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "camera 1: /dev/video1 (mode 1)\n"
                       "supported view combination: 5 (views 0, 2)\n"
                       "frame rate: 25 fps\n"
                       "views:\n"
                       "  view 0: NV12 1920x1080\n"
                       "  view 1: NV12 1280x720\n"
                       "  view 2: YUYV 320x240\n"
                       "controls:\n"
                       "  brightness  128      (0..255, default 128)\n"
                       "  contrast    128      (0..255, default 128)\n"
                       "  saturation  128      (0..255, default 128)\n"
                       "  hue         128      (0..255, default 128)\n"
                       "  sharpness   5        (0..10, default 5)\n"
                       "  gamma       100      (-2147483648..2147483647, default 100)\n"
                       "  denoise     5 5      (0..10, default 5)\n"
                       "  awb         1        (0..1, default 1)\n"
                       "  mwb         (set only)\n"
                       "  aec         0        (0..255, default 0)\n"
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
    EXPECT_EQ(run.out, "mwb: 1 2 3 (sent; the driver cannot be asked back)\n");
    // What the library does to a value is said, not left to be found out.
    run = run_tool("set -c 0 mec 70000 1 2 3 4 65535");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "mec: 4464 1 2 3 4 65535; only the low 16 bits of each are sent: 70000 as 4464 "
                       "(sent; the driver cannot be asked back)\n");
    run = run_tool("set -c 0 aec 3");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "aec: 1\nnote: the driver holds exposure mode 3; the library reads every mode other than "
                       "0 (auto) back as 1\n");

    run = run_tool("get -c 3 gamma");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "gamma: 100\n");

    // White-balance gains go out as 16 bits too: the cut is said.
    run = run_tool("set -c 0 mwb 65536 0 70000");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "mwb: 0 0 4464; only the low 16 bits of each are sent: 65536 as 0, 70000 as 4464 "
                       "(sent; the driver cannot be asked back)\n");

    // No node: the camera cannot be opened.
    run = run_tool("get -c 7 brightness");
    EXPECT_EQ(run.status, 7);
    EXPECT_EQ(run.err, "camera 7: video device /dev/video7 not exist\n"
                       "zelisp-cam: camera 7: isp_open_video: " + std::string(isp_get_result_text(ISP_ERR_NO_NODE)) +
                           " (-7); /dev/video7 does not exist\n");
    // A node that will not open: the system's reason, which the library's line leaves out.
    run = run_tool("get -c 0 brightness", "[node /dev/video0]\nopen_errno = EBUSY\n");
    EXPECT_EQ(run.status, 9);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "camera 0: video device /dev/video0 open failed\n"
                       "zelisp-cam: camera 0: isp_open_video: " + std::string(isp_get_result_text(ISP_ERR_OPEN)) +
                           " (-9); /dev/video0: Device or resource busy\n");
    // A close that fails: the library answers 0, the tool says what happened.
    run = run_tool("get -c 2 hue", "[node /dev/video2]\nclose_errno = EIO\n");
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "hue: 128\n");
    EXPECT_EQ(run.err, "camera 2: video device /dev/video2 close failed\n"
                       "zelisp-cam: warning: camera 2: closing /dev/video2 failed (the library's line above); the "
                       "library answers 0 all the same, as it documents, and the handle is gone\n");

    // Command-line mistakes are the tool's own, status 64, nothing opened.
    EXPECT_EQ(run_tool("set -c 0 brightness 1 2").status, 64);
    EXPECT_EQ(run_tool("set -c 0 brightness -1").status, 64);
    EXPECT_EQ(run_tool("get -c 0 mec").status, 64);
    EXPECT_EQ(run_tool("set -c 0 abnormal 1").status, 64);
    EXPECT_EQ(run_tool("get -c 0 exposure").status, 64);
    EXPECT_EQ(run_tool("get -c 12 brightness").status, 64);
    EXPECT_EQ(run_tool("set -c 0 sharpness 11").status, 64); // the library's range
    EXPECT_EQ(run_tool("set -c 0 awb 2").status, 64);        // a switch
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
    EXPECT_EQ(sheet->height, 360u + kLabelStrip);
    EXPECT_EQ(sheet->width, 640u + 480u);

    json summary = summary_file(out);
    EXPECT_EQ(summary["how"], "wait");
    for (const json &camera : summary["cameras"]) {
        EXPECT_EQ(camera["frames"], 4);
        EXPECT_EQ(camera["refused"], 0);
    }
}

TEST(ZelispCam, ContactSheetLabelsEachTileAndIsWrittenWithoutAFont)
{
    // Two cameras' 640x360 views: tiles at their own size, so each tile's
    // picture is the camera's last frame pixel for pixel.
    const std::string command = "capture -c 0,2 --views 2 --frames 3 --format png --out ";
    std::string out = test_folder();
    ToolRun run = run_tool(command + out);
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(own_lines(run.err), "");
    std::optional<LumaImage> sheet = read_png_luma(out + "/contact-sheet.png");
    ASSERT_TRUE(sheet);
    ASSERT_EQ(sheet->width, 2u * 640u);
    ASSERT_EQ(sheet->height, 360u + kLabelStrip);
    json summary = summary_file(out);
    for (int tile = 0; tile < 2; ++tile)
        EXPECT_EQ(frame_number(crop(*sheet, 640u * tile, 0, 640, 360)), summary["cameras"][tile]["last_sequence"]);

    // Light text in each tile's strip ("cam 0  view 2" over "NV12 640x360
    // #N"), the first line different between the two cameras, and nothing
    // drawn past the text's end nor over the picture.
    LumaImage first_line[2];
    for (uint32_t tile = 0; tile < 2; ++tile) {
        SCOPED_TRACE(tile);
        LumaImage strip = crop(*sheet, 640 * tile, 360, 640, kLabelStrip);
        EXPECT_GT(std::count_if(strip.luma.begin(), strip.luma.end(), [](uint8_t luma) { return luma > 200; }), 100);
        EXPECT_EQ(pixels_other_than(crop(strip, 320, 0, 320, kLabelStrip), kStripGrey), 0u);
        first_line[tile] = crop(strip, 0, 0, 320, kLabelStrip / 2);
    }
    EXPECT_NE(first_line[0].luma, first_line[1].luma);

    // Without the font the sheet is the same but for a blank strip, and the
    // tool says so once; the capture itself succeeded.
    std::string unlabelled = out + "/unlabelled";
    setenv("ZELISP_CAM_FONT", "/nonexistent/mono.ttf", 1);
    run = run_tool(command + unlabelled);
    // Not a font at all: FreeType's own reason.
    std::string not_a_font = out + "/not-a-font";
    setenv("ZELISP_CAM_FONT", (out + "/summary.json").c_str(), 1);
    ToolRun not_font_run = run_tool(command + not_a_font);
    unsetenv("ZELISP_CAM_FONT");
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(own_lines(run.err), "zelisp-cam: warning: no font at /nonexistent/mono.ttf: the contact sheet has no labels "
                       "(install fonts-dejavu-core, or set ZELISP_CAM_FONT to a TrueType font)\n");
    sheet = read_png_luma(unlabelled + "/contact-sheet.png");
    ASSERT_TRUE(sheet);
    ASSERT_EQ(sheet->height, 360u + kLabelStrip);
    EXPECT_EQ(pixels_other_than(crop(*sheet, 0, 360, sheet->width, kLabelStrip), kStripGrey), 0u);
    EXPECT_TRUE(frame_number(crop(*sheet, 0, 0, 640, 360)));

    EXPECT_EQ(not_font_run.status, 0);
    EXPECT_EQ(own_lines(not_font_run.err)
                  .rfind("zelisp-cam: warning: " + out + "/summary.json is not a font FreeType reads: ", 0),
              0u)
        << not_font_run.err;
    EXPECT_TRUE(fs::exists(not_a_font + "/contact-sheet.png"));
}

TEST(ZelispCam, GroupCaptureReadsFrameSetsOnOneTrigger)
{
    // One trigger drives every sensor: the members' frames carry one time.
    // A sensor takes its first frame on the first tick a frame time after
    // its stream starts, and the members start one after another: a tick
    // that falls between two starts (more often on a loaded machine) puts
    // the later members one frame behind for the whole capture, which the
    // group does not line up, so the skew is then exactly one period (30 fps)
    // and the capture is tried again.
    std::string out;
    ToolRun run;
    json summary;
    for (int attempt = 0; attempt < 5; ++attempt) {
        out = test_folder();
        run = run_tool("capture -c 0,1,2,3 --group --trigger internal --views 2 --buffers 8 --frames 8 --json --out " +
                       out);
        ASSERT_EQ(run.status, 0) << run.err;
        // With --json the document is all of standard output.
        summary = json::parse(run.out);
        if (summary["group"]["skew_max_us"] == 0)
            break;
        EXPECT_NEAR(summary["group"]["skew_max_us"].get<double>(), 1e6 / 30, 1) << "not a tick between two starts";
    }
    EXPECT_EQ(summary["group"]["skew_max_us"], 0);
    EXPECT_EQ(summary, summary_file(out));
    EXPECT_EQ(summary["how"], "group");
    EXPECT_EQ(summary["group"]["frame_sets"], 8);
    EXPECT_EQ(summary["group"]["incomplete_sets"], 0);
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
    EXPECT_EQ(sheet->height, 360u + kLabelStrip);
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
    EXPECT_EQ(own_lines(run.err), "zelisp-cam: camera 6: isp_open_video: " +
                                      std::string(isp_get_result_text(ISP_ERR_NO_NODE)) +
                                      " (-7); /dev/video6 does not exist\n");
    // The first crop must fit in view 1 (1280x720): set-up fails in the library.
    run = run_tool("capture -c 0 --frames 1 --resize 0,0,1920,1080");
    EXPECT_EQ(run.status, 11);
    std::string failure = failure_line("camera 0: isp_init_video", ISP_ERR_REQUEST);
    EXPECT_NE(run.err.find(failure.substr(0, failure.size() - 1)), std::string::npos) << run.err;

    // A group with a camera that is not there names it.
    run = run_tool("capture -c 0,5 --group --frames 1");
    EXPECT_EQ(run.status, 9);
    EXPECT_EQ(run.err, "camera 5: video device /dev/video5 not exist\ncamera 5: OpenVideo : open 5 failed\n"
                       "zelisp-cam: camera 5: isp_group_open_video: " +
                           std::string(isp_get_result_text(ISP_ERR_OPEN)) + " (-9); /dev/video5 does not exist\n" +
                           failure_line("the group: isp_group_open_video", ISP_ERR_OPEN));
}

TEST(ZelispCam, CommandLineMistakesAreSentencesAndNoCameraIsTouched)
{
    // Camera 0 cannot be opened: a run that got as far as the camera would say so.
    const std::string busy = "[node /dev/video0]\nopen_errno = EBUSY\n";
    const std::string help = "Run with --help for more information.\n";
    const std::pair<const char *, const char *> cases[] = {
#ifdef ZELISP_CAM_HAS_SERVE
        {"frobnicate", "'frobnicate' is not a command; the commands are list, info, get, set, capture and serve"},
#else
        {"frobnicate", "'frobnicate' is not a command; the commands are list, info, get, set and capture"},
#endif
        {"capture -c 0 --frames 0", "--frames: a whole number from 1 to 2147483647 is needed, got '0'"},
        {"capture -c 0 --seconds nan",
         "--seconds: a number of seconds from 0.001 to 31536000 (a year) is needed, got 'nan'"},
        {"capture -c 0 --seconds 1e-300",
         "--seconds: a number of seconds from 0.001 to 31536000 (a year) is needed, got '1e-300'"},
        {"capture -c 0 --drop 30/7",
         "--drop 30/7: the library drops one frame in N or keeps one in N, so T must be a multiple of D, or of "
         "T - D when more than half are dropped (30/10 drops every third frame, 30/20 keeps every third)"},
        {"capture -c 0 --resize 1,1,3,3",
         "--resize 1,1,3,3: the first crop has an odd number; the ISP crops and scales in pixel pairs, so every "
         "position and size is even"},
        {"capture -c 0 --resize 0,0,640,480:320,240:0,0,101,100",
         "--resize 0,0,640,480:320,240:0,0,101,100: the second crop has an odd number; the ISP crops and scales in "
         "pixel pairs, so every position and size is even"},
        {"capture -c 0 --format raw", "--format needs --out: without a folder no file is written"},
        {"set -c 0 awb 2", "'2' is not a value for awb: 0|1 or off|on (automatic white balance)"},
        {"set -c 0 sharpness 11", "'11' is not a value for sharpness: 0..10"},
        {"set -c 0 denoise 3 11", "'11' is not a value for denoise: LUMA CHROMA, 0..10 each"},
        {"capture -c abc", "--camera: cameras are numbered 0 to 11, got 'abc'"},
        {"capture -c 0 --frames 5 --seconds 1", "--frames and --seconds cannot be used together"},
        {"capture -c 0 --mode 2 --views 1", "--mode 2 carries view 0 only, so --views can only be 0"},
        {"capture -c 0 --mode 2 --resize 0,0,640,480", "--resize works in mode 1 only: the mode 2 node has no resize"},
        {"capture -c 0 --trigger external 5 9 9", "--trigger external: P1 is 0 to 2, got 5"},
        {"capture -c 0,1 --group --trigger internal 1 8", "--trigger internal: P2 is 0 to 7, got 8"},
        {"capture -c 0 --views 0 --view-format 1=NV12:640x480",
         "--view-format sets view 1, which is not captured (--views)"},
        {"capture -c 0 --view-format 1=MJPG:640x480",
         "--view-format: 'MJPG' is not a format the tool can write; use NV12, NV21, YUYV, RGB3 or GREY"},
        {"capture -c 0 --view-format 1=NV12:640x480,1=NV12:320x240", "--view-format names view 1 twice"},
        {"info -c 0 --mode 2 --view-format 1=NV12:640x480", "--view-format: the mode 2 node carries view 0 only"},
    };
    for (const auto &[arguments, sentence] : cases) {
        SCOPED_TRACE(arguments);
        ToolRun run = run_tool(arguments, busy);
        EXPECT_EQ(run.status, 64);
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err, "zelisp-cam: " + std::string(sentence) + "\n" + help);
    }
}

TEST(ZelispCam, ViewFormatSetsTheViewAndRawNamesCarryFormatSizeAndStride)
{
    std::string out = test_folder();
    ToolRun run = run_tool("capture -c 0 --views 0,1 --view-format 1=NV12:640x480 --frames 3 --format raw --out " + out);
    ASSERT_EQ(run.status, 0) << run.out << run.err;
    std::vector<std::string> view1 = files_in(out, "cam0-view1-NV12-640x480-s640-");
    ASSERT_EQ(view1.size(), 1u);
    EXPECT_EQ(fs::path(view1[0]).extension(), ".raw");
    expect_frames_numbered(view1, false, 640, 480);
    expect_frames_numbered(files_in(out, "cam0-view0-NV12-1920x1080-s1920-"), false, 1920, 1080);
    json summary = summary_file(out);
    EXPECT_EQ(summary["cameras"][0]["views"][1],
              json({{"view", 1}, {"format", "NV12"}, {"width", 640}, {"height", 480}}));
    // Rounded to what it means: the simulated sensor runs at exactly 30 fps.
    EXPECT_EQ(summary["cameras"][0]["fps"], 30.0);
    EXPECT_EQ(summary["problems"], json::array());

    // info asks for the formats first and shows what the driver then reports.
    run = run_tool("info -c 1 --view-format 2=YUYV:320x240,0=GREY:960x540");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("  view 0: GREY 960x540\n  view 1: NV12 1280x720\n  view 2: YUYV 320x240\n"),
              std::string::npos)
        << run.out;

    // A format the driver refuses (larger than the sensor) stops the run
    // before streaming, naming the camera, the call and the system error.
    run = run_tool("capture -c 0 --frames 1 --view-format 1=NV12:4000x3000");
    EXPECT_EQ(run.status, 11);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "camera 0: /dev/video0 set view format failed\ncamera 0: set format: Invalid argument\n"
                       "zelisp-cam: camera 0: isp_set_view_format view 1 to NV12 4000x3000: " +
                           std::string(isp_get_result_text(ISP_ERR_REQUEST)) +
                           " (-11); the system error is in the library's line above\n");
}

TEST(ZelispCam, WhatTheRunDidNotGetAsAskedMakesTheStatusNonZero)
{
    // The platform node refuses to open: the trigger mode cannot be set, the
    // cameras run free, and the run says so in its warning, summary and status.
    std::string out = test_folder();
    ToolRun run = run_tool("capture -c 0,1 --trigger internal --views 2 --frames 2 --out " + out,
                           "[node /dev/isp_misc]\nopen_errno = EACCES\n");
    const std::string trigger = "isp_set_internal_trigger: " + std::string(isp_get_result_text(ISP_ERR_OPEN)) +
                                " (-9), the system error is in the library's line above; the trigger mode is not set, so the cameras run free, "
                                "not in step";
    EXPECT_EQ(run.status, 20) << run.err;
    EXPECT_NE(run.err.find("zelisp-cam: warning: " + trigger + "\n"), std::string::npos) << run.err;
    EXPECT_NE(run.out.find("not as asked: " + trigger + "\n"), std::string::npos) << run.out;
    EXPECT_EQ(summary_file(out)["problems"], json::array({trigger}));
    EXPECT_EQ(summary_file(out)["cameras"][1]["frames"], 2);

    // The resize: what was asked for and what the driver reports for view 1.
    run = run_tool("capture -c 0 --frames 1 --resize 16,8,640,480");
    std::string reported = run.out.substr(run.out.find("the driver reports view 1 as ") + 29);
    reported = reported.substr(0, reported.find('\n'));
    EXPECT_NE(run.out.find("camera 0: resize asked for: crop 640x480 at 16,8, no scaling, crop 640x480 at 0,0; "
                           "the driver reports view 1 as " + reported + "\n"),
              std::string::npos)
        << run.out;
    if (reported == "NV12 640x480") {
        EXPECT_EQ(run.status, 0) << run.err;
    } else {
        EXPECT_EQ(run.status, 22) << run.err;
        std::string size = reported.substr(reported.find(' ') + 1);
        EXPECT_NE(run.err.find("zelisp-cam: warning: camera 0: view 1 is " + size +
                               " after the resize, not the 640x480 asked for\n"),
                  std::string::npos)
            << run.err;
    }
}

TEST(ZelispCam, StandardOutputCarriesOnlyWhatTheToolPrints)
{
    // A busy node: the library's line goes to standard error after its
    // camera, not into the table.
    ToolRun run = run_tool("list", "[node /dev/video1]\nopen_errno = EBUSY\n");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "4 valid cameras\n"
                       "CAMERA  MODE 1 NODE            MODE 2 NODE            FRAME RATE\n"
                       "0       /dev/video0            /dev/video12           30 fps\n"
                       "1       /dev/video1            /dev/video13           -\n"
                       "2       /dev/video2            /dev/video14           30 fps\n"
                       "3       /dev/video3            /dev/video15           30 fps\n");
    EXPECT_EQ(run.err, "camera 1: video device /dev/video1 open failed\n");

    // JSON on standard output is the document alone; the set-up lines of
    // both cameras are on standard error.
    run = run_tool("capture -c 2,3 --views 2 --frames 2 --json");
    EXPECT_EQ(run.status, 0) << run.err;
    json summary = json::parse(run.out, nullptr, false);
    ASSERT_FALSE(summary.is_discarded()) << run.out;
    EXPECT_EQ(summary["cameras"][1]["frames"], 2);
    EXPECT_EQ(run.err, "camera 2: /dev/video2 view input supported combination: 7\n"
                       "camera 2: /dev/video2 view input combination: 4\n"
                       "camera 3: /dev/video3 view input supported combination: 7\n"
                       "camera 3: /dev/video3 view input combination: 4\n");

    // A perror label with a line end of its own (the library's console
    // shows ": <reason>" on a line of its own) is shown as one line.
    run = run_tool("capture -c 0 --trigger external --views 2 --frames 1", "[node /dev/isp_misc]\nopen_errno = EACCES\n");
    EXPECT_EQ(run.status, 20);
    EXPECT_NE(run.err.find("\nopen isp_misc error: Permission denied\nzelisp-cam: warning: isp_set_external_trigger: "),
              std::string::npos)
        << run.err;
}

// A summary, document or table that never reached its reader (a full
// disk, a reader gone with SIGPIPE ignored) is a failed run, whatever the
// capture did; files already written stay.
TEST(ZelispCam, StandardOutputThatCannotBeWrittenFailsTheRunWithStatus73)
{
    const std::string full = "zelisp-cam: cannot write standard output: No space left on device\n";
    const std::string folder = test_folder();
    ToolRun run = run_tool("capture -c 0 --views 0 --frames 2 --out '" + folder + "'", "", "/dev/full");
    EXPECT_EQ(run.status, 73);
    EXPECT_EQ(own_lines(run.err), full);
    EXPECT_EQ(files_in(folder).size(), 3u) << "the frame, the contact sheet and summary.json";
    run = run_tool("capture -c 0 --views 0 --frames 2 --json", "", "/dev/full");
    EXPECT_EQ(run.status, 73);
    EXPECT_EQ(own_lines(run.err), full);
    run = run_tool("list", "", "/dev/full");
    EXPECT_EQ(run.status, 73);
    EXPECT_EQ(own_lines(run.err), full);
    // The summary file on a full disk gives the system's reason too.
    const std::string full_disk = test_folder(); // the same folder, emptied
    std::filesystem::create_symlink("/dev/full", full_disk + "/summary.json");
    run = run_tool("capture -c 0 --views 0 --frames 2 --out '" + full_disk + "'");
    EXPECT_EQ(run.status, 73);
    EXPECT_EQ(own_lines(run.err), "zelisp-cam: cannot write " + full_disk + "/summary.json: No space left on device\n");
}

TEST(ZelispCam, ARefusedTriggerModeIsReportedAndTheStatusIs20)
{
    // Every trigger call answers 0 when the platform driver refuses the
    // mode: the tool reads the library's line, warns, captures on and ends
    // with status 20.
    const std::string refusing = "[platform]\ntrigger_errno = EBUSY\n";
    const std::string tail = "; the trigger mode is not set, so the cameras run free, not in step";
    std::string out = test_folder();
    ToolRun run = run_tool("capture -c 0,1 --trigger internal 2 7 9 --views 2 --frames 2 --format raw --out " + out,
                           refusing);
    EXPECT_EQ(run.status, 20) << run.err;
    std::string internal = "isp_set_internal_trigger: the platform driver refused the internal trigger mode 2 7 9" + tail;
    EXPECT_NE(run.err.find("\nioctl IOC_SET_MIPI_TRIGGER_MODE failed! \nzelisp-cam: warning: " + internal + "\n"),
              std::string::npos)
        << run.err;
    EXPECT_EQ(summary_file(out)["problems"], json::array({internal}));
    for (int camera = 0; camera < 2; ++camera) {
        std::vector<std::string> files = files_in(out, "cam" + std::to_string(camera) + "-view2-");
        ASSERT_EQ(files.size(), 1u);
        expect_frames_numbered(files, false, 640, 360);
    }

    // A group sets the mode through its own platform descriptor; the
    // external mode's refusal carries the system's reason.
    run = run_tool("capture -c 0,1 --group --trigger external 1 2 1 --views 2 --frames 2 --json", refusing);
    EXPECT_EQ(run.status, 20) << run.err;
    std::string external = "isp_group_set_external_trigger: the platform driver refused the external trigger mode "
                           "1 2 1: Device or resource busy" + tail;
    EXPECT_NE(run.err.find("\nioctl IOC_SET_MIPI_TRIGGER_MODE failed!: Device or resource busy\n"
                           "zelisp-cam: warning: " + external + "\n"),
              std::string::npos)
        << run.err;
    json summary = json::parse(run.out);
    EXPECT_EQ(summary["problems"], json::array({external}));
    EXPECT_EQ(summary["group"]["frame_sets"], 2);

    // Accepted: no word about it, status 0.
    run = run_tool("capture -c 0,1 --group --trigger external 1 2 1 --views 2 --frames 2 --json");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(own_lines(run.err), "");
}

TEST(ZelispCam, FramesTheLibraryRefusesAreCountedExplainedAndMakeTheStatus23)
{
    // At 120 fps frames come 8.3 ms apart and the library takes one only
    // 12 ms after the last: about every other frame is refused.
    const std::string fast = "[camera 0]\nfps = 120\n";
    std::string out = test_folder();
    ToolRun run = run_tool("capture -c 0 --views 2 --frames 10 --format raw --json --out " + out, fast);
    EXPECT_EQ(run.status, 23) << run.err;
    json summary = json::parse(run.out);
    const json &camera = summary["cameras"][0];
    uint64_t refused = camera["refused"];
    EXPECT_GE(refused, 1u);
    EXPECT_EQ(camera["refused_too_soon"], refused);
    EXPECT_EQ(camera["refused_out_of_sequence"], 0);
    EXPECT_EQ(camera["frames"], 10);
    // Every sequence number is accounted for once: accepted, refused or
    // lost for want of a buffer.
    uint64_t span = uint64_t(camera["last_sequence"]) - uint64_t(camera["first_sequence"]) + 1;
    EXPECT_EQ(span, 10u + refused + uint64_t(camera["dropped"]));
    EXPECT_EQ(summary["problems"],
              json::array({"camera 0: " + std::to_string(refused) + " of " + std::to_string(10 + refused) +
                           " frames refused for coming less than 12 ms after the last accepted one: the library "
                           "takes at most 83 frames per second, and the sensor runs at 120 fps; --drop 4/3 keeps one "
                           "frame in 4 (30.0 fps), each one the library takes"}));
    expect_frames_numbered(files_in(out, "cam0-view2-"), false, 640, 360);
    // The library's line for the first refusal only, then the tool's word.
    size_t first = run.err.find("\ncamera 0: /dev/video0ERROR: buf_ts = ");
    ASSERT_NE(first, std::string::npos) << run.err;
    EXPECT_EQ(run.err.find("ERROR: buf_ts", first + 30), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("zelisp-cam: warning: camera 0: the library refused a frame; further refusals are "
                           "counted in the summary, not shown\n"),
              std::string::npos);

    // Following the advice: every fourth frame, all taken; the frames the
    // library refuses between them are ones --drop skips anyway.
    run = run_tool("capture -c 0 --views 2 --frames 10 --drop 4/3 --json", fast);
    EXPECT_EQ(run.status, 0) << run.err;
    summary = json::parse(run.out);
    const json &decimated = summary["cameras"][0];
    EXPECT_EQ(decimated["refused"], 0);
    EXPECT_EQ(decimated["frames"], 10);
    EXPECT_EQ(uint64_t(decimated["last_sequence"]) % 4, 0u);
    span = uint64_t(decimated["last_sequence"]) - uint64_t(decimated["first_sequence"]) + 1;
    EXPECT_EQ(span, 10u + uint64_t(decimated["decimated"]) + uint64_t(decimated["dropped"]));
    EXPECT_EQ(summary["problems"], json::array());
    EXPECT_EQ(run.err.find("ERROR"), std::string::npos) << run.err;
}

TEST(ZelispCam, HelpReadsAsSentences)
{
    ToolRun run = run_tool("capture --help");
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(run.out.find("\n  --frames N              Frames to capture from each camera (frame sets with\n"
                           "                          --group); 100 by default. Not with --seconds.\n"),
              std::string::npos)
        << run.out;
    // None of the parser's shorthand, and no line wider than a terminal,
    // in any command's help.
    std::vector<std::string> commands = {"capture", "set"};
#ifdef ZELISP_CAM_HAS_SERVE
    commands.push_back("serve");
#endif
    for (const std::string &command : commands) {
        ToolRun help = run_tool(command + " --help");
        EXPECT_EQ(help.status, 0) << command;
        for (const char *shorthand : {"INT", "TEXT", "FLOAT", "UINT", "Excludes", "REQUIRED", "=100", "in ["})
            EXPECT_EQ(help.out.find(shorthand), std::string::npos) << command << ": " << shorthand;
        std::istringstream lines(help.out);
        for (std::string line; std::getline(lines, line);)
            EXPECT_LE(line.size(), 84u) << command << ": " << line;
    }
    // Every exit status is told, whatever the line breaks.
    std::string flat = run.out;
    std::replace(flat.begin(), flat.end(), '\n', ' ');
    for (const char *status : {"0: success.", "20 the platform refused the trigger mode",
                               "23 the library refused frames, for coming too soon after the last or out of sequence",
                               "64: a wrong command line", "69: serve cannot listen on its address",
                               "71: the system would not give serve what it needs",
                               "73: an output file, or standard output, could not be written"})
        EXPECT_NE(flat.find(status), std::string::npos) << status;

    // --help-all, which the manual is made from, has every command's options.
    run = run_tool("--help-all");
    for (const char *option : {"--camera N", "--view-format VIEW=FOURCC:WxH", "--drop T/D", "--json"})
        EXPECT_NE(run.out.find(option), std::string::npos) << option;
}

TEST(ZelispCam, TheManualCoversEveryCommandAndOption)
{
    ToolRun manual = run_tool("--manual");
    ASSERT_EQ(manual.status, 0) << manual.err;
    EXPECT_EQ(manual.out.rfind(".TH ZELISP-CAM 1 ", 0), 0u);
    for (const char *section : {".SH NAME\n", ".SH SYNOPSIS\n", ".SH COMMANDS\n", ".SH \"EXIT STATUS\"\n",
                                ".SH \"ENVIRONMENT\"\n", ".SH \"FILES\"\n"})
        EXPECT_NE(manual.out.find(section), std::string::npos) << section;
    // Every option each command's help lists, under that command's heading.
    std::vector<std::string> commands = {"list", "info", "get", "set", "capture"};
#ifdef ZELISP_CAM_HAS_SERVE
    commands.push_back("serve");
#endif
    for (const std::string &command : commands) {
        SCOPED_TRACE(command);
        size_t heading = manual.out.find(".SS \"zelisp-cam " + command + "\"\n");
        ASSERT_NE(heading, std::string::npos);
        size_t next = manual.out.find(".SS ", heading + 1);
        std::string part = manual.out.substr(heading, next == std::string::npos ? std::string::npos : next - heading);
        std::istringstream help(run_tool(command + " --help").out);
        int options = 0;
        for (std::string line; std::getline(help, line);) {
            // "  -c,--camera N  ..." or "  --views V[,V...]  ...": the long name.
            size_t dashes = line.find("--");
            if (line.rfind("  -", 0) != 0 || dashes == std::string::npos || dashes > 6 ||
                line.compare(dashes, 6, "--help") == 0)
                continue;
            std::string name = line.substr(dashes + 2, line.find(' ', dashes) - dashes - 2);
            std::string roff_name;
            for (char c : name)
                roff_name += c == '-' ? std::string("\\-") : std::string(1, c);
            EXPECT_NE(part.find("\\-\\-" + roff_name), std::string::npos) << name;
            ++options;
        }
        EXPECT_GT(options + (command == "list" ? 1 : 0), 0);
    }
    // Made for the build, not offered to users.
    EXPECT_EQ(run_tool("--help").out.find("--manual"), std::string::npos);
}

} // namespace
} // namespace zelisp_tool_test
