// Shared set-up for the test binaries: the process start that main() does in the tool.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/lib/mem/i_mem_allocatable.h"
#include "database/db.h"
#include "finalgather/rcfg_module.h"
#include "maps/rcmp_module.h"
#include "runtime/msg.h"
#include "runtime/modules.h"
#include "runtime/threads.h"

// Installs the allocator hooks and gives the calling thread its Thread_context; idempotent.
inline void qv_test_init()
{
    static bool done = false;
    if (done)
        return;
    mem_set_hooks(malloc, realloc, free);
    thread_system_init();
    done = true;
}

// The start a test of maps needs beyond qv_test_init: the map cache, host 0 and the database.
inline void qv_test_map_init()
{
    qv_test_init();
    rcmp_init(true);
    msg_set_host_number(0);
    thread_context()->host_number = 0;
    if (!qv_db_started())
        qv_db_init();
}

// The same, plus the final-gather module (its declaration and context areas).
inline void qv_test_fg_init()
{
    qv_test_map_init();
    fg_module_init();
}

// Polls `done` every millisecond for up to ten seconds: a thread that never comes is a failure,
// not a hang. True when `done` held in time.
template <class Predicate>
bool wait_until(Predicate done)
{
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!done()) {
        if (std::chrono::steady_clock::now() > limit)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// A string the library allocated, as a std::string ("<null>" for none), freed.
inline std::string take(char* text)
{
    std::string result = text ? text : "<null>";
    mem_free(__FILE__, __LINE__, text);
    return result;
}

struct Collected_line {
    uint32_t level;
    int32_t number;  // as the message layer numbers it, e.g. 241012
    std::string text;
};

// Collects the lines the message layer gives while it lives, instead of letting them reach the
// console; the levels in `levels` are switched on meanwhile. A fatal is also written to stderr
// with its number, so that death tests match number and text together.
class Msg_collect {
public:
    explicit Msg_collect(uint32_t levels = MSG_FATAL | MSG_ERROR | MSG_WARN | MSG_INFO | MSG_DEBUG)
        : saved_levels_(msg_level_mask())
    {
        clear();
        msg_set_levels(levels);
        qv_errorhandler(&Msg_collect::keep);
    }
    ~Msg_collect()
    {
        qv_errorhandler(nullptr);
        msg_set_levels(saved_levels_);
    }
    Msg_collect(const Msg_collect&) = delete;
    Msg_collect& operator=(const Msg_collect&) = delete;

    static std::vector<Collected_line>& lines()
    {
        static std::vector<Collected_line> all;
        return all;
    }
    static void clear()
    {
        std::lock_guard<std::mutex> hold(mutex());
        lines().clear();
    }
    // Lines of `level` (any level with 0) whose text contains `part`.
    static int count(uint32_t level, const std::string& part)
    {
        std::lock_guard<std::mutex> hold(mutex());
        return int(std::count_if(lines().begin(), lines().end(), [&](const Collected_line& line) {
            return (level == 0 || line.level == level) && line.text.find(part) != std::string::npos;
        }));
    }
    // The caller's numbers (the last three digits) of the lines at `level`, in order.
    static std::vector<int> numbers(uint32_t level)
    {
        std::lock_guard<std::mutex> hold(mutex());
        std::vector<int> result;
        for (const Collected_line& line : lines())
            if (line.level == level)
                result.push_back(int(line.number % 1000));
        return result;
    }
    static std::vector<std::string> texts(uint32_t level)
    {
        std::lock_guard<std::mutex> hold(mutex());
        std::vector<std::string> result;
        for (const Collected_line& line : lines())
            if (line.level == level)
                result.push_back(line.text);
        return result;
    }

private:
    static std::mutex& mutex()
    {
        static std::mutex m;
        return m;
    }
    static void keep(uint32_t level, const char*, const char* text, int32_t number)
    {
        std::lock_guard<std::mutex> hold(mutex());
        lines().push_back({level, number, text});
        if (level == MSG_FATAL)
            std::fprintf(stderr, "N=%d T=%s\n", number, text);
    }
    uint32_t saved_levels_;
};
