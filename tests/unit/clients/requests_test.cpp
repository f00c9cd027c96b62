#include <climits>
#include <string>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/run_state.h"
#include "platform/serving.h"
#include "platform/standalone/clients/requests.h"
#include "platform/standalone/item/client_settings.h"
#include "platform/standalone/report/document.h"
#include "tests/support/comm_fixture.h"

using namespace comm_protocol;
using plain_item::state;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

class ClientsRequests : public comm_fixture {
protected:
    void expect_done(const std::optional<received_packet>& answer, uint64_t request)
    {
        ASSERT_TRUE(answer.has_value());
        EXPECT_EQ(answer->header.type, DONE);
        EXPECT_EQ(answer->header.request, request);
        EXPECT_EQ(answer->body_size(), 0U);
    }

    const packet_client& client()
    {
        if (!client_.connected()) {
            client_ = greeted();
        }
        return client_;
    }

    // The tracking record of the only client.
    client_context_tracking& tracked()
    {
        client();
        return vexa_client_contexts.tracked.begin()->second;
    }

private:
    packet_client client_;
};

} // namespace

TEST_F(ClientsRequests, HelloIsAnsweredWithContextAndProcess)
{
    const packet_client newcomer = connect();
    EXPECT_EQ(platform::connected_clients(), 0U);
    const auto answer = ask(newcomer, encode(12, hello()));
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(answer->header.type, HELLO_ANSWER);
    EXPECT_EQ(answer->header.request, 12U);
    EXPECT_EQ(answer->as<hello_answer>().worker_pid, static_cast<uint32_t>(getpid()));
    const unsigned long id = answer->as<hello_answer>().context_id;
    ASSERT_EQ(vexa_client_contexts.tracked.count(id), 1U);
    EXPECT_EQ(client_context_tracking::get_id(vexa_client_contexts, id)->context->id, id);
    EXPECT_EQ(client_context_tracking::get_id(vexa_client_contexts, id + 1), nullptr);
    EXPECT_EQ(platform::connected_clients(), 1U);
    EXPECT_EQ(state.live_contexts, 1);
}

TEST_F(ClientsRequests, TruncatedHelloIsMalformed)
{
    const packet_client newcomer = connect();
    expect_error(ask(newcomer, encode_empty(3, HELLO)), BAD_PACKET, 3, "malformed packet");
    EXPECT_TRUE(newcomer.hung_up());
    EXPECT_EQ(platform::connected_clients(), 0U);
}

TEST_F(ClientsRequests, RequestBeforeHelloIsRefused)
{
    const packet_client newcomer = connect();
    expect_error(ask(newcomer, encode_ping(3, PING, {})), NOT_GREETED, 3,
                 "the first request must be a hello");
    EXPECT_TRUE(newcomer.hung_up());
}

TEST_F(ClientsRequests, SecondHelloIsRefused)
{
    expect_error(ask(client(), encode(3, hello())), BAD_PACKET, 3, "a second hello");
    EXPECT_TRUE(client().hung_up());
    EXPECT_EQ(platform::connected_clients(), 0U);
}

TEST_F(ClientsRequests, OtherMajorVersionIsRefused)
{
    const packet_client newcomer = connect();
    packet_bytes packet = encode(3, hello());
    packet[4] = 2;
    expect_error(ask(newcomer, packet), VERSION_MISMATCH, 3,
                 "this worker speaks protocol version 1");
    EXPECT_TRUE(newcomer.hung_up());
}

TEST_F(ClientsRequests, FailedContextAllocationIsRefused)
{
    state.factory_throws = true;
    const packet_client newcomer = connect();
    expect_error(ask(newcomer, encode(3, hello())), NO_MEMORY, 0, "out of memory");
    EXPECT_TRUE(newcomer.hung_up());
    vexa_client_contexts.new_client_context = [](unsigned long) {
        return static_cast<vexa_client_context*>(nullptr);
    };
    const packet_client second = connect();
    expect_error(ask(second, encode(3, hello())), NO_MEMORY, 3, "no memory for a client context");
    EXPECT_TRUE(second.hung_up());
}

TEST_F(ClientsRequests, WithoutAFactoryTheBaseContextIsUsed)
{
    vexa_client_contexts.new_client_context = nullptr;
    greeted();
    EXPECT_EQ(platform::connected_clients(), 1U);
    EXPECT_EQ(state.live_contexts, 0);
}

TEST_F(ClientsRequests, UnknownRequestIsRefusedAndTheConnectionKept)
{
    for (const int type : {0, 10, 100, 102, 105, 65535}) {
        expect_error(ask(client(), encode_empty(4, static_cast<packet_type>(type))), UNSUPPORTED, 4,
                     "unknown request");
    }
    const auto pong = ask(client(), encode_ping(5, PING, {6}));
    ASSERT_TRUE(pong.has_value());
    EXPECT_EQ(pong->header.type, PONG);
}

