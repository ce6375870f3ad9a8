// The per-page part of a full build: every staged page gets its tree and lands in its final
// page. Threads share nothing but the cache: each has its own page table (so it never gives
// back another thread's pages) and its own page buffer and construction scratch.
#include <cstring>
#include <functional>
#include <latch>
#include <vector>

#include "base/lib/mem/i_mem_allocatable.h"
#include "maps/map_bvh.h"
#include "maps/map_manager.h"
#include "maps/map_page_store.h"
#include "maps/map_page_table.h"
#include "runtime/modules.h"
#include "runtime/threads.h"

namespace QV::RCMAP {

void map_run_threads(uint32_t threads, const std::function<void(uint32_t)>& work)
{
    if (threads <= 1) {
        work(0);
        return;
    }
    // Workers enter through the thread table and are not joined: each one counts the latch
    // down as its very last act, so nothing of a worker runs on once the wait is over. A
    // worker whose row or start fails runs here instead.
    struct Worker_start {
        const std::function<void(uint32_t)>* work;
        uint32_t index;
    };
    std::latch done(threads - 1);
    std::vector<Worker_start> starts(threads);
    Thread_function worker = [](void* raw) {
        auto* start = static_cast<Worker_start*>(raw);
        Module_scope worker_scope(MOD_RCMP);
        (*start->work)(start->index);
    };
    auto count_down = [](void* latch) { static_cast<std::latch*>(latch)->count_down(); };
    for (uint32_t t = 1; t < threads; ++t) {
        starts[t] = {&work, t};
        int row = thread_alloc(worker, &starts[t], false);
        if (row >= 0)
            thread_notify_end(row, count_down, &done);
        if (row < 0 || !thread_start(row)) {
            worker(&starts[t]);
            done.count_down();
        }
    }
    work(0);
    done.wait();
}

template <uint32_t N>
struct Map_page_bvh_job<N>::Thread_state {
    Map_page_table* table;
    uint8_t* buffer;               // one file page
    Map_bvh_scratch* scratch;
};

template <uint32_t N>
Map_page_bvh_job<N>::Map_page_bvh_job(uint32_t threads, Map_page_store* target, Map_page_store* staged,
                                      uint32_t pages, uint32_t first_staged_page, uint32_t elements_per_page,
                                      uint32_t last_page_count)
    : threads_(threads ? threads : 1), store_(target), staged_(staged), pages_(pages),
      first_staged_page_(first_staged_page), elements_per_page_(elements_per_page), last_page_count_(last_page_count)
{
}

template <uint32_t N>
Map_page_bvh_job<N>::Map_page_bvh_job(const Map_page_bvh_job& other)
    : QV::SCHED::Job(other), threads_(other.threads_), store_(other.store_), staged_(other.staged_),
      pages_(other.pages_), first_staged_page_(other.first_staged_page_),
      elements_per_page_(other.elements_per_page_), last_page_count_(other.last_page_count_),
      particle_info_(other.particle_info_), debug_names_(other.debug_names_)
{
}

template <uint32_t N>
Map_page_bvh_job<N>::~Map_page_bvh_job() = default;

template <uint32_t N>
void Map_page_bvh_job<N>::run_thread(uint32_t t)
{
    Thread_state& state = *states_[t];
    uint32_t element_bytes = store_->element_bytes;
    for (uint32_t i = t; i < pages_; i += threads_) {
        uint32_t count = i + 1 == pages_ ? last_page_count_ : elements_per_page_;
        if (staged_ == store_) {
            // A build in place has its staged pages in the target store: the page is built
            // where it is.
            uint8_t* page = store_->get_page(i, false, state.table);
            map_page_bvh_build<N>(page, count, elements_per_page_, element_bytes, nullptr, *state.scratch);
            continue;
        }
        // The staged page is only read (through the thread's buffer), so it never becomes dirty
        // and never has to go to the swap file again.
        const uint8_t* staged = staged_->get_page(first_staged_page_ + i, true, state.table);
        memcpy(state.buffer, staged, MAP_FILE_PAGE_BYTES);
        // The staged page is done with: its buffer serves the target page below, so the map is
        // not held twice at the end of the build. Only a cache page of one file page is
        // certain to belong to this thread alone.
        if (staged_->file_pages_per_cache_page == 1)
            Map_manager::instance().discard_page(staged_, first_staged_page_ + i);
        // Fetched last: nothing else is fetched before the build has written it.
        uint8_t* target = store_->get_page(i, false, state.table);
        map_page_bvh_build<N>(state.buffer, count, elements_per_page_, element_bytes, target, *state.scratch);
    }
}

template <uint32_t N>
QV::DB::Element_base* Map_page_bvh_job<N>::execute(QV::SCHED::Job_execution_context*)
{
    Module_scope scope(MOD_RCMP);
    uint32_t threads = threads_ < pages_ ? threads_ : (pages_ ? pages_ : 1);
    Map_manager& manager = Map_manager::instance();
    std::vector<Thread_state> states(threads);
    std::vector<Thread_state*> pointers(threads);
    for (uint32_t t = 0; t < threads; ++t) {
        states[t].table = new Map_page_table(manager.thread_table_capacity());
        states[t].buffer = static_cast<uint8_t*>(QV_ALLOC(MAP_FILE_PAGE_BYTES));
        states[t].scratch = map_bvh_scratch_create();
        pointers[t] = &states[t];
    }
    states_ = pointers.data();
    uint32_t saved_threads = threads_;
    threads_ = threads;
    map_run_threads(threads, [this](uint32_t t) { run_thread(t); });
    threads_ = saved_threads;
    for (Thread_state& state : states) {
        delete state.table;   // gives its pages back to the cache
        QV_FREE(state.buffer);
        map_bvh_scratch_destroy(state.scratch);
    }
    states_ = nullptr;
    return nullptr;
}

template class Map_page_bvh_job<1>;
template class Map_page_bvh_job<2>;
template class Map_page_bvh_job<3>;
template class Map_page_bvh_job<4>;
template class Map_page_bvh_job<5>;
template class Map_page_bvh_job<6>;

} // namespace QV::RCMAP
