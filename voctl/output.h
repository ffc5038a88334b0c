// How the tool reports: human text or one JSON object on standard output,
// failures on standard error, and a progress display for long operations.
#ifndef VOCTL_OUTPUT_H
#define VOCTL_OUTPUT_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace voctl {

class Output {
 public:
    explicit Output(bool json = false, std::FILE* out = stdout, std::FILE* err = stderr)
        : _json(json), _out(out), _err(err) {}

    bool json() const { return _json; }

    // A command's result: obj as one line of JSON in JSON mode, else text
    // (a final newline is added when it lacks one).
    void result(const nlohmann::json& obj, const std::string& text) const;

    // A failure: "voctl: message" on standard error and, in JSON mode,
    // {"error": message, "status": status} on standard output, so that a
    // script always gets an object. Returns status.
    int failure(int status, const std::string& message) const;

    // A remark beside the result, in either mode: "voctl: note: message" on
    // standard error, so that standard output stays the result alone.
    void note(const std::string& message) const;

 private:
    bool _json;
    std::FILE* _out;
    std::FILE* _err;
};

// s without the newlines and spaces at its end (library error texts carry them).
std::string trimTrailing(std::string s);

// Rows of "label  value", each after indent, labels padded to one column.
std::string formatTable(const std::vector<std::pair<std::string, std::string>>& rows,
                        const std::string& indent = "");

// One reading of an operation's progress.
struct Progress {
    uint64_t megs = 0;         // megabytes processed
    uint32_t vnodesDone = 0;
    uint32_t vnodesTotal = 0;  // 0 while unknown
};

// Shows the progress of one running operation. On a terminal a single line is
// redrawn in place; otherwise a plain line is written at most every
// plainIntervalSec, so logs and pipes get a readable record, not a flood.
// Times are seconds on a monotonic clock.
class ProgressBar {
 public:
    ProgressBar(std::FILE* out, bool terminal, std::string label, double plainIntervalSec = 10);

    // A new reading, taken now or at nowSec.
    void update(const Progress& p);
    void update(const Progress& p, double nowSec);

    // Ends the display: the last reading with status appended ("done",
    // "cancelled", ...), and a newline.
    void finish(const std::string& status);
    void finish(const std::string& status, double nowSec);

    // The text of one display line for reading p at nowSec, without control
    // characters: label, bar, percentage, megabytes, vnodes, rate and ETA.
    // Rate and ETA are measured from the first reading.
    std::string line(const Progress& p, double nowSec) const;

    // A monotonic clock in seconds.
    static double now();

 private:
    std::FILE* _out;
    bool _terminal;
    std::string _label;
    double _interval;
    bool _started = false;
    double _startSec = 0;
    uint64_t _startMegs = 0;
    double _lastPrintSec = 0;
    bool _printedOnce = false;
    Progress _last;
};

}  // namespace voctl

#endif  // VOCTL_OUTPUT_H
