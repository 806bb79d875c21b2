#include "Progress.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <unistd.h>

namespace muxer {

Progress::Progress(std::string phase, double step) : m_phase(std::move(phase)), m_step(step) {}

void Progress::update(double percent) {
    const auto now = std::chrono::steady_clock::now();
    if (m_last >= 0 && percent - m_last < m_step && now - m_lastTime < std::chrono::seconds(1))
        return;
    report(percent);
}

void Progress::report(double percent) {
    percent = std::clamp(percent, 0.0, 100.0);
    if (std::round(percent * 10) == std::round(m_last * 10))
        return;
    char line[96];
    std::snprintf(line, sizeof line, "%s: %.1f\n", m_phase.c_str(), percent);
    writeError(line);
    m_last = percent;
    m_lastTime = std::chrono::steady_clock::now();
}

void writeError(const std::string& text) {
    const char* p = text.data();
    size_t left = text.size();
    while (left > 0) {
        const ssize_t n = ::write(STDERR_FILENO, p, left);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        p += n;
        left -= size_t(n);
    }
}

} // namespace muxer
