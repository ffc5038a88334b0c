// How the tool reports: human text or one JSON object on standard output,
// failures on standard error, and a progress display for long operations.
#ifndef VOCTL_OUTPUT_H
#define VOCTL_OUTPUT_H

#include <cstdint>
#include <cstdio>
#include <memory>
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

// Rows of cells in left-aligned columns two spaces apart, each row after
// indent; the last cell of a row is not padded, so no line ends in blanks.
std::string formatColumns(const std::vector<std::vector<std::string>>& rows,
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
    // Takes a reading without drawing it (for ProgressBoard, which draws).
    void record(const Progress& p, double nowSec);
    const Progress& last() const { return _last; }
    // Words shown after every line until changed ("streaming"); none at first.
    void setStatus(std::string status) { _status = std::move(status); }

    // Ends the display: the last reading with status appended ("done",
    // "cancelled", ...), and a newline.
    void finish(const std::string& status);
    void finish(const std::string& status, double nowSec);

    // The text of one display line for reading p at nowSec, without control
    // characters: label, bar, percentage, megabytes, vnodes, rate and ETA,
    // then the status if one is set. Rate and ETA are measured from the first
    // reading.
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
    std::string _status;
};

// What one bar shows at one poll.
struct BarReading {
    std::string label;  // names the bar: a label not seen before opens one
    Progress progress;
    std::string status;  // shown after the reading; may be empty
};

// Progress bars side by side (a mirror's destinations, one bar each) or one
// after another (a move's passes). On a terminal the block of open bars is
// redrawn in place; otherwise each bar writes its own lines, as ProgressBar
// does alone.
class ProgressBoard {
 public:
    ProgressBoard(std::FILE* out, bool terminal) : _out(out), _terminal(terminal) {}

    bool empty() const { return _bars.empty(); }

    // Shows the readings, in their order. An open bar whose label is not
    // among them ends first, with closing as its status.
    void update(const std::vector<BarReading>& readings, const std::string& closing);

    // To be called before other text goes out between redraws: a block of
    // several bars then stays above that text and the next update draws a new
    // one below it. (A single bar's line is erased by the text's writer.)
    void interrupt();

    // Ends every open bar: those named in readings with the last of their
    // readings and its status, or status where that is empty; the others
    // with status.
    void finish(const std::vector<BarReading>& readings, const std::string& status);

 private:
    struct Slot {
        std::string label;
        std::unique_ptr<ProgressBar> bar;
    };
    // Terminal only: rewrites the block from its first line, the ended bars'
    // lines first (they stay), then the open bars' lines.
    void redraw(const std::vector<std::string>& ended, double nowSec);

    std::FILE* _out;
    bool _terminal;
    std::vector<Slot> _bars;  // open bars, in the order they opened
    size_t _drawn = 0;        // lines of the block on the terminal now
};

}  // namespace voctl

#endif  // VOCTL_OUTPUT_H
