// Per-module accounts: each thread charges its own MEM context area without a lock, and the
// changes are merged into the process-wide table when the thread detaches its areas or ends.
#include <cstring>

#include "base/lib/mem/mem_blocks.h"
#include "runtime/msg.h"

namespace qv_mem_detail {

namespace {

std::mutex g_table_lock;
Module_account g_table[MODULE_TABLE_ROWS];

void charge_table(int module, int64_t words, int64_t allocations)
{
    std::lock_guard<std::mutex> hold(g_table_lock);
    Module_account& account = g_table[module];
    account.words += words;
    account.allocations += allocations;
    raise_peaks(account);
}

// A new area starts from the process-wide view, so its peaks are meaningful at once.
void context_init(void* area)
{
    auto* context = static_cast<Mem_context*>(area);
    std::lock_guard<std::mutex> hold(g_table_lock);
    std::memcpy(context->accounts, g_table, sizeof g_table);
    for (int id = 0; id < MODULE_TABLE_ROWS; ++id) {
        context->base_words[id] = g_table[id].words;
        context->base_allocations[id] = g_table[id].allocations;
    }
}

void merge(void* area)
{
    auto* context = static_cast<Mem_context*>(area);
    // Merging runs on the area's own thread, before the area is detached or freed; the next
    // charge looks it up again and marks it dirty.
    if (t_cache.area == context)
        t_cache.area = nullptr;
    if (!context->dirty)
        return;
    std::lock_guard<std::mutex> hold(g_table_lock);
    for (int id = 0; id < MODULE_TABLE_ROWS; ++id) {
        Module_account& row = g_table[id];
        Module_account& own = context->accounts[id];
        row.words += own.words - context->base_words[id];
        row.allocations += own.allocations - context->base_allocations[id];
        raise_peaks(row);
        if (own.peak_words > row.peak_words)
            row.peak_words = own.peak_words;
        if (own.peak_allocations > row.peak_allocations)
            row.peak_allocations = own.peak_allocations;
        own = row;
        context->base_words[id] = row.words;
        context->base_allocations[id] = row.allocations;
    }
    context->dirty = false;
}

Mem_context* own_context()
{
    Thread_context* thread = thread_context();
    if (!thread)
        return nullptr;
    if (thread->context_areas && thread->context_areas[MOD_MEM])
        return static_cast<Mem_context*>(thread->context_areas[MOD_MEM]);
    return static_cast<Mem_context*>(mod_context_area(MOD_MEM));
}

}  // namespace

void raise_peaks(Module_account& account)
{
    if (account.words > account.peak_words)
        account.peak_words = account.words;
    if (account.allocations > account.peak_allocations)
        account.peak_allocations = account.allocations;
}

Mem_context* thread_area()
{
    Thread_context* thread = thread_context();
    Thread_cache& cache = t_cache;
    if (cache.area && cache.context == thread)
        return cache.area;
    Mem_context* area = own_context();
    if (area) {
        // The hot paths charge without marking; an area is dirty from the time it is cached.
        area->dirty = true;
        cache.area = area;
        cache.context = thread;
    }
    return area;
}

void charge(int module, int64_t words, int64_t allocations)
{
    if (module < 0 || module >= MODULE_TABLE_ROWS)
        module = 0;
    Mem_context* context = g_started.load(std::memory_order_relaxed) ? thread_area() : nullptr;
    if (!context) {
        charge_table(module, words, allocations);
        return;
    }
    charge_area(context, module, words, allocations);
}

void accounts_register_area()
{
    mod_register_context_area(MOD_MEM, context_init, merge, sizeof(Mem_context));
    mod_set_context_fold_hook(merge);
}

void accounts_snapshot(Module_account* out)
{
    mem_merge_thread_accounts();
    std::lock_guard<std::mutex> hold(g_table_lock);
    std::memcpy(out, g_table, sizeof g_table);
}

}  // namespace qv_mem_detail

using namespace qv_mem_detail;

void mem_merge_thread_accounts()
{
    Thread_context* thread = thread_context();
    if (thread && thread->context_areas && thread->context_areas[MOD_MEM])
        merge(thread->context_areas[MOD_MEM]);
}

namespace {

Module_account module_view(int module)
{
    Module_account view{};
    if (module < 0 || module >= MODULE_TABLE_ROWS)
        return view;
    Module_account table[MODULE_TABLE_ROWS];
    accounts_snapshot(table);
    return table[module];
}

}  // namespace

uint64_t mem_module_bytes(int module)
{
    int64_t words = module_view(module).words;
    return words > 0 ? uint64_t(words) * 8 : 0;
}

uint64_t mem_module_peak_bytes(int module)
{
    int64_t words = module_view(module).peak_words;
    return words > 0 ? uint64_t(words) * 8 : 0;
}

int64_t mem_module_allocations(int module) { return module_view(module).allocations; }

void mem_summary()
{
    Module_scope scope(MOD_MEM);
    if (mem_started()) {
        Module_account table[MODULE_TABLE_ROWS];
        accounts_snapshot(table);
        int64_t total = 0;
        for (const Module_account& row : table)
            total += row.words > 0 ? row.words : 0;
        msg_info("  module    max MB    curr MB    %s", total ? "%bytes" : "");
        int64_t other = 0;
        for (int id = 1; id <= MODULE_LAST_ID; ++id) {
            const Module_account& row = table[id];
            int64_t words = row.words > 0 ? row.words : 0;
            if (row.peak_words < int64_t(WORDS_PER_MB)) {
                other += words;
                continue;
            }
            msg_info("%8.8s %9d %9d %9.2f", module_name(id), int(row.peak_words >> 17), int(words >> 17),
                     total ? 100.0 * double(words) / double(total) : 0.0);
        }
        other += table[0].words > 0 ? table[0].words : 0;
        msg_info("   other           %9d %9.2f", int(other >> 17),
                 total ? 100.0 * double(other) / double(total) : 0.0);
        msg_info("   total           %9d    %6.2f", int(total >> 17), total ? 100.0 : 0.0);
        msg_info("%s", "");
    }
    msg_info("  max heap memory approx. %d MB, now approx. %d MB", int(mb_of_words(g_peak_words.load())),
             int(mb_of_words(g_current_words.load())));
}
