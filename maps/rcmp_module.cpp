#include "maps/rcmp_module.h"

#include "base/lib/mem/i_mem_allocatable.h"
#include "maps/map_impl.h"
#include "maps/map_manager.h"
#include "maps/map_page_table.h"
#include "runtime/modules.h"
#include "serial/deserialization_manager.h"

using QV::RCMAP::Map_manager;
using QV::RCMAP::Map_page_table;

void rcmp_context_init(void* area)
{
    auto* context = static_cast<Rcmp_context*>(area);
    if (context->table)
        return;
    Map_manager& manager = Map_manager::instance();
    context->table = new Map_page_table(manager.thread_table_capacity());
    manager.register_table(context->table);
}

void rcmp_context_exit(void* area)
{
    auto* context = static_cast<Rcmp_context*>(area);
    if (!context->table)
        return;
    Map_manager::instance().unregister_table(context->table);
    delete context->table;
    context->table = nullptr;
}

namespace {

void session_init(void* area)
{
    static_cast<Rcmp_session*>(area)->manager = &Map_manager::instance();
}

void session_exit(void* area)
{
    static_cast<Rcmp_session*>(area)->manager = nullptr;
}

} // namespace

void rcmp_init(bool bypass_settings)
{
    Module_scope scope(MOD_RCMP);
    mod_register_context_area(MOD_RCMP, rcmp_context_init, rcmp_context_exit, sizeof(Rcmp_context));
    mod_register_session_area(MOD_RCMP, session_init, session_exit, sizeof(Rcmp_session));
    Map_manager::instance().init(bypass_settings);
    mem_register_flush(MOD_RCMP, &Map_manager::flush_callback);
    // Maps arriving from another host are rebuilt through this constructor.
    QV::SERIAL::serial_manager()->register_class(QV::RCMAP::Map_impl::CLASS_ID,
                                                  &QV::DB::construct_element<QV::RCMAP::Map_impl>);
}

void rcmp_exit()
{
    Module_scope scope(MOD_RCMP);
    mem_register_flush(MOD_RCMP, nullptr);
    Map_manager& manager = Map_manager::instance();
    manager.shutdown();
    manager.flush(0);
}
