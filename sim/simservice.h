// The one shape of every service function of the node: clear the result, let the fault
// injector have its say, then do the work under SimNode::lock().
//
//   bool_t vldb_lp_convert_3_svc(u_char* lp, vldb_lp_convert_result* res, svc_req*) {
//     return simServe("vldb_lp_convert", res, &res->result, [&] { ... });
//   }
//
// The rpcgen dispatcher neither clears the result nor skips freeing it when no reply is
// sent, so the result is cleared here before anything else.  A result with a string
// outside an array gets an overload of simPrepareResult() that sets it to an empty heap
// string: XDR cannot encode a null string, and the dispatcher frees it.
#pragma once

#include <rpc/rpc.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <mutex>
#include <type_traits>

#include "simfaults.h"
#include "simnode.h"

// Default: nothing beyond clearing.  Found by argument-dependent lookup, so an overload
// for a result type may be declared after this header.
template <typename Res>
void simPrepareResult(Res*) {}

template <typename Res, typename Status, typename Body>
bool_t simServe(const char* proc, Res* res, Status* status, Body body) {
  std::memset(static_cast<void*>(res), 0, sizeof *res);
  simPrepareResult(res);
  SimFaultVerdict v = simFault(proc);
  if (v.kind == SimFaultKind::Drop) return FALSE;
  if (v.kind == SimFaultKind::Status) {
    // The status field may be an enum that has no name for the number asked for.
    static_assert(sizeof(Status) == sizeof(uint32_t), "a status is one XDR unit");
    uint32_t raw = v.status;
    std::memcpy(static_cast<void*>(status), &raw, sizeof raw);
    return TRUE;
  }
  {
    std::lock_guard<std::mutex> g(SimNode::get().lock());
    body();
  }
  return simReplyGate(proc, v) ? TRUE : FALSE;
}

// What a D-blade body that runs in steps answers: its status, and whether a reply goes
// out at all (a fault point between its steps may drop it or lose it).
struct SimStepped {
  unsigned status = 0;
  bool reply = true;
};

// Calls a body with the node lock when it takes one (a body that meets fault points
// between its steps lets the lock go meanwhile, simFaultPoint), else without.
template <typename Fn>
SimStepped simCallBody(Fn& fn, std::unique_lock<std::mutex>& lk) {
  if constexpr (std::is_invocable_v<Fn&, std::unique_lock<std::mutex>&>)
    return fn(lk);
  else
    return SimStepped{fn(), true};
}

// The D-blade procedures' form: the body computes the status word, and the rest of the
// result (if any) is the body's to fill.  Nothing is cleared beyond the status.  A body
// that takes the lock returns a SimStepped.  opid: the stream the call is about, if any.
template <typename Fn>
bool_t simServeStatus(const char* proc, u_int* status, Fn fn, uint64_t opid = 0) {
  *status = 0;
  SimFaultVerdict v = simFault(proc, opid);
  if (v.kind == SimFaultKind::Drop) return FALSE;
  if (v.kind == SimFaultKind::Status) {
    *status = v.status;
    return TRUE;
  }
  std::unique_lock<std::mutex> lk(SimNode::get().lock());
  SimStepped r = simCallBody(fn, lk);
  lk.unlock();
  *status = r.status;
  if (!r.reply) return FALSE;
  return simReplyGate(proc, v) ? TRUE : FALSE;
}

// A D-blade procedure about LPs: a D-blade asked about an LP it does not serve answers
// as for an unknown one, with status `notHere`, and changes nothing.
template <typename Fn>
bool_t simServeOnLps(const char* proc, u_int* status, unsigned notHere,
                     std::initializer_list<const unsigned char*> lps, Fn fn) {
  return simServeStatus(proc, status, [&](std::unique_lock<std::mutex>& lk) -> SimStepped {
    for (const unsigned char* lp : lps)
      if (!SimNode::get().dbladeServesLp(simServingDblade(), lp)) return {notHere, true};
    return simCallBody(fn, lk);
  });
}

// The freeresult every program needs: releases what the service function allocated.
inline int simFreeResult(SVCXPRT*, xdrproc_t xdrResult, caddr_t result) {
  xdr_free(xdrResult, result);
  return TRUE;
}
