// The connections of the host layer: the table of hosts, the welcome exchange, framed writes
// under each connection's lock, the one reader thread that serves every socket, and the ends of
// connections, wanted or not.
#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/uio.h>
#include <condition_variable>
#include <deque>
#include <thread>
#include <unistd.h>
#include <vector>

#include "database/db.h"
#include "database/host_db_protocol.h"
#include "database/host_internal.h"
#include "database/host_messaging.h"
#include "runtime/modules.h"
#include "runtime/msg.h"
#include "runtime/threads.h"

namespace {

constexpr const char* VERSION_TEXT = "3.9.4.14";
constexpr uint32_t ORDER_MARK = 0x01020304u;
constexpr uint32_t ORDER_MARK_SWAPPED = 0x04030201u;
constexpr uint32_t FRAME_BROADCAST = 0x100u;
constexpr uint32_t FRAME_RELAY = 0x200u;        // master: pass on to the host in bits 16..23
constexpr uint32_t FRAME_ORDER = 0x400u;        // payload in the other byte order than the frame's sender
constexpr uint32_t FRAME_UNREACHABLE = 0x800u;  // master to a slave: the host in bits 16..23 is not up
constexpr int FRAME_HOST_SHIFT = 16;
constexpr size_t FRAME_BYTES = 8;
constexpr int HANDSHAKE_SECONDS = 30;

struct Connection {
    int socket = -1;
    uint32_t host = 0;
    bool swap = false;                 // the peer's byte order differs from ours
    std::atomic<bool> up{false};
    std::atomic<bool> closing{false};  // a close was asked for: its end is no loss
    std::mutex write_lock;             // one message at a time on the socket; guards `socket`
    std::string name;                  // peer address, for the counters line
    int messages_read = 0;             // reader thread only
    int messages_split = 0;            // reader thread only
    std::atomic<int> messages_written{0};
    std::vector<uint8_t> in;           // received bytes not yet dispatched (reader thread)
    size_t filled = 0;
};

std::mutex g_table_mutex;                    // the table and the cluster switch
std::atomic<Connection*> g_connections[QV_MSG_MAX_HOSTS];  // replaced under g_table_mutex
std::vector<Connection*> g_retired;          // replaced connections, freed at exit
std::atomic<bool> g_cluster{false};          // a connection was opened since the last exit
std::atomic<uint32_t> g_self{0};
std::atomic<Qv_msg_handler> g_handlers[MODULE_TABLE_ROWS];
// Held while a handler runs, on the reader or the local server: handlers run one at a time.
std::mutex g_handler_mutex;
thread_local bool t_holds_handler_mutex = false;

// Runs a handler under the handler mutex.
void run_handler(Qv_msg_handler handler, void* buffer, size_t length, bool swap)
{
    std::lock_guard<std::mutex> one_at_a_time(g_handler_mutex);
    t_holds_handler_mutex = true;
    handler(thread_context(), buffer, length, swap);
    t_holds_handler_mutex = false;
}
bool g_started = false;

std::atomic<bool> g_reader_running{false};
std::atomic<bool> g_stop{false};
int g_wake[2] = {-1, -1};                    // self-pipe: new connections and stop

char g_magic[32];

const char* error_text(int code)
{
    static thread_local char text[128];
    return strerror_r(code, text, sizeof text);
}

inline uint32_t swap32(uint32_t value) { return __builtin_bswap32(value); }

bool network_debug() { return msg_class_mask(MOD_MSG) & MSG_CLASS_NETWORK; }

void wake_reader()
{
    if (g_wake[1] >= 0) {
        char byte = 1;
        [[maybe_unused]] ssize_t n = write(g_wake[1], &byte, 1);
    }
}

// Writes all of `parts` to the socket; the caller holds the connection's lock.
bool write_all(Connection* connection, iovec* parts, int count)
{
    while (count > 0) {
        msghdr message{};
        message.msg_iov = parts;
        message.msg_iovlen = size_t(count);
        ssize_t written = sendmsg(connection->socket, &message, MSG_NOSIGNAL);
        if (written < 0) {
            if (errno == EINTR)
                continue;
            msg_error_n(309, "write to socket failed - %s", error_text(errno));
            return false;
        }
        if (written == 0) {
            if (network_debug())
                msg_debug("write to socket failed, retrying");
            continue;
        }
        size_t left = size_t(written);
        while (count > 0 && left >= parts->iov_len) {
            left -= parts->iov_len;
            ++parts;
            --count;
        }
        if (count > 0) {
            parts->iov_base = static_cast<uint8_t*>(parts->iov_base) + left;
            parts->iov_len -= left;
        }
    }
    return true;
}

constexpr int MAX_BATCH = 32;
const uint8_t ZERO_PAD[8] = {};

inline size_t padded(size_t length) { return (length + 7) & ~size_t(7); }

// Set while this thread holds a connection's lock: a line reported then must not be forwarded
// through the same lock; the message layer writes it to its log file instead.
thread_local bool t_writing = false;

struct Writing {
    Writing() { t_writing = true; }
    ~Writing() { t_writing = false; }
};

// Writes `count` (at most MAX_BATCH) framed messages in one go under the connection's lock.
bool send_frames(Connection* connection, uint32_t word, const Qv_msg_part* messages, int count)
{
    uint32_t frames[MAX_BATCH][2];
    iovec parts[4 * MAX_BATCH];
    int used = 0;
    for (int i = 0; i < count; ++i) {
        const Qv_msg_part& message = messages[i];
        const size_t length = message.head_bytes + message.body_bytes;
        frames[i][0] = uint32_t(length);
        frames[i][1] = word;
        parts[used++] = {frames[i], FRAME_BYTES};
        if (message.head_bytes)
            parts[used++] = {const_cast<void*>(message.head), message.head_bytes};
        if (message.body_bytes)
            parts[used++] = {const_cast<void*>(message.body), message.body_bytes};
        if (padded(length) != length)
            parts[used++] = {const_cast<uint8_t*>(ZERO_PAD), padded(length) - length};
    }
    std::lock_guard<std::mutex> hold(connection->write_lock);
    Writing writing;
    if (!connection->up.load() || connection->socket < 0) {
        msg_error_n(311, "message send for non-up connection to host %i", int(connection->host));
        return false;
    }
    if (!write_all(connection, parts, used))
        return false;
    connection->messages_written.fetch_add(count, std::memory_order_relaxed);
    return true;
}

bool send_frame(Connection* connection, uint32_t word, const void* buffer, size_t length)
{
    Qv_msg_part message{buffer, length, nullptr, 0};
    return send_frames(connection, word, &message, 1);
}

// Reads exactly `length` bytes within the socket's receive timeout; returns the bytes read.
size_t read_full(int socket, uint8_t* buffer, size_t length)
{
    size_t got = 0;
    while (got < length) {
        ssize_t n = recv(socket, buffer + got, length - got, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        got += size_t(n);
    }
    return got;
}

bool write_plain(int socket, const uint8_t* buffer, size_t length)
{
    while (length > 0) {
        ssize_t n = send(socket, buffer, length, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        buffer += n;
        length -= size_t(n);
    }
    return true;
}

void handshake_timeouts(int socket, int seconds)
{
    timeval limit{seconds, 0};
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

std::string peer_name(int socket)
{
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    char text[INET6_ADDRSTRLEN] = "unknown";
    if (getpeername(socket, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        if (address.ss_family == AF_INET)
            inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(&address)->sin_addr, text, sizeof text);
        else if (address.ss_family == AF_INET6)
            inet_ntop(AF_INET6, &reinterpret_cast<sockaddr_in6*>(&address)->sin6_addr, text, sizeof text);
    }
    return text;
}

void print_counters(const Connection* connection)
{
    msg_info("%s (%d): %d messages read, %d split, %d messages written", connection->name.c_str(),
             int(connection->host), connection->messages_read, connection->messages_split,
             connection->messages_written.load());
}

// Ends a connection from the reader thread: a wanted close is silent, a lost master ends a
// slave, a lost slave is reported and the master goes on.
void connection_ended(Connection* connection)
{
    bool wanted = connection->closing.load();
    {
        std::lock_guard<std::mutex> hold(connection->write_lock);
        connection->up.store(false);
        if (connection->socket >= 0)
            close(connection->socket);
        connection->socket = -1;
    }
    if (wanted || g_stop.load())
        return;
    if (g_self.load() != 0 && connection->host == 0) {
        msg_set_forwarding(false);
        msg_error("connection to master broken. goodbye.");
        // No stdio flush: another thread may hold a stream's lock for good (a read of stdin).
        _exit(1);
    }
    msg_error("Connection to host %d lost.", int(connection->host));
    qv_db_net::wake_host_lost(connection->host);
    if (qv_db_debug_slave_tags())
        qv_db_host_event(connection->host, false);
}

void dispatch(Connection* source, uint32_t word, uint8_t* payload, size_t length)
{
    const uint32_t module = word & 0xFFu;
    const uint32_t other_host = (word >> FRAME_HOST_SHIFT) & 0xFFu;
    // The payload keeps its first sender's byte order on its way through the master.
    const bool swap = source->swap != bool(word & FRAME_ORDER);
    const uint32_t passed_on = module | (word & FRAME_BROADCAST) | (swap ? FRAME_ORDER : 0);
    if (word & FRAME_UNREACHABLE) {
        msg_error_n(310, "no connection to %d", int(other_host));
        qv_db_net::wake_host_lost(other_host);
        return;
    }
    if (g_self.load() == 0) {
        // Slaves reach each other through the master.
        if (word & FRAME_RELAY) {
            Connection* target = other_host < QV_MSG_MAX_HOSTS ? g_connections[other_host].load() : nullptr;
            if (!target || !target->up.load() || !send_frame(target, passed_on, payload, length))
                send_frame(source, FRAME_UNREACHABLE | (other_host << FRAME_HOST_SHIFT), nullptr, 0);
            return;
        }
        // A slave's broadcast reaches the other slaves through the master.
        if (word & FRAME_BROADCAST) {
            for (Connection* other : g_connections)
                if (other && other != source && other->up.load())
                    send_frame(other, passed_on, payload, length);
        }
    }
    Qv_msg_handler handler = module < MODULE_TABLE_ROWS ? g_handlers[module].load() : nullptr;
    if (!handler) {
        msg_error("message for module %u without handler from host %d", module, int(source->host));
        return;
    }
    // The payload lies 8-byte aligned in the receive buffer (frames are padded), and the handler
    // may change it there: no copy per message.
    run_handler(handler, payload, length, swap);
}

// Reads what the socket has and dispatches every whole message. False when the connection ended.
bool serve(Connection* connection)
{
    if (connection->in.size() - connection->filled < 4096)
        connection->in.resize(std::max<size_t>(connection->in.size() * 2, 65536));
    ssize_t n = recv(connection->socket, connection->in.data() + connection->filled,
                     connection->in.size() - connection->filled, MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
        return true;
    if (n <= 0)
        return false;
    bool carried = connection->filled > 0;
    connection->filled += size_t(n);

    size_t at = 0;
    while (connection->filled - at >= FRAME_BYTES) {
        uint32_t frame[2];
        std::memcpy(frame, connection->in.data() + at, FRAME_BYTES);
        if (connection->swap) {
            frame[0] = swap32(frame[0]);
            frame[1] = swap32(frame[1]);
        }
        if (frame[0] > QV_MSG_MAX_PAYLOAD) {
            msg_error("message of %u bytes from host %d is longer than %zu, closing the connection", frame[0],
                      int(connection->host), QV_MSG_MAX_PAYLOAD);
            return false;
        }
        size_t whole = FRAME_BYTES + padded(frame[0]);
        if (connection->filled - at < whole) {
            if (connection->in.size() < whole)
                connection->in.resize(whole);
            break;
        }
        ++connection->messages_read;
        if (carried && at == 0)
            ++connection->messages_split;
        dispatch(connection, frame[1], connection->in.data() + at + FRAME_BYTES, frame[0]);
        if (!connection->up.load())
            return false;
        at += whole;
    }
    if (at > 0) {
        std::memmove(connection->in.data(), connection->in.data() + at, connection->filled - at);
        connection->filled -= at;
    }
    return true;
}

thread_local bool t_on_reader = false;

// Messages this host sends to itself are handled in order on the local server thread, never on
// the reader: what they ask for (running a job) may take long and may itself wait for answers
// that only the reader can take in.
struct Local_message {
    uint32_t module;
    std::vector<uint64_t> bytes;   // 8-byte aligned, as handlers get a received payload
    size_t length;
};
std::mutex g_local_mutex;
// Never destroyed: a fatal exit runs static destructors while the layer's threads may still run.
std::condition_variable& g_local_ready = *new std::condition_variable;
std::deque<Local_message>& g_local_queue = *new std::deque<Local_message>;   // under g_local_mutex, as the two flags
bool g_local_stop = false;
bool g_local_running = false;

void local_loop()
{
    for (;;) {
        Local_message message;
        {
            std::unique_lock<std::mutex> hold(g_local_mutex);
            g_local_ready.wait(hold, [] { return g_local_stop || !g_local_queue.empty(); });
            if (g_local_stop)
                return;
            message = std::move(g_local_queue.front());
            g_local_queue.pop_front();
        }
        Qv_msg_handler handler = message.module < MODULE_TABLE_ROWS ? g_handlers[message.module].load() : nullptr;
        if (handler)
            run_handler(handler, message.bytes.data(), message.length, false);
        else
            msg_error("message for module %u without handler from host %d", message.module, int(g_self.load()));
    }
}

bool send_local(int module, const void* buffer, size_t length)
{
    Local_message message{uint32_t(module) & 0xFFu, std::vector<uint64_t>(length / 8 + 1), length};
    if (length)
        std::memcpy(message.bytes.data(), buffer, length);
    std::lock_guard<std::mutex> hold(g_local_mutex);
    if (g_local_stop)
        return false;
    if (!g_local_running)
        g_local_running = qv_msg_detail::msg_start_thread(qv_msg_detail::LAYER_LOCAL, local_loop);
    if (!g_local_running)
        return false;
    g_local_queue.push_back(std::move(message));
    g_local_ready.notify_one();
    return true;
}

// Stops the local server after the message it handles now; what is still queued is dropped.
void stop_local()
{
    bool running;
    {
        std::lock_guard<std::mutex> hold(g_local_mutex);
        g_local_stop = true;
        running = g_local_running;
        g_local_ready.notify_all();
    }
    if (running)
        qv_msg_detail::msg_join_thread(qv_msg_detail::LAYER_LOCAL);
    std::lock_guard<std::mutex> hold(g_local_mutex);
    g_local_queue.clear();
    g_local_running = false;
    g_local_stop = false;
}

void reader_loop()
{
    t_on_reader = true;
    std::vector<pollfd> watched;
    std::vector<Connection*> owners;
    while (!g_stop.load()) {
        watched.assign(1, pollfd{g_wake[0], POLLIN, 0});
        owners.assign(1, nullptr);
        {
            std::lock_guard<std::mutex> hold(g_table_mutex);
            for (Connection* connection : g_connections) {
                if (connection && connection->socket >= 0 && (connection->up.load() || connection->closing.load())) {
                    watched.push_back(pollfd{connection->socket, POLLIN, 0});
                    owners.push_back(connection);
                }
            }
        }
        if (poll(watched.data(), watched.size(), 1000) <= 0)
            continue;
        if (watched[0].revents) {
            char drain[64];
            [[maybe_unused]] ssize_t n = read(g_wake[0], drain, sizeof drain);
        }
        // A connection replaced while we polled is not served; taking the table's lock here also
        // orders what other threads did before they last held it before the messages we handle.
        {
            std::lock_guard<std::mutex> hold(g_table_mutex);
            for (size_t i = 1; i < watched.size(); ++i)
                if (g_connections[owners[i]->host].load() != owners[i])
                    watched[i].revents = 0;
        }
        for (size_t i = 1; i < watched.size() && !g_stop.load(); ++i) {
            if (!watched[i].revents)
                continue;
            if (!serve(owners[i]))
                connection_ended(owners[i]);
        }
    }
}

void ensure_reader()
{
    if (g_reader_running.load())
        return;
    if (g_wake[0] < 0 && pipe2(g_wake, O_CLOEXEC) != 0) {
        msg_error("cannot make the reader's wake pipe - %s", error_text(errno));
        return;
    }
    g_stop.store(false);
    g_reader_running.store(qv_msg_detail::msg_start_thread(qv_msg_detail::LAYER_READER, reader_loop));
}

// The message layer's send hook: a slave's lines and the master's settings travel as module LIB
// messages.
int send_log_record(uint32_t host, const void* record, size_t length)
{
    if (t_writing)
        return 0;
    return qv_msg_send(host, MOD_LIB, record, length);
}

void log_record_arrived(Thread_context*, void* buffer, size_t length, bool swap)
{
    msg_handle_remote_bytes(buffer, length, swap);
}

// Puts an up connection in the table and switches the process to cluster mode.
void connection_add(int socket, uint32_t host, bool swap)
{
    auto* connection = new Connection();
    connection->socket = socket;
    connection->host = host;
    connection->swap = swap;
    connection->name = peer_name(socket);
    connection->up.store(true);
    handshake_timeouts(socket, 0);
    bool first = false;
    {
        std::lock_guard<std::mutex> hold(g_table_mutex);
        if (Connection* old = g_connections[host].exchange(connection))
            g_retired.push_back(old);
        first = !g_cluster.exchange(true);
    }
    if (first) {
        qv_db_net::install_hooks();
        // The library start registers the receiving end; a process without it gets this one.
        Qv_msg_handler none = nullptr;
        g_handlers[MOD_LIB].compare_exchange_strong(none, log_record_arrived);
        msg_set_send_hook(send_log_record);
    }
    ensure_reader();
    wake_reader();
    if (qv_db_debug_slave_tags())
        qv_db_host_event(host, true);
}

bool host_free(uint32_t host)
{
    std::lock_guard<std::mutex> hold(g_table_mutex);
    Connection* connection = g_connections[host];
    return !connection || (!connection->up.load() && connection->socket < 0);
}

}  // namespace

namespace qv_msg_detail {

namespace {

// The layer's threads enter through the thread table like every engine thread and are not
// joinable; the last act of each (after its context is gone) tells a waiting qv_msg_exit that it
// touches nothing more.
struct Layer_start {
    void (*body)();
    uint32_t host;
};
Layer_start g_layer_start[LAYER_THREADS];
std::mutex g_layer_end_mutex;
std::condition_variable& g_layer_end = *new std::condition_variable;   // never destroyed, as above
bool g_layer_active[LAYER_THREADS];

void layer_trampoline(void* argument)
{
    const auto* start = static_cast<const Layer_start*>(argument);
    if (Thread_context* context = thread_context())
        context->host_number = start->host;
    start->body();
}

void layer_ended(void* argument)
{
    std::lock_guard<std::mutex> hold(g_layer_end_mutex);
    g_layer_active[reinterpret_cast<intptr_t>(argument)] = false;
    g_layer_end.notify_all();
}

}  // namespace

bool msg_start_thread(Layer_thread which, void (*body)())
{
    g_layer_start[which] = {body, g_self.load()};
    const int row = thread_alloc(layer_trampoline, &g_layer_start[which], false);
    if (row < 0) {
        msg_error("cannot start a network thread");
        return false;
    }
    thread_notify_end(row, layer_ended, reinterpret_cast<void*>(intptr_t(which)));
    {
        std::lock_guard<std::mutex> hold(g_layer_end_mutex);
        g_layer_active[which] = true;
    }
    if (!thread_start(row)) {
        std::lock_guard<std::mutex> hold(g_layer_end_mutex);
        g_layer_active[which] = false;
        msg_error("cannot start a network thread");
        return false;
    }
    return true;
}

void msg_join_thread(Layer_thread which)
{
    std::unique_lock<std::mutex> hold(g_layer_end_mutex);
    g_layer_end.wait(hold, [which] { return !g_layer_active[which]; });
}

}  // namespace qv_msg_detail

// ---- Welcome message ----------------------------------------------------------------------------

const char* msg_welcome_magic()
{
    if (!g_magic[0]) {
        char text[sizeof g_magic];
        std::snprintf(text, sizeof text, "qvrmsg40-%-20.20s", VERSION_TEXT);
        for (char* c = text; *c; ++c)
            if (static_cast<unsigned char>(*c) <= ' ' || *c == 127)
                *c = '_';
        std::memcpy(g_magic, text, sizeof g_magic);
    }
    return g_magic;
}

void msg_welcome_make(uint8_t* buffer, uint32_t sender, uint32_t assigned)
{
    std::memset(buffer, 0, QV_MSG_WELCOME_BYTES);
    std::memcpy(buffer, msg_welcome_magic(), std::strlen(msg_welcome_magic()));
    uint32_t words[3] = {ORDER_MARK, sender, assigned};
    std::memcpy(buffer + 32, words, sizeof words);
}

Msg_welcome_status msg_welcome_read(const uint8_t* bytes, size_t length, uint32_t host, Msg_welcome_info* info)
{
    Module_scope scope(MOD_MSG);
    if (length < QV_MSG_WELCOME_BYTES)
        return WELCOME_SHORT;
    const char* magic = msg_welcome_magic();
    if (std::memcmp(bytes, magic, std::strlen(magic)) != 0) {
        char shown[51];
        size_t n = 0;
        for (; n < 50 && bytes[n]; ++n)
            shown[n] = bytes[n] >= ' ' && bytes[n] < 127 ? char(bytes[n]) : '?';
        shown[n] = '\0';
        msg_error("wrong welcome message from host %d (magic). remote host responded: '%.50s'", int(host), shown);
        return WELCOME_BAD;
    }
    uint32_t words[3];
    std::memcpy(words, bytes + 32, sizeof words);
    bool swap = words[0] == ORDER_MARK_SWAPPED;
    if (!swap && words[0] != ORDER_MARK) {
        msg_error("wrong welcome message from host %d (byte order mark %#x)", int(host), words[0]);
        return WELCOME_BAD;
    }
    if (swap) {
        words[1] = swap32(words[1]);
        words[2] = swap32(words[2]);
    }
    bool master = words[1] == 0;
    if (words[1] >= QV_MSG_MAX_HOSTS || (master && (words[2] == 0 || words[2] >= QV_MSG_MAX_HOSTS))) {
        msg_error("wrong welcome message from host %d (host numbers %u, %u)", int(host), words[1], words[2]);
        return WELCOME_BAD;
    }
    info->swap = swap;
    info->sender = words[1];
    info->assigned = master ? words[2] : 0;
    return WELCOME_OK;
}

// ---- Start, send, register ----------------------------------------------------------------------

int qv_net_init() { return 1; }

int qv_msg_init(int)
{
    Module_scope scope(MOD_MSG);
    if (g_started)
        return 1;
    g_started = true;
    thread_set_host_layer_started(true);
    msg_install_signal_handlers();
    msg_set_host_number(0);
    if (Thread_context* context = thread_context())
        context->host_number = 0;
    return 1;
}

bool qv_msg_started() { return g_started; }

namespace {

// The connection a message to `host` goes out on, with the relay bits added to `word` for
// another slave, which a slave reaches through the master (it answers if that host is not up).
// Null, with error 310 reported, if there is none.
Connection* route(uint32_t host, uint32_t* word)
{
    Connection* connection = host < QV_MSG_MAX_HOSTS ? g_connections[host].load() : nullptr;
    if (!connection && host < QV_MSG_MAX_HOSTS && g_self.load() != 0) {
        connection = g_connections[0].load();
        *word |= FRAME_RELAY | (host << FRAME_HOST_SHIFT);
    }
    if (!connection)
        msg_error_n(310, "no connection to %d", int(host));
    return connection;
}

}  // namespace

int qv_msg_send(uint32_t host, int module, const void* buffer, size_t length)
{
    // A single host has nobody to send to: the send succeeds and nothing goes out.
    if (!g_cluster.load(std::memory_order_acquire))
        return 1;
    Module_scope scope(MOD_MSG);
    if (length > QV_MSG_MAX_PAYLOAD) {
        msg_error("message of %zu bytes is longer than %zu", length, QV_MSG_MAX_PAYLOAD);
        return 0;
    }
    uint32_t word = uint32_t(module) & 0xFFu;
    if ((host & 0xFFu) == QV_MSG_ALL_HOSTS) {
        bool good = true;
        for (Connection* connection : g_connections)
            if (connection && connection->up.load())
                good = send_frame(connection, word | FRAME_BROADCAST, buffer, length) && good;
        return good ? 1 : 0;
    }
    if (host == g_self.load())
        return send_local(module, buffer, length) ? 1 : 0;
    Connection* connection = route(host, &word);
    return connection && send_frame(connection, word, buffer, length) ? 1 : 0;
}

int qv_msg_send_batch(uint32_t host, int module, const Qv_msg_part* messages, int count)
{
    if (!g_cluster.load(std::memory_order_acquire))
        return 1;
    Module_scope scope(MOD_MSG);
    uint32_t word = uint32_t(module) & 0xFFu;
    Connection* connection = route(host, &word);
    if (!connection)
        return 0;
    for (int i = 0; i < count; ++i) {
        if (messages[i].head_bytes + messages[i].body_bytes > QV_MSG_MAX_PAYLOAD) {
            msg_error("message of %zu bytes is longer than %zu", messages[i].head_bytes + messages[i].body_bytes,
                      QV_MSG_MAX_PAYLOAD);
            return 0;
        }
    }
    for (int first = 0; first < count; first += MAX_BATCH)
        if (!send_frames(connection, word, messages + first, std::min(MAX_BATCH, count - first)))
            return 0;
    return 1;
}

void qv_msg_register(int module, Qv_msg_handler handler)
{
    if (module >= 0 && module < MODULE_TABLE_ROWS)
        g_handlers[module].store(handler);
}

bool qv_msg_host_live(uint32_t host)
{
    if (host == g_self.load())
        return true;
    if (host >= QV_MSG_MAX_HOSTS)
        return false;
    // A slave reaches every other host through its master.
    Connection* connection = g_connections[g_self.load() != 0 ? 0 : host].load();
    return connection && connection->up.load();
}

uint32_t qv_msg_self() { return g_self.load(); }

bool qv_msg_on_reader_thread() { return t_on_reader; }

// A handler called directly, not by the layer, holds nothing to let go.
Qv_msg_handlers_unlocked::Qv_msg_handlers_unlocked() : held_(t_holds_handler_mutex)
{
    if (held_)
        g_handler_mutex.unlock();
}

Qv_msg_handlers_unlocked::~Qv_msg_handlers_unlocked()
{
    if (held_)
        g_handler_mutex.lock();
}

int qv_msg_connections()
{
    std::lock_guard<std::mutex> hold(g_table_mutex);
    int count = 0;
    for (Connection* connection : g_connections)
        count += connection && connection->up.load();
    return count;
}

// ---- Opening and closing ------------------------------------------------------------------------

int qv_msg_open(int socket, uint32_t host)
{
    Module_scope scope(MOD_MSG);
    if (host == 0 || host >= QV_MSG_MAX_HOSTS || g_self.load() != 0 || !host_free(host)) {
        msg_error("cannot open connection to host %d: number not free here", int(host));
        close(socket);
        return 0;
    }
    qv_msg_detail::socket_options(socket);
    handshake_timeouts(socket, HANDSHAKE_SECONDS);
    uint8_t welcome[QV_MSG_WELCOME_BYTES];
    msg_welcome_make(welcome, 0, host);
    if (!write_plain(socket, welcome, sizeof welcome)) {
        msg_error("could not send welcome message to host %d - %s", int(host), error_text(errno));
        close(socket);
        return 0;
    }
    size_t got = read_full(socket, welcome, sizeof welcome);
    Msg_welcome_info info{};
    Msg_welcome_status status = msg_welcome_read(welcome, got, host, &info);
    if (status == WELCOME_SHORT) {
        if (got == 0)
            msg_error("could not receive welcome message from host %d", int(host));
        else
            msg_error("only partially received welcome message from host %d", int(host));
    } else if (status == WELCOME_OK && info.sender != host) {
        msg_error("wrong welcome message from host %d (it says host %u)", int(host), info.sender);
        status = WELCOME_BAD;
    }
    if (status != WELCOME_OK) {
        close(socket);
        return 0;
    }
    connection_add(socket, host, info.swap);
    return 1;
}

int qv_msg_accept(int listener, uint32_t host, int timeout_ms)
{
    Module_scope scope(MOD_MSG);
    pollfd wait{listener, POLLIN, 0};
    if (poll(&wait, 1, timeout_ms) <= 0) {
        msg_error("no host connected within %d ms", timeout_ms);
        return 0;
    }
    int socket = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0) {
        msg_error("accept failed - %s", error_text(errno));
        return 0;
    }
    return qv_msg_open(socket, host);
}

int qv_msg_join(int socket)
{
    Module_scope scope(MOD_MSG);
    handshake_timeouts(socket, HANDSHAKE_SECONDS);
    uint8_t welcome[QV_MSG_WELCOME_BYTES];
    size_t got = read_full(socket, welcome, sizeof welcome);
    Msg_welcome_info info{};
    Msg_welcome_status status = msg_welcome_read(welcome, got, 0, &info);
    if (status == WELCOME_SHORT && got == 0) {
        msg_error_n(331, "could not receive welcome message from master");
        close(socket);
        return 0;
    }
    if (status == WELCOME_SHORT)
        msg_fatal_n(332, "only partially received welcome message from master");
    if (status == WELCOME_OK && info.sender != 0) {
        msg_error("wrong welcome message from host 0 (it says host %u)", info.sender);
        status = WELCOME_BAD;
    }
    if (status != WELCOME_OK) {
        close(socket);
        return 0;
    }
    g_self.store(info.assigned);
    msg_set_host_number(info.assigned);
    if (Thread_context* context = thread_context())
        context->host_number = info.assigned;
    msg_welcome_make(welcome, info.assigned, 0);
    if (!write_plain(socket, welcome, sizeof welcome)) {
        msg_error("could not send welcome message to master - %s", error_text(errno));
        close(socket);
        return 0;
    }
    connection_add(socket, 0, info.swap);
    // From now on this slave's lines are printed by the master.
    msg_set_forwarding(true);
    return 1;
}

void qv_msg_close(uint32_t host)
{
    Module_scope scope(MOD_MSG);
    Connection* connection = host < QV_MSG_MAX_HOSTS ? g_connections[host].load() : nullptr;
    if (!connection || connection->closing.exchange(true))
        return;
    if (host == 0 && g_self.load() != 0)
        msg_set_forwarding(false);
    print_counters(connection);
    if (qv_db_debug_slave_tags())
        qv_db_host_event(host, false);
    std::lock_guard<std::mutex> hold(connection->write_lock);
    connection->up.store(false);
    // The reader sees the end and closes the socket; without a reader it is closed here.
    if (connection->socket >= 0) {
        if (g_reader_running.load()) {
            shutdown(connection->socket, SHUT_RDWR);
        } else {
            close(connection->socket);
            connection->socket = -1;
        }
    }
    wake_reader();
}

void qv_msg_exit()
{
    Module_scope scope(MOD_MSG);
    // Connections opened directly (qv_msg_open without qv_msg_init) count as a start too.
    if (!g_started && !g_reader_running.load() && !g_cluster.load()) {
        msg_warn_n(4, "msg_exit without msg_init.");
        return;
    }
    // The local server ends first (it may still send), then the reader, so the counters printed
    // at the close are final.
    stop_local();
    if (g_reader_running.load()) {
        g_stop.store(true);
        wake_reader();
        qv_msg_detail::msg_join_thread(qv_msg_detail::LAYER_READER);
        g_reader_running.store(false);
    }
    for (uint32_t host = 0; host < QV_MSG_MAX_HOSTS; ++host)
        if (Connection* connection = g_connections[host]; connection && connection->up.load())
            qv_msg_close(host);
    std::lock_guard<std::mutex> hold(g_table_mutex);
    for (auto& slot : g_connections) {
        Connection* connection = slot.exchange(nullptr);
        if (!connection)
            continue;
        if (connection->socket >= 0)
            close(connection->socket);
        delete connection;
    }
    for (Connection* connection : g_retired)
        delete connection;
    g_retired.clear();
    if (g_cluster.exchange(false)) {
        msg_set_forwarding(false);
        msg_set_send_hook(nullptr);
        qv_db_net::remove_hooks();
    }
}

void qv_msg_abort_hook(int) {}

// Called by the fatal sequence, possibly on the reader thread itself: the sockets are shut so
// the peers see the end at once; nothing is joined or freed.
void qv_msg_abort()
{
    Module_scope scope(MOD_MSG);
    if (msg_class_mask(MOD_MSG) & MSG_CLASS_PHASE)
        msg_debug("qv_msg_abort: terminating");
    if (!g_started) {
        g_started = true;
        return;
    }
    g_stop.store(true);
    // A slave leaves its connections to the end of the process: only the master tells its
    // peers at once.
    if (msg_host_number() != 0)
        return;
    if (network_debug())
        msg_debug("disconnect hosts");
    for (Connection* connection : g_connections)
        if (connection && connection->socket >= 0)
            shutdown(connection->socket, SHUT_RDWR);
}
