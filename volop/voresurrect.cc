// Start-up resurrection: operations the VODB records but the registry does
// not know are rebuilt for the LPs the local D-blade serves, and handed back
// to the registry, whose status checks pick them up. The same pass marks
// registered operations whose records have vanished and runs the registry's
// status checks. Loop thread only.
#include <string.h>

#include <new>
#include <unordered_set>
#include <vector>

#include "dblade_incrcopy.h"
#include "dblade_lpm.h"
#include "vldb_server.h"
#include "vocopystate.h"
#include "vodbCache.h"
#include "vodelstate.h"
#include "vomirrorstate.h"
#include "vomovestate.h"
#include "vorec.h"
#include "vorpcclient.h"
#include "voserver.h"
#include "vostate.h"
#include "vostatelist.h"
#include "votcpvfsop.h"
#include "votrace.h"

namespace {

// What resurrectMissingStates learns from the registry in one walk: the
// operations it holds, and (recorded: the opids of the cached source
// records) a registered operation that counts itself retired from the VODB
// although its records are there is set right, traced from site.
struct RegistryWalk {
    const std::unordered_set<unsigned long long>* recorded;
    VoTraceSite site;
    std::unordered_set<unsigned long long> known;

    static void visit(void* arg, VoState* op) {
        auto* w = static_cast<RegistryWalk*>(arg);
        const unsigned long long opid = op->getOpid();
        w->known.insert(opid);
        if (w->recorded->count(opid) == 0 || !op->retiredFromVodb()) return;
        VO_TR_AT(w->site, VoTrace::vo_vod, VoTrace::vo_warn,
                 "BUG opid=%lld VODB records are present but "
                 "pVo->_vodbRecordStored=0, resetting\n",
                 opid);
        op->setVodbRecordStored();
    }
};

// The class of each VODB operation type this daemon runs: a new operation
// class adds its case here. *built is false for a type without a class.
VoState* allocOpOfType(int opType, bool* built) {
    *built = true;
    switch (opType) {
        case VoRec::VODB_VOLOP_COPY:
            return new (std::nothrow) VoCopyState();
        case VoRec::VODB_VOLOP_DELETE:
            return new (std::nothrow) VoDelState();
        case VoRec::VODB_VOLOP_MOVE:
        case VoRec::VODB_VOLOP_FINALMOVE:
            return new (std::nothrow) VoMoveState();
        case VoRec::VODB_VOLOP_MIRROR:
            return new (std::nothrow) VoMirrorState();
        case VoRec::VODB_VOLOP_DUMP:
        case VoRec::VODB_VOLOP_RESTORE:
            return new (std::nothrow) VoTcpVfsOp();
        default:
            *built = false;
            return nullptr;
    }
}

}  // namespace

VoState* VoServer::newVoStateOfType(int opType) {
    bool built;
    VoState* op = allocOpOfType(opType, &built);
    if (op != nullptr) return op;
    if (built)
        VO_TR(vo_vod, vo_fatal, "Fail to allocate memory\n");
    else if (opType < VoRec::VODB_VOLOP_COPY || opType > VoRec::VODB_VOLOP_RESTORE)
        VO_TR(vo_vod, vo_warn, "Unknown Vol op type = %d\n", opType);
    else
        // Its records stay in the VODB for a daemon that runs the type.
        VO_TR(vo_vod, vo_warn, "Vol op type = %d (%s) is not run by this daemon\n", opType,
              VoRec::opType2str(opType));
    return nullptr;
}

