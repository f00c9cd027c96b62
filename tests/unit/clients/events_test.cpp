#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/run_state.h"
#include "platform/serving.h"
#include "platform/standalone/clients/documents.h"
#include "platform/standalone/clients/events.h"
#include "platform/standalone/report/changes.h"
#include "platform/standalone/report/document.h"
#include "platform/time.h"
#include "tests/support/comm_fixture.h"

using namespace comm_protocol;
using plain_item::state;

namespace {

class ClientsEvents : public comm_fixture {
protected:
    // A client with this subscription whose initial event has been read.
    packet_client subscriber(uint32_t mask) const
    {
        packet_client client = greeted();
        const auto done = ask(client, encode(70, subscribe{mask}));
        EXPECT_TRUE(done.has_value() && done->header.type == DONE);
        while (client.receive().has_value()) {
        }
        return client;
    }

    // Notifies subscribers of the changes, at a time when no event is held back.
    static void change(uint32_t changes)
    {
        platform::note_changes(changes);
        comm_socket_v4_server& server = *vexa_comm_server;
        platform::send_changes(server, later += 1'000'000);
    }

    static event expect_event(const packet_client& client)
    {
        const auto packet = client.receive();
        if (!packet.has_value() || packet->header.type != EVENT) {
            ADD_FAILURE() << "no EVENT arrived";
            return {};
        }
        EXPECT_EQ(packet->header.request, 70U);
        event news = packet->as<event>();
        progress = news.progress;
        news.progress = progress;
        return news;
    }

    static inline uint64_t later = monotonic_clock_us() + 1'000'000;
    static inline std::string progress;
};

} // namespace

TEST_F(ClientsEvents, SubscriptionStartsWithTheCurrentState)
{
    state.percent = 30;
    state.progress = "Decoding PNG";
    const packet_client client = greeted();
    const auto done = ask(client, encode(70, subscribe{change_progress}));
    ASSERT_TRUE(done.has_value());
    EXPECT_EQ(done->header.type, DONE);
    EXPECT_EQ(done->header.request, 70U);
    const event present = expect_event(client);
    EXPECT_EQ(present.changes, 0U);
    EXPECT_EQ(present.percent, 30);
    EXPECT_EQ(present.ready, 0);
    EXPECT_EQ(present.progress, "Decoding PNG");
    EXPECT_FALSE(client.receive().has_value());
}

TEST_F(ClientsEvents, ChangeIsReportedWithTheLatestState)
{
    const packet_client client = subscriber(change_progress | change_ready);
    state.percent = 100;
    state.ready = 1;
    change(change_progress | change_ready);
    const event news = expect_event(client);
    EXPECT_EQ(news.changes, change_progress | change_ready);
    EXPECT_EQ(news.percent, 100);
    EXPECT_EQ(news.ready, 1);
}

TEST_F(ClientsEvents, OnlySubscribedChangesAreReported)
{
    const packet_client client = subscriber(change_metadata);
    change(change_progress);
    EXPECT_FALSE(client.receive().has_value());
    change(change_progress | change_metadata);
    EXPECT_EQ(expect_event(client).changes, change_metadata);
}

TEST_F(ClientsEvents, MaskZeroEndsTheSubscription)
{
    const packet_client client = subscriber(change_progress);
    const auto done = ask(client, encode(71, subscribe{0}));
    ASSERT_TRUE(done.has_value());
    EXPECT_EQ(done->header.type, DONE);
    change(change_progress);
    EXPECT_FALSE(client.receive().has_value());
}

TEST_F(ClientsEvents, SecondSubscriptionReplacesTheFirst)
{
    const packet_client client = subscriber(change_progress);
    ASSERT_TRUE(ask(client, encode(72, subscribe{change_metadata})).has_value());
    EXPECT_EQ(client.receive()->header.request, 72U);
    change(change_progress);
    EXPECT_FALSE(client.receive().has_value());
    change(change_metadata);
    EXPECT_EQ(client.receive()->header.request, 72U);
}

TEST_F(ClientsEvents, ProgressIsReportedAtMostAHundredTimesASecond)
{
    const packet_client client = subscriber(change_progress);
    comm_socket_v4_server& server = *vexa_comm_server;
    const uint64_t start = later += 1'000'000;
    for (uint64_t us = 0; us < 100'000; us += 100) {
        platform::note_changes(change_progress);
        platform::send_changes(server, start + us);
    }
    int events = 0;
    while (client.receive().has_value()) {
        ++events;
    }
    EXPECT_EQ(events, 10);
}

TEST_F(ClientsEvents, ReadinessIsReportedAtOnce)
{
    const packet_client client = subscriber(change_progress | change_provisional | change_ready);
    comm_socket_v4_server& server = *vexa_comm_server;
    later += 1'000'000;
    platform::note_changes(change_progress);
    EXPECT_EQ(platform::send_changes(server, later), 1);
    platform::note_changes(change_provisional);
    EXPECT_EQ(platform::send_changes(server, later), 1);
    platform::note_changes(change_ready);
    EXPECT_EQ(platform::send_changes(server, later), 1);
    platform::note_changes(change_progress);
    EXPECT_EQ(platform::send_changes(server, later), 0);
}

