// The progress line of the long copies (get, cat, put).
#pragma once

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

namespace ntfs::cli {

// Copies longer than this show a progress line on a terminal.
constexpr uint64_t kProgressThreshold = 4u << 20;

// A progress line on standard error, only when it is a terminal: bytes so
// far, rate and time left, at most a few times a second.
class Progress {
public:
    Progress(const std::string& name, uint64_t total, bool allowed)
        : name_(name),
          total_(total),
          shown_(allowed && total >= kProgressThreshold && isatty(STDERR_FILENO)),
          start_(std::chrono::steady_clock::now()),
          last_(start_) {}
    void Update(uint64_t done) {
        if (!shown_) return;
        const auto now = std::chrono::steady_clock::now();
        if (done < total_ && now - last_ < std::chrono::milliseconds(200)) return;
        last_ = now;
        const double seconds = std::chrono::duration<double>(now - start_).count();
        const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0;
        const double left = rate > 0 ? static_cast<double>(total_ - done) / rate : 0;
        std::fprintf(stderr, "\r%s: %llu of %llu bytes, %.1f MiB/s, %.0f s left   ", name_.c_str(),
                     static_cast<unsigned long long>(done), static_cast<unsigned long long>(total_), rate / (1 << 20),
                     left);
        drawn_ = true;
    }
    ~Progress() {
        if (drawn_) std::fputc('\n', stderr);
    }

private:
    std::string name_;
    uint64_t total_;
    bool shown_;
    bool drawn_ = false;
    std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::time_point last_;
};

}  // namespace ntfs::cli
