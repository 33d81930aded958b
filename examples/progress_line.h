#pragma once

#include <fmt/format.h>

#include <cstdio>
#include <string>
#include <unistd.h>

// A line on the terminal that each new one overwrites; nothing where there is no terminal.
class ProgressLine {
public:
    explicit ProgressLine(bool terminal = isatty(STDERR_FILENO) != 0) : terminal_(terminal) {}
    ~ProgressLine() { show(""); }

    void show(const std::string& text) const {
        if (terminal_) {
            fmt::print(stderr, "\r\033[K{}", text);
        }
    }

private:
    bool terminal_;
};
