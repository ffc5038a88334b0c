// voctl top: every operation recorded in the VODB, refreshed every second, with
// what vod reports of each. The VODB is read from the VLDB directly (what is
// recorded, whether or not vod runs); vod is asked for the progress of copies,
// moves and mirrors. What the screen shows is built by TopModel.
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "vldb_server.h"
#include "voctl/admin_common.h"
#include "voctl/command.h"
#include "voctl/lp_names.h"
#include "voctl/stream_follow.h"
#include "voctl/top_view.h"
#include "vorec.h"

namespace voctl {
namespace {

// The VODB answers this for an empty table.
constexpr int kVodbEmpty = 135;
// Plain output: a running operation's line at most this often.
constexpr double kPlainIntervalSec = 10;
// LP names are asked again after this long when an LP without one shows up.
constexpr double kNamesRetrySec = 30;

volatile sig_atomic_t gStop = 0;
void onStop(int) { gStop = 1; }

struct TopArgs {
    std::string vldbHost = "localhost";
    double intervalSec = 1;
    double lingerSec = 10;
    unsigned count = 0;  // 0: until interrupted
};

// The VODB's records; false with *why when the VLDB could not be read.
bool readVodb(const std::string& host, unsigned timeoutSec, std::vector<TopRecord>* out,
              std::string* why) {
    std::string err;
    ServiceClient vldb = connectService(host, VLDB_PROG, VLDB_VERS, timeoutSec, &err);
    if (!vldb) {
        *why = "VLDB: " + trimTrailing(err);
        return false;
    }
    XdrResult<vodb_lookup_result> res(xdr_vodb_lookup_result);
    if (vodb_lookup_3(nullptr, res.get(), vldb.get()) != RPC_SUCCESS) {
        *why = "VLDB: " + trimTrailing(clnt_sperror(vldb.get(), host.c_str()));
        return false;
    }
    if (res->result != 0 && res->result != kVodbEmpty) {
        *why = "VODB lookup answered " + std::to_string(res->result);
        return false;
    }
    out->clear();
    const u_int n = res->result == 0 ? res->rec.rec_len : 0;
    for (u_int i = 0; i < n; ++i) {
        const vodbRec& r = res->rec.rec_val[i];
        out->push_back({r.opid, static_cast<unsigned>(r.optype), r.vfsid, lpIdOf(r.lp_uuid),
                        static_cast<unsigned>(r.vfsrole),
                        VoRec::role2str(static_cast<unsigned>(r.vfsrole))});
    }
    return true;
}

// Asks vod about one operation; keeps one connection and makes a new one
// after a failure, so that a restarted vod is picked up.
class Poller {
  public:
    explicit Poller(Context& ctx) : _ctx(ctx) {}

    TopPoll operator()(const TopOp& op) {
        TopPoll p;
        if (!_c) {
            _c = std::make_unique<VoClient>(_ctx.opts.host, _ctx.opts.timeoutSec);
            if (!_c->connected()) {
                _c.reset();
                return p;
            }
        }
        std::string why;
        VoIn src = SourceKey{op.vfsid, op.lp, {}}.wire();
        switch (op.kind) {
            case OpKind::Copy: {
                VoVidLidIn in{};
                in.vidSrc = op.vfsid;
                std::copy(op.lp.begin(), op.lp.end(), in.lidSrc);
                in.vidSink = op.sinkVfsid;
                std::copy(op.sinkLp.begin(), op.sinkLp.end(), in.lidSink);
                p.answered = pollStream(*_c, vocopypgrs_1, in, xdr_VoCopyPgrsOut, &p.report, &why);
                break;
            }
            case OpKind::Move:
                p.answered = pollStream(*_c, vomovepgrs_1, src, xdr_VoMovePgrsOut, &p.report, &why);
                break;
            case OpKind::Mirror:
                p.answered =
                    pollStream(*_c, vomirrorpgrs_1, src, xdr_VoMirrorPgrsOut, &p.report, &why);
                break;
            default:
                return p;
        }
        if (!p.answered) _c.reset();
        return p;
    }