TEST_F(ClientsRequests, PingIsAnsweredWithItsCookie)
{
    const auto pong = ask(client(), encode_ping(5, PING, {0x1122334455667788}));
    ASSERT_TRUE(pong.has_value());
    EXPECT_EQ(pong->header.type, PONG);
    EXPECT_EQ(pong->header.request, 5U);
    EXPECT_EQ(pong->as<ping>().cookie, 0x1122334455667788U);
}

TEST_F(ClientsRequests, TruncatedBodiesAreMalformed)
{
    for (const packet_type type :
         {SET_OUTPUT_SIZE, SUBSCRIBE, GET_FRAME, RELEASE_FRAME, SET_METADATA, PING}) {
        const packet_client newcomer = greeted();
        expect_error(ask(newcomer, encode_empty(4, type)), BAD_PACKET, 4, "malformed packet");
        EXPECT_TRUE(newcomer.hung_up()) << type;
    }
}

TEST_F(ClientsRequests, LongerBodiesAreAccepted)
{
    packet_bytes longer = encode_ping(4, PING, {8});
    longer.insert(longer.end(), 10, 0xEE);
    longer[12] = static_cast<unsigned char>(longer.size());
    EXPECT_EQ(ask(client(), longer)->header.type, PONG);
}

TEST_F(ClientsRequests, OutputSizeIsStoredForTheClient)
{
    expect_done(ask(client(), encode(4, set_output_size{320, 200})), 4);
    EXPECT_EQ(tracked().requested_width, 320);
    EXPECT_EQ(tracked().requested_height, 200);
}

TEST_F(ClientsRequests, OutputSizeBelowOneIsUnknown)
{
    for (const auto& [width, height] : {std::pair(-1, 5), std::pair(INT_MIN, INT_MIN),
                                        std::pair(0, 9), std::pair(9, 0), std::pair(9, INT_MIN)}) {
        expect_done(ask(client(), encode(4, set_output_size{320, 200})), 4);
        expect_done(ask(client(), encode(4, set_output_size{width, height})), 4);
        EXPECT_EQ(tracked().requested_width, 0) << width << " x " << height;
        EXPECT_EQ(tracked().requested_height, 0) << width << " x " << height;
    }
}

TEST_F(ClientsRequests, LargestOutputSizeIsAccepted)
{
    expect_done(ask(client(), encode(4, set_output_size{INT_MAX, 1})), 4);
    EXPECT_EQ(tracked().requested_width, INT_MAX);
}

TEST_F(ClientsRequests, StatusIsTheDocument)
{
    const auto answer = ask(client(), encode_empty(4, GET_STATUS));
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(answer->header.type, STATUS);
    EXPECT_EQ(answer->header.request, 4U);
    EXPECT_EQ(answer->as<status_part>().text, R"({"a": 1})");
    EXPECT_EQ(answer->as<status_part>().total, 8U);
    EXPECT_EQ(answer->as<status_part>().offset, 0U);
}

TEST_F(ClientsRequests, StatusAfterAChangeIsTheNewDocument)
{
    ask(client(), encode_empty(4, GET_STATUS));
    state.document = "new";
    platform::mark_document_changed();
    EXPECT_EQ(ask(client(), encode_empty(5, GET_STATUS))->as<status_part>().text, "new");
}

TEST_F(ClientsRequests, LargeStatusIsSentInPartsAsTheClientReads)
{
    state.document.assign(max_status_part * 20 + 5, 'd');
    ASSERT_TRUE(client().send(encode_empty(4, GET_STATUS)));
    pump();
    std::string text;
    while (const auto answer = client().receive()) {
        ASSERT_EQ(answer->header.type, STATUS);
        EXPECT_EQ(answer->as<status_part>().offset, text.size());
        text += answer->as<status_part>().text;
        pump();
    }
    EXPECT_EQ(text, state.document);
}

TEST_F(ClientsRequests, MetadataIsStoredAndPassedToTheProgram)
{
    state.document_changed = false;
    expect_done(ask(client(), encode(4, set_metadata{"aspect ratio", "16:9"})), 4);
    EXPECT_THAT(state.stored, ElementsAre(Pair("aspect ratio", "16:9")));
    EXPECT_THAT(state.hook_calls, ElementsAre("aspect ratio=16:9"));
    EXPECT_TRUE(state.document_changed);
}

TEST_F(ClientsRequests, MetadataReachesTheItemAsItWasSent)
{
    const std::string name(max_set_metadata_name, 'n');
    const std::string value(max_set_metadata_value, 'v');
    const std::string nul("a\0b", 3);
    expect_done(ask(client(), encode(4, set_metadata{name, value})), 4);
    expect_done(ask(client(), encode(5, set_metadata{"n", ""})), 5);
    expect_done(ask(client(), encode(6, set_metadata{nul, nul})), 6);
    EXPECT_THAT(state.stored, ElementsAre(Pair(name, value), Pair("n", ""), Pair(nul, nul)));
}

