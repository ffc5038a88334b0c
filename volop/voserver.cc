#include "voserver.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <rpc/rpc.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "vodldb.h"
#include "voerrors.h"
#include "vostatelist.h"
#include "votrace.h"
#include "workerThreadPool.h"

extern "C" int _rpc_dtablesize(void);

static VoServer _voServer;
VoServer* gVoServer = &_voServer;

const unsigned char lidZero[16] = {0};
const char* localhost = "127.0.0.1";

// The port of the dump/restore socket: 909 as root, else whatever the kernel gave.
static const int kDumpPort = 909;

static long long monotonicUs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

void VoServer::svc_run(unsigned int holdOffSec, unsigned int callsToServe, int numOfThreads) {
    if (callsToServe != 0)
        VO_TR(vo_vod, vo_warn, "vod will exit after servicing %d RPC calls\n", callsToServe);

    int lsd = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (lsd < 0) {
        VO_TR_RAW(vo_vod, vo_fatal, "Failed to create a socket: %s", strerror(errno));
        return;
    }
    int one = 1;
    if (setsockopt(lsd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) < 0) {
        VO_TR_RAW(vo_vod, vo_fatal, "setsockopt(SO_REUSEADDR): %s", strerror(errno));
        return;
    }
    sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    addr.sin_port = htons(getuid() == 0 ? kDumpPort : 0);
    // The messages name 909 even when the kernel chose the port.
    if (bind(lsd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) {
        VO_TR_RAW(vo_vod, vo_fatal, "Failed to bind to port=%d, (%s)\n", kDumpPort, strerror(errno));
        return;
    }
    if (listen(lsd, 4) < 0) {
        VO_TR_RAW(vo_vod, vo_fatal, "Failed to listen on port=%d, (%s)\n", kDumpPort,
                  strerror(errno));
        return;
    }
    // A non-root daemon has no fixed dump port; say where it is so an operator
    // (or a test) can find it.
    socklen_t alen = sizeof addr;
    if (getsockname(lsd, reinterpret_cast<sockaddr*>(&addr), &alen) == 0)
        VO_TR(vo_vod, vo_audit, "dump/restore socket listens on port %d\n", ntohs(addr.sin_port));

    WorkerThreadPool::initialize(numOfThreads);
    VoDldb::initialize();

    timeval timeout;
    timeout.tv_sec = holdOffSec;
    timeout.tv_usec = 1;
    unsigned int passes = 0;
    // Start of a time-out pass (resurrection look, status checks, retire,
    // sleep computation), 0 on other passes: its length is traced for the
    // scale benchmark, as an event rather than at debug level, which would
    // also dump every operation on each such pass.
    long long hkStart = 0;

    for (;;) {
        fd_set readfds = svc_fdset;
        FD_SET(lsd, &readfds);
        // The library's descriptor table size is the process's open-file limit,
        // which can exceed the fd_set we hand to select.
        int maxfd = _rpc_dtablesize();
        if (maxfd > FD_SETSIZE) maxfd = FD_SETSIZE;
        if (lsd >= maxfd) maxfd = lsd + 1;

        int n = select(maxfd, &readfds, nullptr, nullptr, &timeout);
        if (n == -1) {
            if (errno != EINTR) {
                VO_TR_RAW(vo_vod, vo_fatal, "svc_run: - select failed (%s)\n", strerror(errno));
                return;
            }
        } else if (n == 0) {
            hkStart = monotonicUs();
            populateMissingVoStateFromVodb(lidZero);
        } else {
            if (FD_ISSET(lsd, &readfds)) {
                // A pending connection is always taken first; RPC requests that
                // arrived with it wait for the next pass.
                int sd = accept(lsd, nullptr, nullptr);
                if (sd < 0) {
                    VO_TR_RAW(vo_vod, vo_fatal, "accept failed; (%s)\n", strerror(errno));
                    close(lsd);
                    return;
                }
                tcpVfsOp(sd);
            } else {
                svc_getreqset(&readfds);
            }
            if (_isFirstCall) populateMissingVoStateFromVodb(lidZero);
        }

        voStateList.retireCompletedOps();
        timeout.tv_sec = voStateList.computeSleepTime();
        timeout.tv_usec = 10000;
        VO_TR(vo_vod, vo_audit, "sleepTime = %lu\n", static_cast<unsigned long>(timeout.tv_sec));
        if (hkStart != 0) {
            VO_TR(vo_vod, vo_event, "housekeeping pass took %lld us\n", monotonicUs() - hkStart);
            hkStart = 0;
        }

        if (callsToServe != 0 && ++passes == callsToServe) return;
    }
}

void VoServer::tcpVfsOp(int sd) {
    // Dump and restore streams are not served yet: close the connection so the
    // client sees it at once instead of waiting.
    VO_TR(vo_vod, vo_warn, "dump/restore connection refused: not supported\n");
    close(sd);
}
