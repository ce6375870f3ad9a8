#include "containers/paged_array.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "base/lib/mem/i_mem_allocatable.h"
#include "containers/swap_layout.h"
#include "serial/serializer.h"

namespace QV::LIB {

namespace {

std::string text_or_empty(const char* text) { return text ? std::string(text) : std::string(); }

// Asked once per array, not per record.
template <class Medium>
bool medium_swaps(const Medium* medium)
{
    auto* order = dynamic_cast<const Byte_order_medium*>(medium);
    return order && order->other_byte_order();
}

// Writes `size` bytes through a scratch copy swapped by `layout`, so the source never changes.
void write_swapped(QV::SERIAL::Serializer* serializer, const uint8_t* bytes, uint32_t size,
                   const std::string& layout, bool swap, uint8_t* scratch)
{
    if (swap && !layout.empty()) {
        std::memcpy(scratch, bytes, size);
        swap_by_layout(scratch, size, layout.c_str());
        serializer->write(static_cast<const void*>(scratch), size);
    } else {
        serializer->write(static_cast<const void*>(bytes), size);
    }
}

}  // namespace

Paged_array::Paged_array(uint32_t element_size, const char* swap_string, const void* extra,
                         uint32_t extra_size, const char* extra_swap_string)
    : element_size_(element_size)
{
    set_extra(swap_string, extra, extra_size, extra_swap_string);
}

Paged_array::Paged_array(const Paged_array& other)
    : QV::DB::Element<Paged_array, PAGED_ARRAY_CLASS_ID, QV::DB::Element_base>(other),
      element_size_(other.element_size_),
      swap_string_(other.swap_string_),
      count_(other.count_),
      capacity_(other.capacity_),
      extra_size_(other.extra_size_),
      extra_swap_string_(other.extra_swap_string_)
{
    const size_t block_bytes = size_t(element_size_) * PAGED_ARRAY_BLOCK_RECORDS;
    pages_.reserve(other.pages_.size());
    for (const uint8_t* block : other.pages_) {
        auto* copy = static_cast<uint8_t*>(QV_ALLOC(block_bytes));
        std::memcpy(copy, block, block_bytes);
        pages_.push_back(copy);
    }
    if (other.extra_) {
        extra_ = static_cast<uint8_t*>(QV_ALLOC(extra_size_));
        std::memcpy(extra_, other.extra_, extra_size_);
    }
}

Paged_array::~Paged_array() { free_storage(); }

void Paged_array::release_block(uint32_t block)
{
    if (block < pages_.size() && pages_[block]) {
        QV_FREE(pages_[block]);
        pages_[block] = nullptr;
    }
}

void Paged_array::take_records(Paged_array& other)
{
    for (uint8_t* block : pages_)
        if (block)
            QV_FREE(block);
    pages_ = std::move(other.pages_);
    other.pages_.clear();
    count_ = std::exchange(other.count_, 0);
    capacity_ = std::exchange(other.capacity_, 0);
}

void Paged_array::free_storage()
{
    for (uint8_t* block : pages_)
        if (block)
            QV_FREE(block);
    pages_.clear();
    count_ = 0;
    capacity_ = 0;
    if (extra_)
        QV_FREE(extra_);
    extra_ = nullptr;
    extra_size_ = 0;
}

void Paged_array::set_extra(const char* swap_string, const void* extra, uint32_t extra_size,
                            const char* extra_swap_string)
{
    swap_string_ = text_or_empty(swap_string);
    extra_swap_string_ = text_or_empty(extra_swap_string);
    if (extra_)
        QV_FREE(extra_);
    extra_ = nullptr;
    extra_size_ = 0;
    if (extra && extra_size != 0) {
        extra_ = static_cast<uint8_t*>(QV_ALLOC(extra_size));
        std::memcpy(extra_, extra, extra_size);
        extra_size_ = extra_size;
    }
}

void Paged_array::reserve(uint32_t count)
{
    if (capacity_ >= count)
        return;
    const uint64_t rounded = (uint64_t(count) + PAGED_ARRAY_BLOCK_RECORDS - 1) & ~uint64_t(PAGED_ARRAY_BLOCK_RECORDS - 1);
    const size_t blocks = size_t(rounded >> PAGED_ARRAY_BLOCK_SHIFT);
    // A zero element size still gets blocks so that at() stays a valid address computation.
    const size_t block_bytes = size_t(element_size_ ? element_size_ : 1) * PAGED_ARRAY_BLOCK_RECORDS;
    pages_.reserve(blocks);
    while (pages_.size() < blocks)
        pages_.push_back(static_cast<uint8_t*>(QV_ALLOC(block_bytes)));
    // A count near 2^32 rounds past the u32 range; the blocks exist, the capacity saturates.
    capacity_ = rounded > 0xFFFFFFFFu ? 0xFFFFFF00u : uint32_t(rounded);
}

void Paged_array::resize(uint32_t count)
{
    reserve(count);
    count_ = count;
}

const void* Paged_array::serialize(QV::SERIAL::Serializer* serializer) const
{
    const bool swap = medium_swaps(serializer);
    serializer->write(element_size_);
    serializer->write(count_);
    serializer->write(swap_string_);
    serializer->write(extra_size_);

    std::vector<uint8_t> scratch(std::max(element_size_, extra_size_));
    if (extra_size_ != 0) {
        serializer->write(extra_swap_string_);
        write_swapped(serializer, extra_, extra_size_, extra_swap_string_, swap, scratch.data());
    }
    for (uint32_t i = 0; i < count_; ++i)
        write_swapped(serializer, at(i), element_size_, swap_string_, swap, scratch.data());
    return this + 1;
}

void* Paged_array::deserialize(QV::SERIAL::Deserializer* deserializer)
{
    free_storage();
    const bool swap = medium_swaps(deserializer);

    uint32_t element_size = 0;
    uint32_t count = 0;
    uint32_t extra_size = 0;
    deserializer->read(&element_size);
    deserializer->read(&count);
    deserializer->read(&swap_string_);
    deserializer->read(&extra_size);
    element_size_ = element_size;

    if (extra_size != 0) {
        deserializer->read(&extra_swap_string_);
        // A damaged stream delivers zeros after its end, so the sizes below are bounded by what
        // the medium could actually deliver: stop at the first short read.
        if (!deserializer->is_valid())
            return this + 1;
        extra_ = static_cast<uint8_t*>(QV_ALLOC(extra_size));
        extra_size_ = extra_size;
        if (deserializer->read(static_cast<void*>(extra_), extra_size) != extra_size)
            return this + 1;
        if (swap && !extra_swap_string_.empty())
            swap_by_layout(extra_, extra_size_, extra_swap_string_.c_str());
    } else {
        extra_swap_string_.clear();
    }

    // Zero-byte records carry nothing to restore, and a count for them could only come from a
    // damaged stream that would otherwise buy blocks for billions of empty records.
    if (!deserializer->is_valid() || element_size_ == 0)
        return this + 1;
    // Grow block by block, so a count from a damaged stream costs memory only for records that
    // actually arrive.
    for (uint32_t i = 0; i < count; ++i) {
        if ((i & (PAGED_ARRAY_BLOCK_RECORDS - 1)) == 0)
            reserve(i + 1);
        uint8_t* record = pages_[i >> PAGED_ARRAY_BLOCK_SHIFT] + (i & (PAGED_ARRAY_BLOCK_RECORDS - 1)) * element_size_;
        if (deserializer->read(static_cast<void*>(record), element_size_) != element_size_)
            break;
        if (swap && !swap_string_.empty())
            swap_by_layout(record, element_size_, swap_string_.c_str());
        count_ = i + 1;
    }
    return this + 1;
}

}  // namespace QV::LIB
