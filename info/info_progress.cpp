#include "info/info_progress.h"

#include <cstdio>

void Info_progress::start(const char* what, uint64_t total)
{
    if (!enabled_)
        return;
    finish();
    what_ = what;
    total_ = total;
    open_ = true;
    counted_ = true;
    show(0);
}

void Info_progress::start(const char* what)
{
    if (!enabled_)
        return;
    finish();
    what_ = what;
    open_ = true;
    counted_ = false;
    next_ = UINT64_MAX;
    std::fprintf(stderr, "fg_info: %s ...", what_);
    std::fflush(stderr);
}

void Info_progress::show(uint64_t done)
{
    const uint64_t percent = total_ == 0 ? 100 : done * 100 / total_;
    std::fprintf(stderr, "\rfg_info: %s %3u%%", what_, unsigned(percent > 100 ? 100 : percent));
    std::fflush(stderr);
    next_ = percent >= 100 ? UINT64_MAX : ((percent + 1) * total_ + 99) / 100;
}

void Info_progress::finish()
{
    if (!enabled_ || !open_)
        return;
    if (counted_)
        std::fprintf(stderr, "\rfg_info: %s 100%%\n", what_);
    else
        std::fprintf(stderr, " done\n");
    open_ = false;
    next_ = UINT64_MAX;
}
