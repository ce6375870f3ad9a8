// Collects the lines the message layer gives while it lives, with their numbers, instead of
// letting them reach the console. Levels up to `levels` are switched on meanwhile.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "base/lib/mem/i_mem_allocatable.h"
#include "runtime/msg.h"

// A string the library allocated, as a std::string ("<null>" for none), freed.
inline std::string take(char* text)
{
    std::string result = text ? text : "<null>";
    mem_free(__FILE__, __LINE__, text);
    return result;
}

struct Collected_line {
    uint32_t level;
    int number;  // the caller's number (the last three digits of the printed one)
    std::string text;
};

class Msg_collect {
public:
    explicit Msg_collect(uint32_t levels = MSG_FATAL | MSG_ERROR | MSG_WARN | MSG_INFO | MSG_DEBUG)
        : saved_levels_(msg_level_mask())
    {
        lines().clear();
        msg_set_levels(levels);
        qv_errorhandler(&Msg_collect::take);
    }
    ~Msg_collect()
    {
        qv_errorhandler(nullptr);
        msg_set_levels(saved_levels_);
    }
    Msg_collect(const Msg_collect&) = delete;
    Msg_collect& operator=(const Msg_collect&) = delete;

    // Lines of `level` (any level with 0) whose text contains `part`.
    int count(uint32_t level, const std::string& part) const
    {
        std::lock_guard<std::mutex> hold(mutex());
        int n = 0;
        for (const Collected_line& line : lines())
            n += (level == 0 || line.level == level) && line.text.find(part) != std::string::npos;
        return n;
    }
    // Numbers of the lines at `level`, in order.
    std::vector<int> numbers(uint32_t level) const
    {
        std::lock_guard<std::mutex> hold(mutex());
        std::vector<int> result;
        for (const Collected_line& line : lines())
            if (line.level == level)
                result.push_back(line.number);
        return result;
    }

private:
    static std::vector<Collected_line>& lines()
    {
        static std::vector<Collected_line> all;
        return all;
    }
    static std::mutex& mutex()
    {
        static std::mutex m;
        return m;
    }
    static void take(uint32_t level, const char*, const char* text, int32_t number)
    {
        std::lock_guard<std::mutex> hold(mutex());
        lines().push_back({level, int(number % 1000), text});
    }
    uint32_t saved_levels_;
};
