// The host layer within one process: single-host behaviour, the message handler's checks, a peer
// of the other byte order over a loopback pair (and the header swap), and the connect rules.
#include <cstring>
#include <sys/socket.h>
#include <thread>

#include "database/host_db_protocol.h"
#include "database/scene_swap.h"
#include "runtime/threads.h"
#include "tests/hostmsg/hostmsg_test_support.h"

class HostLayerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        hostmsg_process_setup();
        hostmsg_clear();
    }
    void TearDown() override
    {
        qv_msg_exit();
        qv_errorhandler(nullptr);
    }

    static Db_tag make_tag(uint32_t size)
    {
        Db_tag tag = 0;
        qv_db_create(&tag, 0, size);
        return tag;
    }
};

TEST_F(HostLayerTest, SingleHostSendsNothingAndKeepsTagLocksInItsOwnTable)
{
    ASSERT_EQ(qv_msg_connections(), 0);
    EXPECT_EQ(qv_msg_send(3, MOD_DB, "x", 1), 1);
    EXPECT_EQ(qv_msg_send(QV_MSG_ALL_HOSTS, MOD_DB, "x", 1), 1);

    Db_tag tag = make_tag(8);
    qv_db_unlock(tag);
    EXPECT_EQ(hostmsg_count("N41023 globally unlocking non-locked tag 0x" + hex(tag)), 1);

    // The lock is re-entrant for its thread and foreign to every other thread.
    qv_db_lock(tag);
    qv_db_lock(tag);
    std::thread other([tag] {
        thread_init_current();
        qv_db_unlock(tag);
        thread_end_current();
    });
    other.join();
    EXPECT_EQ(hostmsg_count("N41023 globally unlocking"), 2);
    qv_db_unlock(tag);
    qv_db_unlock(tag);
    EXPECT_EQ(qv_db_net::master_locks_in_table(), 0);
    EXPECT_EQ(hostmsg_count("L2 "), 2);
}

TEST_F(HostLayerTest, HandlerReportsBadMessagesAndDoesNothingElse)
{
    Db_tag tag = make_tag(32);
    struct Case {
        int32_t opcode;
        size_t bytes;          // message size handed to the handler
        uint32_t length;       // the header's payload length
        uint8_t type;
        const char* expected;
    };
    const Case cases[] = {
        {13, 36, 0, 0, "N41026 received net msg with bad opcode 13"},
        {-1, 36, 0, 0, "N41026 received net msg with bad opcode -1"},
        {DB_NET_DELETE, 20, 0, 0, "N41028 received net msg of 20 bytes"},
        {DB_NET_DELETE, 40, 0, 0, "N41028 received net msg with payload length 0 in 40 bytes"},
        {DB_NET_FLUSH, 36 + 1365, 1365, 0, "N41028 received net msg with payload length 1365"},
        // 191 would reach type 63's handler through the table's mask.
        {DB_NET_DATA_PIECE, 36, 0, 191, "N41028 received net msg for tag"},
    };
    for (const Case& c : cases) {
        hostmsg_clear();
        std::vector<uint8_t> buffer(c.bytes + 8);
        Db_net_header header{};
        header.opcode = c.opcode;
        header.tag = tag;
        header.length = c.length;
        header.type = c.type;
        header.last = 1;
        header.host = 1;
        std::memcpy(buffer.data(), &header, std::min(sizeof header, buffer.size()));
        Db_statistics before = qv_db_statistics();
        qv_db_net::handle(thread_context(), buffer.data(), c.bytes, false);
        EXPECT_EQ(hostmsg_count(c.expected), 1) << c.expected;
        EXPECT_EQ(hostmsg_count("L2 "), 1) << c.expected;
        EXPECT_EQ(qv_db_statistics().deletes, before.deletes);
        EXPECT_EQ(qv_db_statistics().server_ops, before.server_ops + 1);
        EXPECT_EQ(qv_db_peek(tag)->state, DB_STATE_NORMAL);
    }
}

