// VoMoveState: one volume moved to another LP, keeping its VFS id, while it
// stays on line.
//
// The move runs in passes. Each regular pass streams what changed since the
// previous one from a fresh clone of the source (an op src) into the op sink,
// a volume with an id of its own on the target LP. Once the source has nearly
// settled, the final pass streams from the stopped source itself: the
// D-blade sends the rest, gives the op sink the source's id (through a temp id
// when both LPs are served by one D-blade) and switches the VLDB to the target
// LP. The records (source, op sink, sink, one op src per pass, the temp of a
// local move) are in the VODB before anything is made, so that after a crash
// the move ends in exactly one place: whole on the source LP or whole on the
// target LP.
//
// Calling order: addStream (request handler), prepare (base: validate,
// mkRec), start (base, on a worker: mkOpSrcSink, startStream), progress until
// the pass's stream is done, conclude: concludeRegularMove starts the next
// pass in place (prepare, start) or rolls back; concludeFinalMove commits or
// recovers. After a crash: resurrectFromVoRec, then recoverFromCrash.
//
// Threads: the service thread runs addStream, prepare of the first pass, the
// management progress and cancel (under the operation lock, held by the
// handler); one worker at a time runs the other steps, including the later
// passes' prepare. The records change between passes (a new op src, the type
// switch to the final move, the temp); they are changed and read by the
// worker, and read by handlers and dbgDump under the operation lock, which
// every change takes. _pgrs is written by the client-only progress, which
// runs while the stream is marked running; conclude reads it under the lock.
#ifndef VOLOP_VOMOVESTATE_H
#define VOLOP_VOMOVESTATE_H

#include <rpc/rpc.h>

#include <atomic>
#include <memory>
#include <vector>

#include "vo.h"
#include "voerrors.h"
#include "vorec.h"
#include "vorpcclient.h"
#include "vostate.h"

class VoMoveState : public VoState {
  public:
    // Regular passes allowed before the final one: passes 0 to 4.
    static constexpr unsigned MAX_REGULAR_PASS = 4;
    // A pass is final when the source's data version is at most this far
    // ahead of the previous pass's op src.
    static constexpr unsigned long long FINAL_PASS_DVER_GAP = 9900;

    VoMoveState();
    ~VoMoveState() override;

    using VoState::isUsing;  // the opid form stays visible beside the ones below

    // -k of the command line: a finished move keeps its source volume when
    // non-zero. Set once by main before any thread exists.
    static void setKeepSrc(int keep) { _keepSrc = keep != 0; }
    static int keepSrc() { return _keepSrc; }

    // Traces every record. Takes the operation lock.
    void dbgDump() override;

    // The first of source, op sink, sink, temp and the op srcs (in that
    // order) with this VFS id and LP id decides: true only when its op type
    // and role are also these.
    bool isUsing(unsigned vid, const unsigned char* lid, VoRec::VoType type,
                 VoRec::VfsRole role) override;
    // True when the source's or the target's LP is lid.
    virtual bool isUsing(const unsigned char* lid);
    // True when any of the move's records is (vid, lid).
    virtual bool isUsing(unsigned vid, const unsigned char* lid);

    // Polls the D-blade for the pass's stream into _pgrs, as the copy does.
    unsigned progress(CLIENT* clntSrcDbladeIncrCopy) override;
    // Answers a management progress request, as the copy does, with the pass
    // number and the final flag. Called by the handler holding the lock.
    unsigned progress(CLIENT* clntSrcDbladeIncrCopy, VoMovePgrsOut* out);
    // Asks the D-blade to cancel the pass's stream; the answer goes into out.
    // The move is then rolled back by conclude. Handler, lock held.
    void cancel(CLIENT* clntSrcDbladeIncrCopy, VoOut* out);

    // A regular pass: next pass or roll back (concludeRegularMove). The final
    // pass: commit (concludeFinalMove) when its stream succeeded, else
    // recoverFinalMoveFromCrash. 0 or the failing step's code.
    unsigned conclude(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                      CLIENT* clntSrcDbladeIncrCopy) override;

