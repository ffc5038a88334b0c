// The dispatcher registered for VOPROG version 1, and the table it runs
// each served procedure from (the argument fuzzer decodes through it too).
#ifndef VOLOP_VO_DISPATCH_H
#define VOLOP_VO_DISPATCH_H

#include <rpc/rpc.h>
#include <stddef.h>

// One served procedure: the filters of its argument and result records, the
// argument record's size, and its service function, which takes the records
// as the dispatcher's untyped buffers.
struct VoProcRow {
    xdrproc_t xdrArg;
    size_t argSize;  // 0 for a procedure without argument
    xdrproc_t xdrRes;
    bool_t (*svc)(void* arg, void* res, svc_req* rqstp);
};

// The row of procedure proc, or null when it is not served. VONULL has no
// row: the dispatcher answers it itself.
const VoProcRow* voprogRow(rpcproc_t proc);

void voprog_1(struct svc_req* rqstp, SVCXPRT* transp);

#endif
