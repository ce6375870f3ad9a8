// Module RCFG: start-up registration and the per-thread cache of the final-gather declaration.
#include "finalgather/rcfg_module.h"

#include <cstdlib>
#include <cstring>

#include "base/lib/mem/i_mem_allocatable.h"
#include "database/db.h"
#include "database/scene_swap.h"
#include "database/scene_types.h"
#include "finalgather/fg_grid_elements.h"
#include "finalgather/fg_map.h"
#include "maps/map_declaration.h"
#include "maps/map_element.h"
#include "maps/map_impl.h"
#include "runtime/modules.h"
#include "runtime/msg.h"
#include "serial/deserialization_manager.h"

using QV::RCMAP::Map_declaration_impl;
using QV::RCMAP::Map_element_impl;
using QV::RCMAP::Map_impl;

// A free list of equal blocks for the final-gather computation; blocks are made on demand and
// only given back to the heap when the thread's area goes.
struct Fg_block_pool {
    uint32_t block_bytes;
    void* free_list;  // first word of a free block links to the next
};

namespace {

float* g_powers = nullptr;
uint32_t g_power_count = 0;

// Bytes of the zeroed container head that the transaction area owns.
constexpr uint32_t TRANSACTION_CONTAINER_BYTES = 32;

void context_init(void* area)
{
    auto* context = static_cast<Rcfg_context*>(area);
    context->grid_marker = -1;
    context->pool = static_cast<Fg_block_pool*>(QV_ALLOC(sizeof(Fg_block_pool)));
    context->pool->block_bytes = FG_POOL_BLOCK_BYTES;
}

void context_exit(void* area)
{
    auto* context = static_cast<Rcfg_context*>(area);
    delete context->scratch_element;
    context->scratch_element = nullptr;
    delete context->declaration;
    context->declaration = nullptr;
    if (Fg_block_pool* pool = context->pool) {
        while (void* block = pool->free_list) {
            std::memcpy(&pool->free_list, block, sizeof(void*));
            QV_FREE(block);
        }
        QV_FREE(pool);
        context->pool = nullptr;
    }
}

void transaction_init(void* area)
{
    auto* transaction = static_cast<Rcfg_transaction*>(area);
    transaction->state = 0;
    transaction->container = QV_ALLOC(TRANSACTION_CONTAINER_BYTES);
}

void transaction_exit(void* area)
{
    auto* transaction = static_cast<Rcfg_transaction*>(area);
    QV_FREE(transaction->container);
    transaction->container = nullptr;
}

// The records of types 86 and 87 consist of 32-bit words throughout.
void swap_words(Db_record* record, bool swap)
{
    if (swap && record->data)
        qv_scene_swap_32(record->data, record->size / 4);
}

void* grid_border_construct(Db_tag* tag, const Scene_args&)
{
    return qv_db_create(tag, FG_TYPE_GRID_BORDER, FG_GRID_BORDER_BYTES);
}

void grid_border_swap(Db_record* record, bool swap)
{
    if (swap && record->data && record->size >= FG_GRID_BORDER_BYTES)
        qv_scene_swap_layout(record->data, FG_GRID_BORDER_SWAP);
}

// A border gives up one of its two owned tags.
int grid_border_unlink(Db_tag parent, Db_tag child)
{
    Db_record* record = qv_scene_edit(parent);
    int linked = 0;
    if (record->data && record->size >= 8) {
        auto* words = static_cast<uint32_t*>(record->data);
        for (int n = 0; n < 2 && !linked; ++n)
            if (child && words[n] == child) {
                words[n] = 0;
                linked = 1;
            }
    }
    qv_db_unpin(parent);
    return linked;
}

void make_power_table()
{
    if (g_powers)
        return;
    // The length is found in double precision and the entries stored as floats.
    uint32_t count = 0;
    for (double value = 1.0; value > 0.1; value *= 0.6)
        ++count;
    g_powers = static_cast<float*>(QV_ALLOC(count * sizeof(float)));
    double value = 1.0;
    for (uint32_t n = 0; n < count; ++n, value *= 0.6)
        g_powers[n] = float(value);
    g_power_count = count;
}

// The thread's area without the registration walk when it exists already.
Rcfg_context* context_area()
{
    Thread_context* thread = thread_context();
    if (!thread)
        return nullptr;
    if (thread->context_areas && thread->context_areas[MOD_RCFG])
        return static_cast<Rcfg_context*>(thread->context_areas[MOD_RCFG]);
    return static_cast<Rcfg_context*>(mod_context_area(MOD_RCFG));
}

QV::SERIAL::Serializable* construct_general_grid()
{
    return new QV::RCFG::General_grid_dbelement();
}

QV::SERIAL::Serializable* construct_tile_grid()
{
    return new QV::RCFG::Tile_grid_dbelement();
}

}  // namespace

