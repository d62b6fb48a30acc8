// Scenes from files: a Y4M video's frames come back in order and loop, a
// still and a folder of stills show, and a bad source is a configuration
// error naming the file and line.
#include <linux/videodev2.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <turbojpeg.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "../../sim/src/sim_internal.h"
#include "scene_files.h"
#include "sim_fixture.h"
#include "video_test_node.h"

namespace {

using zelisp_test::BufferRecord;
using zelisp_test::VideoNode;

constexpr int kCamera = 2;
const zsim::ViewFormat kGrey = {zsim::kGREY, 192, 108};

class SceneSourceTest : public zelisp_test::SimTest {
protected:
    void SetUp() override
    {
        SimTest::SetUp();
        char pattern[] = "/tmp/zelisp-scene-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
    }
    void TearDown() override
    {
        std::string command = "rm -rf '" + dir_ + "'";
        EXPECT_EQ(std::system(command.c_str()), 0);
        SimTest::TearDown();
    }
    std::string Write(const std::string &name, const std::string &bytes)
    {
        const std::string path = dir_ + "/" + name;
        FILE *file = fopen(path.c_str(), "wb");
        EXPECT_NE(file, nullptr);
        fwrite(bytes.data(), 1, bytes.size(), file);
        fclose(file);
        return path;
    }
    // A 4:2:0 video of flat frames with the given luma.
    static std::string Y4m(const std::vector<int> &lumas, const std::string &colour = "C420jpeg")
    {
        std::string video = "YUV4MPEG2 W32 H18 F30:1 Ip A1:1 " + colour + "\n";
        for (int luma : lumas)
            video += "FRAME\n" + std::string(32 * 18, char(luma)) + std::string(2 * 16 * 9, char(128));
        return video;
    }
    void WritePng(const std::string &name, uint8_t r, uint8_t g, uint8_t b)
    {
        ASSERT_TRUE(zelisp_test::WritePngScene(dir_ + "/" + name, 40, 20, [=](uint32_t, uint32_t) {
            return zelisp_test::Rgb{r, g, b};
        }));
    }
    void WriteJpeg(const std::string &name, uint8_t luma)
    {
        std::vector<uint8_t> grey(64 * 32, luma);
        tjhandle handle = tjInitCompress();
        unsigned char *jpeg = nullptr;
        unsigned long size = 0;
        ASSERT_EQ(tjCompress2(handle, grey.data(), 64, 0, 32, TJPF_GRAY, &jpeg, &size, TJSAMP_GRAY, 100, 0), 0);
        Write(name, std::string(reinterpret_cast<char *>(jpeg), size));
        tjFree(jpeg);
        tjDestroy(handle);
    }
    // Loads a configuration showing `source` on camera 2's view 0 (GREY),
    // with manual exposure at its base and the automatic white balance off,
    // so that the scene comes through as the file has it.
    bool Configure(const std::string &source, std::string *error = nullptr)
    {
        const std::string path = Write("board.ini", "[camera 2]\nview0 = GREY 192x108\nmode = scripted\nsource = " +
                                                        source + "\naec = 1\nawb = 0\n");
        std::string ignored;
        return zsim::load_config(path, error ? error : &ignored);
    }
    // The scene's mean luma below the frame number, for each frame number.
    std::vector<int> Lumas(const std::vector<uint32_t> &sequences)
    {
        VideoNode node("/dev/video14"); // camera 2, mode 2: view 0
        uint32_t count = 1;
        EXPECT_EQ(node.RequestBuffers(&count), 0);
        BufferRecord record;
        EXPECT_EQ(node.Request(VIDIOC_QUERYBUF, &record.buf), 0);
        void *data = mmap(nullptr, record.plane[0].length, PROT_READ, MAP_SHARED, node.fd(), record.plane[0].m.mem_offset);
        EXPECT_NE(data, MAP_FAILED);
        const auto *pixels = static_cast<const uint8_t *>(data);
        EXPECT_EQ(node.Request(VIDIOC_QBUF, &record.buf), 0);
        EXPECT_EQ(node.Stream(VIDIOC_STREAMON), 0);
        std::vector<int> lumas;
        for (uint32_t sequence : sequences) {
            zsim::ScriptedFrame frame;
            frame.sequence = sequence;
            frame.paint = true;
            zsim::push_frame(kCamera + 12, frame);
            BufferRecord filled;
            EXPECT_EQ(node.Request(VIDIOC_DQBUF, &filled.buf), 0);
            uint32_t number = 0;
            EXPECT_TRUE(zsim::detail::read_frame_number(pixels, record.plane[0].length, kGrey, &number));
            EXPECT_EQ(number, sequence);
            long sum = 0;
            for (uint32_t y = 24; y < 108; ++y)
                for (uint32_t x = 0; x < 192; ++x)
                    sum += pixels[y * 192 + x];
            lumas.push_back(int(sum / (84 * 192)));
            BufferRecord again;
            EXPECT_EQ(node.Request(VIDIOC_QBUF, &again.buf), 0);
        }
        munmap(data, record.plane[0].length);
        return lumas;
    }

