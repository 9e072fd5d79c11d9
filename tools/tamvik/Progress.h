// A progress line on stderr for long runs: shown only when stderr is a
// terminal and the work has taken more than about a second.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace TamvikTool {

class Progress {
public:
    explicit Progress(std::string label);
    ~Progress();  // clears the line if one was shown
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // Reports done items (of total, when total isn't 0); cheap to call often.
    void Update(std::uint64_t done, std::uint64_t total = 0);

private:
    using Clock = std::chrono::steady_clock;
    std::string label_;
    bool enabled_;
    bool shown_ = false;
    Clock::time_point start_;
    Clock::time_point last_;
};

}  // namespace TamvikTool
