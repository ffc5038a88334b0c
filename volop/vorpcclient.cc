#include "vorpcclient.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netdb.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <type_traits>

#include "util/tarn_clnt_create.h"
#include "votrace.h"

pthread_mutex_t VoRPCClient::voRpcClientLock = PTHREAD_MUTEX_INITIALIZER;
int VoRPCClient::openFd = 0;

namespace {

VoErr createErr(unsigned funcrc) {
    VoErr e;
    e.setErrorCode(voErrVodClntTcpCreate);
    e.setErr(voErrVodClntTcpCreate, funcrc);
    return e;
}

// One TCP connection to (prog, vers) at host and the library client over it.
VoErr connectTcp(const char* host, unsigned long prog, unsigned long vers, CLIENT** out,
                 int* sockOut) {
    struct sockaddr_in addr;
    memset(&addr, 0, sizeof addr);

    // gethostbyname answers in storage shared by the whole process.
    VoRPCClient::getVoRpcClientLock();
    struct hostent* hp = gethostbyname(host ? host : "");
    if (hp == nullptr) {
        int herr = h_errno;
        VoRPCClient::releaseVoRpcClientLock();
        VO_TR(vo_rpc, vo_warn, "gethostbyname failed; herrno %d hostname: '%s'\n", herr,
              host ? host : "");
        return createErr(static_cast<unsigned>(herr));
    }
    if (hp->h_addrtype != AF_INET || hp->h_length != sizeof addr.sin_addr) {
        VoRPCClient::releaseVoRpcClientLock();
        VO_TR(vo_vod, vo_warn, "gethostbyname: h_addrtype not AF_INET\n");
        return createErr(VOD_ERR_INTERNAL);
    }
    addr.sin_family = AF_INET;
    addr.sin_port = 0;
    memcpy(&addr.sin_addr, hp->h_addr_list[0], sizeof addr.sin_addr);
    VoRPCClient::releaseVoRpcClientLock();

    unsigned short port = tarn_getport(&addr, prog, vers, IPPROTO_TCP);
    if (port == 0) {
        VO_TR(vo_rpc, vo_warn, "could not retrieve port for %s, prog %#lX, vers %ld\n", host, prog,
              static_cast<long>(vers));
        return createErr(0);
    }
    addr.sin_port = htons(port);

    int sock = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (sock < 0) {
        int e = errno;
        VO_TR(vo_rpc, vo_warn, "cannot create socket: rv %d, errno %d\n", sock, e);
        return createErr(static_cast<unsigned>(e));
    }
    int rv = connect(sock, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr);
    if (rv < 0) {
        int e = errno;
        VO_TR(vo_rpc, vo_warn, "cannot connect to %s, prog %ld, vers %ld: rv %d, errno %d\n", host,
              static_cast<long>(prog), static_cast<long>(vers), rv, e);
        close(sock);
        return createErr(static_cast<unsigned>(e));
    }

    // The client does not own the socket: clntdestroy closes it.
    CLIENT* c = ::clnttcp_create(&addr, prog, vers, &sock, 0, 0);
    if (c == nullptr) {
        VO_TR(vo_rpc, vo_warn, "clnttcp_create failed\n");
        close(sock);
        return createErr(0);
    }
    *out = c;
    *sockOut = sock;
    return VoErr();
}

// The connection behind the handle a VoRPCClient hands out. After a transport
// failure (no answer in time, a send or receive that failed, an answer that
// did not decode) the stream is in an unknown state: the library skips the
// late answer it still expects, so the next call on it loses its own answer
// when the peer never sent the first one, and half a record may be left in
// it. Rollbacks and retries reuse their job's handles, so the next call makes
// a fresh connection to the same program first, and the failed one is closed.
struct Conn {
    CLIENT outer;
    CLIENT* inner;  // null after a transport failure, until the next call
    int sock;
    std::string host;
    unsigned long prog, vers;
    bool timeoutSet;
    struct timeval timeout;
    struct rpc_err err;  // of the last call
};

Conn* connOf(CLIENT* c) { return static_cast<Conn*>(c->cl_private); }

void closeInner(Conn* k) {
    if (k->inner == nullptr) return;
    // Destroy before closing: once closed, the descriptor number may be handed
    // to another thread's new connection while this handle still refers to it.
    clnt_destroy(k->inner);
    k->inner = nullptr;
    close(k->sock);
    k->sock = -1;
}

bool transportFailure(enum clnt_stat st) {
    return st == RPC_TIMEDOUT || st == RPC_CANTSEND || st == RPC_CANTRECV ||
           st == RPC_CANTDECODERES;
}

enum clnt_stat connCall(CLIENT* c, rpcproc_t proc, xdrproc_t xargs, void* args, xdrproc_t xres,
                        void* res, struct timeval tv) {
    Conn* k = connOf(c);
    if (k->inner == nullptr) {
        VO_TR(vo_rpc, vo_warn, "reconnecting to %s, prog %#lX, vers %ld\n", k->host.c_str(),
              k->prog, static_cast<long>(k->vers));
        VoErr e = connectTcp(k->host.c_str(), k->prog, k->vers, &k->inner, &k->sock);
        if (e != 0) {
            // Told as the library tells a connection it could not make.
            std::memset(&k->err, 0, sizeof k->err);
            k->err.re_status = e.funcrc() == 0 ? RPC_PROGNOTREGISTERED : RPC_CANTSEND;
            k->err.re_errno = static_cast<int>(e.funcrc());
            return k->err.re_status;
        }
        if (k->timeoutSet)
            clnt_control(k->inner, CLSET_TIMEOUT, reinterpret_cast<char*>(&k->timeout));
    }
    enum clnt_stat st = clnt_call(k->inner, proc, xargs, static_cast<char*>(args), xres,
                                  static_cast<char*>(res), tv);
    clnt_geterr(k->inner, &k->err);
    if (transportFailure(st)) closeInner(k);
    return st;
}

void connAbort(CLIENT*) {}

void connGeterr(CLIENT* c, struct rpc_err* err) { *err = connOf(c)->err; }

bool_t connFreeres(CLIENT*, xdrproc_t xres, void* res) {
    xdr_free(xres, static_cast<char*>(res));
    return TRUE;
}

void connDestroy(CLIENT* c) {
    Conn* k = connOf(c);
    closeInner(k);
    delete k;
}

bool_t connControl(CLIENT* c, u_int request, void* info) {
    Conn* k = connOf(c);
    if (request == CLSET_TIMEOUT) {
        k->timeout = *static_cast<struct timeval*>(info);
        k->timeoutSet = true;
    }
    if (request == CLGET_TIMEOUT && k->timeoutSet) {
        *static_cast<struct timeval*>(info) = k->timeout;
        return TRUE;
    }
    if (k->inner == nullptr) return request == CLSET_TIMEOUT;
    return clnt_control(k->inner, request, static_cast<char*>(info));
}

// The library declares the table inside CLIENT.
std::remove_pointer_t<decltype(CLIENT::cl_ops)> connOps = {connCall,    connAbort,   connGeterr,
                                                           connFreeres, connDestroy, connControl};

}  // namespace

