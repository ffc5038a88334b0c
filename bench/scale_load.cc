// scale_load: the client side of bench/scale.sh. It talks to vod (VOPROG over
// TCP, found through the port mapper), to the simulated D-blade and to the
// simulator's control socket, so that a thousand copies are set up, polled
// and timed without a process per call.
//
//   scale_load setup CONTROL N FILES SIZE KEYS
//       creates N volumes on lp1a, fills each with FILES files of SIZE bytes,
//       starts a copy of each to lp2a and writes one "srcVid sinkVid opid"
//       line per copy to KEYS.
//   scale_load seed CONTROL FIRST COUNT KEYS
//       records COUNT copies in the VODB that no volume backs (source,
//       sink and op src records, ids from FIRST on) and appends their keys.
//   scale_load load KEYS SECONDS POLLERS GAP_MS [SKIP_OPID]
//       POLLERS threads poll the progress of random copies (not SKIP_OPID),
//       each every GAP_MS (0: back to back), while one more sends a null
//       call every 10 ms (every GAP_MS when that is longer); prints the
//       latencies, a paced call's counted from when it was due.
//   scale_load cost KEYS ROUNDS [SKIP_OPID]
//       alternates one progress poll through vod with what vod does for it:
//       a port look-up, a client to the D-blade and one incrcopyprogress.
//   scale_load notify OPID
//       tells vod, as the D-blade would, that stream OPID has completed.
//   scale_load wait KEYS SECONDS T0_NS
//       polls the last key until vod knows it, then checks that it knows
//       every key; prints the time since T0_NS (CLOCK_REALTIME).
//
// Lines of figures start with the phase's name, then NAME=VALUE pairs, in
// milliseconds unless the name says otherwise.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <rpc/pmap_clnt.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "dblade_incrcopy.h"
#include "vo.h"

namespace {

using Clock = std::chrono::steady_clock;

// lp1a on D-blade 1 (vod's own) and lp2a on D-blade 2, as the default layout has them.
const u_char kSrcLp[16] = {0x01, 0x0A};
const u_char kSinkLp[16] = {0x02, 0x0A};

struct Key {
    unsigned srcVid = 0;
    unsigned sinkVid = 0;
    unsigned long long opid = 0;
};

double msSince(Clock::time_point t0) {
    return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

CLIENT* vodClient(unsigned timeoutSec) {
    CLIENT* c = clnt_create("127.0.0.1", VOPROG, VOVERS, "tcp");
    if (c == nullptr) return nullptr;
    timeval tv = {static_cast<time_t>(timeoutSec), 0};
    clnt_control(c, CLSET_TIMEOUT, reinterpret_cast<char*>(&tv));
    return c;
}

CLIENT* vodClientOrDie(unsigned timeoutSec) {
    CLIENT* c = vodClient(timeoutSec);
    if (c == nullptr) {
        std::fprintf(stderr, "scale_load: %s\n", clnt_spcreateerror("vod"));
        std::exit(1);
    }
    return c;
}

// One request to the simulator's control socket; its reply text, or "" with
// *ok false.
std::string control(const std::string& path, const std::vector<std::string>& words, bool* ok) {
    *ok = false;
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0) return "";
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        close(fd);
        return "";
    }
    std::string line;
    for (const std::string& w : words) line += (line.empty() ? "" : "\t") + w;
    line += "\n";
    if (write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        close(fd);
        return "";
    }
    std::string reply;
    char buf[4096];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0) reply.append(buf, static_cast<size_t>(n));
    close(fd);
    *ok = reply.compare(0, 2, "OK") == 0;
    size_t nl = reply.find('\n');
    return nl == std::string::npos ? "" : reply.substr(nl + 1);
}

std::string controlOrDie(const std::string& path, const std::vector<std::string>& words) {
    bool ok;
    std::string r = control(path, words, &ok);
    if (!ok) {
        std::fprintf(stderr, "scale_load: control %s failed: %s\n", words[0].c_str(), r.c_str());
        std::exit(1);
    }
    return r;
}

VoVidLidIn wire(const Key& k) {
    VoVidLidIn in{};
    in.vidSrc = k.srcVid;
    std::memcpy(in.lidSrc, kSrcLp, 16);
    in.vidSink = k.sinkVid;
    std::memcpy(in.lidSink, kSinkLp, 16);
    return in;
}

// One progress poll; false on a transport failure.
bool poll(CLIENT* c, const Key& k, VoCopyPgrsOut* out) {
    VoVidLidIn in = wire(k);
    std::memset(out, 0, sizeof *out);
    return vocopypgrs_1(&in, out, c) == RPC_SUCCESS;
}

