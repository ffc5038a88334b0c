// rpc_bench: how many VOPROG calls per second one client gets through one
// TCP connection, calling back to back (one call in flight at a time).
//
//   rpc_bench [-t SECONDS] [-c CODE] [-p PROC] [-H HOST] PORT
//       null calls for SECONDS (default 3), then decodeerror(CODE) calls
//       (default 40002) for as long, or only the one PROC named; prints
//       "PROC RATE CALLS" per procedure, RATE in calls per second.
//   rpc_bench -w SECONDS [-H HOST] PORT
//       wait until a null call on PORT succeeds; exit 0 when it does, 1 when
//       SECONDS pass first.
//
// Any failed call ends the run with status 1: a rate measured over errors
// would be meaningless.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "vo.h"

namespace {

using Clock = std::chrono::steady_clock;

// The warm-up lets both servers fault in their code and buffers before the clock starts.
constexpr int kWarmUpCalls = 200;

CLIENT* connectTo(const char* host, int port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    if (inet_pton(AF_INET, host, &addr.sin_addr) != 1) return nullptr;
    int sock = RPC_ANYSOCK;  // the client makes and later closes its own socket
    return clnttcp_create(&addr, VOPROG, VOVERS, &sock, 0, 0);
}

bool nullCall(CLIENT* clnt) {
    char none;
    return vonull_1(nullptr, &none, clnt) == RPC_SUCCESS;
}

bool decodeErrorCall(CLIENT* clnt, u_int code) {
    VoErrOut out{};
    if (decodeerror_1(&code, &out, clnt) != RPC_SUCCESS) return false;
    bool ok = out.message != nullptr;
    xdr_free(reinterpret_cast<xdrproc_t>(xdr_VoErrOut), reinterpret_cast<char*>(&out));
    return ok;
}

// Calls `call` back to back for `seconds` and prints the rate and the count.
template <typename Call>
void callRate(CLIENT* clnt, const char* name, double seconds, Call call) {
    for (int i = 0; i < kWarmUpCalls; ++i) {
        if (!call()) {
            clnt_perror(clnt, name);
            std::exit(1);
        }
    }
    const Clock::time_point start = Clock::now();
    const Clock::time_point end = start + std::chrono::duration_cast<Clock::duration>(
                                              std::chrono::duration<double>(seconds));
    long calls = 0;
    Clock::time_point now;
    do {
        if (!call()) {
            clnt_perror(clnt, name);
            std::exit(1);
        }
        ++calls;
        now = Clock::now();
    } while (now < end);
    std::printf("%s %.0f %ld\n", name, calls / std::chrono::duration<double>(now - start).count(),
                calls);
    std::fflush(stdout);
}

// Polls with a fresh connection each time, since the server may not listen yet.
int waitForServer(const char* host, int port, double seconds) {
    const Clock::time_point deadline =
        Clock::now() +
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    for (;;) {
        CLIENT* clnt = connectTo(host, port);
        bool up = clnt != nullptr && nullCall(clnt);
        if (clnt != nullptr) clnt_destroy(clnt);
        if (up) return 0;
        if (Clock::now() >= deadline) return 1;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

int usage() {
    std::fprintf(stderr,
                 "usage: rpc_bench [-t SECONDS] [-c CODE] [-p null|decodeerror] [-H HOST] PORT\n"
                 "       rpc_bench -w SECONDS [-H HOST] PORT\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    double seconds = 3;
    double waitSeconds = -1;
    u_int code = 40002;
    const char* host = "127.0.0.1";
    std::string proc;
    int opt;
    while ((opt = getopt(argc, argv, "t:c:p:H:w:")) != -1) {
        switch (opt) {
            case 't': seconds = std::atof(optarg); break;
            case 'c': code = static_cast<u_int>(std::strtoul(optarg, nullptr, 0)); break;
            case 'p': proc = optarg; break;
            case 'H': host = optarg; break;
            case 'w': waitSeconds = std::atof(optarg); break;
            default: return usage();
        }
    }
    if (argc - optind != 1 || seconds <= 0) return usage();
    if (!proc.empty() && proc != "null" && proc != "decodeerror") return usage();
    int port = std::atoi(argv[optind]);
    if (port <= 0 || port > 65535) return usage();

    if (waitSeconds >= 0) return waitForServer(host, port, waitSeconds);

    CLIENT* clnt = connectTo(host, port);
    if (clnt == nullptr) {
        clnt_pcreateerror("rpc_bench");
        return 1;
    }
    if (proc.empty() || proc == "null")
        callRate(clnt, "null", seconds, [clnt] { return nullCall(clnt); });
    if (proc.empty() || proc == "decodeerror")
        callRate(clnt, "decodeerror", seconds, [clnt, code] { return decodeErrorCall(clnt, code); });
    clnt_destroy(clnt);
    return 0;
}
