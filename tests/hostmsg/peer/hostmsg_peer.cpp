// A cluster host for the host messaging tests, driven line by line on stdin; every command gets
// one line on stdout. Messages of the runtime go to stderr as "L<level> N<number> <text>".
//
//     hostmsg_peer slave <port>     joins the master on 127.0.0.1:<port>
//     hostmsg_peer master           listens on 127.0.0.1; prints "port <n>"
//
// Commands: make <size> <seed> | fetch <tag> | type <tag> | state <tag> |
// write <tag> <byte> | lock <tag> | unlock <tag> | pin <tag> | unpin <tag> | delete <tag> |
// accept <host> | exit
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <mutex>
#include <sstream>
#include <string>

#include "base/lib/mem/i_mem_allocatable.h"
#include "database/db.h"
#include "database/host_messaging.h"
#include "database/job.h"
#include "runtime/msg.h"
#include "runtime/threads.h"
#include "tests/hostmsg/peer/blob_element.h"
#include "tests/hostmsg/peer/record_probe.h"

namespace {

std::mutex g_err_mutex;

void print_line(uint32_t level, const char*, const char* text, int32_t number)
{
    std::lock_guard<std::mutex> hold(g_err_mutex);
    std::fprintf(stderr, "L%u N%d %s\n", level, number, text);
    std::fflush(stderr);
}

void reply(const std::string& text)
{
    std::printf("%s\n", text.c_str());
    std::fflush(stdout);
}

std::string fetch(Db_tag tag)
{
    Db_record* record = qv_db_access_record(tag);
    char line[128];
    if (record->type == DB_TYPE_SERIALIZABLE) {
        auto* blob = static_cast<Blob_element*>(static_cast<QV::DB::Element_base*>(record->data));
        std::snprintf(line, sizeof line, "ok63 %zu %llx", blob->bytes.size(),
                      static_cast<unsigned long long>(blob_hash(blob->bytes.data(), blob->bytes.size())));
    } else {
        std::snprintf(line, sizeof line, "ok %u %llx", record->size,
                      static_cast<unsigned long long>(blob_hash(record->data, record->size)));
    }
    return line;
}

std::string run(const std::string& command, std::istringstream& words, int listener)
{
    unsigned long long a = 0, b = 0;
    words >> std::hex >> a >> b;
    Db_tag tag = Db_tag(a);
    char line[128];
    if (command == "make") {
        // `a` bytes, pattern `b`.
        Db_tag made = 0;
        blob_fill(static_cast<uint8_t*>(qv_db_create(&made, 0, uint32_t(a))), size_t(a), uint32_t(b));
        std::snprintf(line, sizeof line, "ok %x", made);
        return line;
    }
    if (command == "fetch")
        return fetch(tag);
    if (command == "type") {
        std::snprintf(line, sizeof line, "ok %d", int(qv_db_type(tag)));
        return line;
    }
    if (command == "state") {
        Record_probe probe = probe_record(tag);
        std::snprintf(line, sizeof line, "ok %d %d", probe.state, probe.has_data ? 1 : 0);
        return line;
    }
    if (command == "write") {
        Db_record* record = qv_db_access_record(tag);
        std::memset(record->data, int(b), record->size);
        qv_db_flush_tag(tag);
        return "ok";
    }
    if (command == "lock") {
        qv_db_lock(tag);
        return "ok";
    }
    if (command == "unlock") {
        qv_db_unlock(tag);
        return "ok";
    }
    if (command == "pin" || command == "unpin") {
        qv_db_remote_hooks().send_pin(tag, qv_db_tag_owner(tag), command == "pin");
        return "ok";
    }
    if (command == "delete") {
        qv_db_delete(tag);
        return "ok";
    }
    if (command == "accept")
        return qv_msg_accept(listener, uint32_t(a), 10000) ? "ok" : "failed";
    return "unknown command " + command;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2)
        return 2;
    mem_set_hooks(malloc, realloc, free);
    thread_system_init();
    qv_errorhandler(print_line);
    // Debug lines on from the start: the level mask is not for changing while threads write.
    msg_set_levels(msg_level_mask() | MSG_INFO | MSG_DEBUG);
    // The first line settles the message layer's output state while this thread is alone.
    msg_info("hostmsg peer: %s", argv[1]);
    qv_msg_init(0);
    qv_db_init();
    QV::DB::element_install_db_handler();
    blob_register();
    // A slave that leaves every job to the master: its execution yields nothing, so the access
    // path asks the job tag's owner for the result.
    QV::SCHED::Job_runner runner = QV::SCHED::qv_job_inert_runner();
    runner.execute = [](Db_tag) { return 1; };
    QV::SCHED::qv_job_set_runner(runner);

    int listener = -1;
    std::string role = argv[1];
    if (role == "slave" && argc > 2) {
        std::string address = std::string("127.0.0.1:") + argv[2];
        int socket = qv_msg_connect(address.c_str());
        if (socket < 0 || !qv_msg_join(socket))
            return 3;
        reply("host " + std::to_string(qv_msg_self()));
    } else if (role == "master") {
        int port = 0;
        listener = qv_msg_listen("127.0.0.1", 0, &port);
        if (listener < 0)
            return 3;
        reply("port " + std::to_string(port));
    } else {
        return 2;
    }

    std::string text;
    while (std::getline(std::cin, text)) {
        std::istringstream words(text);
        std::string command;
        words >> command;
        if (command == "exit")
            break;
        std::string answer = run(command, words, listener);
        // Other hosts act on this answer, an order no race detector sees across processes; the
        // table lock that the network thread takes before it handles a message makes it one.
        qv_msg_connections();
        reply(answer);
    }
    qv_msg_exit();
    reply("bye");
    return 0;
}
