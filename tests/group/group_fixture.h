/*
 * group_fixture.h - what the group tests share: a fixture that makes groups
 * on the simulated platform and destroys them at the end (so that the leak
 * check of SimTest also proves the teardown), and readers for the driver's
 * request log.
 */
#ifndef ZELISP_TESTS_GROUP_FIXTURE_H
#define ZELISP_TESTS_GROUP_FIXTURE_H

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "group/isp_video_group.h"
#include "sim_fixture.h"

namespace zelisp_test {

constexpr uint32_t kViewZero = 1;                 // combination: view 0 only
constexpr uint32_t kBuffers = 3;

// Group states as the group record holds them.
enum : uint32_t { kNone = 0, kOpened = 1, kInited = 2, kCapturing = 4, kCreated = 5, kReady = 6 };

inline uint32_t GroupState(unsigned long group) { return zelisp::GroupFromHandle(group)->state; }

// Node paths of the logged occurrences of a request, in order.
inline std::vector<std::string> PathsOf(uint32_t request)
{
    std::vector<std::string> paths;
    for (const zsim::LogEntry &entry : zsim::requests(request))
        paths.push_back(entry.path);
    return paths;
}

class GroupTest : public SimTest {
protected:
    void TearDown() override
    {
        for (unsigned long group : groups_)
            EXPECT_EQ(isp_destroy_video_group(group), 0);
        SimTest::TearDown();
    }

    unsigned long MakeGroup(const std::vector<int> &members, uint32_t group_type = 0)
    {
        unsigned long group = 0;
        EXPECT_EQ(isp_create_video_group(&group, group_type, "test", members.data(), int(members.size())), 0);
        if (group != 0)
            groups_.push_back(group);
        return group;
    }

    unsigned long MakeEmptyGroup(int camera_count = 0)
    {
        unsigned long group = 0;
        EXPECT_EQ(isp_create_empty_video_group(&group, 0, "empty", camera_count), 0);
        if (group != 0)
            groups_.push_back(group);
        return group;
    }

    // Brings a group made with members up to `state` (opened, inited or
    // capturing), view 0 only, with the lines this prints swallowed.
    void BringUp(unsigned long group, uint32_t state)
    {
        OutputCapture quiet;
        int results[8];
        ASSERT_EQ(isp_group_open_video(group, 1, results), 0);
        if (state == kOpened)
            return;
        ASSERT_EQ(isp_group_init_video(group, kViewZero, kBuffers), 0);
        if (state == kInited)
            return;
        ASSERT_EQ(isp_group_start_captrue(group), 0);
    }

    std::vector<unsigned long> groups_;
};

} // namespace zelisp_test

#endif
