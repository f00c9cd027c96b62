#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "platform/standalone/comm/answer_queue.h"
#include "tests/support/memory_channel.h"

using namespace comm_protocol;
using platform::document_text;

namespace {

class AnswerQueue : public testing::Test {
protected:
    bool send(uint64_t request, uint64_t now_us = 0)
    {
        return queue.send(channel, {encode_empty(request, DONE), {}}, now_us);
    }

    // The header of a sent packet.
    packet_header sent(size_t index) const
    {
        packet_header header;
        const packet_bytes& packet = ends->sent.at(index);
        EXPECT_TRUE(decode_header(packet.data(), packet.size(), &header));
        return header;
    }

    template <typename message>
    message sent_body(size_t index) const
    {
        message body;
        const packet_bytes& packet = ends->sent.at(index);
        EXPECT_TRUE(
            decode(packet.data() + packet_header_size, packet.size() - packet_header_size, &body));
        return body;
    }

    static document_text document(size_t size, char letter = 'd')
    {
        return std::make_shared<const std::string>(size, letter);
    }

    // The document made of all STATUS packets with this request number.
    std::string document_sent(uint64_t request) const
    {
        std::string text;
        for (size_t i = 0; i < ends->sent.size(); ++i) {
            if (sent(i).type == STATUS && sent(i).request == request) {
                const auto part = sent_body<status_part>(i);
                EXPECT_EQ(part.offset, text.size());
                text += part.text;
            }
        }
        return text;
    }

    std::shared_ptr<channel_ends> ends = std::make_shared<channel_ends>();
    memory_channel channel{ends};
    platform::answer_queue queue;
};

} // namespace

TEST_F(AnswerQueue, AnswerIsSentAtOnce)
{
    EXPECT_TRUE(send(1));
    EXPECT_TRUE(queue.empty());
    EXPECT_EQ(sent(0).request, 1U);
}

TEST_F(AnswerQueue, AnswersThatDoNotFitWaitInOrder)
{
    ends->room = 1;
    EXPECT_TRUE(send(1));
    EXPECT_TRUE(send(2));
    ends->room = 0;
    EXPECT_TRUE(send(3));
    EXPECT_FALSE(queue.empty());
    ends->room = SIZE_MAX;
    EXPECT_TRUE(send(4));
    EXPECT_TRUE(queue.flush(channel, 0));
    EXPECT_TRUE(queue.empty());
    ASSERT_EQ(ends->sent.size(), 4U);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(sent(i).request, i + 1);
    }
}

TEST_F(AnswerQueue, FullQueueFails)
{
    ends->room = 0;
    for (size_t i = 0; i < max_queued_answers; ++i) {
        ASSERT_TRUE(send(i)) << i;
    }
    EXPECT_FALSE(send(999));
}

TEST_F(AnswerQueue, ClosedChannelFails)
{
    ends->room = 0;
    EXPECT_TRUE(send(1));
    ends->gone = true;
    EXPECT_FALSE(queue.flush(channel, 0));
    platform::answer_queue fresh;
    EXPECT_FALSE(fresh.send(channel, {encode_empty(1, DONE), {}}, 0));
}

TEST_F(AnswerQueue, StallIsMeasuredFromTheLastSentPacket)
{
    ends->room = 0;
    EXPECT_TRUE(send(1, 100));
    EXPECT_TRUE(send(2, 200));
    EXPECT_EQ(queue.stalled_since_us(), 100U);
    EXPECT_TRUE(queue.flush(channel, 300));
    EXPECT_EQ(queue.stalled_since_us(), 100U);
    ends->room = 1;
    EXPECT_TRUE(queue.flush(channel, 400));
    EXPECT_EQ(queue.stalled_since_us(), 400U);
}

TEST_F(AnswerQueue, StallRestartsAfterAnEmptyQueue)
{
    ends->room = 0;
    EXPECT_TRUE(send(1, 100));
    ends->room = 1;
    EXPECT_TRUE(queue.flush(channel, 200));
    EXPECT_TRUE(send(2, 5000));
    EXPECT_EQ(queue.stalled_since_us(), 5000U);
}

