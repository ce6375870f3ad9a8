// QV::LIB::Paged_array: a growable array of fixed-size records whose storage never moves.
//
// Records lie in blocks of 256, so a pointer to a record stays valid while the array grows and a
// very large array needs no contiguous memory. It is a database element (class "=PAR") so that
// it can be stored, copied to other hosts and serialized with byte swapping.
//
// Ownership: the array owns its blocks and its extra block. No locks: whoever owns the array
// (a kd-tree handle, or the thread holding the pinned element) decides who writes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "database/element.h"

namespace QV::SERIAL { class Serializer; class Deserializer; }

namespace QV::LIB {

constexpr uint32_t PAGED_ARRAY_CLASS_ID = 0x3D504152;  // "=PAR"
constexpr uint32_t PAGED_ARRAY_BLOCK_RECORDS = 256;
constexpr uint32_t PAGED_ARRAY_BLOCK_SHIFT = 8;

// A medium that carries records between hosts of different byte order says so through this
// interface; a medium without it is taken as same-order and nothing is swapped.
class Byte_order_medium {
public:
    virtual ~Byte_order_medium() = default;
    // True when the other end of the medium (destination on writing, source on reading) has
    // the opposite byte order.
    virtual bool other_byte_order() const = 0;
};

class Paged_array : public QV::DB::Element<Paged_array, PAGED_ARRAY_CLASS_ID, QV::DB::Element_base> {
public:
    // Null texts count as empty. `extra` (optional) is copied.
    Paged_array(uint32_t element_size = 0, const char* swap_string = nullptr, const void* extra = nullptr,
                uint32_t extra_size = 0, const char* extra_swap_string = nullptr);
    // Deep copy: every block and the extra block are duplicated.
    Paged_array(const Paged_array& other);
    Paged_array& operator=(const Paged_array&) = delete;
    ~Paged_array() override;

    // Stores the texts; copies the block when `extra` is not null and `extra_size` is not 0,
    // otherwise clears it.
    void set_extra(const char* swap_string, const void* extra, uint32_t extra_size,
                   const char* extra_swap_string);

    // Capacity becomes `count` rounded up to a multiple of 256 when it is smaller; new blocks are
    // not cleared. Existing records never move.
    void reserve(uint32_t count);
    // reserve, then sets the count. Never gives memory back.
    void resize(uint32_t count);

    // Address of record `index`; no range check.
    uint8_t* at(uint32_t index)
    {
        return pages_[index >> PAGED_ARRAY_BLOCK_SHIFT] + (index & (PAGED_ARRAY_BLOCK_RECORDS - 1)) * element_size_;
    }
    const uint8_t* at(uint32_t index) const
    {
        return pages_[index >> PAGED_ARRAY_BLOCK_SHIFT] + (index & (PAGED_ARRAY_BLOCK_RECORDS - 1)) * element_size_;
    }

    // Frees block `block` (records block * 256 onwards, 256 of them) ahead of the array's end,
    // for an array that is being drained in order and then dropped: its records must not be
    // read, copied or serialized again.
    void release_block(uint32_t block);

    // Takes over the blocks and the count of `other`, an array of the same record size, in place
    // of this array's records, which must be none; `other` is left empty. No record is copied.
    void take_records(Paged_array& other);

    uint32_t element_size() const { return element_size_; }
    uint32_t count() const { return count_; }
    uint32_t capacity() const { return capacity_; }
    const std::string& swap_string() const { return swap_string_; }
    const void* extra() const { return extra_; }
    uint32_t extra_size() const { return extra_size_; }
    const std::string& extra_swap_string() const { return extra_swap_string_; }
    size_t block_count() const { return pages_.size(); }

    // Payload: element_size, count, swap string, extra size, [extra swap string, extra bytes],
    // then every record in index order. Records (and the extra block) travel in the byte order
    // of the receiving host: a medium that reports the other byte order gets swapped copies, and
    // on reading they are swapped back; the array itself never changes while it is written.
    const void* serialize(QV::SERIAL::Serializer* serializer) const override;
    void* deserialize(QV::SERIAL::Deserializer* deserializer) override;

private:
    void free_storage();

    uint32_t element_size_;           // record size in bytes
    std::string swap_string_;         // byte-swap layout of one record; empty: no swapping
    std::vector<uint8_t*> pages_;     // blocks of 256 records, element_size * 256 bytes each
    uint32_t count_ = 0;              // records in use
    uint32_t capacity_ = 0;           // always a multiple of 256
    uint8_t* extra_ = nullptr;        // optional block owned by the array
    uint32_t extra_size_ = 0;
    std::string extra_swap_string_;   // byte-swap layout of the extra block
};

}  // namespace QV::LIB
