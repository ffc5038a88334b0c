// The D-blade volume store of the simulated node: volumes as directories of real files
// with durable metadata, shared by the volume service, the incremental-copy streams and
// the control commands.
#pragma once

#include <cstdint>

// Called once by main after the node's layout is known: opens the store under
// SimNode::dataDir(), recovers volumes left by an earlier run and registers the volume
// and stream control commands.  Streams are never recovered.
void simDbladeInit();

// Blocks used by all volumes on the LP, in the LP's block size.  The caller holds
// SimNode::lock().
uint64_t simBlocksUsedOnLp(const unsigned char uuid[16]);

// Blocks set aside by the volumes' minimum quotas on the LP.  The caller holds
// SimNode::lock().
uint64_t simBlocksReservedOnLp(const unsigned char uuid[16]);
