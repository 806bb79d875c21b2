#pragma once

// Progress on standard error in the form the core reads: one "Phase: percent"
// line at a time, written whole so a reader never sees half a line.

#include <chrono>
#include <string>

namespace muxer {

class Progress {
public:
    explicit Progress(std::string phase, double step = 0.5);

    // Reports when the value moved by at least the step, or a second went by.
    void update(double percent);
    // Always reports (phase starts and ends).
    void report(double percent);

private:
    std::string m_phase;
    double m_step;
    double m_last = -1;
    std::chrono::steady_clock::time_point m_lastTime;
};

// Writes the whole text to standard error, retrying short writes.
void writeError(const std::string& text);

} // namespace muxer
