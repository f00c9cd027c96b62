#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/serving.h"
#include "platform/standalone/clients/documents.h"
#include "platform/standalone/clients/events.h"
#include "platform/standalone/report/document.h"
#include "tests/support/comm_fixture.h"

using namespace comm_protocol;
using plain_item::state;

namespace {

class ClientsDocuments : public comm_fixture {
protected:
    static void change(const std::string& text)
    {
        state.document = text;
        platform::mark_document_changed();
    }

    static std::string text_of(const std::optional<received_packet>& packet)
    {
        if (!packet.has_value() || packet->header.type != STATUS) {
            ADD_FAILURE() << "no STATUS arrived";
            return {};
        }
        return std::string(packet->as<status_part>().text);
    }

    // Subscribes to a document that does not fit into the client's socket, and reads nothing of it.
    packet_client stopped_reader(char letter) const
    {
        change(std::string(1'000'000, letter));
        packet_client client = greeted();
        EXPECT_TRUE(client.send(encode(70, subscribe{change_document})));
        pump();
        return client;
    }
};

} // namespace

// --- rebuilding
// -----------------------------------------------------------------------------------

TEST_F(ClientsDocuments, RequestWaitsUntilTheDocumentMayBeRebuilt)
{
    const packet_client asking = greeted();
    const packet_client other = greeted();
    state.document_waits = true;
    change("new");
    ASSERT_TRUE(asking.send(encode_empty(5, GET_STATUS)));
    ASSERT_TRUE(asking.send(encode_ping(6, PING, {})));
    pump();
    EXPECT_FALSE(asking.receive().has_value());
    EXPECT_EQ(state.documents_built, 0U);
    EXPECT_EQ(vexa_comm_server->wake_us, platform::document_due_us());
    EXPECT_EQ(ask(other, encode_ping(7, PING, {}))->header.type, PONG);
    state.document_waits = false;
    pump();
    EXPECT_EQ(text_of(asking.receive()), "new");
    EXPECT_EQ(asking.receive()->header.request, 6U);
    EXPECT_EQ(state.documents_built, 1U);
    EXPECT_EQ(vexa_comm_server->wake_us, UINT64_MAX);
}

TEST_F(ClientsDocuments, UnchangedDocumentIsSentAtOnce)
{
    const packet_client client = greeted();
    ask(client, encode_empty(4, GET_STATUS));
    state.document_waits = true;
    for (uint64_t request = 5; request < 50; ++request) {
        EXPECT_EQ(ask(client, encode_empty(request, GET_STATUS))->header.request, request);
    }
}

TEST_F(ClientsDocuments, WaitingRequestsAreAllAnsweredFromOneRebuild)
{
    std::vector<packet_client> clients;
    for (int i = 0; i < 20; ++i) {
        clients.push_back(greeted());
    }
    state.document_waits = true;
    change("new");
    for (const packet_client& client : clients) {
        ASSERT_TRUE(client.send(encode_empty(5, GET_STATUS)));
    }
    pump();
    state.document_waits = false;
    pump();
    EXPECT_EQ(state.documents_built, 1U);
    for (const packet_client& client : clients) {
        EXPECT_EQ(text_of(client.receive()), "new");
    }
}

// Otherwise a client that changes the document in every round would put the others off for ever.
TEST_F(ClientsDocuments, WaitingRequestIsAnsweredBeforeNewChangesAreRead)
{
    const packet_client asking = greeted();
    const packet_client setter = greeted();
    state.document_waits = true;
    change("new");
    ASSERT_TRUE(asking.send(encode_empty(5, GET_STATUS)));
    pump();
    state.document_waits = false;
    ASSERT_TRUE(setter.send(encode(6, set_metadata{"n", "v"})));
    vexa_comm_server->next_look_us = 0;
    idle_vexa_server_comm();
    EXPECT_EQ(text_of(asking.receive()), "new");
}

