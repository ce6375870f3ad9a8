// Balancing: the first reader after any writer merges every pending chunk behind the existing
// records, optionally filtering them, and rebuilds the implicit tree over the whole array.
#include <algorithm>
#include <cstring>

#include "containers/kdtree_internal.h"
#include "containers/kdtree_tree.h"
#include "containers/paged_array.h"
#include "database/db.h"
#include "database/transaction.h"
#include "runtime/msg.h"

namespace QV::LIB::detail {

namespace {

constexpr uint32_t POSITION_BYTES = 3 * sizeof(float);

uint32_t axes_bytes(uint32_t count) { return (count + 3u) & ~3u; }

// Releases the header's lock on every exit path.
class Header_lock {
public:
    explicit Header_lock(uint32_t tag) : tag_(tag) { qv_db_lock(tag_); }
    ~Header_lock() { qv_db_unlock(tag_); }
    Header_lock(const Header_lock&) = delete;
    Header_lock& operator=(const Header_lock&) = delete;

private:
    uint32_t tag_;
};

}  // namespace

void delete_chunk(const Kdtree_chunk& chunk)
{
    if (chunk.positions)
        qv_db_delete(chunk.positions);
    if (chunk.data)
        QV::DB::get_transaction()->remove(chunk.data);
}

void balance(uint32_t tag, Kdtree_filter filter, void* filter_argument)
{
    Header_lock lock(tag);
    auto* header = static_cast<Kdtree_header*>(qv_db_access(tag));
    // Another reader may have balanced while this one waited at the lock.
    if (header->chunk_count == 0 && header->axes != 0)
        return;

    if (header->axes) {
        qv_db_delete(header->axes);
        header->axes = 0;
    }

    uint64_t total = header->count;
    for (uint32_t c = 0; c < header->chunk_count; ++c)
        total += header->chunks()[c].count;
    if (total > 0xFFFFFFFFu / POSITION_BYTES)
        msg_fatal_n(56, "kdtree 0x%x: too many elements to balance", tag);
    msg_debug("balancing kdtree 0x%x with %i elements", tag, int(total));

    // Room for every record behind the existing ones.
    auto* positions = static_cast<float*>(qv_db_realloc(header->positions, uint32_t(total) * POSITION_BYTES));
    // The data array grows a block at a time as records arrive, so that it can take over the
    // memory of the chunk blocks drained before.
    auto* data = static_cast<Paged_array*>(qv_db_access(header->data));
    const uint32_t record_size = data->element_size();

    // Chunks from the last to the first, each in its own order. A record is copied into place
    // and filtered there, so a dropped one is simply overwritten by the next. A tree filled by
    // one writer and balanced without a filter takes over its chunk's blocks as they are.
    uint32_t kept = header->count;
    for (uint32_t c = header->chunk_count; c-- > 0;) {
        const Kdtree_chunk chunk = header->chunks()[c];
        const auto* chunk_positions = static_cast<const float*>(qv_db_access(chunk.positions));
        auto* chunk_data = static_cast<Paged_array*>(qv_db_access(chunk.data));
        const uint32_t count = std::min(chunk.count, chunk_data->count());
        const void* blob = chunk_data->extra();
        const bool take = kept == 0 && header->chunk_count == 1 && !filter && chunk_data->element_size() == record_size;
        if (take) {
            data->take_records(*chunk_data);
            data->resize(count);
            std::memcpy(positions, chunk_positions, size_t(count) * POSITION_BYTES);
            kept = count;
        }
        for (uint32_t r = take ? count : 0; r < count; ++r) {
            if (kept % PAGED_ARRAY_BLOCK_RECORDS == 0)
                data->reserve(kept + 1);
            float* position = positions + 3 * size_t(kept);
            uint8_t* record = data->at(kept);
            std::memcpy(position, chunk_positions + 3 * size_t(r), POSITION_BYTES);
            std::memcpy(record, chunk_data->at(r), std::min(record_size, chunk_data->element_size()));
            // The chunk is deleted below; a drained block goes now, so that the records are
            // not held twice while they are merged.
            if ((r + 1) % PAGED_ARRAY_BLOCK_RECORDS == 0)
                chunk_data->release_block(r >> PAGED_ARRAY_BLOCK_SHIFT);
            if (filter && !filter(filter_argument, record, position, blob))
                continue;
            ++kept;
        }
        qv_db_unpin(chunk.positions);
        delete_chunk(chunk);
    }
    const bool dropped = kept != total;

    header->count = kept;
    header->chunk_count = 0;
    header = static_cast<Kdtree_header*>(qv_db_realloc(tag, kdtree_header_bytes(0)));
    data->resize(kept);

    Db_tag axes_tag = 0;
    auto* axes = static_cast<uint8_t*>(qv_db_create(&axes_tag, KDTREE_TYPE_AXES, axes_bytes(kept)));
    build_tree(positions, *data, axes, kept);
    header->axes = axes_tag;

    if (dropped)
        qv_db_realloc(header->positions, kept * POSITION_BYTES);
}

}  // namespace QV::LIB::detail
