// Captures what is written to file descriptor 2 while it lives (through a temporary file, so a
// long output cannot block the writer).
#pragma once

#include <cstdio>
#include <string>
#include <unistd.h>

class Stderr_capture {
public:
    Stderr_capture()
    {
        fflush(stderr);
        saved_ = dup(2);
        file_ = tmpfile();
        dup2(fileno(file_), 2);
    }
    ~Stderr_capture()
    {
        finish();
        fclose(file_);
    }
    Stderr_capture(const Stderr_capture&) = delete;
    Stderr_capture& operator=(const Stderr_capture&) = delete;

    // Restores fd 2 and gives everything captured.
    std::string finish()
    {
        if (saved_ >= 0) {
            fflush(stderr);
            dup2(saved_, 2);
            close(saved_);
            saved_ = -1;
            char buffer[4096];
            for (ssize_t got; (got = pread(fileno(file_), buffer, sizeof buffer, off_t(text_.size()))) > 0;)
                text_.append(buffer, size_t(got));
        }
        return text_;
    }

private:
    int saved_ = -1;
    FILE* file_ = nullptr;
    std::string text_;
};