TEST_F(AnswerQueue, DocumentIsSentInParts)
{
    EXPECT_TRUE(queue.send_document(channel, document(2 * max_status_part + 1), 7, true, 0));
    ASSERT_EQ(ends->sent.size(), 3U);
    EXPECT_EQ(sent_body<status_part>(0).total, 2 * max_status_part + 1);
    EXPECT_EQ(sent_body<status_part>(0).text.size(), max_status_part);
    EXPECT_EQ(sent_body<status_part>(2).offset, 2 * max_status_part);
    EXPECT_EQ(sent_body<status_part>(2).text.size(), 1U);
    EXPECT_EQ(sent(2).request, 7U);
}

TEST_F(AnswerQueue, DocumentOfExactlyOnePartIsOnePacket)
{
    EXPECT_TRUE(queue.send_document(channel, document(max_status_part), 7, true, 0));
    EXPECT_EQ(ends->sent.size(), 1U);
    EXPECT_TRUE(queue.empty());
}

TEST_F(AnswerQueue, EmptyDocumentIsOneEmptyPart)
{
    EXPECT_TRUE(queue.send_document(channel, document(0), 7, true, 0));
    ASSERT_EQ(ends->sent.size(), 1U);
    EXPECT_EQ(sent_body<status_part>(0).total, 0U);
}

TEST_F(AnswerQueue, NothingIsSentBetweenTheParts)
{
    ends->room = 1;
    EXPECT_TRUE(queue.send_document(channel, document(3 * max_status_part), 7, true, 0));
    EXPECT_TRUE(send(8));
    ends->room = SIZE_MAX;
    EXPECT_TRUE(queue.flush(channel, 0));
    ASSERT_EQ(ends->sent.size(), 4U);
    EXPECT_EQ(document_sent(7).size(), 3 * max_status_part);
    EXPECT_EQ(sent(3).request, 8U);
}

TEST_F(AnswerQueue, NewerDocumentReplacesOneThatWasNotStarted)
{
    ends->room = 0;
    EXPECT_TRUE(queue.send_document(channel, document(10, 'a'), 7, false, 0));
    EXPECT_TRUE(queue.send_document(channel, document(10, 'b'), 7, false, 0));
    ends->room = SIZE_MAX;
    EXPECT_TRUE(queue.flush(channel, 0));
    EXPECT_EQ(ends->sent.size(), 1U);
    EXPECT_EQ(document_sent(7), std::string(10, 'b'));
}

TEST_F(AnswerQueue, StartedDocumentIsFinishedBeforeANewerOne)
{
    ends->room = 1;
    EXPECT_TRUE(queue.send_document(channel, document(max_status_part + 1, 'a'), 7, false, 0));
    EXPECT_TRUE(queue.send_document(channel, document(10, 'b'), 8, false, 0));
    ends->room = SIZE_MAX;
    EXPECT_TRUE(queue.flush(channel, 0));
    EXPECT_EQ(document_sent(7), std::string(max_status_part + 1, 'a'));
    EXPECT_EQ(document_sent(8), std::string(10, 'b'));
}

TEST_F(AnswerQueue, RequestedDocumentsAreAllSent)
{
    ends->room = 0;
    EXPECT_TRUE(queue.send_document(channel, document(10, 'a'), 7, true, 0));
    EXPECT_TRUE(queue.send_document(channel, document(10, 'b'), 8, true, 0));
    EXPECT_TRUE(queue.send_document(channel, document(10, 'c'), 9, false, 0));
    ends->room = SIZE_MAX;
    EXPECT_TRUE(queue.flush(channel, 0));
    EXPECT_EQ(document_sent(7), std::string(10, 'a'));
    EXPECT_EQ(document_sent(8), std::string(10, 'b'));
    EXPECT_EQ(document_sent(9), std::string(10, 'c'));
}