void fg_module_init()
{
    Module_scope scope(MOD_RCFG);
    mod_register_context_area(MOD_RCFG, context_init, context_exit, sizeof(Rcfg_context));
    mod_register_transaction_area(MOD_RCFG, transaction_init, transaction_exit, sizeof(Rcfg_transaction));
    qv_scene_register_type(FG_TYPE_POINTS, nullptr, nullptr, nullptr, swap_words, nullptr);
    qv_scene_register_type(FG_TYPE_POINT_TREE, nullptr, nullptr, nullptr, swap_words, nullptr);
    qv_scene_register_type(FG_TYPE_GRID_BORDER, grid_border_construct, nullptr, nullptr, grid_border_swap,
                           grid_border_unlink);
    make_power_table();
    // The variable steered a sampling density that the presample density option replaced; its
    // value is no longer read, but scripts that still set it should hear about it.
    if (std::getenv("QV_RCFG_RASTER_FACTOR")) {
        msg_info("Environment variable QV_RCFG_RASTER_FACTOR is obsolete, use");
        msg_info("finalgather presample density (linear scale) instead");
    }
    QV::SERIAL::Deserialization_manager* manager = QV::SERIAL::serial_manager();
    manager->register_class(FG_GENERAL_GRID_CLASS_ID, construct_general_grid);
    manager->register_class(FG_TILE_GRID_CLASS_ID, construct_tile_grid);
}

Map_declaration_impl* fg_cached_declaration()
{
    Module_scope scope(MOD_RCFG);
    Rcfg_context* context = context_area();
    if (!context)
        return nullptr;
    if (!context->declaration)
        context->declaration = fg_map_declaration();
    return context->declaration;
}

Map_element_impl* fg_scratch_element()
{
    Module_scope scope(MOD_RCFG);
    Rcfg_context* context = context_area();
    if (!context)
        return nullptr;
    if (!context->scratch_element) {
        if (!context->declaration)
            context->declaration = fg_map_declaration();
        context->scratch_element = new Map_element_impl(context->declaration);
    }
    return context->scratch_element;
}

Fg_point* fg_scratch_point()
{
    Module_scope scope(MOD_RCFG);
    Rcfg_context* context = context_area();
    return context ? &context->scratch_point : nullptr;
}

Map_impl* fg_map_new()
{
    Module_scope scope(MOD_RCFG);
    const Map_declaration_impl* declaration = fg_cached_declaration();
    return declaration ? new Map_impl(*declaration) : new Map_impl();
}

const float* fg_power_table(uint32_t* length)
{
    if (length)
        *length = g_power_count;
    return g_powers;
}

void* fg_block_alloc()
{
    Module_scope scope(MOD_RCFG);
    Rcfg_context* context = context_area();
    if (!context || !context->pool)
        return QV_ALLOC(FG_POOL_BLOCK_BYTES);
    Fg_block_pool* pool = context->pool;
    void* block = pool->free_list;
    if (!block)
        return QV_ALLOC(pool->block_bytes);
    std::memcpy(&pool->free_list, block, sizeof(void*));
    std::memset(block, 0, pool->block_bytes);
    return block;
}

void fg_block_free(void* block)
{
    if (!block)
        return;
    Module_scope scope(MOD_RCFG);
    Rcfg_context* context = context_area();
    if (!context || !context->pool) {
        QV_FREE(block);
        return;
    }
    std::memcpy(block, &context->pool->free_list, sizeof(void*));
    context->pool->free_list = block;
}

void* fg_grid_border_create(uint32_t* tag)
{
    Module_scope scope(MOD_RCFG);
    return qv_scene_create(tag, FG_TYPE_GRID_BORDER);
}

void fg_grid_border_delete(uint32_t tag)
{
    Module_scope scope(MOD_RCFG);
    if (!tag)
        return;
    uint32_t owned[2] = {0, 0};
    if (const void* data = qv_db_access(tag); data && qv_db_size(tag) >= 8)
        std::memcpy(owned, data, sizeof(owned));
    qv_db_unpin(tag);
    for (uint32_t sub : owned)
        if (sub)
            qv_db_delete(sub);
    qv_db_delete(tag);
}
