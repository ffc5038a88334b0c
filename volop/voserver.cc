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

#include <new>

#include "vodldb.h"
#include "voerrors.h"
#include "vorpcclient.h"
#include "vostatelist.h"
#include "votcpvfsop.h"
#include "votrace.h"
#include "workerThreadPool.h"

extern "C" int _rpc_dtablesize(void);

static VoServer _voServer;
VoServer* gVoServer = &_voServer;

const unsigned char lidZero[16] = {0};
const char* localhost = "127.0.0.1";

// The port of the dump/restore socket: 909 as root, else whatever the kernel gave.
static const int kDumpPort = 909;

VoServer::VoServer() : _isFirstCall(1) {}
VoServer::~VoServer() {}

namespace {

timespec monotonicNow() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t;
}

bool reached(const timespec& now, const timespec& deadline) {
    return now.tv_sec > deadline.tv_sec ||
           (now.tv_sec == deadline.tv_sec && now.tv_nsec >= deadline.tv_nsec);
}

}  // namespace

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
        for (const PendingConnection& p : _pending) {
            FD_SET(p.sock->sd(), &readfds);
            if (p.sock->sd() >= maxfd) maxfd = p.sock->sd() + 1;
        }
        // A waiting connection's time-out wakes the loop too.
        if (!_pending.empty()) {
            const long wait = pendingWaitSec(timeout.tv_sec);
            if (wait < timeout.tv_sec) {
                timeout.tv_sec = wait;
                timeout.tv_usec = 10000;
            }
        }

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
                acceptConnection(sd);
            } else {
                // The pending connections are ours, not the RPC library's.
                fd_set rpcfds = readfds;
                for (const PendingConnection& p : _pending) FD_CLR(p.sock->sd(), &rpcfds);
                svc_getreqset(&rpcfds);
            }
            if (_isFirstCall) populateMissingVoStateFromVodb(lidZero);
        }
        if (!_pending.empty()) {
            if (n <= 0) FD_ZERO(&readfds);
            servePendingConnections(readfds);
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

// ---- Dump and restore connections. ----

// The cookie is not read on the loop with a blocking receive: the loop
// gathers it as it arrives instead (VoTcpSocket::prefetch), so that a client
// that connects and says nothing, or sends half a cookie, holds up no other
// client. It gets the same rejection a failed read gets,
// once COOKIE_WAIT_SEC have passed: ETIMEDOUT under SysRecv.
void VoServer::acceptConnection(int sd) {
    auto sock = std::unique_ptr<VoTcpSocket>(new (std::nothrow) VoTcpSocket(sd));
    if (sock == nullptr) {
        VoTcpVfsOp::rejectTcpOp(sd, voCompositeCode(VoProcVodCreateState,
                                                    VOD_ERR_BASE + VOD_ERR_NO_MEMORY));
        close(sd);
        return;
    }
    if (sock->prefetch()) {
        tcpVfsOp(std::move(*sock));
        return;
    }
    // select cannot watch a descriptor past its set, and the wait list is
    // bounded: such a connection is refused at once as if it had timed out.
    if (sd >= FD_SETSIZE || _pending.size() >= MAX_PENDING_CONNECTIONS) {
        VO_TR(vo_vod, vo_warn, "sd=%d cannot wait for its cookie (%d waiting)\n", sd,
              static_cast<int>(_pending.size()));
        sock->endPrefetch(EAGAIN);
        tcpVfsOp(std::move(*sock));
        return;
    }
    timespec deadline = monotonicNow();
    deadline.tv_sec += COOKIE_WAIT_SEC;
    _pending.push_back(PendingConnection{std::move(sock), deadline});
}

void VoServer::servePendingConnections(const fd_set& ready) {
    const timespec now = monotonicNow();
    // Taken out of the list first: a hand-over may run for a while, and
    // nothing it does touches the list.
    std::vector<std::unique_ptr<VoTcpSocket>> due;
    for (auto it = _pending.begin(); it != _pending.end();) {
        VoTcpSocket& s = *it->sock;
        bool go = FD_ISSET(s.sd(), &ready) && s.prefetch();
        if (!go && reached(now, it->deadline)) {
            VO_TR(vo_vod, vo_warn, "sd=%d sent no cookie in %d seconds\n", s.sd(),
                  COOKIE_WAIT_SEC);
            s.endPrefetch(ETIMEDOUT);
            go = true;
        }
        if (go) {
            due.push_back(std::move(it->sock));
            it = _pending.erase(it);
        } else {
            ++it;
        }
    }
    for (auto& s : due) tcpVfsOp(std::move(*s));
}

long VoServer::pendingWaitSec(long cap) const {
    const timespec now = monotonicNow();
    long wait = cap;
    for (const PendingConnection& p : _pending) {
        long left = p.deadline.tv_sec - now.tv_sec;
        if (p.deadline.tv_nsec > now.tv_nsec) left++;  // round up: never wake early forever
        if (left < 0) left = 0;
        if (left < wait) wait = left;
    }
    return wait;
}

void VoServer::tcpVfsOp(int sd) { tcpVfsOp(VoTcpSocket(sd)); }

void VoServer::tcpVfsOp(VoTcpSocket&& sock) {
    VoTrace::Depth depth;
    const int sd = sock.sd();
    int one = 1;
    if (setsockopt(sd, SOL_SOCKET, SO_KEEPALIVE, &one, sizeof one) < 0) {
        const int e = errno;
        VO_TR_RAW(vo_vod, vo_fatal, "setsockopt(SO_KEEPALIVE): %s", strerror(e));
        VoTcpVfsOp::rejectTcpOp(sd, voCompositeCode(VoProcSysSetSoKeepAlive, 30000 + e));
        return;
    }
    linger lg;
    lg.l_onoff = 1;
    lg.l_linger = 300;
    if (setsockopt(sd, SOL_SOCKET, SO_LINGER, &lg, sizeof lg) < 0) {
        const int e = errno;
        VO_TR_RAW(vo_vod, vo_fatal, "setsockopt(SO_LINGER): %s", strerror(e));
        VoTcpVfsOp::rejectTcpOp(sd, voCompositeCode(VoProcSysSetSoLinger, 30000 + e));
        return;
    }
    VoRPCClient vldb, incrcopy, dbladeVol;
    if (batchClntCreate(vldb, incrcopy, dbladeVol) != 0) {
        VO_TR(vo_vod, vo_warn, "cannot make rpc client\n");
        VoTcpVfsOp::rejectTcpOp(
            sd, voCompositeCode(VoProcVodRpcCreateClient, VOD_ERR_BASE + VOD_ERR_NO_DBLADE_CLIENT));
        return;
    }
    VoTcpVfsOp* op = new (std::nothrow) VoTcpVfsOp(std::move(sock));
    if (op == nullptr) {
        VoTcpVfsOp::rejectTcpOp(
            sd, voCompositeCode(VoProcVodCreateState, VOD_ERR_BASE + VOD_ERR_NO_MEMORY));
        return;
    }
    unsigned code = op->prepare(vldb, incrcopy, dbladeVol);
    if (code != 0) {
        // Nothing was recorded: prepare fails before the records or at them.
        op->reject(code);
        delete op;
        return;
    }
    VO_TR(vo_vod, vo_audit, "opid=%lld %s of vfsid=%d queued to worker thread\n",
          static_cast<long long>(op->getOpid()), op->isDump() ? "dump" : "restore",
          op->srcRec().vid());
    op->setJobState(VO_JOB_INIT);
    op->setVodbRecordStored();
    voStateList.addNewOp(op, 0);
    WorkerThreadPool::queueJob(op, WorkerThreadPool::JOB_START);
}