    // Rebuilds the records from the cached VODB records of opid, taking a
    // VodbCacheLock unless this thread holds one. A record of the final move
    // type means the crash came in the final pass. 0, or 5001 for a record
    // that is not a move's or has an unexpected role.
    unsigned resurrectFromVoRec(unsigned long long opid, CLIENT* clntVldb) override;
    // Rolls a regular move forward (next pass) or back, or a final move by
    // its decision table. After too many attempts only the VODB records go.
    unsigned recoverFromCrash(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                              CLIENT* clntSrcDbladeIncrCopy) override;

    // Names the move: source (vidSrc, lidSrc) to the LP lidSink. False, with
    // (voErrVodAddStream, 5010 or 5001), for the same LP or a second stream.
    bool addStream(unsigned vidSrc, const unsigned char* lidSrc, const unsigned char* lidSink);

    // The current pass (0 for the first), whether it is the final one and
    // whether both LPs are served by one D-blade.
    unsigned iteration() const { return _iteration; }
    bool isFinal() const { return _isFinal; }
    bool isLocalMove() const { return _isLocalMove; }
    bool isFirst() const { return _iteration == 0; }

    // 0 when the target LP has room for the volume (the larger of its
    // minimum quota and its used blocks, against the LP's unreserved free
    // blocks); 19 when it has not; 5030 when the LP's service cannot be
    // asked; 401 / 10401 or 204 / 10204 when the volume's attributes or the
    // LP's D-blade cannot be had. The error is recorded.
    unsigned CheckIfThereIsEnoughSpaceOnTheSink(unsigned vfsid, const unsigned char* lid,
                                                CLIENT* clntDbladeVol, const unsigned char* lidSink,
                                                CLIENT* clntVldb);

  protected:
    bool validate(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol) override;
    unsigned mkRec(CLIENT* clntVldb) override;
    unsigned mkOpSrcSink(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol) override;
    unsigned startStream(CLIENT* clntSrcDbladeIncrCopy, CLIENT* clntSrcDbladeVol) override;

    // Conflicts of a regular and of the final pass with the operations the
    // VODB records (this move's own records excepted).
    bool validateRegularMove();
    bool validateFinalMove(CLIENT* clntSrcDbladeVol, bool* isFinal);
    bool validateConflicts(const char* passText);

    unsigned concludeRegularMove(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                                 CLIENT* clntSrcDbladeIncrCopy);
    unsigned concludeFinalMove(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                               CLIENT* clntSrcDbladeIncrCopy);
    // The op sink under its own id and, once the D-blade may have given it
    // the source's id, under that id on the target LP while the VLDB does not
    // point there. 0 or the failing step's code.
    unsigned deleteSink(CLIENT* clntVldb);
    // Every op src that is a clone, D-blade first, then its VLDB record.
    unsigned deleteOpSrc(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol);

    unsigned determineRegularMoveRecoveryStrategy(CLIENT* clntVldb);
    unsigned recoverRegularMoveFromCrash(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                                         CLIENT* clntSrcDbladeIncrCopy);
    unsigned determineFinalMoveRecoveryStrategy(CLIENT* clntVldb);
    unsigned rollForwardFinalMoveAfterRecovery(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                                               CLIENT* clntSrcDbladeIncrCopy);
    unsigned rollBackFinalMoveAfterRecovery(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                                            CLIENT* clntSrcDbladeIncrCopy);
    unsigned recoverFinalMoveFromCrash(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                                       CLIENT* clntSrcDbladeIncrCopy);

    // The last op src, or null before the first mkRec.
    VoRec* currentOpSrc() { return _opSrcRecs.empty() ? nullptr : _opSrcRecs.back().get(); }

    VoRec _sinkRec;                                  // the op sink
    std::vector<std::unique_ptr<VoRec>> _opSrcRecs;  // one per pass, in pass order
    VoRec _tempRec;                                  // local final move only
    // Written by the worker between passes, read by handlers: atomics.
    std::atomic<unsigned> _iteration;
    std::atomic<bool> _isFinal;
    std::atomic<bool> _isLocalMove;
    VoMovePgrsOut _pgrs;

  private:
    static bool _keepSrc;
};

#endif  // VOLOP_VOMOVESTATE_H