unsigned VoServer::batchClntCreate(VoRPCClient& vldb, VoRPCClient& incrcopy,
                                   VoRPCClient& dbladeVol) {
    vldb.clnttcp_create(localhost, VLDB_PROG, VLDB_VERS);
    if (static_cast<CLIENT*>(vldb) == nullptr) {
        VO_TR(vo_vod, vo_warn, "cannot make vldb client to %s\n", localhost);
        return VOD_ERR_NO_VLDB_CLIENT;
    }
    CLIENT* vldbClnt = vldb;
    if (!VoRPCClient::setCallTimeout(vldbClnt, 70)) {
        vldb.clntdestroy();
        return VOD_ERR_CANT_SET_TIMEOUT;
    }
    incrcopy.clnttcp_create(localhost, DBLADE_INCRCOPY_PROG, DBLADE_INCRCOPY_VERS);
    if (static_cast<CLIENT*>(incrcopy) == nullptr) {
        VO_TR(vo_vod, vo_warn, "cannot make incrcopy client to %s\n", localhost);
        vldb.clntdestroy();
        return VOD_ERR_NO_DBLADE_CLIENT;
    }
    dbladeVol.clnttcp_create(localhost, DBLADE_VOL_PROG, DBLADE_VOL_VERS);
    if (static_cast<CLIENT*>(dbladeVol) == nullptr) {
        // The same code as the incremental-copy client: both are the D-blade.
        VO_TR(vo_vod, vo_warn, "cannot make dblade_vol client to %s\n", localhost);
        incrcopy.clntdestroy();
        vldb.clntdestroy();
        return VOD_ERR_NO_DBLADE_CLIENT;
    }
    return 0;
}

void VoServer::populateMissingVoStateFromVodb(const unsigned char* lid) {
    VoTrace::Depth depth;
    voStateList.noteLook();
    VoRPCClient vldb, incrcopy, dbladeVol;
    if (batchClntCreate(vldb, incrcopy, dbladeVol) != 0) {
        // _isFirstCall stays set: the loop tries again after its next wake-up.
        VO_TR(vo_vod, vo_warn, "cannot make rpc client(s)\n");
        voStateList.iterator(resetStatusCheckedAtTimes, nullptr);
        return;
    }
    _isFirstCall = 0;

    // The LPs to look at: the one named, or every LP the local D-blade lists.
    LPGetAllEntry one;
    char emptyName[] = "";
    VoXdrResult<LPGetAllOut> listed(xdr_LPGetAllOut);
    LPGetAllEntry* lps = nullptr;
    unsigned count = 0;
    if (memcmp(lid, lidZero, sizeof lidZero) != 0) {
        memcpy(one.uuid, lid, sizeof one.uuid);
        one.state = LP_STATUS_ONLINE;
        one.name = emptyName;
        lps = &one;
        count = 1;
    } else {
        VoRPCClient lpm;
        lpm.clnttcp_create(localhost, DBLADE_LPM_PROG, DBLADE_LPM_VERS);
        if (static_cast<CLIENT*>(lpm) != nullptr) {
            VO_TR(vo_srcvol, vo_entry, "lp_list_all_1\n");
            u_int arg = 0;
            clnt_stat st = lp_list_all_1(&arg, listed.get(), lpm);
            if (st != RPC_SUCCESS) {
                VO_TR(vo_srcvol, vo_warn, "lp_list_all_1 failed: %s\n", clnt_sperrno(st));
            } else if (listed->status != 0) {
                VO_TR(vo_srcvol, vo_warn, "lp_list_all_1 err=%#X\n",
                      static_cast<unsigned>(listed->status));
            } else {
                lps = listed->entries.entries_val;
                count = listed->entries.entries_len;
            }
        }
    }

    VoErr err = VodbCacheLock::refreshVodbCache(vldb);
    if (err != 0) VO_TR(vo_vod, vo_warn, "refreshVodbCache err=%d\n", static_cast<unsigned>(err));

    if (VoTrace::wants(VoTrace::vo_vod, VoTrace::vo_debug)) {
        unsigned size;
        {
            VodbCacheLock cacheLock;
            size = static_cast<unsigned>(VodbCacheLock::getVodbCache().size());
        }
        VO_TR(vo_vod, vo_debug, "_vodbCache.size = 0x%08X\n\n", size);
        voStateList.iterator(VoStateList::dbgDump, nullptr);
    }

    resurrectMissingStates(incrcopy, count, lps);

    // Only a fresh cache tells which records are really gone.
    if (err == 0) voStateList.iterator(checkForMissingVodbRecords, nullptr);

    voStateList.checkForCompletedOps(vldb, incrcopy, dbladeVol);
}

