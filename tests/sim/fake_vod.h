// A stand-in for vod in the simulator's tests: serves VOPROG on this process's port-mapper
// registration and records the completion notices (incrcopycomplete) the D-blade sends.
#ifndef TESTS_SIM_FAKE_VOD_H
#define TESTS_SIM_FAKE_VOD_H

#include <rpc/rpc.h>
#include <sys/select.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <set>
#include <thread>

#include "util/xdrproc.h"
#include "vo.h"

namespace dbladetest {

// Records incrcopycomplete calls; one at a time per process.
class FakeVod {
  public:
    static inline std::mutex mu;
    static inline std::set<uint64_t> notices;

    // Forgets the notices of earlier tests in this process.
    bool start() {
        {
            std::lock_guard<std::mutex> lk(mu);
            notices.clear();
        }
        _xprt = svctcp_create(RPC_ANYSOCK, 0, 0);
        if (!_xprt) return false;
        pmap_unset(VOPROG, VOVERS);
        if (!svc_register(_xprt, VOPROG, VOVERS, dispatch, IPPROTO_TCP)) return false;
        _thread = std::thread([this] {
            while (!_stop) {
                fd_set fds = svc_fdset;
                timeval tv{0, 50000};
                if (select(FD_SETSIZE, &fds, nullptr, nullptr, &tv) > 0) svc_getreqset(&fds);
            }
        });
        return true;
    }

    ~FakeVod() {
        _stop = true;
        if (_thread.joinable()) _thread.join();
        svc_unregister(VOPROG, VOVERS);
        if (_xprt) svc_destroy(_xprt);
    }

    static bool received(uint64_t opId) {
        std::lock_guard<std::mutex> lk(mu);
        return notices.count(opId) > 0;
    }

  private:
    static void dispatch(svc_req* rq, SVCXPRT* t) {
        if (rq->rq_proc == NULLPROC) {
            svc_sendreply(t, xdrProc(xdr_void), nullptr);
            return;
        }
        if (rq->rq_proc != INCRCOPYCOMPLETE) {
            svcerr_noproc(t);
            return;
        }
        u_quad_t id = 0;
        if (!svc_getargs(t, xdrProc(xdr_u_quad_t), reinterpret_cast<char*>(&id))) {
            svcerr_decode(t);
            return;
        }
        {
            std::lock_guard<std::mutex> lk(mu);
            notices.insert(id);
        }
        svc_sendreply(t, xdrProc(xdr_void), nullptr);
    }

    SVCXPRT* _xprt = nullptr;
    std::thread _thread;
    std::atomic<bool> _stop{false};
};

}  // namespace dbladetest

#endif  // TESTS_SIM_FAKE_VOD_H
