#include "voctl/output.h"

#include <algorithm>
#include <chrono>
#include <cinttypes>

namespace voctl {

void Output::result(const nlohmann::json& obj, const std::string& text) const {
    if (_json) {
        std::fprintf(_out, "%s\n", obj.dump().c_str());
    } else {
        std::fputs(text.c_str(), _out);
        if (text.empty() || text.back() != '\n') std::fputc('\n', _out);
    }
    std::fflush(_out);
}

std::string trimTrailing(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
    return s;
}

int Output::failure(int status, const std::string& message) const {
    const std::string m = trimTrailing(message);
    std::fprintf(_err, "voctl: %s\n", m.c_str());
    if (_json) {
        nlohmann::json obj = {{"error", m}, {"status", status}};
        std::fprintf(_out, "%s\n", obj.dump().c_str());
        std::fflush(_out);
    }
    return status;
}

void Output::note(const std::string& message) const {
    std::fprintf(_err, "voctl: note: %s\n", trimTrailing(message).c_str());
    std::fflush(_err);
}

std::string formatTable(const std::vector<std::pair<std::string, std::string>>& rows,
                        const std::string& indent) {
    size_t width = 0;
    for (const auto& r : rows) width = std::max(width, r.first.size());
    std::string s;
    for (const auto& r : rows) {
        s += indent;
        s += r.first;
        s.append(width - r.first.size() + 2, ' ');
        s += r.second;
        s += '\n';
    }
    return s;
}

namespace {

constexpr int kBarWidth = 20;

std::string formatDuration(double sec) {
    if (sec < 0) sec = 0;
    auto total = static_cast<uint64_t>(sec + 0.5);
    char buf[32];
    if (total >= 3600)
        std::snprintf(buf, sizeof buf, "%" PRIu64 ":%02u:%02u", total / 3600,
                      static_cast<unsigned>(total / 60 % 60), static_cast<unsigned>(total % 60));
    else
        std::snprintf(buf, sizeof buf, "%u:%02u", static_cast<unsigned>(total / 60),
                      static_cast<unsigned>(total % 60));
    return buf;
}

}  // namespace

ProgressBar::ProgressBar(std::FILE* out, bool terminal, std::string label, double plainIntervalSec)
    : _out(out), _terminal(terminal), _label(std::move(label)), _interval(plainIntervalSec) {}

double ProgressBar::now() {
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

std::string ProgressBar::line(const Progress& p, double nowSec) const {
    double elapsed = _started ? nowSec - _startSec : 0;
    bool known = p.vnodesTotal > 0;
    double fraction = known ? std::min(1.0, double(p.vnodesDone) / p.vnodesTotal) : 0;

    std::string s = _label;
    if (!s.empty()) s += ' ';
    s += '[';
    int filled = static_cast<int>(fraction * kBarWidth);
    s.append(filled, '#');
    s.append(kBarWidth - filled, '.');
    s += ']';

    char buf[160];
    if (known)
        std::snprintf(buf, sizeof buf, " %3d%%", static_cast<int>(fraction * 100));
    else
        std::snprintf(buf, sizeof buf, "  ---");
    s += buf;
    std::snprintf(buf, sizeof buf, "  %" PRIu64 " MB  %u/%u vnodes", p.megs, p.vnodesDone,
                  p.vnodesTotal);
    s += buf;

    // Megabytes can only be timed once there is an interval to divide by.
    if (elapsed > 0 && p.megs >= _startMegs) {
        std::snprintf(buf, sizeof buf, "  %.1f MB/s", double(p.megs - _startMegs) / elapsed);
        s += buf;
    } else {
        s += "  -- MB/s";
    }

    s += "  ETA ";
    if (known && p.vnodesDone >= p.vnodesTotal)
        s += formatDuration(0);
    else if (known && p.vnodesDone > 0 && elapsed > 0)
        s += formatDuration(elapsed * (p.vnodesTotal - p.vnodesDone) / p.vnodesDone);
    else
        s += "--:--";
    return s;
}

void ProgressBar::update(const Progress& p) { update(p, now()); }

void ProgressBar::update(const Progress& p, double nowSec) {
    if (!_started) {
        _started = true;
        _startSec = nowSec;
        _startMegs = p.megs;
    }
    _last = p;
    if (_terminal) {
        // \r and erase-to-end-of-line redraw the one line in place.
        std::fprintf(_out, "\r%s\x1b[K", line(p, nowSec).c_str());
    } else if (!_printedOnce || nowSec - _lastPrintSec >= _interval) {
        std::fprintf(_out, "%s\n", line(p, nowSec).c_str());
        _lastPrintSec = nowSec;
        _printedOnce = true;
    }
    std::fflush(_out);
}

void ProgressBar::finish(const std::string& status) { finish(status, now()); }

void ProgressBar::finish(const std::string& status, double nowSec) {
    std::string text = line(_last, nowSec) + "  " + status;
    if (_terminal)
        std::fprintf(_out, "\r%s\x1b[K\n", text.c_str());
    else
        std::fprintf(_out, "%s\n", text.c_str());
    std::fflush(_out);
}

}  // namespace voctl
