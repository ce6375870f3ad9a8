// Reads a record that the network thread may change, under the database's global lock (which
// the network thread holds while it drops, deletes or pins): the flush walk calls back under it.
#pragma once

#include "database/db.h"
#include "runtime/locks.h"

struct Record_probe {
    Db_tag tag;
    bool called = false;
    int state = 0;
    bool has_data = false;
    bool offered = false;   // among the entries the flush is offered
};

inline Record_probe probe_record(Db_tag tag)
{
    Record_probe probe{tag};
    // The walk skips its callback while the thread list is busy; that never lasts.
    while (!probe.called) {
        qv_db_flush_walk(
            [](void* user, void*, Db_flush_entry* entries, int count, Db_thread_list*) {
                auto* out = static_cast<Record_probe*>(user);
                out->called = true;
                for (int i = 0; i < count; ++i)
                    out->offered = out->offered || entries[i].tag == out->tag;
                if (Db_record* record = qv_db_peek(out->tag)) {
                    out->state = record->state;
                    out->has_data = record->data != nullptr;
                }
            },
            &probe, nullptr);
        if (!probe.called)
            thread_sleep(1000);
    }
    return probe;
}
