// The dispatcher registered for VOPROG version 1.
#ifndef VOLOP_VO_DISPATCH_H
#define VOLOP_VO_DISPATCH_H

#include <rpc/rpc.h>

void voprog_1(struct svc_req* rqstp, SVCXPRT* transp);

#endif