TEST_F(ClientsRequests, RefusedMetadataChangesNothing)
{
    client();
    state.settings = platform::setting_state::REFUSED;
    state.document_changed = false;
    expect_error(ask(client(), encode(4, set_metadata{"GUID", "1"})), REFUSED_VALUE, 4,
                 "this metadata may not be set so");
    EXPECT_THAT(state.hook_calls, IsEmpty());
    EXPECT_FALSE(state.document_changed);
    EXPECT_FALSE(client().hung_up());
}

TEST_F(ClientsRequests, MetadataThatIsNotStoredTakesEffectAndIsReported)
{
    client();
    state.settings = platform::setting_state::NOT_STORED;
    state.document_changed = false;
    expect_error(ask(client(), encode(4, set_metadata{"aspect ratio", "16:9"})), NOT_STORED, 4,
                 "applied, but not stored: the disk is full");
    EXPECT_THAT(state.hook_calls, ElementsAre("aspect ratio=16:9"));
    EXPECT_TRUE(state.document_changed);
    EXPECT_FALSE(client().hung_up());
}

// Only the client whose value waits is delayed; its later requests are answered afterwards.
TEST_F(ClientsRequests, WaitingMetadataIsAnsweredWhenItIsDecided)
{
    for (const platform::setting_state decided :
         {platform::setting_state::STORED, platform::setting_state::NOT_STORED}) {
        const packet_client setter = greeted();
        const packet_client other = greeted();
        state.settings = platform::setting_state::WAITS;
        ASSERT_TRUE(setter.send(encode(4, set_metadata{"title", "x"})));
        ASSERT_TRUE(setter.send(encode_ping(5, PING, {})));
        pump();
        EXPECT_FALSE(setter.receive().has_value());
        const auto pong = ask(other, encode_ping(6, PING, {}));
        ASSERT_TRUE(pong.has_value());
        EXPECT_EQ(pong->header.type, PONG);
        state.settings = decided;
        vexa_comm_server->next_look_us = 0;
        pump();
        const auto answer = setter.receive();
        if (decided == platform::setting_state::STORED) {
            expect_done(answer, 4);
        } else {
            expect_error(answer, NOT_STORED, 4, "applied, but not stored: the disk is full");
        }
        const auto next = setter.receive();
        ASSERT_TRUE(next.has_value());
        EXPECT_EQ(next->header.type, PONG);
    }
}

TEST_F(ClientsRequests, ClientThatLeavesWithWaitingMetadataIsRemoved)
{
    packet_client setter = greeted();
    state.settings = platform::setting_state::WAITS;
    ASSERT_TRUE(setter.send(encode(4, set_metadata{"title", "x"})));
    pump();
    EXPECT_EQ(platform::connected_clients(), 1U);
    setter.close();
    vexa_comm_server->next_look_us = 0;
    pump();
    EXPECT_EQ(platform::connected_clients(), 0U);
    state.settings = platform::setting_state::STORED;
    vexa_comm_server->next_look_us = 0;
    pump();
}

TEST_F(ClientsRequests, WaitingMetadataIsWrittenAndAnsweredAtTheEnd)
{
    const packet_client setter = greeted();
    state.settings = platform::setting_state::WAITS;
    ASSERT_TRUE(setter.send(encode(4, set_metadata{"title", "x"})));
    pump();
    close_vexa_client_contexts();
    EXPECT_EQ(state.settings_written, 1U);
    expect_done(setter.receive(), 4);
    EXPECT_TRUE(setter.hung_up());
}

TEST_F(ClientsRequests, MetadataIsStoredWithoutAHook)
{
    vexa_on_metadata_set = nullptr;
    expect_done(ask(client(), encode(4, set_metadata{"title", "x"})), 4);
    EXPECT_EQ(state.stored.size(), 1U);
}

TEST_F(ClientsRequests, DocumentIsBuiltOnceARoundHoweverManyChangeIt)
{
    std::vector<packet_client> clients;
    for (int i = 0; i < 20; ++i) {
        clients.push_back(greeted());
    }
    pump();
    const unsigned before = state.documents_built;
    for (int i = 0; i < 20; ++i) {
        const auto& each = clients[static_cast<size_t>(i)];
        ASSERT_TRUE(each.send(i % 2 == 0 ? encode(4, set_metadata{"n", "v"})
                                         : encode_empty(4, GET_STATUS)));
    }
    vexa_comm_server->next_look_us = 0;
    EXPECT_EQ(idle_vexa_server_comm(), 20);
    EXPECT_LE(state.documents_built, before + 1);
}

TEST_F(ClientsRequests, ExitEndsTheWorker)
{
    expect_done(ask(client(), encode_empty(4, EXIT)), 4);
    EXPECT_TRUE(vexa_should_exit);
}

TEST_F(ClientsRequests, ExitCountsEvenIfTheClientLeavesAtOnce)
{
    packet_client hasty = greeted();
    ASSERT_TRUE(hasty.send(encode_empty(4, EXIT)));
    hasty.close();
    pump();
    EXPECT_TRUE(vexa_should_exit);
    EXPECT_EQ(platform::connected_clients(), 0U);
}
