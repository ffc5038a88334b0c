// The floor for a dump or restore: the same bytes copied from a file over a
// loopback TCP connection to another file, with the socket helpers the dump
// stream itself uses. Prints "bytes=N ms=T MiBps=R".
//
// usage: tcp_copy IN OUT
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "util/tcpdump_frame.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: tcp_copy IN OUT\n");
        return 2;
    }
    int in = open(argv[1], O_RDONLY);
    int out = open(argv[2], O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (in < 0 || out < 0) {
        std::perror("tcp_copy");
        return 1;
    }
    int lsd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t alen = sizeof a;
    if (bind(lsd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(lsd, 1) != 0 ||
        getsockname(lsd, reinterpret_cast<sockaddr*>(&a), &alen) != 0) {
        std::perror("tcp_copy: listen");
        return 1;
    }
    const auto t0 = std::chrono::steady_clock::now();
    long long total = 0;
    std::thread sender([&] {
        int sd = socket(AF_INET, SOCK_STREAM, 0);
        if (connect(sd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) return;
        std::vector<unsigned char> buf(64 * 1024);
        ssize_t n;
        while ((n = read(in, buf.data(), buf.size())) > 0)
            if (sendall(sd, buf.data(), static_cast<unsigned>(n)) != 0) break;
        close(sd);
    });
    int sd = accept(lsd, nullptr, nullptr);
    std::vector<unsigned char> buf(64 * 1024);
    ssize_t n;
    while ((n = recv(sd, buf.data(), buf.size(), 0)) > 0) {
        if (write(out, buf.data(), static_cast<size_t>(n)) != n) break;
        total += n;
    }
    fsync(out);
    sender.join();
    const double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    std::printf("bytes=%lld ms=%.1f MiBps=%.1f\n", total, ms, total / 1048576.0 / (ms / 1000));
    return 0;
}
