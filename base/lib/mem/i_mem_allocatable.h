// The memory manager's interface: zeroing allocation charged to the calling module.
//
// mem_alloc never returns null for a non-zero size. Inside MEM's own Module_scope the charge
// goes to previous_module, i.e. to whoever called into the manager. `file` and `line` are only
// used in messages and may be null / 0.
#pragma once

#include <cstddef>
#include <cstdint>

using Mem_malloc_fn = void* (*)(size_t);
using Mem_realloc_fn = void* (*)(void*, size_t);
using Mem_free_fn = void (*)(void*);

int mem_set_hooks(Mem_malloc_fn malloc_fn, Mem_realloc_fn realloc_fn, Mem_free_fn free_fn);
void mem_init();
void mem_exit();
bool mem_started();

void* mem_alloc(const char* file, int line, size_t size);
void mem_free(const char* file, int line, void* p);
void* mem_realloc(const char* file, int line, void* p, size_t size);
char* mem_strdup(const char* file, int line, const char* text);
// Size asked for at allocation; 0 for null.
size_t mem_size(const void* p);

// The runtime's own records: straight to the heap hook, charged to no module, usable before
// MEM has started. mem_raw_alloc never returns null.
void* mem_raw_alloc(const char* file, int line, size_t size);
void* mem_raw_realloc(const char* file, int line, void* p, size_t size);
void mem_raw_free(const char* file, int line, void* p);

// Totals in bytes (kept internally in 8-byte words).
uint64_t mem_current_bytes();
uint64_t mem_peak_bytes();
uint64_t mem_module_bytes(int module);

using Mem_flush_callback = size_t (*)(size_t bytes);
void mem_register_flush(int id, Mem_flush_callback callback);

#define QV_ALLOC(size) mem_alloc(__FILE__, __LINE__, (size))
#define QV_FREE(p) mem_free(__FILE__, __LINE__, (p))
#define QV_REALLOC(p, size) mem_realloc(__FILE__, __LINE__, (p), (size))
