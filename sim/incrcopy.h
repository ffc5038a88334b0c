// The simulated D-blade's incremental-copy streams.  A stream freezes its source as it
// stands when the stream starts, then, on a thread of its own, sends each sink the files
// changed since that sink's data version (and the removals), at the stream's speed limit.
// A sink that the stream completes holds the source's files and its data version.
//
// Streams live in memory only: a restarted simulator has forgotten them, and the sinks
// they were writing stay hidden (see volstore.h).
//
// Every function here requires SimNode::lock() held by the caller; stream threads take it
// themselves.  Statuses are IncrCopyErrorCodes values (VIC_...), 0 on success.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "sim/volstore.h"

struct SimSinkSpec {
    uint16_t did = 0;
    uint32_t vfsid = 0;
    SimLpId lp{};
};

struct SimSinkProgress {
    bool done = false;
    unsigned completionCode = 0;
    uint32_t vfsid = 0;
    SimLpId lp{};
    uint64_t blksSent = 0;
};

enum SimStreamStatus : unsigned { SIMSTREAM_RUNNING = 0, SIMSTREAM_PAUSED = 1, SIMSTREAM_DONE = 2 };

struct SimStreamProgress {
    uint64_t opId = 0;
    unsigned opType = 0;
    uint32_t srcVfsid = 0;
    SimLpId srcLp{};
    unsigned status = SIMSTREAM_RUNNING;
    unsigned completionCode = 0;
    uint32_t vnodesTotal = 0, vnodesProcessed = 0;
    uint64_t blksRead = 0;
    uint64_t dataVersion = 0;     // of the frozen source
    unsigned speedKiBps = 0;      // this stream's own limit; 0 = the global one
    std::vector<SimSinkProgress> sinks;
};

// Starts a stream.  Refused as a whole (nothing started) with VIC_EINVAL for a malformed
// request, VIC_EOPIDINUSE when a stream with that id still runs, VIC_ELPNOTFOUND /
// VIC_EVOLNOTFOUND / VIC_EVOLBUSY for the source.  A sink that cannot take part ends at
// once with its own completion code; VIC_ESINKUPTODATE when it already is at the source's
// data version.  A finished but unconcluded stream with the same id is replaced.
unsigned simStreamStart(uint64_t opId, unsigned opType, const SimLpId& srcLp, uint32_t srcVfsid,
                        const std::vector<SimSinkSpec>& sinks);

// The D-blade running the stream (its source LP's), 0 when the stream is unknown.
uint16_t simStreamDblade(uint64_t opId);
// False when the stream is unknown.
bool simStreamProgress(uint64_t opId, SimStreamProgress* out);
unsigned simStreamPause(uint64_t opId);
unsigned simStreamResume(uint64_t opId);
// Ends one sink with VIC_ECANCELLED; the stream ends when no sink is left.
unsigned simStreamCancel(uint64_t opId, uint32_t sinkVfsid, const SimLpId& sinkLp);
// Forgets a finished stream; VIC_EVOLBUSY while it still runs.
unsigned simStreamConclude(uint64_t opId);
std::vector<uint64_t> simStreamIds();

// Speed limits in KiB/s, 0 = unlimited.  A stream's own limit, when set, wins over the
// global one.  False when the stream is unknown.
void simStreamSetGlobalSpeed(unsigned kibps);
unsigned simStreamGlobalSpeed();
bool simStreamSetSpeed(uint64_t opId, unsigned kibps);

// ---- a stream driven by its caller (the final pass of a move, incrcopy_move.cc) ----------
//
// simStreamOpen registers a stream that has sent nothing yet: it answers progress, pause,
// resume and cancel as any stream, and holds its source as a stream does (the volume cannot
// be deleted or renumbered), but it has no thread and no image.  The caller's thread then
// sends with simStreamSend and ends it with simStreamEnd or simStreamForget; lk holds
// SimNode::lock() throughout.

// The refusals of simStreamStart.
unsigned simStreamOpen(uint64_t opId, unsigned opType, const SimLpId& srcLp, uint32_t srcVfsid,
                       const std::vector<SimSinkSpec>& sinks);
// Freezes the source as it stands now, admits the sinks against it and sends each what it
// lacks, releasing the lock while files move.  Sinks brought up to date keep their claim.
// 0 when every sink holds the source's image, else the stream's or a sink's failure code.
unsigned simStreamSend(uint64_t opId, std::unique_lock<std::mutex>& lk);
void simStreamWaitWhilePaused(uint64_t opId, std::unique_lock<std::mutex>& lk);
// Gives back the source and the sinks' volumes; the stream stays known.
void simStreamRelease(uint64_t opId);
// Ends the stream with code; a non-zero code also ends every sink with it.
void simStreamEnd(uint64_t opId, unsigned code);
// Forgets the stream at once, as a D-blade that died would: no progress, no notice.
void simStreamForget(uint64_t opId);

// ---- a stream over a connection (a dump or a restore, tcpvfs.cc) --------------------------
//
// Driven by its caller's thread as well, with one destination whose bytes the caller moves
// and counts.  A dump opens with simStreamOpen: its volume is held as the source and the
// destination is the client.  A restore opens with simStreamOpenInto: the volume is claimed
// as the destination's, as a sink's is, and no source is held.  Both end with simStreamEnd
// or simStreamForget.

// The refusals of simStreamStart, and VIC_EVOLBUSY when the volume is hidden, read or
// written by a stream, or stopped by a move.
unsigned simStreamOpenInto(uint64_t opId, unsigned opType, const SimLpId& lp, uint32_t vfsid);
// Waits while the stream is paused and until its speed limit lets more bytes go; how many
// may go now.  0 at once when the destination has ended (it was cancelled) or the stream is
// gone.
size_t simStreamAwaitTurn(uint64_t opId, std::unique_lock<std::mutex>& lk);
// Counts bytes moved (blksRead and the destination's blksSent) and vnodes done.
void simStreamCount(uint64_t opId, uint64_t bytes, uint32_t vnodes);
void simStreamSetVnodesTotal(uint64_t opId, uint32_t total);
// True, with the destination's completion code, once the destination has ended.
bool simStreamDestEnded(uint64_t opId, unsigned* code);

// Tells the local vod that a stream ended (incrcopycomplete).  Called by stream threads
// without the lock; a vod that is not there loses the notice.
void simNotifyVod(uint64_t opId);
