// Shared pieces of the host layer, private to database/host_*.cpp.
#pragma once

#include <cstdint>
#include <string>

namespace qv_msg_detail {

// Bytes asked for as each connection's send and receive buffer (the system may double them).
constexpr size_t QV_MSG_SOCKET_BUFFER = 64 * 1024;
// TCP_NODELAY and SO_KEEPALIVE, each reported on its own failure, and the buffer sizes above.
bool socket_options(int socket);
// Splits a connect text by the host:port and [IPv6] rules; false if it cannot be parsed. The
// "more than one ':'" rule is checked by the caller.
bool parse_host_port(const char* text, std::string* host, std::string* port, bool* ipv6);

// The host layer's own threads: the reader, which serves every socket, and the local server,
// which handles the messages this host sends to itself.
enum Layer_thread { LAYER_READER = 0, LAYER_LOCAL = 1, LAYER_THREADS = 2 };
// Starts `which` running `body` with a thread context of its own, through the thread table. This
// is the one place that makes a thread for the host layer; false if no thread could be made.
bool msg_start_thread(Layer_thread which, void (*body)());
// Waits for the thread started above to end.
void msg_join_thread(Layer_thread which);

}  // namespace qv_msg_detail

namespace qv_db_net {

// Fills the database's remote hooks with the cluster protocol (first connection up) and gives
// the previous hooks back (last connection gone).
void install_hooks();
void remove_hooks();

}  // namespace qv_db_net
