// Shared pieces of the host layer, private to database/host_*.cpp.
#pragma once

#include <cstdint>
#include <string>

namespace qv_msg_detail {

// TCP_NODELAY and SO_KEEPALIVE, each reported on its own failure.
bool socket_options(int socket);
// Splits a connect text by the host:port and [IPv6] rules; false if it cannot be parsed. The
// "more than one ':'" rule is checked by the caller.
bool parse_host_port(const char* text, std::string* host, std::string* port, bool* ipv6);

// Starts the reader thread running `body` with a thread context of its own. This is the one
// place that makes a thread for the host layer; it returns false if no thread could be made.
bool msg_start_reader_thread(void (*body)());
// Waits for the thread started above to end.
void msg_join_reader_thread();

}  // namespace qv_msg_detail

namespace qv_db_net {

// Fills the database's remote hooks with the cluster protocol (first connection up) and gives
// the previous hooks back (last connection gone).
void install_hooks();
void remove_hooks();

}  // namespace qv_db_net
