// Shared set-up of the memory manager's tests: heap hooks that can be told to fail, a capture
// of the lines MEM prints, and a fixture with MEM started.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/lib/mem/i_mem_allocatable.h"
#include "base/lib/mem/mem_internal.h"
#include "base/lib/mem/mem_testing.h"
#include "runtime/msg.h"

// The next `count` calls of the malloc / realloc hooks give null.
void fail_heap_calls(int count);

struct Captured_line {
    uint32_t level;
    int32_t number;
    std::string line;
    std::string text;
};

// Collects every message line while it lives.
class Line_capture {
public:
    Line_capture();
    ~Line_capture();
    const std::vector<Captured_line>& lines() const;
    int count_text(const std::string& text) const;
};

// Thrown by the fatal handler that the fixture installs.
struct Fatal_called {};

class Mem_test : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
};

inline bool from_block(const void* p) { return qv_mem_detail::header_of(p)->from_block != 0; }
