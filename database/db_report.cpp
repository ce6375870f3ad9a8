// Reports: the tag dump, the summaries by module and type, the statistics, leftover host tags.
#include <cstdarg>
#include <cstdio>

#include "database/db_internal.h"
#include "runtime/msg.h"

using namespace qv_db_detail;

namespace {

constexpr uint64_t MB_UNIT = 1048576;

// The dump's row format zero-pads a pointer, which the compiler's format check rejects; the
// line is therefore formatted through a wrapper it does not inspect.
void format_line(char* buffer, size_t size, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer, size, format, args);
    va_end(args);
}

const char* type_name(int type)
{
    const char* name = g_type_name_hook ? g_type_name_hook(type) : nullptr;
    return name ? name : "";
}

const char* tag_name(Db_tag tag)
{
    const char* name = g_tag_name_hook ? g_tag_name_hook(tag) : nullptr;
    return name ? name : "";
}

struct Totals {
    uint64_t job_bytes;
    int job_count;
    uint64_t plain_bytes;
    int plain_count;
};

}  // namespace

void qv_db_dump(int module)
{
    Module_scope scope(MOD_DB);
    Lock_holder hold(g_global_lock);
    msg_info("host  mod        tag                addr   ctrans    size pidx fj v priv refs    type          qv name");
    for_each_record([module](Db_tag tag, Db_record* record) {
        if (record->state == DB_STATE_FREE || (module != 0 && record->module != module))
            return;
        char serial_name[5] = "ser ";
        const char* shown_type = type_name(record->type);
        if (record->type == DB_TYPE_SERIALIZABLE) {
            const Db_type_handler& handler = qv_db_type_handler(DB_TYPE_SERIALIZABLE);
            if (record->data && handler.class_id) {
                uint32_t id = handler.class_id(record->data);
                serial_name[0] = char(id >> 24);
                serial_name[1] = char(id >> 16);
                serial_name[2] = char(id >> 8);
                serial_name[3] = char(id);
            }
            shown_type = serial_name;
        }
        char line[512];
        format_line(line, sizeof line, "%4d  %-4.4s  %08x  %018p %8d  %3d %c%c %1d  %3d  %3d=%-10.10s  %s",
                    int(tag >> 24), module_name(record->module), tag, record->data, int(record->size),
                    int(record->pidx), record->shared ? 'F' : '-', qv_db_is_job(tag) ? 'J' : '-',
                    int(record->state), int(record->refs), int(record->type), shown_type, tag_name(tag));
        msg_info("%s", line);
    });
}

void qv_db_summary()
{
    Module_scope scope(MOD_DB);
    Totals by_module[MODULE_TABLE_ROWS] = {};
    Totals by_type[DB_TYPES] = {};
    Totals all{};
    {
        Lock_holder hold(g_global_lock);
        for_each_record([&](Db_tag tag, Db_record* record) {
            if (record->state == DB_STATE_FREE)
                return;
            Totals* rows[3] = {&by_module[record->module % MODULE_TABLE_ROWS], &by_type[record->type % DB_TYPES], &all};
            for (Totals* row : rows) {
                if ((tag & 0xC0000000u) == 0x40000000u) {
                    row->job_bytes += record->size;
                    ++row->job_count;
                } else {
                    row->plain_bytes += record->size;
                    ++row->plain_count;
                }
            }
        });
    }

    msg_info("database elements by module:");
    msg_info("  jobs MB    #jobs     MB #nonjobs   module");
    for (int id = 0; id < MODULE_TABLE_ROWS; ++id) {
        const Totals& row = by_module[id];
        if (row.plain_bytes >= MB_UNIT || row.job_bytes > MB_UNIT)
            msg_info("%9lu %8d %6lu %8d   %s", (unsigned long)(row.job_bytes / MB_UNIT), row.job_count,
                     (unsigned long)(row.plain_bytes / MB_UNIT), row.plain_count, module_name(id));
    }
    msg_info(" ");
    msg_info("database elements by type:");
    msg_info("  jobs MB    #jobs     MB #nonjobs   type");
    Totals listed{};
    for (int type = 0; type < DB_TYPES; ++type) {
        const Totals& row = by_type[type];
        if (row.plain_bytes <= MB_UNIT && row.job_bytes <= MB_UNIT)
            continue;
        msg_info("%9lu %8d %6lu %8d   %2d %s", (unsigned long)(row.job_bytes / MB_UNIT), row.job_count,
                 (unsigned long)(row.plain_bytes / MB_UNIT), row.plain_count, type, type_name(type));
        listed.job_bytes += row.job_bytes / MB_UNIT;
        listed.job_count += row.job_count;
        listed.plain_bytes += row.plain_bytes / MB_UNIT;
        listed.plain_count += row.plain_count;
    }
    msg_info("%9lu %8d %6lu %8d   other", (unsigned long)(all.job_bytes / MB_UNIT - listed.job_bytes),
             all.job_count - listed.job_count, (unsigned long)(all.plain_bytes / MB_UNIT - listed.plain_bytes),
             all.plain_count - listed.plain_count);
    msg_info("%9lu %8d %6lu %8d   total", (unsigned long)(all.job_bytes / MB_UNIT), all.job_count,
             (unsigned long)(all.plain_bytes / MB_UNIT), all.plain_count);
}

