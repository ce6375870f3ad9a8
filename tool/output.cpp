// Output: the map under a tag goes to a current map file, or with legacy set to a classic file
// through the kd-tree store. Failures are reported by the writers; the caller learns nothing.
#include <unistd.h>

#include <condition_variable>
#include <latch>
#include <mutex>
#include <vector>
#ifdef __GLIBC__
#include <malloc.h>
#endif

#include "containers/kdtree.h"
#include "finalgather/fg_file.h"
#include "finalgather/fg_map.h"
#include "maps/map_dbhandle.h"
#include "maps/map_element.h"
#include "maps/map_impl.h"
#include "maps/map_iterator.h"
#include "maps/map_manager.h"
#include "maps/map_page_store.h"
#include "runtime/paths.h"
#include "runtime/threads.h"
#include "tool/stages.h"

using namespace QV::RCMAP;

namespace {

// Type 1 kd-tree whose records are words 3 to 25 of a point.
constexpr int KDTREE_TYPE = 1;
constexpr uint32_t KDTREE_PAYLOAD_BYTES = 92;
// Discarded pages' buffers kept for reuse before they go back to the memory manager.
constexpr uint32_t SPARE_BUFFERS = 16;

void save_current(const char* path, Tag tag)
{
    Edit_map_dbhandle_impl handle(tag);
    Map_impl* map = handle.get_map();
    if (!map)
        return;
    // The earlier stages switched it off; the write builds the hierarchy and stores it.
    map->bvh_enabled = true;
    // The map layer opens a file for writing under the name it is given, so the substituted
    // name is made here; the classic writer substitutes on its own.
    char name[PATH_CALLER_BUFFER];
    path_substitute(name, path, sizeof name);
    map->write(name, qv::shader_v3::MAP_FORMAT_BINARY, true);
}

// The map walk's points on their way to the kd-tree writer, a batch at a time and in walk order.
// Reading and converting the map's pages and copying the points into the kd-tree's blocks each
// take part of the walk, so with more than one processor the copies run on a second
// thread while the walk goes on; the records are added in the same order, so the tree is the
// same. Only the walk touches the map and only the second thread the writer until it is done.
class Point_pipe {
public:
    // `threaded`: whether a second thread may be used.
    Point_pipe(Kdtree_handle* writer, bool threaded) : writer_(writer)
    {
        if (!threaded || processor_count() < 2)
            return;
        for (auto& batch : batches_)
            batch.resize(BATCH_POINTS);  // zeroed: the reserved words have no map field
        const int row = thread_alloc(run, this, false);
        if (row < 0)
            return;
        thread_notify_end(row, [](void* latch) { static_cast<std::latch*>(latch)->count_down(); }, &ended_);
        threaded_ = thread_start(row) != 0;
    }

    // Without a second thread the walk adds each point itself: a batch would only add a copy.
    bool threaded() const { return threaded_; }

    ~Point_pipe()
    {
        if (!threaded_)
            return;
        {
            std::lock_guard lock(mutex_);
            finished_ = true;
        }
        changed_.notify_all();
        ended_.wait();
    }

    Point_pipe(const Point_pipe&) = delete;
    Point_pipe& operator=(const Point_pipe&) = delete;

    // The slot for the next point, taken in order; every point taken is added. Threaded only.
    Fg_point* next()
    {
        if (filled_ == BATCH_POINTS)
            flush();
        if (filled_ == 0) {
            // The batch about to be filled must have been added.
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [this] { return handed_ - added_ < BATCHES; });
        }
        return &batches_[handed_ % BATCHES][filled_++];
    }

    // Hands the batch being filled over; the destructor waits for every batch handed over.
    void flush()
    {
        if (filled_ == 0)
            return;
        const uint32_t count = filled_;
        filled_ = 0;
        {
            std::lock_guard lock(mutex_);
            counts_[handed_ % BATCHES] = count;
            ++handed_;
        }
        changed_.notify_all();
    }

private:
    static constexpr uint32_t BATCH_POINTS = 4096;
    static constexpr uint64_t BATCHES = 4;

    void add(const std::vector<Fg_point>& batch, uint32_t count)
    {
        for (uint32_t i = 0; i < count; ++i)
            kdtree_add(writer_, batch[i].normal, batch[i].position);  // word 3 onwards
    }

