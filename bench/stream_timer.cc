// stream_timer: how long the simulated D-blade spends on the next incremental
// copy stream, measured from outside through the simulator's control socket.
//
// usage: stream_timer SOCKET [TIMEOUT_SEC]
//
// Prints "ready" once it knows the streams that exist already, then watches
// for a new one and prints "opid=N ms=T start_ns=A end_ns=B" when that stream
// reports itself done: T from the first poll that saw it to the first that saw
// it done, A and B those two moments on the wall clock (ns since the epoch, as
// date +%s%N prints them). The polls are 1 ms apart, so T is good to about
// 2 ms. A trailing "gone" means the stream was forgotten before it was seen
// done: T is then an upper bound.
// Exit status 1 when no stream came within TIMEOUT_SEC (default 120).
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <sstream>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

// One request of the control protocol: words joined by tabs, a newline; the
// reply is "OK" or "ERR" on its first line, then the text. Our words need no
// escaping.
bool ask(const std::string& path, const std::string& request, std::string* text) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) return false;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        close(fd);
        return false;
    }
    std::string req = request + "\n";
    bool ok = send(fd, req.data(), req.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(req.size());
    std::string reply;
    char buf[4096];
    ssize_t n;
    while (ok && (n = recv(fd, buf, sizeof buf, 0)) > 0) reply.append(buf, static_cast<size_t>(n));
    close(fd);
    if (!ok || reply.compare(0, 3, "OK\n") != 0) return false;
    *text = reply.substr(3);
    return true;
}

std::set<unsigned long long> streamIds(const std::string& list) {
    std::set<unsigned long long> ids;
    std::istringstream in(list);
    std::string line;
    while (std::getline(in, line))
        if (line.compare(0, 5, "opid=") == 0)
            ids.insert(std::strtoull(line.c_str() + 5, nullptr, 10));
    return ids;
}

double msSince(Clock::time_point t) {
    return std::chrono::duration<double, std::milli>(Clock::now() - t).count();
}

long long wallNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || argc > 3) {
        std::fprintf(stderr, "usage: stream_timer SOCKET [TIMEOUT_SEC]\n");
        return 2;
    }
    const std::string sock = argv[1];
    const double timeoutMs = (argc == 3 ? std::atof(argv[2]) : 120) * 1000;
    const auto poll = std::chrono::milliseconds(1);

    std::string text;
    if (!ask(sock, "stream-list", &text)) {
        std::fprintf(stderr, "stream_timer: cannot ask the simulator at %s\n", sock.c_str());
        return 2;
    }
    const std::set<unsigned long long> known = streamIds(text);
    std::printf("ready\n");
    std::fflush(stdout);

    const Clock::time_point armed = Clock::now();
    unsigned long long opid = 0;
    while (opid == 0) {
        if (msSince(armed) > timeoutMs) {
            std::fprintf(stderr, "stream_timer: no new stream\n");
            return 1;
        }
        if (ask(sock, "stream-list", &text))
            for (unsigned long long id : streamIds(text))
                if (known.count(id) == 0) opid = id;
        if (opid == 0) std::this_thread::sleep_for(poll);
    }
    const Clock::time_point seen = Clock::now();
    const long long seenNs = wallNs();
    const std::string show = "stream-show\t" + std::to_string(opid);
    for (;;) {
        bool present = ask(sock, show, &text);
        if (!present || text.find("status=done") != std::string::npos) {
            std::printf("opid=%llu ms=%.1f start_ns=%lld end_ns=%lld%s\n", opid, msSince(seen),
                        seenNs, wallNs(), present ? "" : " gone");
            return 0;
        }
        if (msSince(seen) > timeoutMs) {
            std::fprintf(stderr, "stream_timer: stream %llu did not end\n", opid);
            return 1;
        }
        std::this_thread::sleep_for(poll);
    }
}