bool nullCall(CLIENT* c) {
    char none;
    return vonull_1(nullptr, &none, c) == RPC_SUCCESS;
}

std::vector<Key> readKeys(const std::string& path) {
    std::vector<Key> keys;
    std::ifstream in(path);
    Key k;
    while (in >> k.srcVid >> k.sinkVid >> k.opid) keys.push_back(k);
    return keys;
}

struct Stats {
    double p50 = 0, p99 = 0, max = 0;
    size_t n = 0;
};

Stats stats(std::vector<double> v) {
    Stats s;
    s.n = v.size();
    if (v.empty()) return s;
    std::sort(v.begin(), v.end());
    s.p50 = v[v.size() / 2];
    s.p99 = v[std::min(v.size() - 1, v.size() * 99 / 100)];
    s.max = v.back();
    return s;
}

// ---- setup and seed ----

int setup(const std::string& ctl, int n, int files, int size, const std::string& keysPath) {
    CLIENT* c = vodClientOrDie(120);
    auto t0 = Clock::now();
    std::vector<Key> keys;
    for (int i = 0; i < n; i++) {
        std::string name = "scale" + std::to_string(i);
        CreateVfsIn in{};
        in.vfsName = const_cast<char*>(name.c_str());
        in.storagePoolName = const_cast<char*>("lp1a");
        in.virtualServerName = const_cast<char*>("vs1");
        CreateVfsOut out{};
        if (createvfs_1(&in, &out, c) != RPC_SUCCESS || out.code != 0) {
            std::fprintf(stderr, "scale_load: createvfs %s: code %u\n", name.c_str(), out.code);
            return 1;
        }
        Key k;
        k.srcVid = out.vfsId;
        xdr_free(reinterpret_cast<xdrproc_t>(xdr_CreateVfsOut), reinterpret_cast<char*>(&out));
        controlOrDie(ctl, {"vol-fill", std::to_string(k.srcVid), "lp1a", "--files",
                           std::to_string(files), "--size", std::to_string(size)});
        keys.push_back(k);
    }
    double createMs = msSince(t0);
    t0 = Clock::now();
    for (size_t i = 0; i < keys.size(); i++) {
        std::string name = "scale" + std::to_string(i) + "c";
        VoLidVnameIn in{};
        in.vidSrc = keys[i].srcVid;
        std::memcpy(in.lidSrc, kSrcLp, 16);
        std::memcpy(in.lidSink, kSinkLp, 16);
        in.vnameSink = const_cast<char*>(name.c_str());
        VoVidOut out{};
        if (vocopy_1(&in, &out, c) != RPC_SUCCESS || out.rc != voErrRcSuccess) {
            std::fprintf(stderr, "scale_load: vocopy of %u refused: rc=%d func=%d funcrc=%u\n",
                         in.vidSrc, out.rc, out.func, out.funcrc);
            return 1;
        }
        keys[i].sinkVid = out.vid;
    }
    double copyMs = msSince(t0);
    std::ofstream o(keysPath);
    for (Key& k : keys) {
        VoCopyPgrsOut out;
        if (poll(c, k, &out)) k.opid = out.voOpid;
        o << k.srcVid << " " << k.sinkVid << " " << k.opid << "\n";
    }
    std::printf("setup volumes=%d create_ms=%.0f copies_ms=%.0f\n", n, createMs, copyMs);
    clnt_destroy(c);
    return 0;
}

int seed(const std::string& ctl, unsigned first, int count, const std::string& keysPath) {
    std::ofstream o(keysPath, std::ios::app);
    auto t0 = Clock::now();
    for (int i = 0; i < count; i++) {
        unsigned src = first + 3 * static_cast<unsigned>(i);
        std::string opid =
            controlOrDie(ctl, {"vodb-add", "0", "1", std::to_string(src), "lp1a", "1"});
        opid.erase(opid.find_last_not_of(" \n") + 1);
        controlOrDie(ctl, {"vodb-add", opid, "1", std::to_string(src + 1), "lp2a", "2"});
        controlOrDie(ctl, {"vodb-add", opid, "1", std::to_string(src + 2), "lp1a", "3"});
        o << src << " " << src + 1 << " " << opid << "\n";
    }
    std::printf("seed operations=%d records=%d ms=%.0f\n", count, 3 * count, msSince(t0));
    return 0;
}

// ---- load ----

// When a paced client sends its next call: every gapMs from its start, late
// or not, so that a stalled server is charged for every call it held up and
// not just for the one that waited (0: back to back, from the last answer).
class Schedule {
  public:
    explicit Schedule(int gapMs) : _gap(gapMs), _at(Clock::now()) {}