VoRPCClient::VoRPCClient() : client(nullptr) {}

VoRPCClient::~VoRPCClient() { clntdestroy(); }

void VoRPCClient::getVoRpcClientLock() {
    int rc = pthread_mutex_lock(&voRpcClientLock);
    if (rc != 0) {
        VO_TR_RAW(vo_rpc, vo_fatal, "mutex lock voRpcClientLock Error = %d, %s\n", rc,
                  strerror(rc));
        exit(1);
    }
}

void VoRPCClient::releaseVoRpcClientLock() {
    int rc = pthread_mutex_unlock(&voRpcClientLock);
    if (rc != 0) {
        VO_TR_RAW(vo_rpc, vo_fatal, "mutex unlock voRpcClientLock Error = %d, %s\n", rc,
                  strerror(rc));
        exit(1);
    }
}

VoErr VoRPCClient::clnttcp_create(const char* host, unsigned long prog, unsigned long vers) {
    CLIENT* inner = nullptr;
    int sock = -1;
    VoErr e = connectTcp(host, prog, vers, &inner, &sock);
    if (e != 0) return e;
    if (client != nullptr)
        VO_TR(vo_vod, vo_warn, "overwrite a non-null client. openFd=%d\n", openFd);
    Conn* k = new Conn();
    k->outer.cl_ops = &connOps;
    k->outer.cl_private = k;
    k->inner = inner;
    k->sock = sock;
    k->host = host ? host : "";
    k->prog = prog;
    k->vers = vers;
    client = &k->outer;
    // The stubs' own 25 seconds may exceed the cap.
    if (callTimeoutCap != 0) setCallTimeout(client, callTimeoutCap);
    return VoErr();
}

unsigned VoRPCClient::callTimeoutCap = 0;

void VoRPCClient::setCallTimeoutCap(unsigned seconds) { callTimeoutCap = seconds; }

bool VoRPCClient::setCallTimeout(CLIENT* clnt, unsigned seconds) {
    if (callTimeoutCap != 0 && seconds > callTimeoutCap) seconds = callTimeoutCap;
    struct timeval tv = {static_cast<time_t>(seconds), 0};
    return clnt_control(clnt, CLSET_TIMEOUT, reinterpret_cast<char*>(&tv));
}

void VoRPCClient::clntdestroy() {
    if (client == nullptr) return;
    clnt_destroy(client);
    client = nullptr;
}