void VoServer::resurrectMissingStates(CLIENT* clnt, unsigned count, LPGetAllEntry* lps) {
    VoTrace::Depth depth;
    // The source records, one per operation, copied out of the cache: the
    // registry's lock must not be taken inside the cache lock, so the cache
    // lock is held only while an operation reads its records.
    std::vector<VoRec> srcRecs;
    {
        VodbCacheLock cacheLock;
        for (const VoRec* rec : VodbCacheLock::getVodbCache())
            if (rec->role() == VoRec::VODB_ROLE_SRC) srcRecs.push_back(*rec);
        // An operation with any record this daemon does not know is not
        // rebuilt: half understood, it could only be rolled the wrong way.
        for (const VoRec* rec : VodbCacheLock::getVodbCache()) {
            if (rec->isKnown()) continue;
            for (size_t i = 0; i < srcRecs.size(); i++)
                if (srcRecs[i].opid() == rec->opid()) {
                    VO_TR(vo_vod, vo_warn,
                          "opid=%lld has a record of op type %u role %u: not resurrected\n",
                          static_cast<long long>(rec->opid()), rec->rawOpType(), rec->rawRole());
                    srcRecs.erase(srcRecs.begin() + static_cast<std::ptrdiff_t>(i));
                    break;
                }
        }
    }

    // One walk of the registry instead of a look-up per record: this pass
    // runs on every time-out of the loop, and with thousands of operations
    // a look-up each made it quadratic. Only this thread adds operations, so
    // what the walk saw stays true through the pass.
    std::unordered_set<unsigned long long> recorded;
    for (const VoRec& rec : srcRecs) recorded.insert(rec.opid());
    RegistryWalk walk{&recorded, VO_SITE, {}};
    voStateList.iterator(RegistryWalk::visit, &walk);

    unsigned n = 0;
    for (const VoRec& rec : srcRecs) {
        const unsigned long long opid = rec.opid();
        if (walk.known.count(opid) != 0) continue;
        VO_TR(vo_vod, vo_audit, "No VoState in our list knows opid=%lld\n", opid);

        bool ours = false;
        for (unsigned i = 0; i < count; i++) {
            VO_TR(vo_vod, vo_detail, "checking LP=" VO_LP_FMT "\n", VO_LP_ARGS(lps[i].uuid));
            if (lps[i].state == LP_STATUS_ONLINE && memcmp(lps[i].uuid, rec.lid(), 16) == 0) {
                ours = true;
                break;
            }
        }
        if (!ours) {
            // Another D-blade serves the LP: that node's daemon owns the operation.
            VO_TR(vo_vod, vo_audit, "our dblade does not control its lp either\n");
            continue;
        }
        VO_TR(vo_vod, vo_audit, "but our dblade controls its lp\n");

        VO_TR(vo_vod, vo_audit, "Attempt to resurrect a VoState for opid=%lld\n", opid);
        VoState* op = newVoStateOfType(rec.opType());
        if (op == nullptr) continue;

        VO_TR(vo_vod, vo_audit, "call resurrectFromVoRec()\n");
        unsigned r;
        {
            VodbCacheLock cacheLock;
            r = op->resurrectFromVoRec(opid, clnt);
        }
        if (r != 0) {
            VO_TR(vo_vod, vo_warn, "resurrectFromVoRec err=%d\n", r);
            delete op;
            continue;
        }
        if (op->getDbladeIncrCopyStatus())
            op->_rollForward = true;
        else
            op->_opCompleteReceived = true;
        op->opResurrected = 1;
        // Its records are in the VODB: recovery must run for it.
        op->setVodbRecordStored();
        voStateList.addNewOp(op, 0);
        walk.known.insert(opid);
        // Stamped 29, 28, ... seconds in the past, so that the status checks
        // of the resurrected operations come due one second apart.
        n++;
        op->setStatusCheckedAtTime(VoState::getCurrentTime() + n - VoStateList::kStatusCheckSec);
    }
}

bool VoServer::isVodbRecordPresent(unsigned long long opid) {
    VodbCacheLock cacheLock;
    if (VodbCacheLock::hasOpid(opid)) return true;
    VO_TR(vo_vod, vo_audit, "VODB record is missing for opid=%lld\n", opid);
    return false;
}
