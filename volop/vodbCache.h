// VodbCacheLock: the process-wide cache of every VODB record, and the scoped
// lock that guards it.
//
// Operations read the cache to refuse work on volumes another recorded
// operation uses; start-up resurrection walks it to rebuild operations. The
// cache is re-read from the VLDB only when the VODB's last created or last
// deleted operation id moved since the previous read (VoState::_lastCreatedOpid
// and VoState::_lastDeletedOpid, guarded by the same lock).
//
// Lock order: vodbCacheLock is a leaf. Hold no other lock while taking it,
// and take no other lock (in particular no registry or operation lock) while
// holding it. It is never held across a remote call.
#ifndef VOLOP_VODBCACHE_H
#define VOLOP_VODBCACHE_H

#include <rpc/rpc.h>

#include <unordered_set>
#include <vector>

#include "voerrors.h"
#include "vorec.h"

class VodbCacheLock {
  public:
    // Takes vodbCacheLock for the object's lifetime; a mutex failure is fatal.
    // Not recursive: a thread that already holds one must not make another.
    VodbCacheLock();
    ~VodbCacheLock();
    VodbCacheLock(const VodbCacheLock&) = delete;
    VodbCacheLock& operator=(const VodbCacheLock&) = delete;

    // Brings the cache up to date with the VODB through clntVldb. Takes the
    // lock itself: the caller must not hold a VodbCacheLock. Returns an empty
    // VoErr on success (an empty VODB included), else:
    //   5003  (voErrVodSanityCheck, 5003)          no client
    //   10300 (voErrVodbOpidLookUpRpc, clnt_stat)  id query failed in transport
    //   300   (voErrVodbOpidLookUp, status)        id query refused
    //   10301 (voErrVodbLookupRpc, clnt_stat)      record read failed in transport
    //   301   (voErrVodbLookup, status)            record read refused
    //   5002  (voErrVodAllocVoRec, 5002)           out of memory; records added so far stay
    // On any failure before the record read the cache is left untouched.
    static VoErr refreshVodbCache(CLIENT* clntVldb);

    // The cached records, in the VODB's order; the objects belong to the
    // cache. Read it only while a VodbCacheLock object is alive in this
    // thread, and keep no pointer into it after that object is gone.
    static const std::vector<VoRec*>& getVodbCache();

    // Whether any cached record belongs to operation opid: one look-up, not a
    // walk of the cache. Only while a VodbCacheLock object is alive in this
    // thread.
    static bool hasOpid(unsigned long long opid);

    // True when the calling thread holds the lock (for assertions).
    static bool heldByThisThread();
};

#endif  // VOLOP_VODBCACHE_H
