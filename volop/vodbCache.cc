#include "vodbCache.h"

#include <pthread.h>
#include <string.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "vldb_lit.h"
#include "vorpccalls.h"
#include "vorpcclient.h"
#include "vostate.h"
#include "votrace.h"

namespace {

// The mutex and the vector live as long as the module.
struct VodbCache {
    pthread_mutex_t vodbCacheLock;
    std::vector<VoRec*> records;
    // The operation ids of records, rebuilt whenever records change: the
    // loop asks about every registered operation on each of its time-outs.
    std::unordered_set<unsigned long long> opids;
    std::atomic<bool> held{false};
    std::atomic<pthread_t> owner{};

    VodbCache() {
        int rc = pthread_mutex_init(&vodbCacheLock, nullptr);
        if (rc != 0) {
            VO_TR_RAW(vo_vod, vo_fatal, "pthread_mutex_init vodbCache Error = %d, %s\n", rc,
                      strerror(rc));
            exit(1);
        }
    }
    // Detached workers may still run while the process exits: free the records
    // under the lock and leave the mutex itself alone, so that a late reader
    // finds an empty cache rather than a destroyed mutex.
    ~VodbCache() {
        pthread_mutex_lock(&vodbCacheLock);
        for (VoRec* r : records) delete r;
        records.clear();
        opids.clear();
        pthread_mutex_unlock(&vodbCacheLock);
    }
};

VodbCache gCache;

void traceRec(int i, const vodbRec& r) {
    const u_char* l = r.lp_uuid;
    VO_TR_RAW(vo_vldb, vo_debug,
              "Rec %2d: opid=%lld optype%d role%d vfsid%d "
              "lid0x%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X\n",
              i, static_cast<long long>(r.opid), r.optype, r.vfsrole, static_cast<int>(r.vfsid),
              l[0], l[1], l[2], l[3], l[4], l[5], l[6], l[7], l[8], l[9], l[10], l[11], l[12],
              l[13], l[14], l[15]);
}

}  // namespace

VodbCacheLock::VodbCacheLock() {
    int rc = pthread_mutex_lock(&gCache.vodbCacheLock);
    if (rc != 0) {
        VO_TR_RAW(vo_vod, vo_fatal, "mutex lock vodbCache Error = %d, %s\n", rc, strerror(rc));
        exit(1);
    }
    gCache.owner = pthread_self();
    gCache.held = true;
}

VodbCacheLock::~VodbCacheLock() {
    gCache.held = false;
    int rc = pthread_mutex_unlock(&gCache.vodbCacheLock);
    if (rc != 0) {
        VO_TR_RAW(vo_vod, vo_fatal, "mutex unlock vodbCache Error = %d, %s\n", rc, strerror(rc));
        exit(1);
    }
}

bool VodbCacheLock::heldByThisThread() {
    return gCache.held && pthread_equal(gCache.owner.load(), pthread_self());
}

const std::vector<VoRec*>& VodbCacheLock::getVodbCache() { return gCache.records; }

bool VodbCacheLock::hasOpid(unsigned long long opid) { return gCache.opids.count(opid) != 0; }

