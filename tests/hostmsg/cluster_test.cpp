// A real cluster over loopback: this process is the master, two peer processes are slaves.
#include <atomic>
#include <memory>

#include "base/lib/mem/i_mem_allocatable.h"
#include "database/dbn.h"
#include "database/host_db_protocol.h"
#include "database/job.h"
#include "database/transaction.h"
#include "tests/hostmsg/hostmsg_test_support.h"
#include "tests/hostmsg/peer/record_probe.h"

namespace {

constexpr int POLYGON = 14;   // a tracked type

// The slaves learn of this thread's records through other processes, an order no race detector
// sees; the table lock that the network thread takes before it handles a message makes it one.
void publish() { qv_msg_connections(); }

// A plain element on the master filled with the test pattern; `size` 0 gives an empty block.
Db_tag make_plain(uint32_t size, uint32_t seed, int type = 0)
{
    Db_tag tag = 0;
    if (size == 0) {
        static uint8_t empty[1];
        void* made = qv_db_create(&tag, type, 1);
        qv_db_attach(tag, empty, 0);
        QV_FREE(made);
    } else {
        blob_fill(static_cast<uint8_t*>(qv_db_create(&tag, type, size)), size, seed);
    }
    if (qv_db_type_tracked(type))
        qv_db_unpin(tag);
    publish();
    return tag;
}

std::string expected_fetch(const void* data, uint32_t size)
{
    return "ok " + std::to_string(size) + " " + hex(blob_hash(data, size));
}

// A job whose result is a blob of word() bytes. Run on the reader thread, it would hold up all
// traffic (and hang for good on a tag of another host).
class Blob_job : public QV::SCHED::Job_template<Blob_job, QV::SERIAL::qv_class_id("*TBB")> {
public:
    static inline std::atomic<int> runs{0};
    static inline std::atomic<int> runs_on_reader{0};
    QV::DB::Element_base* execute(QV::SCHED::Job_execution_context*) override
    {
        ++runs;
        runs_on_reader += qv_msg_on_reader_thread();
        auto* blob = new Blob_element();
        blob->bytes.resize(word());
        blob_fill(blob->bytes.data(), blob->bytes.size(), 77);
        return blob;
    }
};

}  // namespace

class ClusterTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        hostmsg_process_setup();
        listener_ = qv_msg_listen("127.0.0.1", 0, &port_);
        ASSERT_GE(listener_, 0);
        for (int host = 1; host <= 2; ++host) {
            slaves_[host] = std::make_unique<Peer>(std::vector<std::string>{"slave", std::to_string(port_)});
            ASSERT_EQ(qv_msg_accept(listener_, uint32_t(host), 10000), 1);
            ASSERT_EQ(slaves_[host]->line(), "host " + std::to_string(host));
        }
    }

    static void TearDownTestSuite()
    {
        for (auto& slave : slaves_)
            if (slave)
                slave->finish();
        for (auto& slave : slaves_)
            slave.reset();
        qv_msg_exit();
        if (listener_ >= 0)
            close(listener_);
        listener_ = -1;
        qv_errorhandler(nullptr);
    }

    void SetUp() override
    {
        ASSERT_TRUE(slaves_[1] && slaves_[2]);
        hostmsg_clear();
    }

    static Peer& slave(int host) { return *slaves_[host]; }

    static inline int listener_ = -1;
    static inline int port_ = 0;
    static inline std::unique_ptr<Peer> slaves_[3];
};

TEST_F(ClusterTest, SlavesFetchPlainAndSerializedElementsByteForByte)
{
    // Piece borders: empty, one byte, exactly one piece, one byte into the second, and 147 pieces,
    // whose windows after pieces 7, 15, ..., 143 the receiver asks for. The slaves' lines are
    // printed here, by the master, in the order each slave wrote them.
    Db_tag windowed = 0;
    for (uint32_t size : {0u, 1u, 1364u, 1365u, 200000u}) {
        Db_tag tag = windowed = make_plain(size, size);
        Db_record* record = qv_db_peek(tag);
        for (int host : {1, 2})
            EXPECT_EQ(slave(host).ask("fetch " + hex(tag)), expected_fetch(record->data, size)) << size << " host " << host;
    }
    const std::string prefix = "requesting tag 0x" + hex(windowed) + ", offset ";
    std::vector<int> expected;
    for (int host = 1; host <= 2; ++host)
        for (int piece = 8; piece < 147; piece += 8)
            expected.push_back(piece);
    EXPECT_TRUE(wait_until([&] { return hostmsg_count(prefix) == int(expected.size()); }));
    std::vector<int> asked;
    for (const std::string& line : hostmsg_lines(prefix))
        asked.push_back(std::atoi(line.c_str() + line.find(prefix) + prefix.size()));
    EXPECT_EQ(asked, expected);

    auto* blob = new Blob_element();
    blob->bytes.resize(5000);
    blob_fill(blob->bytes.data(), blob->bytes.size(), 63);
    uint64_t hash = blob_hash(blob->bytes.data(), blob->bytes.size());
    Db_tag tag = 0;
    QV::DB::get_transaction()->store(&tag, blob, nullptr);
    publish();
    EXPECT_EQ(slave(1).ask("type " + hex(tag)), "ok 63");
    for (int host : {1, 2})
        EXPECT_EQ(slave(host).ask("fetch " + hex(tag)), "ok63 5000 " + hex(hash));
}