TEST_F(HostLayerTest, PeerOfTheOtherByteOrderIsUnderstoodAndAnsweredInOurs)
{
    Db_net_header header{0x01020304, 0x05060708, 0x090A0B0C, 0x0D0E0F10, 0x11121314, 0x15161718, 0x191A1B1C,
                         0x1D, 0x1E, 0x1F, 0x20, 0x2122, 0x23, 0x24};
    const Db_net_header swapped{0x04030201, 0x08070605, 0x0C0B0A09, 0x100F0E0D, 0x14131211, 0x18171615,
                                0x1C1B1A19, 0x1D, 0x1E, 0x1F, 0x20, 0x2221, 0x23, 0x24};
    EXPECT_EQ(qv_scene_swap_layout(&header, DB_NET_HEADER_LAYOUT), DB_NET_HEADER_BYTES);
    EXPECT_EQ(std::memcmp(&header, &swapped, DB_NET_HEADER_BYTES), 0);

    // Host 5 on a loopback pair whose far end this thread plays, with a welcome in the other order.
    int sockets[2];
    ASSERT_TRUE(qv_msg_socketpair(sockets));
    const int far = sockets[1];
    timeval limit{5, 0};
    setsockopt(far, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    int opened = 0;
    std::thread master([&] { opened = qv_msg_open(sockets[0], 5); });
    uint8_t welcome[QV_MSG_WELCOME_BYTES];
    EXPECT_EQ(recv(far, welcome, sizeof welcome, MSG_WAITALL), ssize_t(sizeof welcome));
    msg_welcome_make(welcome, 5, 0);
    qv_scene_swap_32(welcome + 32, 3);
    EXPECT_EQ(send(far, welcome, sizeof welcome, 0), ssize_t(sizeof welcome));
    master.join();
    ASSERT_EQ(opened, 1);
    EXPECT_TRUE(qv_msg_host_live(5));

    Db_tag tag = make_tag(10);
    qv_db_set_flags(tag);
    struct {
        uint32_t frame[2];
        Db_net_header header;
        uint32_t pad;   // frames are padded to 8 bytes
    } request{{DB_NET_HEADER_BYTES, MOD_DB}, {}, 0};
    request.header.opcode = DB_NET_TYPE_REQUEST;
    request.header.tag = tag;
    request.header.host = 5;
    qv_scene_swap_32(request.frame, 2);
    qv_scene_swap_layout(&request.header, DB_NET_HEADER_LAYOUT);
    ASSERT_EQ(send(far, &request, sizeof request, 0), ssize_t(sizeof request));

    decltype(request) answer{};
    ASSERT_EQ(recv(far, &answer, sizeof answer, MSG_WAITALL), ssize_t(sizeof answer));
    EXPECT_EQ(answer.frame[0], DB_NET_HEADER_BYTES);
    EXPECT_EQ(answer.frame[1], uint32_t(MOD_DB));
    EXPECT_EQ(answer.header.opcode, DB_NET_TYPE_REPLY);
    EXPECT_EQ(answer.header.tag, tag);
    EXPECT_EQ(answer.header.total, 10u);
    EXPECT_EQ(answer.header.flags, 3);
    EXPECT_EQ(answer.header.host, 0);

    // The reader thread has ended: what it wrote is ours to read.
    qv_msg_exit();
    EXPECT_EQ(qv_db_peek(tag)->shared, 1);
    EXPECT_EQ(hostmsg_count("127.0.0.1 (5): 1 messages read, 0 split, 1 messages written"), 1);
    close(far);
}

TEST_F(HostLayerTest, WelcomeAndConnectRulesReportBadInput)
{
    EXPECT_STREQ(msg_welcome_magic(), "qvrmsg40-3.9.4.14____________");

    uint8_t welcome[QV_MSG_WELCOME_BYTES] = "hello";
    Msg_welcome_info info{};
    EXPECT_EQ(msg_welcome_read(welcome, sizeof welcome, 4, &info), WELCOME_BAD);
    EXPECT_EQ(hostmsg_count("wrong welcome message from host 4 (magic). remote host responded: 'hello'"), 1);
    msg_welcome_make(welcome, 0, 9);
    EXPECT_EQ(msg_welcome_read(welcome, 100, 0, &info), WELCOME_SHORT);
    ASSERT_EQ(msg_welcome_read(welcome, sizeof welcome, 0, &info), WELCOME_OK);
    EXPECT_EQ(info.assigned, 9u);
    EXPECT_FALSE(info.swap);

    const std::pair<const char*, const char*> cases[] = {
        {"a:1:2", "N11446 qv_msg_connect: more than one ':' detected. IPv6 addresses must be surround by []."},
        {"[::1", "qv_msg_connect: failed to parse hostname:port from [::1"},
        {"127.0.0.1:", "qv_msg_connect: failed to parse hostname:port from 127.0.0.1:"},
        {"127.0.0.1:nosuchservice", "nosuchservice/tcp: not a service (check /etc/services)"},
        {"127.0.0.1", "nosuchservice/tcp: not a service"},   // without a port the environment names it
        {"[::1]:1", "could not connect to host:port [::1]:1 - "},
    };
    setenv("QV_QVR3_SERVICE", "nosuchservice", 1);
    for (const auto& [text, expected] : cases) {
        hostmsg_clear();
        EXPECT_EQ(qv_msg_connect(text), -1) << text;
        EXPECT_EQ(hostmsg_count(expected), 1) << text;
    }
    EXPECT_EQ(hostmsg_count("(IPv6)"), 1);
    unsetenv("QV_QVR3_SERVICE");
}
