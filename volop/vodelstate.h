// VoDelState: the delete of one volume as a persistent operation.
//
// The volume is _srcRec (op type VODB_VOLOP_DELETE, role VODB_ROLE_SRC). The
// operation records itself in the VODB, deletes the volume on its D-blade,
// then its VLDB record, then its VODB record, in that order and never
// backwards: whatever is left in the VODB after a failure or a crash makes
// recovery run the same steps again.
//
// Calling order: addSrc, prepare (validate + mkRec), del. After a crash:
// resurrectFromVoRec, then recoverFromCrash, which runs del again.
//
// A delete has no stream: the stream steps trace "not supported" and do
// nothing. It keeps an error triple of its own (_rc, _func, _funcrc), which
// its error accessors read and write instead of the base's; any thread may
// read or set it, under a leaf lock of its own.
#ifndef VOLOP_VODELSTATE_H
#define VOLOP_VODELSTATE_H

#include <rpc/rpc.h>

#include <mutex>

#include "vo.h"
#include "voerrors.h"
#include "vorec.h"
#include "vostate.h"

class VoDelState : public VoState {
  public:
    // A delete starts marked as concluded and complete: there is never a
    // stream for the registry to wait for.
    VoDelState();
    ~VoDelState() override;

    using VoState::isUsing;  // the opid form stays visible beside the ones below

    // Traces the operation's source record.
    void dbgDump() override;

    // The delete's own error triple, as the base's accessors describe them.
    void getErr(voErrRc* rc, voErrFunc* func, unsigned* funcrc) override;
    void getErr(voErrFunc* func, unsigned* funcrc) override;
    void setHiLvlErr(voErrRc rc) override;
    void setErr(voErrFunc func, unsigned funcrc) override;
    void setAllErr(voErrRc rc, voErrFunc func, unsigned funcrc) override;
    void setAllErr(VoErr& err) override;

    // True when the source is (vid, lid) in that op type and role.
    bool isUsing(unsigned vid, const unsigned char* lid, VoRec::VoType type,
                 VoRec::VfsRole role) override;

    // Not supported: trace and return 0.
    unsigned progress(CLIENT* clntSrcDbladeIncrCopy) override;
    unsigned conclude(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                      CLIENT* clntSrcDbladeIncrCopy) override;

    // Rebuilds _srcRec from the cached VODB records of opid. The caller holds
    // a VodbCacheLock (resurrection takes it around this call). Returns 0,
    // or 5001 when a record of opid is not a delete source.
    unsigned resurrectFromVoRec(unsigned long long opid, CLIENT* clntVldb) override;

    // Runs del again; after too many attempts only drops the VODB record and
    // leaves the volume as it is. Returns 0 or the failing step's funcrc.
    unsigned recoverFromCrash(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                              CLIENT* clntSrcDbladeIncrCopy) override;

    // True for the source's LP, or the source's VFS id and LP.
    virtual bool isUsing(const unsigned char* lid);
    virtual bool isUsing(unsigned vid, const unsigned char* lid);

    // Not supported: trace and return false.
    virtual bool addStream(unsigned vidSrc, const unsigned char* lidSrc, unsigned vidSink,
                           const unsigned char* lidSink, const char* vnameSink);

    // Names the volume to delete. False, with (voErrVodAddStream, 5001), when
    // a source was already given.
    bool addSrc(unsigned vid, const unsigned char* lid);

    // Checks the clients, refreshes the VODB cache, validates and records the
    // operation in the VODB. 0 on success; else 5003/5004 (missing client),
    // the cache refresh's code, 8 (refused) or 2014 (not recorded), with the
    // error triple set.
    unsigned prepare(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol);

    // Deletes the volume on its D-blade (a volume already gone, status 21,
    // counts as deleted), then its VLDB record, then the VODB record.
    // clntSrcDbladeVol is tried first; when it answers 21 the LP's own
    // D-blade, found through the VLDB, is asked again, since any D-blade
    // answers 21 for an LP it does not serve. Stops
    // at the first failure, which stays in the error triple and is returned;
    // the records left behind let recovery try again. 0 when all is done and
    // the operation is retired from the VODB.
    unsigned del(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol);

  protected:
    // False when another recorded operation uses the volume in any role; the
    // error is then (voErrVodValidate, that operation's busy code).
    bool validate(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol) override;
    // Records the one source record in the VODB and takes the opid it gave.
    unsigned mkRec(CLIENT* clntVldb) override;
    // Not supported: trace and return 0.
    unsigned mkOpSrcSink(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol) override;
    unsigned startStream(CLIENT* clntSrcDbladeIncrCopy, CLIENT* clntSrcDbladeVol) override;

  private:
    // Leaf lock over the triple below: nothing else is taken while it is held.
    std::mutex _errLock;
    voErrRc _rc = voErrRcSuccess;
    voErrFunc _func = voErrFuncSuccess;
    unsigned _funcrc = 0;
};

#endif  // VOLOP_VODELSTATE_H
