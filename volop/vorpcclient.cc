#include "vorpcclient.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netdb.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

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

}  // namespace

VoRPCClient::VoRPCClient() : client(nullptr), sockfd(0) {}

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
    struct sockaddr_in addr;
    memset(&addr, 0, sizeof addr);

    // gethostbyname answers in storage shared by the whole process.
    getVoRpcClientLock();
    struct hostent* hp = gethostbyname(host ? host : "");
    if (hp == nullptr) {
        int herr = h_errno;
        releaseVoRpcClientLock();
        VO_TR(vo_rpc, vo_warn, "gethostbyname failed; herrno %d hostname: '%s'\n", herr,
              host ? host : "");
        return createErr(static_cast<unsigned>(herr));
    }
    if (hp->h_addrtype != AF_INET || hp->h_length != sizeof addr.sin_addr) {
        releaseVoRpcClientLock();
        VO_TR(vo_vod, vo_warn, "gethostbyname: h_addrtype not AF_INET\n");
        return createErr(VOD_ERR_INTERNAL);
    }
    addr.sin_family = AF_INET;
    addr.sin_port = 0;
    memcpy(&addr.sin_addr, hp->h_addr_list[0], sizeof addr.sin_addr);
    releaseVoRpcClientLock();

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

    if (client != nullptr)
        VO_TR(vo_vod, vo_warn, "overwrite a non-null client. openFd=%d\n", openFd);

    // The client does not own the socket: clntdestroy closes it.
    CLIENT* c = ::clnttcp_create(&addr, prog, vers, &sock, 0, 0);
    if (c == nullptr) {
        VO_TR(vo_rpc, vo_warn, "clnttcp_create failed\n");
        close(sock);
        return createErr(0);
    }
    client = c;
    sockfd = sock;
    // The stubs' own 25 seconds may exceed the cap.
    if (callTimeoutCap != 0) setCallTimeout(c, callTimeoutCap);
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
    // Destroy before closing: once closed, the descriptor number may be handed
    // to another thread's new connection while this handle still refers to it.
    clnt_destroy(client);
    client = nullptr;
    close(sockfd);
    sockfd = 0;
}
