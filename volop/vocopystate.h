// VoCopyState: one volume copied into a new volume on another LP, possibly
// served by another D-blade, while the source stays on line.
//
// The source is never changed: a read-write source is streamed from a clone
// of it (the op src), a read-only one from itself. Its VODB records (source,
// sink, op src) are written before anything is made, so that whatever
// happens the copy ends either committed or with nothing left behind.
//
// Calling order: addStream (request handler), prepare (base: validate,
// mkRec), start (base, on a worker: mkOpSrcSink, startStream), progress until
// the stream is done, conclude, which commits (concludeCopy) when the stream
// succeeded and otherwise recovers. After a crash: resurrectFromVoRec, then
// recoverFromCrash, which decides by the sink's data versions.
//
// Threads: the service thread runs addStream, prepare, the management
// progress and cancel (under the operation lock, held by the handler); one
// worker at a time runs the remaining steps. The records do not change once
// the copy is registered, but for the sink's D-blade id, which mkOpSrcSink
// sets under the operation lock (dbgDump reads it so). _pgrs is written only
// by the client-only progress, which runs while the stream is marked running;
// the worker's conclude reads it under the operation lock. The error triple
// is the base's, which any thread may read or set.
#ifndef VOLOP_VOCOPYSTATE_H
#define VOLOP_VOCOPYSTATE_H

#include <rpc/rpc.h>

#include <string>

#include "vo.h"
#include "voerrors.h"
#include "vorec.h"
#include "vorpcclient.h"
#include "vostate.h"

class VoCopyState : public VoState {
  public:
    static constexpr unsigned STREAM_BLOCK_SIZE = STREAM_BLOCK_BYTES;

    VoCopyState();
    ~VoCopyState() override;

    using VoState::isUsing;  // the opid form stays visible beside the ones below

    // Traces the three records. Takes the operation lock.
    void dbgDump() override;

    // The first of source, op src and sink (in that order) with this VFS id
    // and LP id decides: true only when its op type and role are also these.
    bool isUsing(unsigned vid, const unsigned char* lid, VoRec::VoType type,
                 VoRec::VfsRole role) override;

    // Polls the D-blade (incrcopyprogress_1) into _pgrs. 0 when an answer
    // arrived; the stream is marked not running once the source reports
    // VoDone. 505 (voErrDbladeIncrCopyProgress) when the D-blade refused the
    // poll (VIC_EOPNOTFOUND: it has forgotten the stream, which then counts as
    // ended); 6 (voErrRpcFailure) on a transport failure; 5004 without client.
    unsigned progress(CLIENT* clntSrcDbladeIncrCopy) override;

    // Commits the copy when the stream succeeded (failedSuccessTest() == 0),
    // otherwise rolls it forward or back by the sink's data versions
    // (recover). 0, or the failing step's code.
    unsigned conclude(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                      CLIENT* clntSrcDbladeIncrCopy) override;

    // Rebuilds the three records from the cached VODB records of opid. Reads
    // the cache under a VodbCacheLock, taken here unless the calling thread
    // already holds one (resurrection holds it around each operation's call,
    // not across its pass, so that the registry's lock is never taken inside
    // it). 0, or 5001
    // when a record of opid is not a copy's or has an unexpected role.
    unsigned resurrectFromVoRec(unsigned long long opid, CLIENT* clntVldb) override;

    // Decides by the sink's data versions (determineRecoveryStrategy; an error
    // means roll back) and runs concludeCopy. After too many attempts only
    // the VODB records go and the volumes stay as they are. 0 on success.
    unsigned recoverFromCrash(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                              CLIENT* clntSrcDbladeIncrCopy) override;

    // True when the source's or the sink's LP is lid.
    virtual bool isUsing(const unsigned char* lid);
    // True when the source, the op src or the sink is (vid, lid).
    virtual bool isUsing(unsigned vid, const unsigned char* lid);

    // Names the copy: source (vidSrc, lidSrc), sink on lidSink named
    // vnameSink. False, with (voErrVodAddStream, 5001), for a second stream
    // or an empty sink name.
    bool addStream(unsigned vidSrc, const unsigned char* lidSrc, const unsigned char* lidSink,
                   const char* vnameSink);
    // The sink's VFS id; 0 until mkRec.
    unsigned sinkVid() const { return _sinkRec.vid(); }

    // Asks the D-blade to cancel the stream into the sink; the answer goes
    // into out (zero on success). Clean-up follows through conclude. Called
    // by the handler holding the operation lock.
    void cancel(CLIENT* clntSrcDbladeIncrCopy, VoOut* out);

    // Answers a management progress request into out (the stream's counters,
    // the operation id and a code): while the stream runs it polls first;
    // voErrEndStream once the stream is over, voErrRollForwardOp or
    // voErrRollBackOp while the copy concludes, and once it is retired from
    // the VODB the final error triple, which marks the last progress as
    // delivered (the registry may then drop the copy once a new operation on
    // its source starts). Returns 0, 6 or 505 as the poll did. Called by the
    // handler holding the operation lock.
    unsigned progress(CLIENT* clntSrcDbladeIncrCopy, VoCopyPgrsOut* out);

    // recoverFromCrash.
    unsigned recover(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol, CLIENT* clntSrcDbladeIncrCopy);

    // Rolls forward (the sink becomes an ordinary volume) or back (the sink
    // goes), then removes the clone if one was made, then the VODB records,
    // these only when every step before succeeded or the copy is forced to
    // retire. 0, or the first failing step's code.
    unsigned concludeCopy(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                          CLIENT* clntSrcDbladeIncrCopy);

    // Delete one volume, D-blade first, then its VLDB record. A volume or a
    // record already gone counts as deleted. 0 or the failing step's code.
    unsigned deleteSink(CLIENT* clntVldb);
    unsigned deleteOpSrc(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol);


    // failedStreamTest of the copy's last progress.
    static int failedSuccessTest(const VoCopyPgrsOut& p);

  protected:
    // False when a recorded operation conflicts with the sink or the source;
    // the error is then (voErrVodValidate, that operation's busy code).
    bool validate(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol) override;
    // Allocates the sink's (and a clone's) VFS id, writes the three VODB
    // records and takes the opid. 0, 5001, 5003, 304 / 10304 or new_vfsid's.
    unsigned mkRec(CLIENT* clntVldb) override;
    // Clones a read-write source, creates the sink on its LP's D-blade and
    // registers both in the VLDB. 0 or the failing step's code.
    unsigned mkOpSrcSink(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol) override;
    // incrcopymirror_1 from the op src into the sink. 0, 5004, 500 / 10500.
    unsigned startStream(CLIENT* clntSrcDbladeIncrCopy, CLIENT* clntSrcDbladeVol) override;

    VoRec _sinkRec;
    VoRec _opSrcRec;
    VoCopyPgrsOut _pgrs;

  private:
    // The sink's name as requested; mkOpSrcSink names the sink with at most
    // VoRec::VNAME_MAX characters of it. Set by addStream only.
    std::string _sinkName;
};

#endif  // VOLOP_VOCOPYSTATE_H
