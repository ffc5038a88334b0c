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

std::string formatColumns(const std::vector<std::vector<std::string>>& rows,
                          const std::string& indent) {
    std::vector<size_t> width;
    for (const auto& r : rows)
        for (size_t i = 0; i < r.size(); ++i) {
            if (width.size() <= i) width.push_back(0);
            width[i] = std::max(width[i], r[i].size());
        }
    std::string s;
    for (const auto& r : rows) {
        std::string line = indent;
        for (size_t i = 0; i < r.size(); ++i) {
            line += r[i];
            if (i + 1 < r.size()) line.append(width[i] - r[i].size() + 2, ' ');
        }
        s += trimTrailing(line) + '\n';
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
    if (!_status.empty()) s += "  " + _status;
    return s;
}

void ProgressBar::update(const Progress& p) { update(p, now()); }

void ProgressBar::record(const Progress& p, double nowSec) {
    if (!_started) {
        _started = true;
        _startSec = nowSec;
        _startMegs = p.megs;
    }
    _last = p;
}

void ProgressBar::update(const Progress& p, double nowSec) {
    record(p, nowSec);
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
    _status.clear();
    std::string text = line(_last, nowSec) + "  " + status;
    if (_terminal)
        std::fprintf(_out, "\r%s\x1b[K\n", text.c_str());
    else
        std::fprintf(_out, "%s\n", text.c_str());
    std::fflush(_out);
}

namespace {

const BarReading* readingOf(const std::vector<BarReading>& readings, const std::string& label) {
    for (const BarReading& r : readings)
        if (r.label == label) return &r;
    return nullptr;
}

}  // namespace

void ProgressBoard::update(const std::vector<BarReading>& readings, const std::string& closing) {
    const double nowSec = ProgressBar::now();
    std::vector<std::string> ended;
    for (auto it = _bars.begin(); it != _bars.end();) {
        if (readingOf(readings, it->label) != nullptr) {
            ++it;
            continue;
        }
        if (_terminal) {
            it->bar->setStatus("");
            ended.push_back(it->bar->line(it->bar->last(), nowSec) + "  " + closing);
        } else {
            it->bar->finish(closing, nowSec);
        }
        it = _bars.erase(it);
    }
    for (const BarReading& r : readings) {
        auto it = std::find_if(_bars.begin(), _bars.end(),
                               [&](const Slot& s) { return s.label == r.label; });
        if (it == _bars.end())
            it = _bars.insert(_bars.end(),
                              {r.label, std::make_unique<ProgressBar>(_out, _terminal, r.label)});
        it->bar->setStatus(r.status);
        if (_terminal)
            it->bar->record(r.progress, nowSec);
        else
            it->bar->update(r.progress, nowSec);
    }
    if (_terminal) redraw(ended, nowSec);
}

void ProgressBoard::interrupt() {
    if (_terminal && _drawn > 1) {
        std::fputc('\n', _out);
        std::fflush(_out);
        _drawn = 0;
    }
}

void ProgressBoard::finish(const std::vector<BarReading>& readings, const std::string& status) {
    const double nowSec = ProgressBar::now();
    std::vector<std::string> ended;
    for (Slot& s : _bars) {
        const BarReading* r = readingOf(readings, s.label);
        if (r != nullptr) s.bar->record(r->progress, nowSec);
        const std::string& st = r != nullptr && !r->status.empty() ? r->status : status;
        if (_terminal) {
            s.bar->setStatus("");
            ended.push_back(s.bar->line(s.bar->last(), nowSec) + "  " + st);
        } else {
            s.bar->finish(st, nowSec);
        }
    }
    _bars.clear();
    if (_terminal) redraw(ended, nowSec);
}

void ProgressBoard::redraw(const std::vector<std::string>& ended, double nowSec) {
    // Back to the block's first line; erase-to-end-of-screen at the end drops
    // whatever a longer block left below.
    std::string s = "\r";
    if (_drawn > 1) s += "\x1b[" + std::to_string(_drawn - 1) + "A";
    for (const std::string& line : ended) s += "\x1b[K" + line + "\n";
    for (size_t i = 0; i < _bars.size(); ++i) {
        const ProgressBar& bar = *_bars[i].bar;
        s += "\x1b[K" + bar.line(bar.last(), nowSec);
        if (i + 1 < _bars.size()) s += '\n';
    }
    s += "\x1b[J";
    std::fputs(s.c_str(), _out);
    std::fflush(_out);
    _drawn = _bars.size();
}

}  // namespace voctl
