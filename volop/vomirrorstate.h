// VoMirrorState: read-only mirrors of one source volume on other LPs, all
// under one mirror id (the source's id with 0x40000000 set), made or
// refreshed by one incremental mirror stream that feeds every destination.
//
// The operation never writes into a live mirror. It freezes the source (the
// op src: a clone of a read-write source, or a read-only source itself),
// gives each destination LP an op sink under a new id (an in-place clone of
// the mirror already there, or a new volume), brings every op sink up to the
// op src with one stream, and only at conclusion gives each finished op sink
// the mirror id (through the temp id when an old mirror steps aside).
// Readers of a mirror therefore see the old one until the swap and the new
// one after it, never a half-written one. A destination on the source's own
// LP is the local mirror: the op src itself becomes the mirror there.
//
// Calling order: addStream per destination (request handler), prepare
// (base: validate, mkRec), start (base, on a worker: mkOpSrcSink,
// startStream), progress until the stream is done, conclude (per stream
// rollForwardOpSink or deleteOpSink, then the op src). After a crash:
// resurrectFromVoRec, recoverFromCrash, recoverOneMirrorFromCrash with
// determineRecoveryStrategy per stream.
//
// Streams: _opSinkRecs keeps every destination asked for, the eligible ones
// (errCode 0) first; one that is excluded (5005 local mirror, 5007 up to
// date, 5009 offending, 5032 local mirror failed, or a failure code) moves
// to the back, so loops over eligible streams stop at the first non-zero
// code. _pgrs.sinks has one entry per stream, in that order.
//
// Threads: the service thread runs addStream, prepare, the management
// progress and cancel (under the operation lock, held by the handler); one
// worker at a time runs the other steps. The stream list changes order only
// before the operation is registered and in mkOpSrcSink and conclude, on the
// worker, under the operation lock; the registry's finders read it under the
// same lock. _pgrs is written by progress while the stream runs and read by
// conclude under the lock.
#ifndef VOLOP_VOMIRRORSTATE_H
#define VOLOP_VOMIRRORSTATE_H

#include <rpc/rpc.h>

#include <memory>
#include <vector>

#include "dblade_vol.h"
#include "vo.h"
#include "voerrors.h"
#include "vorec.h"
#include "vorpcclient.h"
#include "vostate.h"

class VoMirrorState : public VoState {
  public:
    static constexpr unsigned MIRROR_ID_BIT = 0x40000000;

    VoMirrorState();
    ~VoMirrorState() override;

    using VoState::isUsing;  // the opid form stays visible beside the ones below

    // Traces every record. Takes the operation lock.
    void dbgDump() override;

    bool isUsing(unsigned vid, const unsigned char* lid, VoRec::VoType type,
                 VoRec::VfsRole role) override;
    // The source's LP, or the LP of an eligible stream.
    virtual bool isUsing(const unsigned char* lid);
    // The source or the op src; the op sink or the mirror id on an eligible
    // stream's LP; the temp id on its LP.
    virtual bool isUsing(unsigned vid, const unsigned char* lid);

    // Polls the D-blade into _pgrs; the per-destination entries follow the
    // stream list. 0 when an answer arrived.
    unsigned progress(CLIENT* clntSrcDbladeIncrCopy) override;
    // Answers a management progress request into out, whose sinks array it
    // allocates (the caller frees it with xdr_free). Handler, lock held.
    unsigned progress(CLIENT* clntSrcDbladeIncrCopy, VoMirrorPgrsOut* out);
    // Cancels the stream into the destination on LP lid (all-zero: every
    // destination). Handler, lock held.
    void cancel(CLIENT* clntSrcDbladeIncrCopy, const unsigned char* lid, VoOut* out);

    // Commits each finished stream (rollForwardOpSink), rolls back the
    // others (deleteOpSink), settles the op src and the local mirror, then
    // removes the VODB records. 0 or the first failing step's code.
    unsigned conclude(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                      CLIENT* clntSrcDbladeIncrCopy) override;
    unsigned resurrectFromVoRec(unsigned long long opid, CLIENT* clntVldb) override;
    unsigned recoverFromCrash(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                              CLIENT* clntSrcDbladeIncrCopy) override;

