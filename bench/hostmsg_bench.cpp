// Host messaging over loopback, next to a plain TCP copy of the same bytes in the same run.
//
//     hostmsg_bench [megabytes] [runs]        (100 and 5 unless given)
//
// A child process is the master: it holds one element of `megabytes` MB and 200 small ones, and
// serves the same number of bytes over a plain TCP socket on request. This process joins it as a
// slave and measures (medians of `runs`):
//   - fetch: qv_db_access of the big element, which moves it in 1,364-byte pieces, eight per
//     request, and rebuilds it here; the record is dropped locally between runs;
//   - plain: connect, ask, recv the same byte count into one buffer (allocated once);
//   - plain into new memory: the same, into a block allocated for each run, as the fetch must;
//   - type round trip: qv_db_type of a tag not yet known here (one opcode 0/1 exchange).
#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "base/lib/mem/i_mem_allocatable.h"
#include "database/db.h"
#include "database/host_messaging.h"
#include "runtime/msg.h"
#include "runtime/threads.h"

namespace {

constexpr Db_tag BIG_TAG = 0x400;        // the first tag of a fresh master
constexpr int SMALL_TAGS = 200;

double seconds_now()
{
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

int plain_listener(int* port)
{
    int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(socket, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(socket, 4) != 0)
        return -1;
    getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length);
    *port = ntohs(address.sin_port);
    return socket;
}

void start_runtime()
{
    mem_set_hooks(malloc, realloc, free);
    thread_system_init();
    msg_set_levels(MSG_FATAL | MSG_ERROR | MSG_WARN);
    qv_msg_init(0);
    qv_db_init();
}

// The master: answers database requests on its reader thread, plain copies on this one.
[[noreturn]] void run_master(int cluster_listener, int plain, size_t bytes)
{
    start_runtime();
    Db_tag tag = 0;
    auto* data = static_cast<uint8_t*>(qv_db_create(&tag, 0, uint32_t(bytes)));
    for (size_t i = 0; i < bytes; ++i)
        data[i] = uint8_t(i * 131 + (i >> 12));
    for (int i = 0; i < SMALL_TAGS; ++i) {
        Db_tag small = 0;
        qv_db_create(&small, 0, 64);
    }
    if (tag != BIG_TAG || !qv_msg_accept(cluster_listener, 1, 20000))
        _exit(3);
    for (;;) {
        int socket = accept(plain, nullptr, nullptr);
        if (socket < 0)
            break;
        char command = 0;
        if (recv(socket, &command, 1, MSG_WAITALL) != 1 || command == 'q') {
            close(socket);
            break;
        }
        for (size_t sent = 0; sent < bytes;) {
            ssize_t n = send(socket, data + sent, bytes - sent, MSG_NOSIGNAL);
            if (n <= 0)
                break;
            sent += size_t(n);
        }
        close(socket);
    }
    qv_msg_exit();
    _exit(0);
}

int plain_connect(int port)
{
    int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(uint16_t(port));
    if (connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        close(socket);
        return -1;
    }
    int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return socket;
}

}  // namespace

int main(int argc, char** argv)
{
    const size_t megabytes = argc > 1 ? size_t(std::atol(argv[1])) : 100;
    const int runs = argc > 2 ? std::max(1, std::atoi(argv[2])) : 5;
    const size_t bytes = megabytes << 20;

    int cluster_port = 0, plain_port = 0;
    int cluster = plain_listener(&cluster_port);
    int plain = plain_listener(&plain_port);
    if (cluster < 0 || plain < 0) {
        std::fprintf(stderr, "cannot listen on loopback\n");
        return 1;
    }
    pid_t master = fork();
    if (master == 0)
        run_master(cluster, plain, bytes);
    close(cluster);
    close(plain);

    start_runtime();
    char address[64];
    std::snprintf(address, sizeof address, "127.0.0.1:%d", cluster_port);
    int socket = qv_msg_connect(address);
    if (socket < 0 || !qv_msg_join(socket)) {
        kill(master, SIGKILL);
        waitpid(master, nullptr, 0);
        return 1;
    }

    std::vector<double> type_times;
    for (int i = 1; i <= SMALL_TAGS; ++i) {
        double start = seconds_now();
        qv_db_type(BIG_TAG + Db_tag(i));
        type_times.push_back(seconds_now() - start);
    }

    std::vector<double> fetch_rates, plain_rates, fresh_rates;
    std::vector<uint8_t> buffer(bytes);
    bool same = true;
    for (int run = 0; run < runs; ++run) {
        double start = seconds_now();
        auto* data = static_cast<const uint8_t*>(qv_db_access(BIG_TAG));
        double fetch_seconds = seconds_now() - start;
        same = same && qv_db_size(BIG_TAG) == bytes;

        auto plain_copy = [&](uint8_t* into, size_t* got) {
            int copy = plain_connect(plain_port);
            double begin = seconds_now();
            char command = 'd';
            send(copy, &command, 1, 0);
            *got = 0;
            while (*got < bytes) {
                ssize_t n = recv(copy, into + *got, bytes - *got, 0);
                if (n <= 0)
                    break;
                *got += size_t(n);
            }
            double seconds = seconds_now() - begin;
            close(copy);
            return seconds;
        };
        size_t got = 0;
        double plain_seconds = plain_copy(buffer.data(), &got);
        size_t got_fresh = 0;
        double fresh_start = seconds_now();
        auto* fresh = static_cast<uint8_t*>(std::malloc(bytes));
        plain_copy(fresh, &got_fresh);
        double fresh_seconds = seconds_now() - fresh_start;
        same = same && got_fresh == bytes && std::memcmp(fresh, data, bytes) == 0;
        std::free(fresh);
        same = same && got == bytes && std::memcmp(buffer.data(), data, bytes) == 0;
        // Forget the copy here so the next run fetches it again.
        qv_db_delete_local(BIG_TAG);

        fetch_rates.push_back(double(bytes) / (1 << 20) / fetch_seconds);
        plain_rates.push_back(double(bytes) / (1 << 20) / plain_seconds);
        fresh_rates.push_back(double(bytes) / (1 << 20) / fresh_seconds);
    }

    // Leave the cluster before the master ends, or its end would end this slave.
    qv_msg_exit();
    int quit = plain_connect(plain_port);
    char command = 'q';
    send(quit, &command, 1, 0);
    close(quit);
    int status = 0;
    for (int waited = 0; waited < 500 && waitpid(master, &status, WNOHANG) == 0; ++waited)
        usleep(10000);
    kill(master, SIGKILL);
    waitpid(master, nullptr, WNOHANG);

    double fetch = median(fetch_rates), copy = median(plain_rates);
    std::printf("element %zu MB, %d runs, bytes identical: %s\n", megabytes, runs, same ? "yes" : "NO");
    std::printf("fetch through the database protocol: %8.1f MB/s (median)\n", fetch);
    std::printf("plain TCP copy over loopback:        %8.1f MB/s (median)\n", copy);
    std::printf("plain TCP copy into new memory:      %8.1f MB/s (median)\n", median(fresh_rates));
    std::printf("ratio fetch / plain:                 %8.3f\n", fetch / copy);
    const double windows = double(bytes) / (8.0 * 1364.0);
    std::printf("fetch time per window of 8 pieces:   %8.1f us (median fetch)\n", double(bytes) / (1 << 20) / fetch / windows * 1e6);
    std::printf("type request round trip:             %8.1f us (median of %d)\n", median(type_times) * 1e6, SMALL_TAGS);
    return same ? 0 : 1;
}
