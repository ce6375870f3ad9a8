#include "tests/mem/mem_fixture.h"

#include <cstdlib>
#include <mutex>

#include "runtime/msg_testing.h"
#include "tests/test_support.h"

namespace {

std::atomic<int> g_failures_left{0};

bool take_failure()
{
    int left = g_failures_left.load();
    while (left > 0 && !g_failures_left.compare_exchange_weak(left, left - 1)) {
    }
    return left > 0;
}

void* test_malloc(size_t size) { return take_failure() ? nullptr : std::malloc(size); }
void* test_realloc(void* p, size_t size) { return take_failure() ? nullptr : std::realloc(p, size); }

// Before any static constructor can allocate: the hooks of this binary can fail on demand.
__attribute__((constructor(101))) void install_failing_hooks()
{
    mem_set_hooks(test_malloc, test_realloc, std::free);
}

std::mutex g_lines_lock;
std::vector<Captured_line> g_lines;

void collect(uint32_t level, const char* line, const char* text, int32_t number)
{
    std::lock_guard<std::mutex> hold(g_lines_lock);
    g_lines.push_back(Captured_line{level, number, line, text});
}

void throwing_fatal(int) { throw Fatal_called{}; }

}  // namespace

void fail_heap_calls(int count) { g_failures_left.store(count); }

Line_capture::Line_capture()
{
    std::lock_guard<std::mutex> hold(g_lines_lock);
    g_lines.clear();
    qv_errorhandler(collect);
}

Line_capture::~Line_capture() { qv_errorhandler(nullptr); }

const std::vector<Captured_line>& Line_capture::lines() const { return g_lines; }

int Line_capture::count_text(const std::string& text) const
{
    std::lock_guard<std::mutex> hold(g_lines_lock);
    int count = 0;
    for (const Captured_line& line : g_lines)
        count += line.text == text;
    return count;
}

void Mem_test::SetUp()
{
    qv_test_init();
    mem_init();
    msg_set_levels(0x7f);
    mem_testing_reset_limits();
    mem_testing_set_retry_sleep(0);
    msg_set_fatal_handler(throwing_fatal);
}

void Mem_test::TearDown()
{
    fail_heap_calls(0);
    mem_testing_reset_limits();
    msg_testing_reset_all();
}
