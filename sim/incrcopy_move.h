// The simulated D-blade's final pass of a move (incrcopymove) and the times it records for
// benchmarks.  See incrcopy_move.cc for its steps and what each outcome leaves.
#pragma once

#include <cstdint>

#include "sim/volstore.h"

// The request as it came over the wire.  tmpVfsid matters only for a local move (source
// and target LP on one D-blade), which needs it.
struct SimMoveRequest {
    uint64_t opId = 0;
    unsigned opType = 0;
    uint32_t srcVfsid = 0, tmpVfsid = 0, dstVfsid = 0;
    SimLpId srcLp{}, dstLp{};
    uint16_t dstDid = 0;
};

// Accepts a final move and starts its thread.  0, or the VIC_ status the request is refused
// with (nothing started).  The caller holds SimNode::lock().
unsigned simMoveStart(const SimMoveRequest& rq);

// Registers the control command move-stats.
void simMoveRegisterCommands();
