// Cluster test support: this process as the master, peer processes as slaves (or as a master),
// each driven on its stdin and answering on its stdout. Every read is bounded, and a peer that is
// still running when its object goes away is killed and reaped.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <mutex>
#include <poll.h>
#include <spawn.h>
#include <iterator>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "database/db.h"
#include "database/host_messaging.h"
#include "runtime/msg.h"
#include "tests/hostmsg/peer/blob_element.h"
#include "tests/test_support.h"

extern char** environ;

// ---- Message capture of this process --------------------------------------------------------

inline std::mutex g_hostmsg_mutex;
inline std::vector<std::string> g_hostmsg_lines;   // "L<level> N<number> <text>", under the mutex

inline void hostmsg_capture_line(uint32_t level, const char*, const char* text, int32_t number)
{
    char head[32];
    std::snprintf(head, sizeof head, "L%u N%d ", level, number);
    std::lock_guard<std::mutex> hold(g_hostmsg_mutex);
    g_hostmsg_lines.push_back(head + std::string(text));
}

inline void hostmsg_clear()
{
    std::lock_guard<std::mutex> hold(g_hostmsg_mutex);
    g_hostmsg_lines.clear();
}

// Captured lines that contain `fragment`, in order.
inline std::vector<std::string> hostmsg_lines(const std::string& fragment)
{
    std::lock_guard<std::mutex> hold(g_hostmsg_mutex);
    std::vector<std::string> found;
    std::copy_if(g_hostmsg_lines.begin(), g_hostmsg_lines.end(), std::back_inserter(found),
                 [&](const std::string& line) { return line.find(fragment) != std::string::npos; });
    return found;
}

inline int hostmsg_count(const std::string& fragment) { return int(hostmsg_lines(fragment).size()); }

// This process as host 0 with a database, the test element class and the capture.
inline void hostmsg_process_setup()
{
    // A peer that ended must not end us through the pipe of its stdin.
    std::signal(SIGPIPE, SIG_IGN);
    qv_test_init();
    msg_set_host_number(0);
    thread_context()->host_number = 0;
    if (!qv_db_started())
        qv_db_init();
    QV::DB::element_install_db_handler();
    blob_register();
    qv_errorhandler(hostmsg_capture_line);
    msg_set_levels(msg_level_mask() | MSG_INFO);
    // The first line settles the message layer's output state before any network thread runs.
    msg_info("host messaging tests");
}

// ---- A peer process -----------------------------------------------------------------------

class Peer {
public:
    Peer(const std::vector<std::string>& arguments)
    {
        char path[] = "/tmp/hostmsg_peer_XXXXXX";
        int err = mkstemp(path);
        close(err);
        err_path_ = path;
        int in[2], out[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0)
            return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_addopen(&actions, 2, path, O_WRONLY | O_TRUNC, 0600);
        std::vector<std::string> words = {QV_HOSTMSG_PEER_PATH};
        words.insert(words.end(), arguments.begin(), arguments.end());
        std::vector<char*> argv;
        for (std::string& word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0)
            pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        close(in[0]);
        close(out[1]);
        to_ = in[1];
        from_ = out[0];
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    ~Peer()
    {
        kill_now();
        if (to_ >= 0)
            close(to_);
        if (from_ >= 0)
            close(from_);
        // QV_HOSTMSG_KEEP_LOGS keeps the peers' message files for a look after a failure.
        if (!std::getenv("QV_HOSTMSG_KEEP_LOGS"))
            unlink(err_path_.c_str());
    }

    void send(const std::string& command)
    {
        std::string line = command + "\n";
        [[maybe_unused]] ssize_t n = write(to_, line.data(), line.size());
    }

    // The next line of the peer's stdout, or "<timeout>" / "<eof>".
    std::string line(int limit_ms = 10000)
    {
        auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(limit_ms);
        for (;;) {
            size_t newline = buffer_.find('\n');
            if (newline != std::string::npos) {
                std::string result = buffer_.substr(0, newline);
                buffer_.erase(0, newline + 1);
                return result;
            }
            int left = int(std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count());
            if (left <= 0)
                return "<timeout>";
            pollfd wait{from_, POLLIN, 0};
            if (poll(&wait, 1, left) <= 0)
                continue;
            char chunk[512];
            ssize_t n = read(from_, chunk, sizeof chunk);
            if (n <= 0)
                return "<eof>";
            buffer_.append(chunk, size_t(n));
        }
    }

    std::string ask(const std::string& command, int limit_ms = 10000)
    {
        send(command);
        return line(limit_ms);
    }

    // Exit status once the peer ended within `limit_ms`, else -1 (still running).
    int wait_exit(int limit_ms)
    {
        auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(limit_ms);
        int status = 0;
        while (pid_ > 0 && waitpid(pid_, &status, WNOHANG) != pid_) {
            if (std::chrono::steady_clock::now() > end)
                return -1;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        if (pid_ > 0)
            status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        pid_ = -1;
        return status_;
    }

    void kill_now()
    {
        if (pid_ > 0 && kill(pid_, SIGKILL) == 0)
            wait_exit(60000);
    }

    // Its whole stderr so far: the "L<level> N<number> <text>" lines.
    std::string messages() const
    {
        std::ifstream file(err_path_);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    // Orderly end: "exit" and a bounded wait, else killed.
    void finish()
    {
        if (pid_ <= 0)
            return;
        send("exit");
        if (wait_exit(5000) < 0)
            kill_now();
    }

private:
    pid_t pid_ = -1;
    int status_ = -1;
    int to_ = -1;
    int from_ = -1;
    std::string buffer_;
    std::string err_path_;
};

inline std::string hex(uint64_t value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%llx", static_cast<unsigned long long>(value));
    return text;
}