void qv_db_stats()
{
    Module_scope scope(MOD_DB);
    const Db_statistics& s = statistics();
    msg_info("%d tags, %d creates, %d reallocs", s.tags, s.creates, s.reallocs);
    msg_info("%d deletes, %d flushes, %d data/type reqs (%d errors)", s.deletes, s.flushes, s.requests,
             s.request_errors);
    if (s.requests)
        msg_info("%g seconds for reqs (%g ms each)", s.request_seconds, s.request_seconds * 1000.0 / s.requests);
    if (s.server_ops) {
        msg_info("%g seconds in server, %d server ops (%g ms each)", s.server_seconds, s.server_ops,
                 s.server_seconds * 1000.0 / s.server_ops);
        msg_info("%g Kbytes received, %d requests (%g bytes/request) ", s.kbytes_received, s.server_ops,
                 s.kbytes_received * 1024.0 / s.server_ops);
    }
    if (s.send_requests || s.kbytes_sent > 0) {
        if (s.kbytes_sent > 20000 && s.send_seconds > 2)
            msg_info("%g Kbytes data sent, %d reqs in %g seconds (%g Kb/s)", s.kbytes_sent, s.send_requests,
                     s.send_seconds, s.kbytes_sent / s.send_seconds);
        else
            msg_info("%g Kbytes data sent, %d reqs in %g seconds", s.kbytes_sent, s.send_requests, s.send_seconds);
    }
    if (this_host() == 0 && g_remote_hooks.broadcast_stats)
        g_remote_hooks.broadcast_stats();
}

bool qv_db_debug_slave_tags() { return g_debug_slave_tags; }

int qv_db_count_host_tags(uint32_t host)
{
    int first = int(0x80 | host);
    int count = 0;
    for (int d = first; d <= first + 1 && d < DB_DIRECTORIES; ++d) {
        Db_directory* directory = g_directories[d].load(std::memory_order_acquire);
        if (!directory)
            continue;
        for (auto& slot : directory->pages) {
            Db_page* page = slot.load(std::memory_order_acquire);
            if (!page)
                continue;
            for (const Db_record& record : page->records)
                count += record.state != DB_STATE_FREE;
        }
    }
    return count;
}

void qv_db_host_event(uint32_t host, bool connecting)
{
    Module_scope scope(MOD_DB);
    if (host == 0 || !g_debug_slave_tags)
        return;
    int count = qv_db_count_host_tags(host);
    if (count > 0)
        msg_warn(connecting ? "Found %d still existing tags for connecting host %d"
                            : "Found %d still existing tags for disconnecting host %d",
                 count, int(host));
}
