#include "Progress.h"

#include <unistd.h>

#include <cstdio>

namespace TamvikTool {

Progress::Progress(std::string label)
    : label_(std::move(label)), enabled_(::isatty(STDERR_FILENO) == 1), start_(Clock::now()), last_(start_) {}

Progress::~Progress() {
    if (shown_) std::fprintf(stderr, "\r\033[K");
}

void Progress::Update(std::uint64_t done, std::uint64_t total) {
    if (!enabled_) return;
    const Clock::time_point now = Clock::now();
    // Quiet for the first second, then at most five updates a second.
    if (now - start_ < std::chrono::seconds(1) || (shown_ && now - last_ < std::chrono::milliseconds(200))) return;
    last_ = now;
    shown_ = true;
    if (total != 0)
        std::fprintf(stderr, "\r%s: %llu / %llu (%llu%%)\033[K", label_.c_str(), static_cast<unsigned long long>(done),
                     static_cast<unsigned long long>(total), static_cast<unsigned long long>(done * 100 / total));
    else
        std::fprintf(stderr, "\r%s: %llu\033[K", label_.c_str(), static_cast<unsigned long long>(done));
    std::fflush(stderr);
}

}  // namespace TamvikTool