  private:
    Context& _ctx;
    std::unique_ptr<VoClient> _c;
};

std::string clockText() {
    std::time_t t = std::time(nullptr);
    std::tm tm{};
    localtime_r(&t, &tm);
    char buf[16];
    std::strftime(buf, sizeof buf, "%H:%M:%S", &tm);
    return buf;
}

int top(Context& ctx, const TopArgs& a) {
    const bool terminal = !ctx.out.json() && isatty(STDOUT_FILENO) != 0;
    TopModel model(a.lingerSec);
    Poller poller(ctx);

    std::map<LpId, std::string> names;
    double namesAt = -kNamesRetrySec;
    auto label = [&names](const LpId& lp) {
        auto it = names.find(lp);
        return it != names.end() ? it->second : formatLpId(lp);
    };

    struct sigaction sa {};
    sa.sa_handler = onStop;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    if (terminal) std::fputs("\x1b[?25l", stdout);  // no cursor blinking over the bars

    int status = kExitOk;
    std::string lastWhy;
    for (unsigned round = 0; !gStop; ++round) {
        const double now = ProgressBar::now();
        std::vector<TopRecord> records;
        std::string why;
        const bool read = readVodb(a.vldbHost, ctx.opts.timeoutSec, &records, &why);
        if (!read && ctx.out.json()) {
            status = ctx.out.failure(kExitUnreachable, why);
            break;
        }
        const std::vector<TopOp> ops = groupOperations(records);
        if (read) model.refresh(ops, now, std::ref(poller));

        // Names are worth one more look when an LP shows up without one.
        bool unnamed = false;
        for (const TopOp& op : ops)
            for (const TopRecord& r : op.records) unnamed |= names.count(r.lp) == 0;
        if (unnamed && now - namesAt >= kNamesRetrySec) {
            std::string namesWhy;
            names = lpNames(a.vldbHost, ctx.opts.timeoutSec, &namesWhy);
            namesAt = now;
        }

        if (ctx.out.json()) {
            ctx.out.result(
                {{"vldbHost", a.vldbHost}, {"time", clockText()}, {"ops", model.json(label)}}, "");
            break;
        }
        if (terminal) {
            std::string screen = "\x1b[H\x1b[2J";
            screen += "voctl top  " + a.vldbHost + "  " + clockText() + "  " +
                      std::to_string(ops.size()) + " recorded operation" +
                      (ops.size() == 1 ? "" : "s") + "\n";
            if (!read) screen += "cannot read the VODB: " + why + "\n";
            screen += "\n";
            for (const std::string& l : model.screenLines(now, label)) screen += l + "\n";
            if (model.size() == 0 && read) screen += "no operations recorded in the VODB\n";
            std::fputs(screen.c_str(), stdout);
        } else {
            if (!read && why != lastWhy)
                std::printf("%s cannot read the VODB: %s\n", clockText().c_str(), why.c_str());
            for (const std::string& l : model.plainLines(now, label, kPlainIntervalSec))
                std::printf("%s %s\n", clockText().c_str(), l.c_str());
        }
        lastWhy = read ? "" : why;
        std::fflush(stdout);
        if (a.count != 0 && round + 1 >= a.count) break;
        // Sleep in short steps so that an interrupt ends top at once.
        const auto until =
            std::chrono::steady_clock::now() + std::chrono::duration<double>(a.intervalSec);
        while (!gStop && std::chrono::steady_clock::now() < until)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (terminal) std::fputs("\x1b[?25h", stdout);
    std::fflush(stdout);
    return status;
}

const CommandRegistrar reg(
    "top", "Watch every operation recorded in the VODB, refreshed every second",
    [](CLI::App& sub) -> Action {
        auto a = std::make_shared<TopArgs>();
        sub.add_option("--vldb-host", a->vldbHost, "node whose VLDB to read")
            ->capture_default_str();
        sub.add_option("--interval", a->intervalSec, "seconds between refreshes")
            ->capture_default_str()
            ->check(CLI::Range(0.1, 3600.0));
        sub.add_option("--linger", a->lingerSec, "seconds an ended operation stays in view")
            ->capture_default_str()
            ->check(CLI::Range(0.0, 3600.0));
        sub.add_option("--count", a->count, "stop after this many refreshes (0: until interrupted)")
            ->capture_default_str();
        sub.footer(
            "Each operation: opid, kind, volume and LPs (by name when the D-blades can be asked),\n"
            "state; for copies, moves and mirrors a progress bar with megabytes, rate and time\n"
            "left, a move's pass and a mirror's destinations. An operation that left the VODB\n"
            "stays with its outcome for --linger seconds. On a terminal the screen is redrawn;\n"
            "otherwise each operation gets a line when its state changes (at most one every\n"
            "10 s while it runs). With --json: one snapshot, {vldbHost, time, ops}.");
        return [a](Context& ctx) { return top(ctx, *a); };
    });

}  // namespace
}  // namespace voctl