TEST_F(ClientsDocuments, SubscriptionWaitsLikeARequest)
{
    const packet_client client = greeted();
    state.document_waits = true;
    change("new");
    EXPECT_EQ(ask(client, encode(70, subscribe{change_document}))->header.type, DONE);
    EXPECT_EQ(client.receive()->header.type, EVENT);
    EXPECT_FALSE(client.receive().has_value());
    state.document_waits = false;
    pump();
    const auto first = client.receive();
    EXPECT_EQ(text_of(first), "new");
    EXPECT_EQ(first->header.request, 70U);
    pump();
    EXPECT_FALSE(client.receive().has_value());
    EXPECT_EQ(state.documents_built, 1U);
}

TEST_F(ClientsDocuments, ClientThatLeavesWhileItWaitsIsRemoved)
{
    packet_client client = greeted();
    state.document_waits = true;
    change("new");
    ASSERT_TRUE(client.send(encode_empty(5, GET_STATUS)));
    pump();
    client.close();
    pump();
    EXPECT_EQ(platform::connected_clients(), 0U);
    state.document_waits = false;
    pump();
}

TEST_F(ClientsDocuments, WaitingRequestsAreAnsweredAtTheEnd)
{
    const packet_client client = greeted();
    state.document_waits = true;
    change("new");
    ASSERT_TRUE(client.send(encode_empty(5, GET_STATUS)));
    pump();
    close_vexa_client_contexts();
    EXPECT_EQ(text_of(client.receive()), "new");
    EXPECT_TRUE(client.hung_up());
}

// --- old documents
// --------------------------------------------------------------------------------

TEST_F(ClientsDocuments, ReplacedDocumentIsKeptForItsReadersOnly)
{
    const packet_client reader = stopped_reader('a');
    EXPECT_EQ(platform::old_document_bytes(), 0U);
    for (const char letter : {'b', 'c', 'd'}) {
        change(std::string(1'000'000, letter));
        platform::send_document_to_subscribers();
        EXPECT_EQ(platform::old_document_bytes(), 1'000'000U);
    }
    while (reader.receive().has_value()) {
        pump();
    }
    EXPECT_EQ(platform::old_document_bytes(), 0U);
}

TEST_F(ClientsDocuments, StoppedReadersHoldAtMostEightMebibytesOfOldDocuments)
{
    const packet_client reading = greeted();
    std::vector<packet_client> stopped;
    for (char letter = 'a'; letter <= 't'; ++letter) {
        stopped.push_back(stopped_reader(letter));
        EXPECT_LE(platform::old_document_bytes(), platform::max_old_document_bytes);
    }
    EXPECT_EQ(platform::old_document_bytes(), 8'000'000U);
    EXPECT_EQ(platform::connected_clients(), 10U); // the newest document has a reader, too
    EXPECT_EQ(ask(reading, encode_ping(7, PING, {}))->header.type, PONG);
}

// Those who stopped first are dropped first; a slow client that reads now and then is kept.
TEST_F(ClientsDocuments, ReadersThatStoppedLongestAreDropped)
{
    const packet_client slow = stopped_reader('A');
    std::vector<packet_client> stopped;
    std::string received;
    for (char letter = 'a'; letter <= 'i'; ++letter) {
        stopped.push_back(stopped_reader(letter));
        const auto part = slow.receive();
        if (part.has_value() && part->header.type == STATUS) {
            received += part->as<status_part>().text;
        }
        pump();
    }
    EXPECT_EQ(platform::connected_clients(), 9U);
    EXPECT_FALSE(slow.hung_up());
    while (const auto part = slow.receive()) {
        if (part->header.type == STATUS && received.size() < 1'000'000) {
            received += part->as<status_part>().text;
        }
        pump();
    }
    EXPECT_EQ(received, std::string(1'000'000, 'A'));
    for (const packet_client& client : stopped) {
        while (client.receive().has_value()) {
        }
    }
    EXPECT_TRUE(stopped[0].hung_up());
    EXPECT_FALSE(stopped[1].hung_up());
}
