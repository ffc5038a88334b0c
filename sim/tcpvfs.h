// The simulated D-blade's dump and restore over a TCP connection that vod accepted and hands
// over by its process id and descriptor (tcpvfsdump, tcpvfsrestore).  See tcpvfs.cc for the
// steps and sim/README.md for what a client and vod see.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "sim/volstore.h"

// A dump request as it came over the wire.  dests is the number of destinations it carried;
// the destination fields are those of the first, when there is one.
struct SimDumpRequest {
    uint64_t opId = 0;
    unsigned opType = 0;
    uint32_t vfsid = 0;
    SimLpId lp{};
    std::string nodeName, dumpName;
    size_t dests = 0;
    int pid = 0, sd = -1;
    uint32_t toVfsid = 0;
    SimLpId toLp{};
    uint64_t dumpFromDV = 0;
};

struct SimRestoreRequest {
    uint64_t opId = 0;
    int pid = 0, sd = -1;
    bool force = false;
    uint32_t vfsid = 0;
    SimLpId lp{};
};

// The procedures' status word for a VIC_ code: 0 when started, a refusal as its code less
// 20000 (102 for VIC_ENOSOCKET).  vod composes (status + 20000) into its own error and
// decodes the low half against the VIC_ codes, so the offset is taken off here.
constexpr unsigned simTcpProcStatus(unsigned vic) { return vic >= 20000 ? vic - 20000 : vic; }

// Start a dump or a restore and answer at once: the procedure's status (simTcpProcStatus).
// Nothing is started, and vod's connection is left alone, unless it is 0.  The caller holds
// SimNode::lock().
unsigned simTcpDumpStart(const SimDumpRequest& rq);
unsigned simTcpRestoreStart(const SimRestoreRequest& rq);
