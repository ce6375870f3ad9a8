// Progress of fg_info's long steps on stderr, shown only when stderr is a terminal. A step is
// one line that is rewritten in place; update() costs one comparison until the next whole
// percent is reached, so callers may call it often.
#pragma once

#include <cstdint>

class Info_progress {
public:
    // `enabled` false makes every call a no-op (tests, pipes, log files).
    explicit Info_progress(bool enabled) : enabled_(enabled) {}
    ~Info_progress() { finish(); }
    Info_progress(const Info_progress&) = delete;
    Info_progress& operator=(const Info_progress&) = delete;

    // Starts a step of `total` units named `what` (a static text).
    void start(const char* what, uint64_t total);
    // Starts a step whose progress cannot be counted: its name is shown until it finishes.
    void start(const char* what);
    void update(uint64_t done)
    {
        if (enabled_ && done >= next_)
            show(done);
    }
    // Ends the current step's line.
    void finish();

private:
    void show(uint64_t done);

    bool enabled_;
    bool open_ = false;
    const char* what_ = "";
    uint64_t total_ = 0;
    uint64_t next_ = UINT64_MAX;
    bool counted_ = true;
};
