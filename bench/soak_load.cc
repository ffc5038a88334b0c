// soak_load: the client side of bench/soak.sh. Copies a volume and deletes
// the copy, over and over, a few pairs at a time, and reads the resident
// memory and open descriptors of vod and of the simulator after every
// thousand operations (a copy and a delete count one each).
//
//   soak_load OPERATIONS CONCURRENT VOD_PID SIM_PID CONTROL
//
// Each of the CONCURRENT threads owns one source volume on lp1a (made
// here) and copies it to lp2a under a fresh name, follows the copy to its
// final report, then deletes the copy; every pair runs on a connection of
// its own, as a management tool would open one. A copy succeeded when its
// final report says the sink is done and whole; a delete when vod answers
// rc 0. Every failure is printed; a copy that failed leaves its delete
// undone, counted as skipped.
//
// At each thousand the threads finish the pair in hand and wait, so that a
// reading sees vod and the simulator idle, not whatever a live copy holds
// for the moment. Before each reading the simulator's call log is emptied
// (through its control socket, CONTROL): it keeps the last 100,000 calls
// for the crash matrix, some seven thousand operations' worth, and filling
// it would read as growth of the simulator.
//
// Prints one "reading" line per thousand, "failed" lines as they happen and
// a last "done" line; exits 1 when an operation failed.
#include <dirent.h>
#include <rpc/rpc.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "vo.h"

namespace {

using Clock = std::chrono::steady_clock;

// lp1a on D-blade 1 (vod's own) and lp2a on D-blade 2, as the default layout has them.
const u_char kSrcLp[16] = {0x01, 0x0A};
const u_char kSinkLp[16] = {0x02, 0x0A};

// The incremental-copy completion code of a sink that had the source's data already.
constexpr unsigned kSinkUpToDate = 20002;

// How often a copy is polled: a poll costs vod a call to the D-blade, and a
// small copy ends within tens of milliseconds.
constexpr auto kPollGap = std::chrono::milliseconds(5);

// A copy that has not ended after this long counts as failed.
constexpr auto kCopyLimit = std::chrono::seconds(120);

// How long the clients stay idle before a reading.
constexpr auto kSettle = std::chrono::milliseconds(200);

// The operations between two readings.
constexpr long kReadingEvery = 1000;

std::mutex gPrint;

__attribute__((format(printf, 1, 2))) void say(const char* fmt, ...) {
    std::lock_guard<std::mutex> g(gPrint);
    va_list ap;
    va_start(ap, fmt);
    std::vprintf(fmt, ap);
    va_end(ap);
    std::fflush(stdout);
}

CLIENT* vodClient() {
    CLIENT* c = clnt_create("127.0.0.1", VOPROG, VOVERS, "tcp");
    if (c == nullptr) return nullptr;
    timeval tv = {60, 0};
    clnt_control(c, CLSET_TIMEOUT, reinterpret_cast<char*>(&tv));
    return c;
}

// VmRSS in KiB and the number of open descriptors of a process; -1 when gone.
void readProc(int pid, long* rssKb, long* fds) {
    *rssKb = -1;
    *fds = -1;
    std::ifstream st("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(st, line))
        if (line.compare(0, 6, "VmRSS:") == 0) *rssKb = std::atol(line.c_str() + 6);
    if (DIR* d = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str())) {
        long n = 0;
        while (dirent* e = readdir(d))
            if (e->d_name[0] != '.') n++;
        closedir(d);
        *fds = n;
    }
}

// Empties the simulator's call log; false when the simulator did not say OK.
bool resetCallLog(const std::string& control) {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0) return false;
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::snprintf(a.sun_path, sizeof a.sun_path, "%s", control.c_str());
    const char request[] = "calls\treset\n";
    bool ok = connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
              write(fd, request, sizeof request - 1) == static_cast<ssize_t>(sizeof request - 1);
    char reply[64];
    ok = ok && read(fd, reply, sizeof reply) >= 2 && reply[0] == 'O' && reply[1] == 'K';
    close(fd);
    return ok;
}