// Even when the channel accepts all of it, so that other clients are served in between.
TEST_F(AnswerQueue, LargeDocumentIsSentInTurns)
{
    constexpr size_t at_once = platform::answer_queue::max_packets_at_once;
    EXPECT_TRUE(
        queue.send_document(channel, document((2 * at_once + 1) * max_status_part), 7, true, 0));
    EXPECT_EQ(ends->sent.size(), at_once);
    EXPECT_FALSE(queue.empty());
    EXPECT_TRUE(queue.flush(channel, 0));
    EXPECT_EQ(ends->sent.size(), 2 * at_once);
    EXPECT_TRUE(queue.flush(channel, 0));
    EXPECT_EQ(ends->sent.size(), 2 * at_once + 1);
    EXPECT_TRUE(queue.empty());
}

TEST_F(AnswerQueue, HoldsAtMostOneOlderDocument)
{
    ends->room = 1;
    const document_text first = document(2 * max_status_part, 'a');
    const document_text second = document(10, 'b');
    const document_text third = document(10, 'c');
    EXPECT_FALSE(queue.holds_older_than(first));
    EXPECT_TRUE(queue.send_document(channel, first, 7, false, 0));
    EXPECT_FALSE(queue.holds_older_than(first));
    EXPECT_TRUE(queue.holds_older_than(second));
    EXPECT_TRUE(queue.send_document(channel, second, 8, true, 0));
    EXPECT_TRUE(queue.send_document(channel, second, 9, false, 0));
    queue.renew_documents(third);
    EXPECT_EQ(first.use_count(), 2);  // this test and the queue
    EXPECT_EQ(second.use_count(), 1); // only this test
    ends->room = SIZE_MAX;
    EXPECT_TRUE(queue.flush(channel, 0));
    EXPECT_EQ(document_sent(7), *first);
    EXPECT_EQ(document_sent(8), *third);
    EXPECT_EQ(document_sent(9), *third);
}

TEST_F(AnswerQueue, DiscardedPacketsAreNotSent)
{
    ends->room = 0;
    const document_text text = document(10);
    EXPECT_TRUE(send(7));
    EXPECT_TRUE(queue.send_document(channel, text, 8, true, 0));
    queue.discard();
    EXPECT_TRUE(queue.empty());
    EXPECT_EQ(text.use_count(), 1);
}

TEST_F(AnswerQueue, WaitingEventsAreMergedWithTheLatestState)
{
    ends->room = 0;
    EXPECT_TRUE(queue.send_event(channel, 7, change_progress, {10, 0, "ten"}, 0));
    EXPECT_TRUE(queue.send_event(channel, 7, change_ready, {100, 1, ""}, 0));
    ends->room = SIZE_MAX;
    EXPECT_TRUE(queue.flush(channel, 0));
    ASSERT_EQ(ends->sent.size(), 1U);
    EXPECT_EQ(sent(0).request, 7U);
    EXPECT_EQ(sent_body<event>(0).changes, change_progress | change_ready);
    EXPECT_EQ(sent_body<event>(0).percent, 100);
    EXPECT_EQ(sent_body<event>(0).ready, 1);
    EXPECT_EQ(sent_body<event>(0).progress, "");
}

TEST_F(AnswerQueue, EventsOfTwoSubscriptionsAreSeparate)
{
    ends->room = 0;
    EXPECT_TRUE(queue.send_event(channel, 7, change_progress, {1, 0, ""}, 0));
    EXPECT_TRUE(queue.send_event(channel, 8, change_progress, {2, 0, ""}, 0));
    ends->room = SIZE_MAX;
    EXPECT_TRUE(queue.flush(channel, 0));
    EXPECT_EQ(ends->sent.size(), 2U);
}

TEST_F(AnswerQueue, EventsAndDocumentsNeverFillTheQueue)
{
    ends->room = 0;
    for (size_t i = 0; i < 10 * max_queued_answers; ++i) {
        ASSERT_TRUE(queue.send_event(channel, 7, change_progress, {1, 0, ""}, 0));
        ASSERT_TRUE(queue.send_document(channel, document(10), 7, false, 0));
    }
}