TEST_F(ClusterTest, MasterRunsTheJobOfAJobTagThatASlaveAsksForOnce)
{
    qv_dbn_init();
    QV::SCHED::qv_job_use_local_runner();
    auto* job = new Blob_job;
    job->set_word(5000);
    Db_tag tag = 0;
    QV::DB::get_transaction()->store_job(&tag, job, nullptr);
    ASSERT_TRUE(qv_db_is_job(tag));
    publish();
    std::vector<uint8_t> expected(5000);
    blob_fill(expected.data(), expected.size(), 77);
    // The first request is passed on to the master's local server, which runs the job; the
    // second finds the result on the master.
    for (int host : {1, 2})
        EXPECT_EQ(slave(host).ask("fetch " + hex(tag)), "ok63 5000 " + hex(blob_hash(expected.data(), 5000)));
    EXPECT_EQ(Blob_job::runs.load(), 1);
    EXPECT_EQ(Blob_job::runs_on_reader.load(), 0);
}

TEST_F(ClusterTest, NetworkPinFlushPushAndBroadcastDeleteActOnTheOwnerAndEveryHost)
{
    // A network pin keeps a tracked element from the flush until its unpin.
    Db_tag tracked = make_plain(64, 3, POLYGON);
    ASSERT_TRUE(probe_record(tracked).offered);
    ASSERT_EQ(slave(1).ask("pin " + hex(tracked)), "ok");
    EXPECT_TRUE(wait_until([&] { return !probe_record(tracked).offered; }));
    ASSERT_EQ(slave(1).ask("unpin " + hex(tracked)), "ok");
    EXPECT_TRUE(wait_until([&] { return probe_record(tracked).offered; }));

    Db_tag tag = make_plain(3000, 5);
    ASSERT_EQ(slave(1).ask("fetch " + hex(tag)).substr(0, 7), "ok 3000");
    ASSERT_EQ(slave(2).ask("fetch " + hex(tag)).substr(0, 7), "ok 3000");

    // Slave 2 drops its copy, and fetches again what the owner got back.
    ASSERT_EQ(slave(1).ask("write " + hex(tag) + " 7"), "ok");
    EXPECT_TRUE(wait_until([&] { return slave(2).ask("state " + hex(tag)) == "ok 0 0"; }));
    std::vector<uint8_t> sevens(3000, 7);
    EXPECT_EQ(slave(2).ask("fetch " + hex(tag)), expected_fetch(sevens.data(), 3000));

    ASSERT_EQ(slave(1).ask("delete " + hex(tag)), "ok");
    EXPECT_TRUE(wait_until([&] { return probe_record(tag).state == DB_STATE_FREE; }));
    EXPECT_TRUE(wait_until([&] { return slave(2).ask("state " + hex(tag)) == "ok 0 0"; }));
    EXPECT_EQ(slave(1).ask("state " + hex(tag)), "ok 0 0");
}

TEST_F(ClusterTest, SlavesReachEachOtherThroughTheMaster)
{
    const std::string made = slave(1).ask("make bb8 5");   // 3,000 bytes
    ASSERT_EQ(made.substr(0, 3), "ok ");
    std::vector<uint8_t> expected(3000);
    blob_fill(expected.data(), expected.size(), 5);
    EXPECT_EQ(slave(2).ask("fetch " + made.substr(3)), expected_fetch(expected.data(), 3000));

    // A host that is not up is answered for by the master: the fetch fails (and with it the
    // access, fatally) instead of waiting for good.
    Peer asker({"slave", std::to_string(port_)});
    ASSERT_EQ(qv_msg_accept(listener_, 3, 10000), 1);
    ASSERT_EQ(asker.line(), "host 3");
    asker.send("fetch 89000400");
    EXPECT_EQ(asker.wait_exit(10000), 1);
    EXPECT_TRUE(wait_until([] { return hostmsg_count("failed to read tag 89000400 data from host 9") == 1; }));
}

