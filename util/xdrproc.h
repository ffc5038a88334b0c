// Turns any generated XDR filter into the xdrproc_t the RPC calls take.
//
// The filters have several signatures (two-argument records, fixed arrays
// without a pointer, the empty-parameter xdr_void); going through a plain
// function-pointer type is the one cast the compiler accepts for all of them.
#ifndef UTIL_XDRPROC_H
#define UTIL_XDRPROC_H

#include <rpc/rpc.h>

template <typename F>
inline xdrproc_t xdrProc(F f) {
    return reinterpret_cast<xdrproc_t>(reinterpret_cast<void (*)()>(f));
}

#endif
