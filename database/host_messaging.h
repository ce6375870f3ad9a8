// Host messaging: connections between the hosts of a cluster (module MSG).
//
// A cluster is one master (host 0) and up to 126 slaves in a star: every slave holds one
// connection, to the master, which passes on what one slave sends to another. A slave's message
// lines are printed by the master. Until the first connection is opened this process is a single host:
// sending succeeds and sends nothing, registration only records the handler, and the database's
// remote branches run without effect. This is the state the tool always runs in.
//
// Once a connection is open, one reader thread per process serves every socket and calls the
// registered handlers in sequence, and the database's remote hooks are filled (see
// host_db_protocol.h). Senders block on the connection's lock only.
//
// On the socket every message is framed by 8 bytes in the sender's byte order: the payload length
// and a word that holds the module number (bits 0..7) and a broadcast bit (bit 8); the payload is
// padded with zeros to a multiple of 8 bytes, so handlers get it 8-byte aligned in place. The master
// passes a broadcast frame from one slave on to the others before its own handler runs.
#pragma once

#include <cstddef>
#include <cstdint>

struct Thread_context;

// Socket layer start. Always succeeds here.
int qv_net_init();
// Host layer start: from now on this process is host 0, the master, until it joins a master.
int qv_msg_init(int argument);
bool qv_msg_started();

// Host value that addresses all connected hosts; a tag-addressed broadcast passes
// (tag & 0xFFFFFF00) | 255, of which only the low byte counts.
constexpr uint32_t QV_MSG_ALL_HOSTS = 255;
constexpr uint32_t QV_MSG_MAX_HOSTS = 127;
// Largest payload a frame may carry; a longer frame ends the connection as damaged.
constexpr size_t QV_MSG_MAX_PAYLOAD = 1 << 20;

// Sends `length` bytes to `host` for `module`'s handler. Returns non-zero on success. Without any
// connection (a single host) it returns 1 and sends nothing. A message to this host's own number
// is handled on the layer's local server thread, in order, never on the reader thread; still,
// no two handlers run at the same time. A broadcast skips hosts that are
// not up and succeeds when every up host took the message.
int qv_msg_send(uint32_t host, int module, const void* buffer, size_t length);

// One message of a batch: `head_bytes` of `head` followed by `body_bytes` of `body`, so a header
// and the data it describes go out without being copied together first.
struct Qv_msg_part {
    const void* head;
    size_t head_bytes;
    const void* body;   // may be null when body_bytes is 0
    size_t body_bytes;
};
// Sends `count` messages to one host (not a broadcast) in one write under the connection's lock,
// in order. Returns non-zero when all went out; as qv_msg_send otherwise.
int qv_msg_send_batch(uint32_t host, int module, const Qv_msg_part* messages, int count);

// `buffer` is writable and valid for the call only; `swap` is true when the sender's byte order
// differs from ours.
using Qv_msg_handler = void (*)(Thread_context* context, void* buffer, size_t length, bool swap);
void qv_msg_register(int module, Qv_msg_handler handler);

// Two connected TCP sockets on 127.0.0.1 (the platform's socketpair is not used so both ends are
// real TCP sockets). Returns 1 and fills `sockets`, else 0 with the failure reported.
int qv_msg_socketpair(int sockets[2]);
// Connects to "host:port", "host", "[v6addr]:port" or "[v6addr]". Without a port the service is
// looked up from QV_QVR3_SERVICE, QV_QVR_SERVICE, the services "qv-qvr3" and "qv-qvr", else the
// built-in number QV_MSG_FALLBACK_SERVICE. Returns the socket (TCP_NODELAY and SO_KEEPALIVE set)
// or -1 with the failure reported.
constexpr int QV_MSG_FALLBACK_SERVICE = 7503;
int qv_msg_connect(const char* host_port);
// A passive socket on `address` (numeric IPv4 or IPv6) and `port` (0 picks one); the port taken
// goes to `bound_port`. Returns the socket or -1.
int qv_msg_listen(const char* address, int port, int* bound_port);

// Master side: accepts one slave on `listener` within `timeout_ms`, gives it number `host`
// (1..126) and opens the connection (handshake included). Returns 1 on success.
int qv_msg_accept(int listener, uint32_t host, int timeout_ms);
// Master side: takes a connected socket as host `host` and runs the welcome exchange. The
// connection owns the socket from here on, also on failure. Returns 1 on success.
int qv_msg_open(int socket, uint32_t host);
// Slave side: runs the welcome exchange on a socket connected to the master; this process then
// has the host number the master gave. The connection owns the socket. Returns 1 on success.
int qv_msg_join(int socket);
// Closes the connection to `host` and prints its counters.
void qv_msg_close(uint32_t host);
// Closes every connection, stops the reader thread and gives the database back its single-host
// hooks. The process may open connections again afterwards.
void qv_msg_exit();

// True for this host and for every host with an up connection.
bool qv_msg_host_live(uint32_t host);
// This process's host number.
uint32_t qv_msg_self();
// True on the reader thread, which must not wait for what only it can take in.
bool qv_msg_on_reader_thread();
// Handlers run one at a time, on the reader or on the local server. A handler on the local server
// that has to wait for other hosts (running a job) lets the others run meanwhile under this guard.
// Does nothing on a thread that is not running a handler for the layer.
class Qv_msg_handlers_unlocked {
public:
    Qv_msg_handlers_unlocked();
    ~Qv_msg_handlers_unlocked();
    Qv_msg_handlers_unlocked(const Qv_msg_handlers_unlocked&) = delete;
    Qv_msg_handlers_unlocked& operator=(const Qv_msg_handlers_unlocked&) = delete;

private:
    bool held_;
};
// Number of up connections. Takes the table's lock, which the reader thread takes before it
// handles what a poll brought, so what the caller did before is ordered before those handlers.
int qv_msg_connections();

// Abort hook of the fatal sequence; nothing to tell other hosts here.
void qv_msg_abort_hook(int value);
// The message layer's abort route: closes the connections to other hosts.
void qv_msg_abort();

// Welcome message: 512 bytes exchanged once per connection, both ways.
constexpr size_t QV_MSG_WELCOME_BYTES = 512;
struct Msg_welcome_info {
    bool swap;              // the sender's byte order differs from ours
    uint32_t sender;        // host number of the sender
    uint32_t assigned;      // host number the master gives the slave (master's welcome only)
};
enum Msg_welcome_status { WELCOME_OK = 0, WELCOME_SHORT = 1, WELCOME_BAD = 2 };
// Fills `buffer` (QV_MSG_WELCOME_BYTES) in our byte order.
void msg_welcome_make(uint8_t* buffer, uint32_t sender, uint32_t assigned);
// Checks `length` received bytes; reports a wrong magic or bad host numbers at error level
// naming `host` and gives WELCOME_BAD; a short message gives WELCOME_SHORT, not reported here.
Msg_welcome_status msg_welcome_read(const uint8_t* bytes, size_t length, uint32_t host, Msg_welcome_info* info);
// The magic text of this version: "qvrmsg40-" and the version padded to 20, blanks as '_'.
const char* msg_welcome_magic();