VoErr VodbCacheLock::refreshVodbCache(CLIENT* clntVldb) {
    VoErr err;
    if (clntVldb == nullptr) {
        VO_TR(vo_vldb, vo_warn, "clntVldb=0\n");
        err.setErr(voErrVodSanityCheck, VOD_ERR_NO_VLDB_CLIENT);
        err.setErrorCode(static_cast<unsigned>(VOD_ERR_NO_VLDB_CLIENT));
        return err;
    }

    VO_TR(vo_vldb, vo_debug, "vodb_opid_lookup_3\n");
    VoXdrResult<vodb_opid_lookup_result> ids(xdr_vodb_opid_lookup_result);
    enum clnt_stat st = vodb_opid_lookup_3(nullptr, ids.get(), clntVldb);
    if (st != RPC_SUCCESS) {
        VO_TR(vo_vldb, vo_warn, "vodb_opid_lookup_3 failed: %s\n", clnt_sperrno(st));
        return VoRpcCalls::foldErr(voErrVodbOpidLookUp, st, 0);
    }
    VO_TR(vo_vldb, vo_debug, "vodb_opid_lookup_3:%s\n", statLit(ids->result));
    VO_TR_RAW(vo_vldb, vo_debug, "last_create_opid=%lld, last_delete_opid=%lld\n",
              static_cast<long long>(ids->last_create_opid),
              static_cast<long long>(ids->last_delete_opid));
    unsigned long long lastCreate = ids->last_create_opid;
    unsigned long long lastDelete = ids->last_delete_opid;
    if (ids->result == VLDB_RECORD_UNAVAILABLE) {
        // An empty VODB: whatever ids came with the answer, it stands for (0, 0).
        lastCreate = lastDelete = 0;
    } else if (ids->result != 0) {
        VO_TR(vo_vldb, vo_warn, "vodb_opid_lookup_3:%s\n", statLit(ids->result));
        return VoRpcCalls::foldErr(voErrVodbOpidLookUp, RPC_SUCCESS,
                                   static_cast<unsigned>(ids->result));
    }

    unsigned long long wasCreated, wasDeleted;
    {
        // The ids belong to the cache: read them under its lock.
        VodbCacheLock l;
        wasCreated = VoState::_lastCreatedOpid;
        wasDeleted = VoState::_lastDeletedOpid;
    }
    if (lastCreate == wasCreated && lastDelete == wasDeleted) return err;

    VO_TR(vo_vldb, vo_debug, "_lastCreatedOpid was %lld, _lastDeletedOpid was %lld\n",
          static_cast<long long>(wasCreated), static_cast<long long>(wasDeleted));
    VO_TR(vo_vldb, vo_debug, "vodb_lookup_3\n");
    VoXdrResult<vodb_lookup_result> all(xdr_vodb_lookup_result);
    st = vodb_lookup_3(nullptr, all.get(), clntVldb);
    if (st != RPC_SUCCESS) {
        VO_TR(vo_vldb, vo_warn, "vodb_lookup_3 failed: %s\n", clnt_sperrno(st));
        return VoRpcCalls::foldErr(voErrVodbLookup, st, 0);
    }
    // "No records" is how an emptied VODB answers here as well: taken as a
    // failure, nothing new could be recorded and the VODB would stay empty,
    // so every later refresh failed the same way until a restart. Its ids
    // are those the id look-up gave.
    const bool emptied = all->result == VLDB_RECORD_UNAVAILABLE;
    const unsigned n = emptied ? 0 : all->rec.rec_len;
    const vodbRec* recs = all->rec.rec_val;
    VO_TR(vo_vldb, vo_debug, "vodb_lookup_3:%s\n", statLit(all->result));
    VO_TR_RAW(vo_vldb, vo_debug, "records=%d last_create_opid=%lld last_delete_opid=%lld\n",
              static_cast<int>(n), static_cast<long long>(all->last_create_opid),
              static_cast<long long>(all->last_delete_opid));
    if (all->result != 0 && !emptied) {
        VO_TR(vo_vldb, vo_warn, "vodb_lookup_3:%s\n", statLit(all->result));
        return VoRpcCalls::foldErr(voErrVodbLookup, RPC_SUCCESS,
                                   static_cast<unsigned>(all->result));
    }
    if (VoTrace::wants(VoTrace::vo_vldb, VoTrace::vo_debug))
        for (unsigned i = 0; i < n; i++) traceRec(static_cast<int>(i), recs[i]);

    // The ids and the records change together, under the lock, so that no
    // reader sees new ids with old records.
    VodbCacheLock l;
    VoState::_lastCreatedOpid = emptied ? lastCreate : all->last_create_opid;
    VoState::_lastDeletedOpid = emptied ? lastDelete : all->last_delete_opid;
    VO_TR(vo_vldb, vo_debug, "_lastCreatedOpid is %lld _lastDeletedOpid is %lld\n",
          static_cast<long long>(VoState::_lastCreatedOpid),
          static_cast<long long>(VoState::_lastDeletedOpid));

    for (unsigned i = 0; i < n; i++) {
        if (recs[i].optype >= VoRec::VODB_VOLOP_NULL &&
            recs[i].optype <= VoRec::VODB_VOLOP_RESTORE &&
            recs[i].vfsrole >= VoRec::VODB_ROLE_NULL && recs[i].vfsrole <= VoRec::VODB_ROLE_TEMP)
            continue;
        // Kept in the cache, so that its volumes still count as busy, but no
        // operation is ever rebuilt from it or removes it.
        VO_TR(vo_vldb, vo_warn,
              "opid=%lld has a VODB record this daemon does not know (optype %d role %d): "
              "left alone\n",
              static_cast<long long>(recs[i].opid), recs[i].optype, recs[i].vfsrole);
    }

    std::vector<VoRec*>& cache = gCache.records;
    const size_t have = cache.size();
    const size_t reuse = have < n ? have : n;
    for (size_t i = 0; i < reuse; i++) cache[i]->setFromVodbRec(recs[i]);

    if (n > have) {
        VO_TR(vo_vldb, vo_debug, "add %d new vorec to cache\n", static_cast<int>(n - have));
        for (size_t i = have; i < n; i++) {
            VoRec* r = new (std::nothrow) VoRec();
            if (r != nullptr) {
                // push_back may need memory too; a failure there is the same failure.
                try {
                    cache.push_back(r);
                } catch (const std::bad_alloc&) {
                    delete r;
                    r = nullptr;
                }
            }
            if (r == nullptr) {
                VO_TR(vo_vldb, vo_warn, "malloc error\n");
                err.setErr(voErrVodAllocVoRec, VOD_ERR_NO_MEMORY);
                err.setErrorCode(static_cast<unsigned>(VOD_ERR_NO_MEMORY));
                break;
            }
            r->setFromVodbRec(recs[i]);
        }
    } else if (n < have) {
        VO_TR(vo_vldb, vo_debug, "delete %d excess vorec from cache\n", static_cast<int>(have - n));
        for (size_t i = n; i < have; i++) delete cache[i];
        cache.erase(cache.begin() + static_cast<std::ptrdiff_t>(n), cache.end());
    }
    gCache.opids.clear();
    for (const VoRec* r : cache) gCache.opids.insert(r->opid());
    return err;
}