    // Waits until the next call is due and returns when it was due.
    Clock::time_point next() {
        if (_gap <= 0) return Clock::now();
        Clock::time_point due = _at;
        _at += std::chrono::milliseconds(_gap);
        std::this_thread::sleep_until(due);
        return due;
    }

  private:
    int _gap;
    Clock::time_point _at;
};

int load(const std::string& keysPath, double seconds, int pollers, int gapMs,
         unsigned long long skip) {
    std::vector<Key> keys;
    for (const Key& k : readKeys(keysPath))
        if (k.opid != skip) keys.push_back(k);
    if (keys.empty()) {
        std::fprintf(stderr, "scale_load: no keys\n");
        return 1;
    }
    std::atomic<bool> stop{false};
    std::mutex m;
    std::vector<double> pollMs, nullMs;
    std::atomic<long> failures{0}, unknown{0};
    auto deadline = Clock::now() + std::chrono::duration<double>(seconds);

    std::vector<std::thread> threads;
    for (int p = 0; p < pollers; p++) {
        threads.emplace_back([&, p] {
            CLIENT* c = vodClientOrDie(60);
            std::mt19937 rng(static_cast<unsigned>(p + 1));
            std::vector<double> mine;
            Schedule due(gapMs);
            while (!stop && Clock::now() < deadline) {
                const Key& k = keys[rng() % keys.size()];
                VoCopyPgrsOut out;
                auto t0 = due.next();
                bool ok = poll(c, k, &out);
                mine.push_back(msSince(t0));
                if (!ok)
                    failures++;
                else if (out.rc == voErrNoSuchOp)
                    unknown++;
            }
            clnt_destroy(c);
            std::lock_guard<std::mutex> g(m);
            pollMs.insert(pollMs.end(), mine.begin(), mine.end());
        });
    }
    threads.emplace_back([&] {
        CLIENT* c = vodClientOrDie(60);
        std::vector<double> mine;
        Schedule due(std::max(10, gapMs));
        while (Clock::now() < deadline) {
            auto t0 = due.next();
            if (!nullCall(c)) failures++;
            mine.push_back(msSince(t0));
        }
        clnt_destroy(c);
        std::lock_guard<std::mutex> g(m);
        nullMs = mine;
    });
    for (auto& t : threads) t.join();

    Stats p = stats(pollMs), n = stats(nullMs);
    std::printf(
        "load polls=%zu polls_per_s=%.0f poll_p50=%.3f poll_p99=%.3f poll_max=%.1f "
        "null_calls=%zu null_p50=%.3f null_p99=%.3f null_max=%.1f failures=%ld unknown=%ld\n",
        p.n, static_cast<double>(p.n) / seconds, p.p50, p.p99, p.max, n.n, n.p50, n.p99, n.max,
        failures.load(), unknown.load());
    return 0;
}

// ---- cost of a poll ----

