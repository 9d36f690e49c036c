/*
 * How far long work has come, on standard error when that is a terminal; nothing otherwise.
 */
#ifndef CORVANE_LAB_PROGRESS_BAR_H
#define CORVANE_LAB_PROGRESS_BAR_H

#include <chrono>
#include <cstdio>
#include <string>

#include <unistd.h>

namespace corvane::lab {

class ProgressBar {
public:
    ~ProgressBar() { clear(); }

    /* For what else is to be written; also from a child of the process. */
    void clear() const {
        if (isTerminal_)
            std::fputs("\r\033[K", stderr);
    }
    /* Often enough, a few times a second; most calls draw nothing. share: of all work, 0 to 1. */
    void draw(double share, std::size_t done, std::size_t all) {
        if (!isTerminal_ || ++glances_ % kGlancesPerDrawing != 1)
            return;
        constexpr int kWidth = 40;
        const int full = static_cast<int>(share * kWidth);
        const double sec =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - begin_).count();
        const std::string left =
            share > 0.02 ? ", " + std::to_string(static_cast<int>(sec / share - sec)) + " s left"
                         : "";
        std::fprintf(stderr, "\r[%s%s] %3.0f %%  %zu of %zu runs%s\033[K",
                     std::string(static_cast<std::size_t>(full), '#').c_str(),
                     std::string(static_cast<std::size_t>(kWidth - full), '.').c_str(), share * 100,
                     done, all, left.c_str());
    }

private:
    static constexpr int kGlancesPerDrawing = 10;

    bool isTerminal_ = isatty(STDERR_FILENO) == 1;
    std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
    int glances_ = 0;
};

} // namespace corvane::lab

#endif
