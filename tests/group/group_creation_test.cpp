// Group creation, membership lookups, and the two functions that hand out a
// member's camera and free a group.
#include <gmock/gmock.h>
#include <linux/videodev2.h>

#include <cerrno>

#include "driver/isp_requests.h"
#include "group_fixture.h"

namespace zelisp_test {
namespace {

using ::testing::ElementsAre;
using ::testing::StartsWith;

constexpr unsigned long kUntouched = 0x5a5a;

constexpr char kNotMember[] = "camera_index is invailed !!!\n: ";

using GroupCreation = GroupTest;

int Occurrences(const std::string &text, const std::string &part)
{
    int count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

TEST_F(GroupCreation, NullNameAndNineMembersAreRefusedBeforeTheNodeIsOpened)
{
    const int list[9] = {0, 1, 2, 3, 0, 1, 2, 3, 0};
    unsigned long group = kUntouched;
    OutputCapture output;
    EXPECT_EQ(isp_create_empty_video_group(&group, 0, nullptr, 1), ISP_ERR_MISSING);
    EXPECT_EQ(isp_create_video_group(&group, 0, nullptr, list, 1), ISP_ERR_MISSING);
    EXPECT_EQ(isp_create_empty_video_group(&group, 0, "nine", 9), ISP_ERR_MISSING);
    EXPECT_EQ(isp_create_video_group(&group, 0, "nine", list, 9), ISP_ERR_MISSING);
    output.Stop();
    EXPECT_EQ(output.out(), "camera_count greater than MAX_GROUP_NAME_LEN : 8 !! \n"
                            "camera_count greater than MAX_GROUP_NAME_LEN : 8 !! \n");
    EXPECT_EQ(group, kUntouched);
    EXPECT_TRUE(zsim::requests(zsim::kOpen).empty());
}

TEST_F(GroupCreation, EightMembersAndALongNameAreAcceptedWithTheNameCutAt32Bytes)
{
    const char name[] = "a-forty-character-long-group-name-012345";
    static_assert(sizeof name == 41);
    const int list[8] = {0, 1, 2, 3, 4, 5, 6, 7};
    unsigned long group = 0;
    ASSERT_EQ(isp_create_video_group(&group, 0, name, list, 8), 0);
    groups_.push_back(group);
    EXPECT_EQ(memcmp(reinterpret_cast<const char *>(group), name, 32), 0);
    EXPECT_EQ(GroupState(group), kReady);
    EXPECT_EQ(GroupState(MakeEmptyGroup(8)), kCreated);
}

TEST_F(GroupCreation, FailedCreationLeavesNoDescriptorAndNoHandle)
{
    struct Case {
        std::vector<int> list;
        std::string out;
        int result;
    };
    const Case cases[] = {
        {{0, 1, 12}, "video 12 is invalid !\n", ISP_ERR_INVALID},
        {{-1}, "video -1 is invalid !\n", ISP_ERR_INVALID},
        {{0}, "ioctl GET_VAILED_CAMERA_INFO failed! \nisp_get_all_valid_camera_info failed! \n", ISP_ERR_NO_NODE},
    };
    unsigned long group = kUntouched;
    zsim::fail_request(zelisp::GET_VAILED_CAMERA_INFO, 3, EIO); // the third creation's table read
    for (const Case &c : cases) {
        OutputCapture output;
        EXPECT_EQ(isp_create_video_group(&group, 0, "bad", c.list.data(), int(c.list.size())), c.result);
        output.Stop();
        EXPECT_EQ(output.out(), c.out);
    }
    zsim::set_node_kind("/dev/isp_misc", zsim::NodeKind::Missing);
    OutputCapture output;
    EXPECT_EQ(isp_create_empty_video_group(&group, 0, "bad", 1), ISP_ERR_OPEN);
    output.Stop();
    EXPECT_EQ(output.err(), "open isp_misc error\n: " + ErrorText(ENOENT) + "\n");
    EXPECT_EQ(group, kUntouched);
    EXPECT_EQ(zsim::live_descriptors(), 0u);
}

TEST_F(GroupCreation, MembershipLookupAnswersUnderBothNames)
{
    const unsigned long group = MakeGroup({2, 0});
    EXPECT_EQ(isp_get_single_camera_handle(group, 2), 0);
    EXPECT_EQ(isp_group_get_video_handle(group, 0), 0);
    OutputCapture output;
    EXPECT_EQ(isp_get_single_camera_handle(group, 1), ISP_ERR_INVALID);
    output.Stop();
    EXPECT_THAT(output.err(), StartsWith(kNotMember));
    EXPECT_EQ(isp_group_get_video_handle(MakeGroup({}), 0), ISP_ERR_INVALID);
}

TEST_F(GroupCreation, LookupsRefuseEmptyAndClosedGroups)
{
    const unsigned long empty = MakeEmptyGroup(2);
    const unsigned long closed = MakeGroup({1});
    BringUp(closed, kOpened);
    ASSERT_EQ(isp_group_close_video(closed), 0);
    zelvideo::_camera_info_t info;
    unsigned long handle = kUntouched;
    for (const auto &[group, message] :
         {std::pair{empty, "Empty group !!!\n: "}, std::pair{closed, "Haven't create group !!!\n: "}}) {
        OutputCapture output;
        EXPECT_EQ(isp_get_single_camera_handle(group, 1), ISP_ERR_STATE);
        EXPECT_EQ(isp_group_get_video_info(group, 1, &info), ISP_ERR_STATE);
        EXPECT_EQ(isp_group_get_camera_handle(group, 1, &handle), ISP_ERR_STATE);
        output.Stop();
        EXPECT_EQ(Occurrences(output.err(), message), 3) << output.err();
    }
    EXPECT_EQ(handle, kUntouched);
}

TEST_F(GroupCreation, VideoInfoCopiesTheDriversRecordOfAnyValidCamera)
{
    const unsigned long group = MakeGroup({0});
    zelvideo::_camera_info_t info;
    ASSERT_EQ(isp_group_get_video_info(group, 3, &info), 0); // valid, not a member
    EXPECT_EQ(std::vector<uint8_t>(reinterpret_cast<uint8_t *>(&info), reinterpret_cast<uint8_t *>(&info + 1)),
              zsim::camera_info_record(3));

    info.camera_index = 99;
    OutputCapture output;
    EXPECT_EQ(isp_group_get_video_info(group, 7, &info), ISP_ERR_INVALID); // not on the platform
    EXPECT_EQ(isp_group_get_video_info(group, 0, nullptr), ISP_ERR_INVALID);
    zsim::set_valid_camera_count(0);
    EXPECT_EQ(isp_group_get_video_info(MakeGroup({0}), 0, &info), ISP_ERR_NO_VALID_CAMERA);
    output.Stop();
    EXPECT_THAT(output.err(), StartsWith(kNotMember));
    EXPECT_EQ(output.out(), "none valied camera!\n");
    EXPECT_EQ(info.camera_index, 99);
}

TEST_F(GroupCreation, CameraHandleOfAMemberReachesThatCamera)
{
    const unsigned long group = MakeGroup({2, 1, 2});
    unsigned long second = 0, first = 0, repeat = 0;
    ASSERT_EQ(isp_group_get_camera_handle(group, 1, &second), 0);
    ASSERT_EQ(isp_group_get_camera_handle(group, 2, &first), 0);
    ASSERT_EQ(isp_group_get_camera_handle(group, 2, &repeat), 0);
    EXPECT_NE(first, second);
    EXPECT_EQ(first, repeat); // a repeated index is one camera

    unsigned long handle = kUntouched;
    OutputCapture output;
    EXPECT_EQ(isp_group_get_camera_handle(0, 1, &handle), ISP_ERR_INVALID);
    EXPECT_EQ(isp_group_get_camera_handle(group, 1, nullptr), ISP_ERR_INVALID);
    EXPECT_EQ(isp_group_get_camera_handle(group, 0, &handle), ISP_ERR_INVALID);
    output.Stop();
    EXPECT_THAT(output.err(), StartsWith(kNotMember)); // null arguments print nothing
    EXPECT_EQ(handle, kUntouched);

    // Once the group has opened it, the member is an ordinary camera (the
    // repeat fails to open again, which leaves the group ready).
    int results[3];
    OutputCapture quiet;
    EXPECT_EQ(isp_group_open_video(group, 1, results), ISP_ERR_OPEN);
    zsim::clear_log();
    EXPECT_EQ(isp_camera_set_brightness(second, 10), 0);
    EXPECT_THAT(PathsOf(VIDIOC_S_CTRL), ElementsAre("/dev/video1"));
}

TEST_F(GroupCreation, DestroyReleasesEveryDescriptorAndMappingInAnyState)
{
    EXPECT_EQ(isp_destroy_video_group(0), ISP_ERR_INVALID);
    const int list[3] = {0, 1, 2};
    unsigned long empty = 0, capturing = 0, ready = 0;
    ASSERT_EQ(isp_create_empty_video_group(&empty, 0, "empty", 4), 0);
    // The group keeps one descriptor; the table read opens and closes its own.
    EXPECT_THAT(PathsOf(zsim::kOpen), ElementsAre("/dev/isp_misc", "/dev/isp_misc"));
    EXPECT_EQ(zsim::live_descriptors(), 1u);
    EXPECT_EQ(isp_destroy_video_group(empty), 0);
    EXPECT_EQ(zsim::live_descriptors(), 0u);

    ASSERT_EQ(isp_create_video_group(&capturing, 0, "capturing", list, 3), 0);
    BringUp(capturing, kCapturing);
    EXPECT_EQ(isp_destroy_video_group(capturing), 0);
    EXPECT_EQ(zsim::live_descriptors(), 0u);
    EXPECT_EQ(zsim::live_mappings(), 0u);

    // A failed group open leaves the group ready with members open.
    ASSERT_EQ(isp_create_video_group(&ready, 0, "ready", list, 3), 0);
    zsim::set_open_errno("/dev/video1", EBUSY);
    int results[3];
    OutputCapture quiet;
    ASSERT_EQ(isp_group_open_video(ready, 1, results), ISP_ERR_OPEN);
    EXPECT_EQ(isp_destroy_video_group(ready), 0);
    EXPECT_EQ(zsim::live_descriptors(), 0u);
}

TEST_F(GroupCreation, DestroyAfterCloseDoesNotCloseAMemberTwice)
{
    unsigned long group = 0;
    const int list[2] = {0, 1};
    ASSERT_EQ(isp_create_video_group(&group, 0, "closed", list, 2), 0);
    BringUp(group, kInited);
    zsim::set_close_errno("/dev/video1", EIO);
    {
        OutputCapture quiet;
        ASSERT_EQ(isp_group_close_video(group), 0);
    }
    zsim::clear_log();
    EXPECT_EQ(isp_destroy_video_group(group), 0);
    EXPECT_THAT(PathsOf(zsim::kClose), ElementsAre("/dev/isp_misc"));
}

} // namespace
} // namespace zelisp_test