TEST_F(ClusterTest, ClusterLockIsHeldByOneSlaveAtATime)
{
    Db_tag tag = make_plain(16, 2);
    ASSERT_EQ(slave(1).ask("lock " + hex(tag)), "ok");
    slave(2).send("lock " + hex(tag));
    EXPECT_EQ(slave(2).line(300), "<timeout>");
    EXPECT_EQ(qv_db_net::master_locks_in_table(), 1);

    // The master's own threads queue behind the slaves too.
    std::atomic<bool> master_has_it{false};
    std::thread local([&] {
        qv_db_lock(tag);
        master_has_it = true;
        qv_db_unlock(tag);
    });
    ASSERT_EQ(slave(1).ask("unlock " + hex(tag)), "ok");
    EXPECT_EQ(slave(2).line(5000), "ok");
    EXPECT_FALSE(master_has_it.load());
    ASSERT_EQ(slave(2).ask("unlock " + hex(tag)), "ok");
    local.join();
    EXPECT_TRUE(master_has_it.load());
    EXPECT_EQ(qv_db_net::master_locks_in_table(), 0);
    EXPECT_EQ(hostmsg_count("globally unlocking"), 0);
}

TEST_F(ClusterTest, SlaveKilledMidTransferEndsItsTransfersAndTheMasterGoesOn)
{
    Db_tag big = make_plain(40u << 20, 4);
    Db_tag small = make_plain(2000, 4);
    Peer doomed({"slave", std::to_string(port_)});
    ASSERT_EQ(qv_msg_accept(listener_, 3, 10000), 1);
    ASSERT_EQ(doomed.line(), "host 3");
    const std::string made = doomed.ask("make 2800000 4");   // 40 MB of its own
    ASSERT_EQ(made.substr(0, 3), "ok ");
    const Db_tag theirs = Db_tag(std::stoul(made.substr(3), nullptr, 16));

    // 40 MB go each way when the slave dies; the master's fetch fails instead of waiting.
    doomed.send("fetch " + hex(big));
    Db_record target{};
    std::atomic<int> fetched{-1};
    std::thread fetcher([&] {
        thread_init_current();
        {
            Module_scope scope(MOD_DB);   // as the database's access path calls it
            fetched = qv_db_remote_hooks().fetch(theirs, &target, false, 3);
        }
        thread_end_current();
    });
    EXPECT_TRUE(wait_until([&] { return probe_record(theirs).state == DB_STATE_ARRIVING; }));
    doomed.kill_now();
    // Bounded: a fetch that never wakes fails here and its thread is left behind.
    bool ended = wait_until([&] { return fetched.load() != -1; });
    EXPECT_TRUE(ended);
    ended ? fetcher.join() : fetcher.detach();
    EXPECT_EQ(fetched.load(), 0);
    EXPECT_TRUE(wait_until([] { return hostmsg_count("Connection to host 3 lost.") == 1; }));
    EXPECT_EQ(hostmsg_count("N41025 failed to read tag " + hex(theirs) + " data from host 3"), 1);
    const Record_probe left = probe_record(theirs);   // the half block is gone
    EXPECT_EQ(left.state, DB_STATE_FREE);
    EXPECT_FALSE(left.has_data);
    EXPECT_FALSE(qv_msg_host_live(3));
    EXPECT_EQ(slave(1).ask("fetch " + hex(small)), expected_fetch(qv_db_peek(small)->data, 2000));
    qv_db_delete(big);
}

// Both peers' master: it warns of the tags a slave leaves behind, and its death ends the slaves.
TEST(PeerMasterTest, WarnsOfTagsLeftByADisconnectingSlaveAndItsDeathEndsTheOthers)
{
    hostmsg_process_setup();
    setenv("QV_DEBUG_SLAVE_TAGS", "1", 1);
    Peer master({"master"});
    unsetenv("QV_DEBUG_SLAVE_TAGS");
    std::string port = master.line();
    ASSERT_EQ(port.substr(0, 5), "port ");
    std::unique_ptr<Peer> slaves[2];
    for (int i = 0; i < 2; ++i) {
        master.send("accept " + std::to_string(i + 1));
        slaves[i] = std::make_unique<Peer>(std::vector<std::string>{"slave", port.substr(5)});
        ASSERT_EQ(master.line(), "ok");
        ASSERT_EQ(slaves[i]->line(), "host " + std::to_string(i + 1));
    }

    // A tag of slave 1 that the master fetched stays on the master after the slave is gone.
    std::string made = slaves[0]->ask("make 10 1");
    ASSERT_EQ(made.substr(0, 3), "ok ");
    ASSERT_EQ(master.ask("fetch " + made.substr(3)).substr(0, 5), "ok 16");
    slaves[0]->finish();
    EXPECT_TRUE(wait_until([&] {
        return master.messages().find("Found 1 still existing tags for disconnecting host 1") != std::string::npos;
    }));

    master.kill_now();
    EXPECT_EQ(slaves[1]->wait_exit(10000), 1);
    EXPECT_NE(slaves[1]->messages().find("connection to master broken. goodbye."), std::string::npos);
}
