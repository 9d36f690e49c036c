/*
 * The lines on the terminal: time, who, what. A terminal that is held (Ctrl-S, a full pipe) holds
 * only the thread that writes, and lines that find no room meanwhile are left out.
 */
#ifndef CORVANE_APPLIANCE_SERVER_TERMINAL_H
#define CORVANE_APPLIANCE_SERVER_TERMINAL_H

#include "clock_now.h"
#include "task_thread.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <string>

namespace corvane::appliance {

class Terminal {
public:
    /* The first word stands in a column of its own. From any thread. */
    void say(TimeMs atMs, const std::string &who, const std::string &text) {
        const auto seconds = static_cast<std::time_t>(atMs / 1000);
        std::tm local{};
        localtime_r(&seconds, &local);
        std::array<char, 32> clock{};
        std::strftime(clock.data(), clock.size(), "%F %T", &local);
        std::string padded = text;
        if (const std::size_t space = text.find(' '); space < kVerbWidth)
            padded.insert(space, kVerbWidth - space, ' ');
        std::string line = std::string(clock.data()) + "  " + who;
        line.append(who.size() < kWhoWidth ? kWhoWidth - who.size() : 0, ' ');
        line += "  " + padded + "\n";
        // A line that finds no room is left out.
        (void)lines_.post([line] {
            std::fputs(line.c_str(), stdout);
            std::fflush(stdout);
        });
    }

private:
    static constexpr std::size_t kMostLines = 1000;
    static constexpr std::size_t kVerbWidth = 8;
    static constexpr std::size_t kWhoWidth = 11;
    TaskThread lines_{kMostLines};
};

} // namespace corvane::appliance

#endif
