#include "util/tarn_clnt_create.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netdb.h>
#include <rpc/pmap_clnt.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <mutex>
#include <vector>

namespace {

std::mutex gLookupMutex;
TarnPortLookup gLookup;  // guarded by gLookupMutex

// UDP clients resend a call this often until the call's total time-out.
const struct timeval kUdpRetry = {5, 0};

void setCreateErr(enum clnt_stat st, int err) {
    rpc_createerr.cf_stat = st;
    rpc_createerr.cf_error.re_errno = err;
}

// The re-entrant resolvers answer ERANGE while the work buffer is too small.
bool resolveHost(const char* host, struct in_addr* addr, int* family) {
    std::vector<char> buf(1024);
    struct hostent he, *hp = nullptr;
    int herr = 0, rc;
    while ((rc = gethostbyname_r(host, &he, buf.data(), buf.size(), &hp, &herr)) == ERANGE)
        buf.resize(buf.size() * 2);
    if (rc != 0 || hp == nullptr) return false;
    *family = hp->h_addrtype;
    if (hp->h_addrtype == AF_INET && hp->h_length == sizeof *addr && hp->h_addr_list[0])
        memcpy(addr, hp->h_addr_list[0], sizeof *addr);
    return true;
}

bool protoNumber(const char* proto, int* number) {
    std::vector<char> buf(1024);
    struct protoent pe, *pp = nullptr;
    int rc;
    while ((rc = getprotobyname_r(proto, &pe, buf.data(), buf.size(), &pp)) == ERANGE)
        buf.resize(buf.size() * 2);
    if (rc != 0 || pp == nullptr) return false;
    *number = pp->p_proto;
    return true;
}

CLIENT* unixClient(const char* path, unsigned long prog, unsigned long vers) {
    struct sockaddr_un sun;
    memset(&sun, 0, sizeof sun);
    sun.sun_family = AF_LOCAL;
    if (strlen(path) >= sizeof sun.sun_path) {
        setCreateErr(RPC_SYSTEMERROR, ENAMETOOLONG);
        return nullptr;
    }
    strcpy(sun.sun_path, path);
    int sock = RPC_ANYSOCK;
    return clntunix_create(&sun, prog, vers, &sock, 0, 0);
}

}  // namespace

bool tarn_proto_known(const char* proto) {
    int number = 0;
    return proto != nullptr && protoNumber(proto, &number);
}

void tarn_set_port_lookup(TarnPortLookup lookup) {
    std::lock_guard<std::mutex> g(gLookupMutex);
    gLookup = std::move(lookup);
}

unsigned short tarn_getport(const struct sockaddr_in* addr, unsigned long prog, unsigned long vers,
                            unsigned ipproto) {
    TarnPortLookup lookup;
    {
        std::lock_guard<std::mutex> g(gLookupMutex);
        lookup = gLookup;
    }
    if (lookup) {
        unsigned short port = lookup(prog, vers, ipproto);
        if (port == 0) setCreateErr(RPC_PROGNOTREGISTERED, 0);
        return port;
    }
    struct sockaddr_in a = *addr;  // pmap_getport writes the port mapper's port into it
    return pmap_getport(&a, prog, vers, ipproto);
}

CLIENT* tarn_clnt_create(const char* host, unsigned long prog, unsigned long vers,
                         const char* proto) {
    if (host == nullptr || proto == nullptr) {
        setCreateErr(RPC_UNKNOWNHOST, 0);
        return nullptr;
    }
    if (strcmp(proto, "unix") == 0) return unixClient(host, prog, vers);

    struct sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    int family = 0;
    if (!resolveHost(host, &addr.sin_addr, &family)) {
        setCreateErr(RPC_UNKNOWNHOST, 0);
        return nullptr;
    }
    if (family != AF_INET) {
        setCreateErr(RPC_SYSTEMERROR, EAFNOSUPPORT);
        return nullptr;
    }
    addr.sin_family = AF_INET;

    int ipproto = 0;
    if (!protoNumber(proto, &ipproto)) {
        setCreateErr(RPC_UNKNOWNPROTO, EPFNOSUPPORT);
        return nullptr;
    }
    int type;
    if (ipproto == IPPROTO_TCP)
        type = SOCK_STREAM;
    else if (ipproto == IPPROTO_UDP)
        type = SOCK_DGRAM;
    else {
        setCreateErr(RPC_SYSTEMERROR, EPFNOSUPPORT);
        return nullptr;
    }

    unsigned short port = tarn_getport(&addr, prog, vers, static_cast<unsigned>(ipproto));
    if (port == 0) return nullptr;
    addr.sin_port = htons(port);

    int sock = socket(AF_INET, type, ipproto);
    if (sock < 0) {
        setCreateErr(RPC_SYSTEMERROR, errno);
        return nullptr;
    }
    if (connect(sock, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) < 0) {
        int e = errno;
        close(sock);
        setCreateErr(RPC_SYSTEMERROR, e);
        return nullptr;
    }
    CLIENT* clnt = type == SOCK_STREAM ? clnttcp_create(&addr, prog, vers, &sock, 0, 0)
                                       : clntudp_create(&addr, prog, vers, kUdpRetry, &sock);
    if (clnt == nullptr) {
        close(sock);
        return nullptr;
    }
    clnt_control(clnt, CLSET_FD_CLOSE, nullptr);
    return clnt;
}
