// Module RCMP (id 82): the map cache's place in the module frame.
//
// The start function resolves the cache settings, registers the context area that holds each
// thread's page table and the session area, and hands the memory manager the cache's flush
// callback. A thread's table goes back to the cache when its context area is destroyed.
#pragma once

namespace QV::RCMAP {
class Map_page_table;
class Map_manager;
}

// The RCMP context area: one per thread, created on first request.
struct Rcmp_context {
    QV::RCMAP::Map_page_table* table;   // owned; registered with the Map_manager
};

// The RCMP session area (null in the tool, which registers it after the global areas exist).
struct Rcmp_session {
    QV::RCMAP::Map_manager* manager;
};

// `bypass_settings` set: the cache limit is the available memory and QV_MAP_CACHE_SIZE, the
// registry entry and the option are not consulted (programs that only process maps).
void rcmp_init(bool bypass_settings);
// Prints the totals when statistics are on, writes the QV_DUMP trace, frees the cache.
void rcmp_exit();

void rcmp_context_init(void* area);
void rcmp_context_exit(void* area);