    // Adds the destination LP lidSink, whose mirror the VLDB records at data
    // version dver (0: none there yet). False, with (2016, 5001), for another
    // source or a destination already given; (2001, 5002) without memory.
    bool addStream(unsigned vidSrc, const unsigned char* lidSrc, const unsigned char* lidSink,
                   unsigned long long dver);

    // Any destination other than the source's LP ended well (0 or 5007).
    bool checkIfAnyRemoteMirrorSucceeded();
    // Exactly one destination, on the source's own LP.
    bool isItOnlyALocalMirror();

    // ---- Mirror groups (synchronous; service thread) ----
    // A new, empty member on in->lidSink: its VLDB record under the mirror id.
    static unsigned joinGroup(CLIENT* clntVldb, VoLidVnameIn* in, VoVidOut* out);
    // Detaches a member: an ordinary volume with an id of its own.
    static unsigned leaveGroup(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol, VoVnameIn* in,
                               VoVidOut* out);

    unsigned mirrorId() const { return _sinkRec.vid(); }

  protected:
    bool validate(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol) override;
    unsigned mkRec(CLIENT* clntVldb) override;
    unsigned mkOpSrcSink(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol) override;
    unsigned startStream(CLIENT* clntSrcDbladeIncrCopy, CLIENT* clntSrcDbladeVol) override;

    // ---- Conclusion, re-entered by crash recovery ----
    unsigned rollForwardOpSink(CLIENT* clntVldb, CLIENT* clntSinkDbladeVol, VoRec* opSink);
    // Gives the op sink the mirror id on its LP, from step startAt: 2 the
    // whole swap through the temp id, 3 op sink -> mirror id, 4 temp -> op
    // sink id. A first mirror is renumbered in one step.
    unsigned adjustVid(CLIENT* clntSinkDbladeVol, VoRec* opSink, bool isFirstMirror, int startAt);
    // The new mirror's attributes (read-only, its name) and its VLDB record
    // (data version). redo 0: only what a crash may have left undone.
    unsigned adjustAttrVLDB(CLIENT* clntVldb, CLIENT* clntSinkDbladeVol, VoRec* opSink,
                            bool isFirstMirror, int redo);
    unsigned deleteOpSink(CLIENT* clntVldb, CLIENT* clntSinkDbladeVol, VoRec* opSink);
    unsigned deleteOpSrc(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol);
    void setCompletionCodeForSink(const VoRec* opSink, unsigned code);
    // After a crash, recovery has settled the destination opSink: its
    // progress entry says so (isDone) and how (completionCode: 0 or 5005
    // rolled forward, 5001 rolled back, 5032 a local mirror given up), which
    // is what a progress request shows for it until the operation is gone.
    // Entries of destinations not settled yet keep isDone 0. Takes the
    // operation lock.
    void markRecovered(const VoRec* opSink);

    unsigned recoverOneMirrorFromCrash(CLIENT* clntVldb, CLIENT* clntSinkDbladeVol, VoRec* opSink,
                                       unsigned long long opSrcDataVersion);
    unsigned determineRecoveryStrategy(CLIENT* clntVldb, CLIENT* clntSinkDbladeVol, VoRec* opSink,
                                       unsigned long long opSrcDataVersion, int* isFirstMirror,
                                       unsigned* crashSubState);

    // The stream list: move stream i to the back (keeps the eligible first).
    void moveToBack(size_t i);
    // The local mirror stream (errCode 5005), or null.
    VoRec* localMirror();
    // Sizes _pgrs.sinks to the stream list, zeroed. False without memory.
    bool sizeProgress();
    // The settled end of the op src: kept as the local mirror, or deleted.
    unsigned settleOpSrc(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol);

    VoRec _opSrcRec;
    VoRec _sinkRec;  // the mirror id
    std::vector<std::unique_ptr<VoRec>> _opSinkRecs;
    VoRec _tempRec;
    VoMirrorPgrsOut _pgrs;
    // The D-blade no longer knows the stream.
    bool opNotFoundWithDblade;
};

#endif  // VOLOP_VOMIRRORSTATE_H