    std::string dir_;
};

TEST_F(SceneSourceTest, Y4mFramesComeBackInOrderAndLoop)
{
    Write("clip.y4m", Y4m({40, 120, 200}));
    ASSERT_TRUE(Configure("clip.y4m")) << "relative to the configuration file";
    EXPECT_EQ(zsim::camera_config(kCamera).source, dir_ + "/clip.y4m");
    EXPECT_EQ(Lumas({0, 1, 2, 3, 4, 5, 301}), (std::vector<int>{40, 120, 200, 40, 120, 200, 120}));
    // A monochrome video has neutral chroma.
    Write("mono.y4m", "YUV4MPEG2 W16 H8 Cmono\nFRAME\n" + std::string(16 * 8, char(90)));
    ASSERT_TRUE(Configure(dir_ + "/mono.y4m"));
    EXPECT_EQ(Lumas({9}), std::vector<int>{90});
}

TEST_F(SceneSourceTest, StillsAndFoldersOfStillsInNameOrder)
{
    WritePng("grey.png", 120, 120, 120);
    ASSERT_TRUE(Configure("grey.png"));
    // Full-range grey 120 in the ISP's limited range: 16 + 120 * 219 / 255.
    EXPECT_NEAR(Lumas({0, 1})[1], 119, 1);
    ASSERT_EQ(mkdir((dir_ + "/stills").c_str(), 0755), 0);
    WritePng("stills/b.png", 255, 255, 255);
    WriteJpeg("stills/a.jpg", 60);
    WritePng("stills/c.png", 0, 0, 0);
    ASSERT_TRUE(Configure("stills"));
    const std::vector<int> lumas = Lumas({0, 1, 2, 3});
    EXPECT_NEAR(lumas[0], 16 + 60 * 219 / 255, 2);
    EXPECT_NEAR(lumas[1], 235, 1);
    EXPECT_NEAR(lumas[2], 16, 1);
    EXPECT_EQ(lumas[3], lumas[0]);
}

TEST_F(SceneSourceTest, BadSourceIsAConfigurationErrorWithFileAndLine)
{
    Write("notes.txt", "not a picture\n");
    Write("short.y4m", Y4m({50}).substr(0, 200));
    Write("wide.y4m", Y4m({50}, "C444"));
    ASSERT_EQ(mkdir((dir_ + "/empty").c_str(), 0755), 0);
    ASSERT_EQ(mkdir((dir_ + "/mixed").c_str(), 0755), 0);
    Write("mixed/notes.txt", "text\n");
    const std::string ini = dir_ + "/board.ini:4: ";
    const struct {
        std::string source, message;
    } cases[] = {
        {"missing.y4m", "bad source 'missing.y4m': cannot open: No such file or directory"},
        {"notes.txt", "bad source 'notes.txt': not a Y4M video, PNG or JPEG image, or folder of images"},
        {"short.y4m", "bad source 'short.y4m': bad Y4M frame 0: truncated"},
        {"wide.y4m", "bad source 'wide.y4m': Y4M colour space C444 is not supported (4:2:0 or mono)"},
        {"empty", "bad source 'empty': folder has no images"},
        {"mixed", "bad source 'mixed': notes.txt: not a Y4M video, PNG or JPEG image, or folder of images"},
    };
    for (const auto &each : cases) {
        std::string error;
        EXPECT_FALSE(Configure(each.source, &error));
        EXPECT_EQ(error, ini + each.message);
        EXPECT_EQ(zsim::camera_config(kCamera).source, "") << "a file with an error changes nothing";
    }
    std::string error;
    const std::string path = Write("noise.ini", "[camera 1]\nnoise = 65\n");
    EXPECT_FALSE(zsim::load_config(path, &error));
    EXPECT_EQ(error, path + ":2: bad value '65' for noise: none, or a standard deviation 0 to 64");
    const std::string controls = Write("controls.ini", "[camera 1]\nbrightness = 200\nsharpness = 11\n");
    EXPECT_FALSE(zsim::load_config(controls, &error));
    EXPECT_EQ(error, controls + ":3: bad value '11' for sharpness: 0 to 10");
    int32_t value = 0;
    ASSERT_TRUE(zsim::control_value(1, 0x00980900, &value));
    EXPECT_EQ(value, 128);
}

} // namespace
