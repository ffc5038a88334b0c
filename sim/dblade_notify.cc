// The D-blade's completion notice to the local vod (incrcopycomplete of VOPROG).  Kept in
// a file of its own so the vod protocol's header meets no D-blade header.

#include <rpc/rpc.h>

#include <mutex>

#include "sim/incrcopy.h"
#include "vo.h"

void simNotifyVod(uint64_t opId) {
    // Short time-outs: a vod that is down or stuck must not hold a stream's thread for long;
    // the notice is then lost, as it would be in a cluster.
    struct timeval connectTimeout = {2, 0};
    // The library makes a client by host name in storage it shares between threads, and
    // streams end on threads of their own: one creation at a time. The call is not held up.
    static std::mutex createLock;
    CLIENT* clnt;
    {
        std::lock_guard<std::mutex> g(createLock);
        clnt = clnt_create_timed("127.0.0.1", VOPROG, VOVERS, "tcp", &connectTimeout);
    }
    if (!clnt) return;
    struct timeval callTimeout = {5, 0};
    clnt_control(clnt, CLSET_TIMEOUT, reinterpret_cast<char*>(&callTimeout));
    u_quad_t id = opId;
    char unused = 0;
    incrcopycomplete_1(&id, &unused, clnt);
    clnt_destroy(clnt);
}
