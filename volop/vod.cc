// vod: the volume-operations daemon.  Reads its options, sets up tracing,
// detaches unless told not to, serves VOPROG over TCP and runs the loop.
#include <errno.h>
#include <netinet/in.h>
#include <rpc/pmap_clnt.h>
#include <rpc/rpc_com.h>
#include <rpc/rpc.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include "util/tarn_clnt_create.h"
#include "vo.h"
#include "vo_dispatch.h"
#include "vodoptions.h"
#include "vomovestate.h"
#include "vorpcclient.h"
#include "voserver.h"
#include "votrace.h"

namespace {

// The RPC port when run as root; otherwise the kernel picks one.
const unsigned short kRpcPort = 908;

// Largest request record accepted.  It also puts connections in non-blocking
// record mode, so a client that sends half a request and goes silent cannot
// stall the loop, and garbage record markers cannot make it allocate without
// bound.  The largest legitimate request is well under 1 KiB plus names.
// The protocol's unbounded names are decoded within the same bound.
const int kMaxRequestRecord = VO_MAX_REQUEST;

void sig_handler(int sig) {
    if (sig == SIGABRT || sig == SIGKILL) abort();
}

}  // namespace

int main(int argc, char** argv) {
    VoTrace trace;
    gVoTrace = &trace;

    VodOptions opts;
    parseVodOptions(argc, argv, &opts);
    isDaemon = opts.isDaemon;

    if (opts.numOfThreads <= 0) {
        VO_TR_RAW(vo_vod, vo_warn, "VOD: numOfThreads == 0, can't do That\n");
        exit(1);
    }
    VoMoveState::setKeepSrc(opts.keepSrc);
    VoRPCClient::setCallTimeoutCap(static_cast<unsigned>(opts.callTimeoutCap));
    voApplyTracePreset(opts.tracePreset);

    signal(SIGHUP, SIG_IGN);
    signal(SIGPIPE, SIG_IGN);
    // SIGKILL cannot be caught; the call is harmless and kept with its twin.
    signal(SIGKILL, sig_handler);
    signal(SIGABRT, sig_handler);

    if (isDaemon) {
        // What administrators filter syslog by: the program's name with its pid, and the
        // facility of system daemons rather than syslog's default "user".
        openlog("vod", LOG_PID, LOG_DAEMON);
        if (daemon(1, 0) != 0) {
            VO_TR_RAW(vo_vod, vo_fatal, "daemon(1,0) failed: %s\n", strerror(errno));
            exit(-1);
        }
        VO_TR_RAW(vo_vod, vo_audit, "vod runs as a daemon\n");
    } else {
        VO_TR_RAW(vo_vod, vo_audit, "vod runs as a console app\n");
    }

    // Without the protocol database every client vod makes fails with
    // "Unknown protocol" and rpcbind does not answer: name the cause once,
    // before the first call that needs it.
    if (!tarn_proto_known("tcp")) {
        VO_TR_RAW(vo_vod, vo_fatal,
                  "protocol \"tcp\" is unknown: /etc/protocols is missing (install the netbase "
                  "package); no RPC client can be made\n");
    }

    pmap_unset(VOPROG, VOVERS);

    int sock = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (sock < 0) {
        VO_TR_RAW(vo_vod, vo_fatal, "cannot create socket. exit.\n");
        exit(1);
    }
    int one = 1;
    if (setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) < 0) {
        VO_TR_RAW(vo_vod, vo_fatal, "cannot set SO_REUSEADDR on the socket. exit.\n");
        exit(1);
    }
    sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    addr.sin_port = htons(getuid() == 0 ? kRpcPort : 0);
    if (bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) {
        VO_TR_RAW(vo_vod, vo_fatal, "cannot bind sock. errno=%d\n", errno);
        exit(1);
    }

    // libtirpc leaves a socket that arrives already bound unlistened.
    if (listen(sock, SOMAXCONN) < 0) {
        VO_TR_RAW(vo_vod, vo_fatal, "cannot create tcp service. exit.\n");
        exit(1);
    }

    int maxrec = kMaxRequestRecord;
    rpc_control(RPC_SVC_CONNMAXREC_SET, &maxrec);
    SVCXPRT* xprt = svctcp_create(sock, 0, 0);
    if (xprt == nullptr) {
        VO_TR_RAW(vo_vod, vo_fatal, "cannot create tcp service. exit.\n");
        exit(1);
    }
    if (!svc_register(xprt, VOPROG, VOVERS, voprog_1, IPPROTO_TCP)) {
        VO_TR_RAW(vo_vod, vo_fatal, "unable to register (VOPROG, VOVERS, tcp). exit.\n");
        exit(1);
    }
    VO_TR(vo_vod, vo_audit, "vod listens on port %d\n", xprt->xp_port);

    gVoServer->svc_run(opts.holdOffSec, opts.callsToServe, opts.numOfThreads);

    VO_TR_RAW(vo_vod, vo_exit, "svc_run returned. exit.\n");
    exit(1);
}
