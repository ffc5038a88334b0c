// The tool's connection to one vod: a VOPROG v1 client over TCP, and a scoped
// owner for the results that the generated stubs decode into heap memory.
#ifndef VOCTL_CLIENT_H
#define VOCTL_CLIENT_H

#include <rpc/rpc.h>

#include <cstring>
#include <memory>
#include <string>

#include "util/xdrproc.h"
#include "vo.h"

namespace voctl {

// Owns a CLIENT* to VOPROG v1 on one host. Use from one thread at a time.
class VoClient {
 public:
    // Asks the host's port mapper for VOPROG over TCP and connects, giving up
    // after timeoutSec; every call made later has the same time-out.
    VoClient(const std::string& host, unsigned timeoutSec);
    ~VoClient();
    VoClient(const VoClient&) = delete;
    VoClient& operator=(const VoClient&) = delete;

    // False when no connection could be made; createError() then says why.
    bool connected() const { return _clnt != nullptr; }
    const std::string& createError() const { return _createError; }
    const std::string& host() const { return _host; }
    CLIENT* get() const { return _clnt; }

    // Runs one generated stub (vonull_1, decodeerror_1, ...) on this client.
    // Only valid when connected().
    template <typename Arg, typename Res>
    clnt_stat call(clnt_stat (*stub)(Arg*, Res*, CLIENT*), Arg* arg, Res* res) {
        return stub(arg, res, _clnt);
    }

    // The RPC library's text for the last failed call, "HOST: RPC: ...".
    std::string callError() const;

 private:
    std::string _host;
    CLIENT* _clnt = nullptr;
    std::string _createError;
};

// A client of one of the node's other services (VLDB, DLDB, a D-blade's
// programs), destroyed with its owner.
struct ClntDestroyer {
    void operator()(CLIENT* c) const { clnt_destroy(c); }
};
using ServiceClient = std::unique_ptr<CLIENT, ClntDestroyer>;

// Connects to (prog, vers) over TCP on host; every call gets timeoutSec.
// Null on failure, with *err set to the RPC library's "host: RPC: ..." text.
ServiceClient connectService(const std::string& host, unsigned long prog, unsigned long vers,
                             unsigned timeoutSec, std::string* err);

// Holds one decoded result record and gives its memory back with xdr_free
// when it goes out of scope, on every path. Starts zeroed, as the stubs need.
template <typename T>
class XdrResult {
 public:
    template <typename Filter>
    explicit XdrResult(Filter filter) : _filter(xdrProc(filter)) {
        std::memset(static_cast<void*>(&_value), 0, sizeof _value);
    }
    ~XdrResult() { xdr_free(_filter, reinterpret_cast<char*>(&_value)); }
    XdrResult(const XdrResult&) = delete;
    XdrResult& operator=(const XdrResult&) = delete;

    T* get() { return &_value; }
    T* operator->() { return &_value; }
    T& operator*() { return _value; }

 private:
    xdrproc_t _filter;
    T _value;
};

}  // namespace voctl

#endif  // VOCTL_CLIENT_H