    static void run(void* raw)
    {
        auto* pipe = static_cast<Point_pipe*>(raw);
        for (uint64_t b = 0;; ++b) {
            uint32_t count;
            {
                std::unique_lock lock(pipe->mutex_);
                pipe->changed_.wait(lock, [pipe, b] { return pipe->handed_ > b || pipe->finished_; });
                if (pipe->handed_ == b)
                    return;
                count = pipe->counts_[b % BATCHES];
            }
            pipe->add(pipe->batches_[b % BATCHES], count);
            {
                std::lock_guard lock(pipe->mutex_);
                pipe->added_ = b + 1;
            }
            pipe->changed_.notify_all();
        }
    }

    Kdtree_handle* writer_;
    std::vector<Fg_point> batches_[BATCHES];
    uint32_t counts_[BATCHES] = {};
    uint32_t filled_ = 0;   // points in the batch being filled (walk side only)
    uint64_t handed_ = 0;   // batches handed over
    uint64_t added_ = 0;    // batches the second thread has added
    bool threaded_ = false;
    bool finished_ = false;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::latch ended_{1};
};

void save_classic(const char* path, Tag tag)
{
    uint32_t kdtree = kdtree_create(KDTREE_TYPE, KDTREE_PAYLOAD_BYTES);
    Kdtree_handle* writer = kdtree_open_for_writing(kdtree, nullptr, 0);
    {
        Access_map_dbhandle_impl handle(tag);
        Map_impl* map = handle.get_map();
        if (map && writer) {
            Map_element_impl element(map->get_declaration());
            Map_iterator_impl it(map);
            Map_page_store& store = map->page_store();
            Map_manager& manager = Map_manager::instance();
            // Only a map whose elements all lie in files: the buffers of pages held in memory
            // alone are freed in the walk for the kd-tree's blocks to take, which a second
            // thread allocating from its own heap arena would not do, so the peak would grow.
            // Elements added since the last segment (a classic input's) belong to none.
            uint64_t in_files = 0;
            for (const Map_segment& segment : store.segments())
                if (segment.file_index >= 0)
                    in_files += uint64_t(segment.last_element) - segment.first_element + 1;
            const bool all_in_files = map->size() > 0 && in_files == map->size();
            Point_pipe pipe(writer, all_in_files);
            Fg_point point = {};  // the reserved words have no map field; they are written as zero
            // A page that has been walked goes, changes and all, and its buffer goes back to
            // the memory manager, where the kd-tree's blocks find it: this is the last stage and
            // nothing reads the map again, and its pages would otherwise stay in memory beside
            // the kd-tree, which takes another copy of every point (a map read from a classic
            // file has only changed pages, with no file behind them).
            uint32_t open_cache_page = UINT32_MAX;
            for (uint32_t i = 0, end = map->size(); i < end; ++i, it.next()) {
                uint32_t page, slot;
                store.locate(i, &page, &slot);
                const uint32_t cache_page = page >> store.cache_page_shift;
                if (cache_page != open_cache_page) {
                    if (open_cache_page != UINT32_MAX) {
                        manager.discard_page(&store, open_cache_page);
                        // A clean page's buffer serves the next page read; only buffers that pile up,
                        // those of pages with changes and no file behind them, go back.
                        if (manager.free_buffers() > SPARE_BUFFERS)
                            manager.free_spare_buffers();
                    }
                    open_cache_page = cache_page;
                }
                it.get(&element);
                if (pipe.threaded()) {
                    fg_point_from_element(pipe.next(), &element);
                } else {
                    fg_point_from_element(&point, &element);
                    kdtree_add(writer, point.normal, point.position);  // word 3 onwards
                }
            }
            pipe.flush();
        }
    }
    if (writer)
        kdtree_close(writer);
#ifdef __GLIBC__
    // The pages freed in the walk that the kd-tree's blocks did not take, and the positions'
    // blocks that closing gathered into one array, lie in the heap, where the allocator keeps
    // them; the balancing that follows needs that memory for arrays of its own.
    malloc_trim(0);
#endif
    fg_map_save_legacy(kdtree, nullptr, path);
    kdtree_delete(kdtree);
}

}  // namespace

void save_map(const char* path, Tag tag, int legacy)
{
    // The raw name, before substitution: the write below goes to the substituted one.
    if (access(path, F_OK) == 0)
        unlink(path);
    if (tag == 0)
        return;
    if (legacy)
        save_classic(path, tag);
    else
        save_current(path, tag);
}