TEST_F(ClientsEvents, IdleCallReportsChanges)
{
    const packet_client client = subscriber(change_ready);
    platform::note_changes(change_ready);
    pump();
    EXPECT_EQ(expect_event(client).changes, change_ready);
}

TEST_F(ClientsEvents, ConnectingAndLeavingClientsAreReported)
{
    const packet_client client = subscriber(change_clients);
    change(0);
    while (client.receive().has_value()) {
    }
    packet_client other = greeted();
    change(0);
    EXPECT_EQ(expect_event(client).changes, change_clients);
    other.close();
    pump();
    change(0);
    EXPECT_EQ(expect_event(client).changes, change_clients);
}

TEST_F(ClientsEvents, MetadataSetByOneClientIsReportedToTheOthers)
{
    const packet_client client = subscriber(change_metadata);
    const packet_client setter = greeted();
    ASSERT_TRUE(ask(setter, encode(4, set_metadata{"n", "v"})).has_value());
    change(0);
    EXPECT_EQ(expect_event(client).changes, change_metadata);
}

TEST_F(ClientsEvents, DocumentIsSentWithTheSubscriptionAndAfterAChange)
{
    const packet_client client = greeted();
    ASSERT_TRUE(ask(client, encode(70, subscribe{change_document})).has_value());
    EXPECT_EQ(expect_event(client).changes, 0U);
    EXPECT_EQ(client.receive()->as<status_part>().text, R"({"a": 1})");
    state.document = "second";
    platform::mark_document_changed();
    platform::send_document_to_subscribers();
    const auto second = client.receive();
    ASSERT_TRUE(second.has_value());
    EXPECT_EQ(second->header.type, STATUS);
    EXPECT_EQ(second->header.request, 70U);
    EXPECT_EQ(second->as<status_part>().text, "second");
}

// During a decode nothing else sends the document.
TEST_F(ClientsEvents, IdleCallSendsAChangedDocument)
{
    const packet_client client = subscriber(change_document);
    state.document = "second";
    platform::mark_document_changed();
    pump();
    const auto second = client.receive();
    ASSERT_TRUE(second.has_value());
    EXPECT_EQ(second->as<status_part>().text, "second");
    pump();
    EXPECT_FALSE(client.receive().has_value());
}

TEST_F(ClientsEvents, SameDocumentIsSentOnce)
{
    const packet_client asking = greeted();
    const packet_client client = subscriber(change_document);
    platform::send_document_to_subscribers();
    EXPECT_FALSE(client.receive().has_value());
    // A request builds the document; the subscriber then gets it once.
    state.document = "second";
    platform::mark_document_changed();
    ASSERT_TRUE(ask(asking, encode_empty(5, GET_STATUS)).has_value());
    platform::send_document_to_subscribers();
    platform::send_document_to_subscribers();
    EXPECT_EQ(client.receive()->as<status_part>().text, "second");
    EXPECT_FALSE(client.receive().has_value());
}

TEST_F(ClientsEvents, DocumentWithoutSubscribersIsNotBuilt)
{
    const packet_client client = subscriber(change_progress);
    platform::mark_document_changed();
    pump();
    EXPECT_EQ(state.documents_built, 0U);
}

TEST_F(ClientsEvents, DocumentIsSentToItsSubscribersOnly)
{
    const packet_client client = subscriber(change_progress);
    platform::send_document_to_subscribers();
    EXPECT_FALSE(client.receive().has_value());
}

TEST_F(ClientsEvents, DocumentIsNotBuiltWithoutAService)
{
    platform::close_comm_service();
    platform::send_document_to_subscribers();
    EXPECT_EQ(state.documents_built, 0U);
}

TEST_F(ClientsEvents, SubscriberThatDoesNotReadGetsTheLatestLater)
{
    state.document.assign(1'000'000, 'a');
    const packet_client client = greeted();
    ASSERT_TRUE(client.send(encode(70, subscribe{change_document | change_progress})));
    pump();
    for (int i = 0; i < 1000; ++i) {
        state.percent = i % 100;
        platform::mark_document_changed();
        platform::send_document_to_subscribers();
        change(change_progress);
    }
    state.document.assign(10, 'z');
    platform::mark_document_changed();
    platform::send_document_to_subscribers();
    std::string last;
    int packets = 0;
    while (const auto packet = client.receive()) {
        if (packet->header.type == STATUS) {
            last = packet->as<status_part>().text;
        }
        ++packets;
        pump();
    }
    EXPECT_EQ(last, std::string(10, 'z'));
    EXPECT_LT(packets, 100);
}

TEST_F(ClientsEvents, GoingDownIsReportedToSubscribersAndWaitingClients)
{
    vexa_ready = false;
    const packet_client client = subscriber(change_going_down);
    const packet_client waiting = greeted();
    ask(waiting, encode(9, get_frame{0, get_frame_wait}));
    close_vexa_client_contexts();
    EXPECT_EQ(expect_event(client).changes, change_going_down);
    EXPECT_TRUE(client.hung_up());
    expect_error(waiting.receive(), GOING_DOWN, 9, "the worker is going down");
    EXPECT_TRUE(waiting.hung_up());
    EXPECT_EQ(platform::connected_clients(), 0U);
}
