// VoRPCClient: one ONC RPC client over TCP to a cluster service, and the
// socket under it, made and destroyed together.
//
// A call that fails in transport (time-out, send or receive failure, an
// answer that does not decode) closes the connection; the next call on the
// same handle connects again to the same host and program first, with the
// time-out last set. A failed reconnection answers that call with
// RPC_PROGNOTREGISTERED (port 0) or RPC_CANTSEND (re_errno: the cause).
//
// The connection is made step by step (host look-up, port query, socket,
// connect, client) so that each failure is reported precisely. An object is
// used by one thread: each handler and each job makes its own and destroys
// it before returning. Client creation itself is safe from any thread; only
// the host-name look-up is serialised (voRpcClientLock, a leaf lock).
//
// In unit tests the port query goes to the seam of util/tarn_clnt_create.h
// (tarn_set_port_lookup) instead of the machine's port mapper.
#ifndef VOLOP_VORPCCLIENT_H
#define VOLOP_VORPCCLIENT_H

#include <pthread.h>
#include <rpc/rpc.h>

#include <cstring>

#include "util/xdrproc.h"
#include "voerrors.h"

class VoRPCClient {
  public:
    // No client.
    VoRPCClient();
    // clntdestroy().
    ~VoRPCClient();
    VoRPCClient(const VoRPCClient&) = delete;
    VoRPCClient& operator=(const VoRPCClient&) = delete;

    // Connects to (prog, vers) at host over TCP. An empty VoErr on success;
    // else error code and function voErrVodClntTcpCreate with funcrc:
    //   h_errno   the host name does not resolve
    //   5001      the host is not IPv4
    //   0         the program is not registered (port 0), or the RPC client
    //             could not be made over the connected socket
    //   errno     socket() or connect() failed
    // No socket is left open on failure. No call time-out is set unless a
    // cap is (setCallTimeoutCap): callers that need one set it with
    // setCallTimeout().
    // An object that already holds a client is overwritten without being
    // destroyed (traced); call clntdestroy() first.
    VoErr clnttcp_create(const char* host, unsigned long prog, unsigned long vers);

    // Destroys the client and closes its socket; nothing when there is none.
    // Safe to call twice.
    void clntdestroy();

    // The client handle, null when there is none.
    operator CLIENT*() const { return client; }

    // Sets clnt's total call time-out to seconds, or to the cap when that is
    // lower; false when the client refuses. Every time-out vod sets goes
    // through here.
    static bool setCallTimeout(CLIENT* clnt, unsigned seconds);
    // No call waits longer than seconds for its answer (0: no cap, each call
    // its own time-out). Set once at start-up (vod -w), before any client is
    // made; clients made afterwards carry the cap as their time-out until a
    // caller sets another. A test cluster that drops a call then costs
    // seconds, not the half hour a clone may be given.
    static void setCallTimeoutCap(unsigned seconds);

    // voRpcClientLock; a mutex failure is fatal.
    static void getVoRpcClientLock();
    static void releaseVoRpcClientLock();

  private:
    CLIENT* client;
    static pthread_mutex_t voRpcClientLock;
    static int openFd;               // shown in the overwrite warning only
    static unsigned callTimeoutCap;  // written before the first thread starts
};

// Owns a result record filled by a generated client stub: zeroed on
// construction (the stubs expect a cleared record) and released with its XDR
// filter on destruction, on every path.
//
//   VoXdrResult<vodb_lookup_result> res(xdr_vodb_lookup_result);
//   enum clnt_stat st = vodb_lookup_3(nullptr, res.get(), clnt);
template <typename T>
class VoXdrResult {
  public:
    template <typename F>
    explicit VoXdrResult(F filter) : _filter(xdrProc(filter)) {
        std::memset(&_value, 0, sizeof _value);
    }
    ~VoXdrResult() { release(); }
    VoXdrResult(const VoXdrResult&) = delete;
    VoXdrResult& operator=(const VoXdrResult&) = delete;

    T* get() { return &_value; }
    T* operator->() { return &_value; }
    T& operator*() { return _value; }

    // Frees what the last call decoded and clears the record for the next call.
    void release() {
        xdr_free(_filter, reinterpret_cast<char*>(&_value));
        std::memset(&_value, 0, sizeof _value);
    }

  private:
    xdrproc_t _filter;
    T _value;
};

#endif  // VOLOP_VORPCCLIENT_H
