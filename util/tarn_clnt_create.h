// Free-standing creation of ONC RPC clients by protocol name, and the one
// port look-up every client creation in the daemon goes through.
#ifndef UTIL_TARN_CLNT_CREATE_H
#define UTIL_TARN_CLNT_CREATE_H

#include <netinet/in.h>
#include <rpc/rpc.h>

#include <functional>

// A client of (prog, vers) at host over proto: "tcp", "udp", or "unix" (host
// is then the path of a local socket). Null on failure, with rpc_createerr
// set: RPC_UNKNOWNHOST, RPC_UNKNOWNPROTO (EPFNOSUPPORT), RPC_SYSTEMERROR
// (EAFNOSUPPORT for a non-IPv4 host, EPFNOSUPPORT for another protocol, or
// the errno of socket/connect), or the port mapper's own error when the
// program is not registered. The client closes its socket when destroyed.
// Safe from any thread.
CLIENT* tarn_clnt_create(const char* host, unsigned long prog, unsigned long vers,
                         const char* proto);

// True when the machine's protocol database knows proto ("tcp", "udp").
// Debian's netbase package provides it as /etc/protocols; without it every
// creation over "tcp" or "udp" fails with RPC_UNKNOWNPROTO. Safe from any
// thread.
bool tarn_proto_known(const char* proto);

// The port of (prog, vers) over ipproto (IPPROTO_TCP or IPPROTO_UDP) at the
// IPv4 address addr, in host order; 0 when it is not registered or the port
// mapper cannot be reached. Asks the host's port mapper, unless the test seam
// below is set.
unsigned short tarn_getport(const struct sockaddr_in* addr, unsigned long prog, unsigned long vers,
                            unsigned ipproto);

// Test seam. Unit tests must not depend on (or register with) the machine's
// rpcbind: when a look-up function is set, tarn_getport asks it instead of the
// port mapper, whatever the address, and the caller connects to the port it
// answers at the host it resolved (tests use 127.0.0.1). The function answers
// 0 for "not registered". An empty function restores the port mapper.
// Safe to change from any thread; a creation already under way may still use
// the previous setting.
using TarnPortLookup =
    std::function<unsigned short(unsigned long prog, unsigned long vers, unsigned ipproto)>;
void tarn_set_port_lookup(TarnPortLookup lookup);

#endif  // UTIL_TARN_CLNT_CREATE_H