// A source volume of one small file, so that a copy is mostly vod's own
// work: records, clone, sink, stream set-up and conclusion.
bool makeSource(CLIENT* c, int worker, unsigned* vid) {
    std::string name = "soaksrc" + std::to_string(worker);
    CreateVfsIn in{};
    in.vfsName = const_cast<char*>(name.c_str());
    in.storagePoolName = const_cast<char*>("lp1a");
    in.virtualServerName = const_cast<char*>("vs1");
    CreateVfsOut out{};
    if (createvfs_1(&in, &out, c) != RPC_SUCCESS || out.code != 0) {
        std::fprintf(stderr, "soak_load: createvfs %s: code %u\n", name.c_str(), out.code);
        return false;
    }
    *vid = out.vfsId;
    xdr_free(reinterpret_cast<xdrproc_t>(xdr_CreateVfsOut), reinterpret_cast<char*>(&out));
    return true;
}

// One copy of src to lp2a as name, followed to its final report. Returns the
// sink's id, or 0 after printing why it failed.
unsigned copyOnce(CLIENT* c, unsigned src, const std::string& name) {
    VoLidVnameIn in{};
    in.vidSrc = src;
    std::memcpy(in.lidSrc, kSrcLp, 16);
    std::memcpy(in.lidSink, kSinkLp, 16);
    in.vnameSink = const_cast<char*>(name.c_str());
    VoVidOut started{};
    if (vocopy_1(&in, &started, c) != RPC_SUCCESS) {
        say("failed copy %s: vocopy: %s\n", name.c_str(), clnt_sperror(c, "vod"));
        return 0;
    }
    if (started.rc != voErrRcSuccess) {
        say("failed copy %s: refused rc=%d func=%d funcrc=%u\n", name.c_str(), started.rc,
            started.func, started.funcrc);
        return 0;
    }
    VoVidLidIn key{};
    key.vidSrc = src;
    std::memcpy(key.lidSrc, kSrcLp, 16);
    key.vidSink = started.vid;
    std::memcpy(key.lidSink, kSinkLp, 16);
    auto deadline = Clock::now() + kCopyLimit;
    while (Clock::now() < deadline) {
        VoCopyPgrsOut r{};
        if (vocopypgrs_1(&key, &r, c) != RPC_SUCCESS) {
            say("failed copy %s: sink %u: vocopypgrs: %s\n", name.c_str(), started.vid,
                clnt_sperror(c, "vod"));
            return 0;
        }
        bool counters = r.src.vfsId != 0;
        bool live = r.rc == VoJobInit || r.rc == voErrEndStream || r.rc == voErrRollForwardOp ||
                    r.rc == voErrRollBackOp ||
                    (r.rc == voErrRpcFailure && r.func == voErrDbladeIncrCopyProgressRpc) ||
                    (r.rc == voErrRcSuccess && counters && r.src.status != VoDone);
        if (!live) {
            bool whole = r.rc == voErrRcSuccess && counters && r.src.status == VoDone &&
                         r.src.completionCode == 0 && r.sink.isDone != 0 &&
                         (r.sink.completionCode == 0 || r.sink.completionCode == kSinkUpToDate);
            if (whole) return started.vid;
            say("failed copy %s: sink %u: final rc=%d func=%d funcrc=%u src=%d/%u sink=%u/%u\n",
                name.c_str(), started.vid, r.rc, r.func, r.funcrc, r.src.status,
                r.src.completionCode, r.sink.isDone, r.sink.completionCode);
            return 0;
        }
        std::this_thread::sleep_for(kPollGap);
    }
    say("failed copy %s: sink %u still running after %lld s\n", name.c_str(), started.vid,
        static_cast<long long>(kCopyLimit.count()));
    return 0;
}

