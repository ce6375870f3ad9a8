// Fixture for the tag store tests: a fresh database per test and a capture of the messages.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "database/db.h"
#include "runtime/msg.h"
#include "tests/test_support.h"

inline std::vector<Collected_line>& db_messages() { return Msg_collect::lines(); }

constexpr int POLYGON = 14;   // a tracked geometry type

// The tags a flush walk offers, in the order offered.
inline std::vector<Db_tag> flush_order()
{
    std::vector<Db_tag> tags;
    qv_db_flush_walk(
        [](void* user, void*, Db_flush_entry* entries, int count, Db_thread_list*) {
            for (int i = 0; i < count; ++i)
                static_cast<std::vector<Db_tag>*>(user)->push_back(entries[i].tag);
        },
        &tags, nullptr);
    return tags;
}

inline bool offered(Db_tag tag)
{
    std::vector<Db_tag> tags = flush_order();
    return std::find(tags.begin(), tags.end(), tag) != tags.end();
}

// A new record without its creation pin.
inline Db_tag make_unpinned(int type, uint32_t size)
{
    Db_tag tag = 0;
    qv_db_create(&tag, type, size);
    if (qv_db_type_tracked(type))
        qv_db_unpin(tag);
    return tag;
}

class DbTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        qv_test_init();
        // The host layer is not started here: make this process the master.
        msg_set_host_number(0);
        thread_context()->host_number = 0;
        if (qv_db_started())
            qv_db_exit();
        qv_db_init();
        // Pins the calling thread left in an earlier database mean nothing to this one.
        if (Thread_context* context = thread_context(); context && context->db_pins)
            std::memset(context->db_pins, 0, sizeof(uint32_t) * DB_PIN_SLOTS);
        // Other suites of this binary install hooks of their own; they get them back afterwards.
        saved_job_hooks_ = qv_db_job_hooks();
        saved_remote_hooks_ = qv_db_remote_hooks();
        saved_serial_handler_ = qv_db_type_handler(DB_TYPE_SERIALIZABLE);
        saved_type_names_ = qv_db_set_type_name_hook(nullptr);
        saved_tag_names_ = qv_db_set_tag_name_hook(nullptr);
        qv_db_set_job_hooks({});
        qv_db_set_remote_hooks({});
        qv_db_set_type_handler(DB_TYPE_SERIALIZABLE, {});
        messages_.emplace();
    }

    void TearDown() override
    {
        // The records go with the handlers they were made under: restored hooks of another
        // suite would free this test's plain records as elements in the next start.
        if (qv_db_started())
            qv_db_exit();
        messages_.reset();
        qv_db_set_job_hooks(saved_job_hooks_);
        qv_db_set_remote_hooks(saved_remote_hooks_);
        qv_db_set_type_handler(DB_TYPE_SERIALIZABLE, saved_serial_handler_);
        qv_db_set_type_name_hook(saved_type_names_);
        qv_db_set_tag_name_hook(saved_tag_names_);
        qv_db_restore_current_job(nullptr);
        if (Thread_context* context = thread_context())
            context->host_number = 0;
    }

    static int count_messages(int32_t number)
    {
        return int(std::count_if(db_messages().begin(), db_messages().end(),
                                 [&](const Collected_line& line) { return line.number == number; }));
    }

    // True when some captured line is exactly `text`.
    static bool has_text(const std::string& text)
    {
        return std::any_of(db_messages().begin(), db_messages().end(),
                           [&](const Collected_line& message) { return message.text == text; });
    }

    static uint32_t my_pins(Db_tag tag)
    {
        Thread_context* context = thread_context();
        return context->db_pins ? context->db_pins[qv_db_peek(tag)->pidx] : 0;
    }

    std::optional<Msg_collect> messages_;
    Db_job_hooks saved_job_hooks_{};
    Db_remote_hooks saved_remote_hooks_{};
    Db_type_handler saved_serial_handler_{};
    Db_type_name_fn saved_type_names_ = nullptr;
    Db_tag_name_fn saved_tag_names_ = nullptr;
};
