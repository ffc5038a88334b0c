// bare_server: the floor that vod's call rates are measured against.
//
// It links the same generated VOPROG dispatcher as vod, but every service
// function does nothing and the loop is the RPC library's own svc_run(), so
// what it costs per call is the library and the XDR code, nothing of ours.
//
//   bare_server [PORT]      serve VOPROG on PORT (0 or none: the kernel picks);
//                           the port is printed on stdout.
//   bare_server -s [PORT]   stand in for the node's VLDB, incremental-copy and
//                           volume programs instead (registered with the port
//                           mapper; every procedure but null is refused), so
//                           that vod's start-up pass can make its clients and
//                           vod is measured in its steady state.

#include <netinet/in.h>
#include <rpc/pmap_clnt.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vo.h"

// rpcgen writes the dispatcher without a declaration.
extern "C" void voprog_1(svc_req* rqstp, SVCXPRT* transp);

namespace {

template <typename Res>
bool_t zeroed(Res* res) {
    std::memset(res, 0, sizeof *res);
    return TRUE;
}

}  // namespace

// One empty service function per procedure; results are zeroed so that the
// reply encodes and xdr_free has nothing to release.
#define BARE_PROC(proc, Arg, Res) \
    bool_t proc##_1_svc(Arg*, Res* res, svc_req*) { return zeroed(res); }
#define BARE_VOID_PROC(proc, Arg) \
    bool_t proc##_1_svc(Arg*, void*, svc_req*) { return TRUE; }

BARE_VOID_PROC(vonull, void)
BARE_PROC(vocopy, VoLidVnameIn, VoVidOut)
BARE_PROC(vocopypgrs, VoVidLidIn, VoCopyPgrsOut)
BARE_PROC(vocopycancel, VoVidLidIn, VoOut)
BARE_PROC(vocopypause, VoVidLidIn, VoOut)
BARE_PROC(vocopyresume, VoVidLidIn, VoOut)
BARE_PROC(vomirrorjoingroup, VoLidVnameIn, VoVidOut)
BARE_PROC(vomirrorleavegroup, VoVnameIn, VoVidOut)
BARE_PROC(vomirror, VoIn, VoOut)
BARE_PROC(vomirrorpgrs, VoIn, VoMirrorPgrsOut)
BARE_PROC(vomirrorcancel, VoLidIn, VoOut)
BARE_PROC(vomirrorpause, VoIn, VoOut)
BARE_PROC(vomirrorresume, VoIn, VoOut)
BARE_PROC(vomove, VoLidIn, VoOut)
BARE_PROC(vomovepgrs, VoIn, VoMovePgrsOut)
BARE_PROC(vomovecancel, VoIn, VoOut)
BARE_PROC(vomovepause, VoIn, VoOut)
BARE_PROC(vomoveresume, VoIn, VoOut)
BARE_PROC(vodelete, VoIn, VoOut)
BARE_PROC(vosetro, VoIn, VoOut)
BARE_PROC(vosetrw, VoIn, VoOut)
BARE_VOID_PROC(incrcopycomplete, u_quad_t)
BARE_VOID_PROC(vollpmchange, LpmChangeIn)
BARE_VOID_PROC(vosettracemask, u_int)
BARE_VOID_PROC(vodbgdump, void)
BARE_VOID_PROC(vopurgeop, u_quad_t)
BARE_PROC(findvfsbyname, vo_string, FindVfsByNameOut)
BARE_PROC(createvfs, CreateVfsIn, CreateVfsOut)
BARE_PROC(deletevfsbyname, vo_string, u_int)
BARE_PROC(deletevfsbyid, u_int, u_int)
BARE_PROC(dumpvfs, DumpVfsIn, DumpVfsOut)
BARE_PROC(restorevfs, RestoreVfsIn, RestoreVfsOut)
BARE_PROC(cancelop, u_quad_t, u_int)

// Two results carry a string, which XDR cannot encode from a null pointer;
// the empty text goes on the heap because the dispatcher frees it.
bool_t clonevfs_1_svc(u_int*, CloneVfsOut* res, svc_req*) {
    zeroed(res);
    res->cloneVfsName = strdup("");
    return res->cloneVfsName != nullptr;
}

bool_t decodeerror_1_svc(u_int*, VoErrOut* res, svc_req*) {
    zeroed(res);
    res->message = strdup("");
    return res->message != nullptr;
}

int voprog_1_freeresult(SVCXPRT*, xdrproc_t xdr_result, caddr_t result) {
    xdr_free(xdr_result, result);
    return TRUE;
}

namespace {

// The programs vod's start-up pass connects to on its own node.
struct StandIn {
    rpcprog_t prog;
    rpcvers_t vers;
};
constexpr StandIn kStandIns[] = {
    {0x20000200, 3},  // VLDB and VODB
    {0x20000308, 1},  // D-blade incremental copy
    {0x20000307, 1},  // D-blade volume
};

// A void reply; xdr_void's own type does not convert to xdrproc_t cleanly.
bool_t encodeNothing(XDR*, ...) { return TRUE; }

void standInDispatch(svc_req* rqstp, SVCXPRT* transp) {
    if (rqstp->rq_proc == 0)
        svc_sendreply(transp, encodeNothing, nullptr);
    else
        svcerr_noproc(transp);
}

int usage() {
    std::fprintf(stderr, "usage: bare_server [-s] [PORT]\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    bool standIn = false;
    int opt;
    while ((opt = getopt(argc, argv, "s")) != -1) {
        if (opt != 's') return usage();
        standIn = true;
    }
    if (argc - optind > 1) return usage();
    int port = optind < argc ? std::atoi(argv[optind]) : 0;
    if (port < 0 || port > 65535) return usage();

    // The same socket set-up as vod's, so both transports start alike.
    int sock = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    int one = 1;
    if (sock < 0 || setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0) {
        std::perror("bare_server: socket");
        return 1;
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    if (bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        std::perror("bare_server: bind");
        return 1;
    }
    // svctcp_create does not listen on a socket it was handed already bound;
    // without this, the transport polls as hung up and accept fails for ever.
    if (listen(sock, SOMAXCONN) != 0) {
        std::perror("bare_server: listen");
        return 1;
    }
    SVCXPRT* xprt = svctcp_create(sock, 0, 0);
    if (xprt == nullptr) {
        std::fprintf(stderr, "bare_server: cannot create tcp service\n");
        return 1;
    }

    if (standIn) {
        for (const StandIn& s : kStandIns) {
            pmap_unset(s.prog, s.vers);
            if (!svc_register(xprt, s.prog, s.vers, standInDispatch, IPPROTO_TCP)) {
                std::fprintf(stderr, "bare_server: cannot register %#lx/%lu\n",
                             static_cast<unsigned long>(s.prog),
                             static_cast<unsigned long>(s.vers));
                return 1;
            }
        }
    } else if (!svc_register(xprt, VOPROG, VOVERS, voprog_1, 0)) {
        // Protocol 0: not known to the port mapper, so vod can hold VOPROG there.
        std::fprintf(stderr, "bare_server: cannot register VOPROG\n");
        return 1;
    }

    std::printf("%u\n", static_cast<unsigned>(xprt->xp_port));
    std::fflush(stdout);
    svc_run();
    std::fprintf(stderr, "bare_server: svc_run returned\n");
    return 1;
}
