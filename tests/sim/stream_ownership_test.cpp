// Buffer ownership and scripted frames on a simulated node: who holds each
// buffer, what a dequeue reports, and when the descriptor is readable.
#include <sys/select.h>

#include <cerrno>

#include "sim_fixture.h"
#include "video_test_node.h"

namespace {

using zelisp_test::BufferRecord;
using zelisp_test::VideoNode;

class StreamOwnershipTest : public zelisp_test::SimTest {
protected:
    void SetUp() override
    {
        SimTest::SetUp();
        zsim::set_frame_mode(0, zsim::FrameMode::Scripted);
        node_ = std::make_unique<VideoNode>("/dev/video0");
        uint32_t count = 3;
        ASSERT_EQ(node_->RequestBuffers(&count), 0);
    }
    void TearDown() override
    {
        node_.reset();
        SimTest::TearDown();
    }
    int Queue(uint32_t index)
    {
        BufferRecord record(index);
        return node_->Request(VIDIOC_QBUF, &record.buf);
    }
    // What select() says about the node right now.
    bool Readable()
    {
        fd_set set;
        FD_ZERO(&set);
        FD_SET(node_->fd(), &set);
        timeval none{0, 0};
        return select(node_->fd() + 1, &set, nullptr, nullptr, &none) == 1;
    }
    static zsim::ScriptedFrame Frame(uint32_t sequence, uint64_t timestamp_us)
    {
        zsim::ScriptedFrame frame;
        frame.sequence = sequence;
        frame.timestamp_us = timestamp_us;
        return frame;
    }
    std::unique_ptr<VideoNode> node_;
};

TEST_F(StreamOwnershipTest, QueueRefusesUnknownAndAlreadyQueuedBuffers)
{
    EXPECT_EQ(Queue(0), 0);
    EXPECT_EQ(Queue(0), EINVAL);
    EXPECT_EQ(Queue(3), EINVAL);
    BufferRecord dequeued;
    EXPECT_EQ(node_->Request(VIDIOC_DQBUF, &dequeued.buf), EINVAL); // not streaming
    ASSERT_EQ(node_->Stream(VIDIOC_STREAMON), 0);
    EXPECT_EQ(node_->Request(VIDIOC_DQBUF, &dequeued.buf), EAGAIN);

    // Stream-off hands every buffer back, queued or filled.
    zsim::push_frame(0, Frame(1, 1000000));
    ASSERT_EQ(node_->Stream(VIDIOC_STREAMOFF), 0);
    EXPECT_FALSE(Readable());
    for (uint32_t index = 0; index < 3; ++index)
        EXPECT_EQ(Queue(index), 0) << index;
}

TEST_F(StreamOwnershipTest, ScriptedFramesFillQueuedBuffersInOrder)
{
    ASSERT_EQ(node_->Stream(VIDIOC_STREAMON), 0);
    zsim::ScriptedFrame first = Frame(7, 5000123);
    first.reserved = 0xabcd;
    first.plane_length[1] = 4096;
    zsim::push_frame(0, first);
    zsim::push_frame(0, Frame(9, 5040000));
    zsim::push_frame(0, Frame(8, 5080000));
    EXPECT_EQ(zsim::pending_frames(0), 3u);
    EXPECT_FALSE(Readable()); // no buffer queued yet

    ASSERT_EQ(Queue(2), 0);
    ASSERT_EQ(Queue(0), 0);
    EXPECT_EQ(zsim::pending_frames(0), 1u);
    ASSERT_TRUE(Readable());

    BufferRecord out;
    ASSERT_EQ(node_->Request(VIDIOC_DQBUF, &out.buf), 0);
    EXPECT_EQ(out.buf.index, 2u);
    EXPECT_EQ(out.buf.sequence, 7u);
    EXPECT_EQ(out.buf.timestamp.tv_sec, 5);
    EXPECT_EQ(out.buf.timestamp.tv_usec, 123);
    EXPECT_EQ(out.buf.reserved, 0xabcdu);
    EXPECT_EQ(out.buf.length, 3u);
    EXPECT_EQ(out.plane[1].length, 4096u);
    EXPECT_GT(out.plane[0].length, 4096u);
    EXPECT_TRUE(Readable());

    ASSERT_EQ(node_->Request(VIDIOC_DQBUF, &out.buf), 0);
    EXPECT_EQ(out.buf.index, 0u);
    EXPECT_EQ(out.buf.sequence, 9u);
    EXPECT_FALSE(Readable());
    EXPECT_EQ(node_->Request(VIDIOC_DQBUF, &out.buf), EAGAIN);
    ASSERT_EQ(Queue(1), 0);
    EXPECT_TRUE(Readable());

    zsim::Counters counters = zsim::counters(0);
    EXPECT_EQ(counters.produced, 3u);
    EXPECT_EQ(counters.delivered, 2u);
    EXPECT_EQ(counters.dropped, 0u);
}

} // namespace