bool deleteOnce(CLIENT* c, unsigned vid, const std::string& name) {
    VoIn in{};
    in.vidSrc = vid;
    std::memcpy(in.lidSrc, kSinkLp, 16);
    VoOut out{};
    if (vodelete_1(&in, &out, c) != RPC_SUCCESS) {
        say("failed delete %s: vfs %u: %s\n", name.c_str(), vid, clnt_sperror(c, "vod"));
        return false;
    }
    if (out.rc != voErrRcSuccess) {
        say("failed delete %s: vfs %u: rc=%d func=%d funcrc=%u\n", name.c_str(), vid, out.rc,
            out.func, out.funcrc);
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::fprintf(stderr, "usage: soak_load OPERATIONS CONCURRENT VOD_PID SIM_PID CONTROL\n");
        return 2;
    }
    const std::string control = argv[5];
    const long total = std::atol(argv[1]);
    const int workers = std::max(1, std::atoi(argv[2]));
    const int vodPid = std::atoi(argv[3]), simPid = std::atoi(argv[4]);

    std::vector<unsigned> sources(static_cast<size_t>(workers));
    {
        CLIENT* c = vodClient();
        if (c == nullptr) {
            std::fprintf(stderr, "soak_load: %s\n", clnt_spcreateerror("vod"));
            return 1;
        }
        for (int w = 0; w < workers; w++)
            if (!makeSource(c, w, &sources[static_cast<size_t>(w)])) return 1;
        clnt_destroy(c);
    }

    std::atomic<long> failures{0}, skipped{0};
    long done = 0;  // operations counted, failed ones included
    long pair = 0;  // the running number in the copies' names
    auto t0 = Clock::now();
    while (done < total) {
        // Pairs for this stretch, shared out among the threads.
        long pairs = std::min(kReadingEvery, total - done) / 2;
        if (pairs == 0) pairs = 1;
        std::atomic<long> next{0};
        std::vector<std::thread> threads;
        for (int w = 0; w < workers; w++) {
            threads.emplace_back([&, w] {
                for (long i; (i = next++) < pairs;) {
                    std::string name = "soak" + std::to_string(pair + i);
                    CLIENT* c = vodClient();
                    if (c == nullptr) {
                        say("failed copy %s: %s\n", name.c_str(), clnt_spcreateerror("vod"));
                        failures++;
                        skipped++;
                        continue;
                    }
                    unsigned sink = copyOnce(c, sources[static_cast<size_t>(w)], name);
                    if (sink == 0) {
                        failures++;
                        skipped++;  // no copy, nothing to delete
                    } else if (!deleteOnce(c, sink, name)) {
                        failures++;
                    }
                    clnt_destroy(c);
                }
            });
        }
        for (auto& t : threads) t.join();
        pair += pairs;
        done += 2 * pairs;
        if (!resetCallLog(control)) std::fprintf(stderr, "soak_load: calls reset refused\n");
        // vod closes a client's connection when it sees the end of it, at
        // its next turn of the loop.
        std::this_thread::sleep_for(kSettle);
        long vodRss, vodFds, simRss, simFds;
        readProc(vodPid, &vodRss, &vodFds);
        readProc(simPid, &simRss, &simFds);
        double s = std::chrono::duration<double>(Clock::now() - t0).count();
        std::lock_guard<std::mutex> g(gPrint);
        std::printf(
            "reading ops=%ld elapsed_s=%.1f vod_rss_kb=%ld vod_fds=%ld sim_rss_kb=%ld "
            "sim_fds=%ld failures=%ld skipped=%ld\n",
            done, s, vodRss, vodFds, simRss, simFds, failures.load(), skipped.load());
        std::fflush(stdout);
    }
    std::printf("done ops=%ld failures=%ld skipped=%ld elapsed_s=%.1f\n", done, failures.load(),
                skipped.load(), std::chrono::duration<double>(Clock::now() - t0).count());
    return failures.load() == 0 ? 0 : 1;
}