// What vod does for one poll of a running stream, timed in parts: the port
// look-up, the connection and client, the call, the destruction.
bool bareProgress(unsigned long long opid, double parts[4]) {
    auto t0 = Clock::now();
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    u_short port = pmap_getport(&addr, DBLADE_INCRCOPY_PROG, DBLADE_INCRCOPY_VERS, IPPROTO_TCP);
    parts[0] = msSince(t0);
    if (port == 0) return false;
    t0 = Clock::now();
    addr.sin_port = htons(port);
    int sock = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (sock < 0) return false;
    if (connect(sock, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        close(sock);
        return false;
    }
    CLIENT* c = clnttcp_create(&addr, DBLADE_INCRCOPY_PROG, DBLADE_INCRCOPY_VERS, &sock, 0, 0);
    parts[1] = msSince(t0);
    if (c == nullptr) {
        close(sock);
        return false;
    }
    t0 = Clock::now();
    u_quad_t id = opid;
    IncrCopyProgressOut out;
    std::memset(&out, 0, sizeof out);
    bool ok = incrcopyprogress_1(&id, &out, c) == RPC_SUCCESS;
    parts[2] = msSince(t0);
    xdr_free(reinterpret_cast<xdrproc_t>(xdr_IncrCopyProgressOut), reinterpret_cast<char*>(&out));
    t0 = Clock::now();
    clnt_destroy(c);
    close(sock);
    parts[3] = msSince(t0);
    return ok;
}

int cost(const std::string& keysPath, int rounds, unsigned long long skip) {
    std::vector<Key> keys;
    for (const Key& k : readKeys(keysPath))
        if (k.opid != skip && k.opid != 0) keys.push_back(k);
    if (keys.empty()) return 1;
    CLIENT* c = vodClientOrDie(60);
    std::mt19937 rng(7);
    std::vector<double> pollMs, nullMs, bareMs, part[4];
    for (int r = 0; r < rounds; r++) {
        const Key& k = keys[rng() % keys.size()];
        auto t0 = Clock::now();
        nullCall(c);
        nullMs.push_back(msSince(t0));
        VoCopyPgrsOut out;
        t0 = Clock::now();
        poll(c, k, &out);
        pollMs.push_back(msSince(t0));
        double parts[4] = {0, 0, 0, 0};
        t0 = Clock::now();
        if (!bareProgress(k.opid, parts)) continue;
        bareMs.push_back(msSince(t0));
        for (int i = 0; i < 4; i++) part[i].push_back(parts[i]);
    }
    clnt_destroy(c);
    Stats p = stats(pollMs), n = stats(nullMs), b = stats(bareMs);
    double inside = p.p50 - n.p50;
    std::printf(
        "cost rounds=%d poll_p50=%.3f null_p50=%.3f in_vod_p50=%.3f bare_p50=%.3f "
        "lookup_p50=%.3f connect_p50=%.3f call_p50=%.3f destroy_p50=%.3f ratio=%.2f "
        "poll_p99=%.3f bare_p99=%.3f\n",
        rounds, p.p50, n.p50, inside, b.p50, stats(part[0]).p50, stats(part[1]).p50,
        stats(part[2]).p50, stats(part[3]).p50, b.p50 > 0 ? inside / b.p50 : 0.0, p.p99, b.p99);
    return 0;
}

// ---- restart ----

int waitKnown(const std::string& keysPath, double seconds, long long t0ns) {
    std::vector<Key> keys = readKeys(keysPath);
    if (keys.empty()) return 1;
    auto deadline = Clock::now() + std::chrono::duration<double>(seconds);
    CLIENT* c = nullptr;
    bool found = false;
    while (Clock::now() < deadline) {
        if (c == nullptr) c = vodClient(60);
        if (c != nullptr) {
            VoCopyPgrsOut out;
            if (!poll(c, keys.back(), &out)) {
                clnt_destroy(c);  // vod was not up yet: connect again
                c = nullptr;
            } else if (out.rc != voErrNoSuchOp) {
                found = true;
                break;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    double ms = (static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec) -
                 static_cast<double>(t0ns)) /
                1e6;
    if (!found) {
        std::printf("restart operations=%zu found=0 ms=%.0f\n", keys.size(), ms);
        return 1;
    }
    size_t known = 0;
    for (const Key& k : keys) {
        VoCopyPgrsOut out;
        if (poll(c, k, &out) && out.rc != voErrNoSuchOp) known++;
    }
    clnt_destroy(c);
    std::printf("restart operations=%zu known=%zu ms=%.0f\n", keys.size(), known, ms);
    return 0;
}

int notify(unsigned long long opid) {
    CLIENT* c = vodClientOrDie(60);
    u_quad_t id = opid;
    char none;
    bool ok = incrcopycomplete_1(&id, &none, c) == RPC_SUCCESS;
    clnt_destroy(c);
    return ok ? 0 : 1;
}

int usage() {
    std::fprintf(
        stderr,
        "usage: scale_load setup CONTROL N FILES SIZE KEYS | seed CONTROL FIRST COUNT KEYS |\n"
        "       load KEYS SECONDS POLLERS GAP_MS [SKIP_OPID] | cost KEYS ROUNDS [SKIP_OPID] |\n"
        "       notify OPID | wait KEYS SECONDS T0_NS\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usage();
    std::string cmd = argv[1];
    auto arg = [&](int i) { return std::string(i < argc ? argv[i] : ""); };
    if (cmd == "setup" && argc == 7)
        return setup(arg(2), std::atoi(argv[3]), std::atoi(argv[4]), std::atoi(argv[5]), arg(6));
    if (cmd == "seed" && argc == 6)
        return seed(arg(2), static_cast<unsigned>(std::atol(argv[3])), std::atoi(argv[4]), arg(5));
    if (cmd == "load" && (argc == 6 || argc == 7))
        return load(arg(2), std::atof(argv[3]), std::atoi(argv[4]), std::atoi(argv[5]),
                    argc == 7 ? std::strtoull(argv[6], nullptr, 10) : 0);
    if (cmd == "cost" && (argc == 4 || argc == 5))
        return cost(arg(2), std::atoi(argv[3]),
                    argc == 5 ? std::strtoull(argv[4], nullptr, 10) : 0);
    if (cmd == "notify" && argc == 3) return notify(std::strtoull(argv[2], nullptr, 10));
    if (cmd == "wait" && argc == 5)
        return waitKnown(arg(2), std::atof(argv[3]), std::atoll(argv[4]));
    return usage();
}
