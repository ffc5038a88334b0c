// DBLADE_VOL_PROG service functions: the D-blade volume service of every D-blade of the
// node.  Each D-blade serves its own LPs only: a request about another D-blade's LP finds
// no volume there (21), as it would on a separate machine.

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "dblade_vol.h"
#include "sim/simfaults.h"
#include "sim/simnode.h"
#include "sim/simservice.h"
#include "sim/volstore.h"

namespace {

std::string wireString(const char* s) { return s ? std::string(s) : std::string(); }

SimVolAttrs fromWire(const tarn_volsattrx_t& a) {
    SimVolAttrs o;
    o.minQuota = a.minQuota;
    o.maxQuota = a.maxQuota;
    o.volname = wireString(a.volname);
    o.mountedatvolname = wireString(a.mountedatvolname);
    o.mountedatdirvnode = a.mountedatdirvnode;
    o.mountedatdirunique = a.mountedatdirunique;
    o.mountedatparentvnode = a.mountedatparentvnode;
    o.mountedatparentunique = a.mountedatparentunique;
    o.createTime = a.createTime;
    o.bkupLevel = a.bkupLevel;
    o.prevBkupTime = a.prevBkupTime;
    o.prevVersion = a.prevVersion;
    o.virtualServer = a.virtualServer;
    o.mountedatVolumeId = a.mountedatVolumeId;
    o.volumeId = a.volumeId;
    o.mgmId = a.mgmId;
    o.mgmExts.assign(a.mgmExts, sizeof a.mgmExts);
    o.dmOptions = a.dmOptions;
    o.phase = a.phase;
    o.percentFreeThreshold = a.percentFreeThreshold;
    return o;
}

// The dispatcher hands us an uninitialised result and frees it after the reply, so every
// path starts from zero with allocated empty strings.
void clearGetattr(VolGetattrOut_t* out) {
    memset(out, 0, sizeof *out);
    out->return_volattrs.volname = strdup("");
    out->return_volattrs.mountedatvolname = strdup("");
}

void fillGetattr(const SimVolume& v, tarn_volgattrx_t* o) {
    SimVolStore& store = SimVolStore::get();
    const SimVolAttrs& a = v.attrs;
    o->flags = v.flags();
    o->minQuota = a.minQuota;
    o->maxQuota = a.maxQuota;
    o->blocksUsed = store.blocksUsed(v);
    o->lpblocksAvailable = store.blocksFreeOnLp(v.lp);
    o->lpminQuotaReserved = store.blocksReservedOnLp(v.lp);
    free(o->volname);
    free(o->mountedatvolname);
    o->volname = strdup(a.volname.c_str());
    o->mountedatvolname = strdup(a.mountedatvolname.c_str());
    o->mountedatdirvnode = a.mountedatdirvnode;
    o->mountedatdirunique = a.mountedatdirunique;
    o->mountedatparentvnode = a.mountedatparentvnode;
    o->mountedatparentunique = a.mountedatparentunique;
    o->createTime = a.createTime;
    o->rootVnode = v.rootVnode;
    o->rootUnique = v.rootUnique;
    o->virtualServer = a.virtualServer;
    o->read_ref_count = static_cast<u_int>(v.readers);
    o->dataVersion = v.dataVersion;
    o->downstream_vfsid = v.downstream;
    o->upstream_vfsid = v.upstream;
    o->mgmId = a.mgmId;
    memcpy(o->mgmExts, a.mgmExts.data(), std::min(a.mgmExts.size(), sizeof o->mgmExts));
    o->dmEnabledClasses = a.dmOptions;
    o->percentFreeThreshold = a.percentFreeThreshold;
}

}  // namespace

bool_t volcreate_1_svc(VolCreateIn* in, VolCreateOut_t* out, struct svc_req*) {
    return simServeOnLps("volcreate", &out->returnCode, TARN_ERR_LPMMISMATCH, {in->lpUUID}, [&] {
        return SimVolStore::get().create(simLpId(in->lpUUID), in->vfsID, in->set_attrs.how,
                                         fromWire(in->set_attrs.attrs));
    });
}

bool_t voldelete_1_svc(VolDeleteIn* in, VolDeleteOut_t* out, struct svc_req*) {
    return simServeOnLps("voldelete", &out->returnCode, TARN_ERR_LPMMISMATCH, {in->lpUUID},
                         [&] { return SimVolStore::get().remove(simLpId(in->lpUUID), in->vfsID); });
}

bool_t volclone_1_svc(VolCloneIn* in, VolCloneOut_t* out, struct svc_req*) {
    return simServeOnLps("volclone", &out->returnCode, TARN_ERR_LPMMISMATCH, {in->lpUUID}, [&] {
        return SimVolStore::get().clone(simLpId(in->lpUUID), in->srcVfsID, in->cloneVfsID);
    });
}

bool_t volgetattr_1_svc(VolGetattrIn* in, VolGetattrOut_t* out, struct svc_req*) {
    clearGetattr(out);
    return simServeOnLps("volgetattr", &out->returnCode, TARN_ERR_LPMMISMATCH, {in->lpUUID},
                         [&]() -> unsigned {
        SimVolume* v;
        if (unsigned st = SimVolStore::get().locate(simLpId(in->lpUUID), in->vfsID, &v)) return st;
        if (v->hidden) return TARN_ERR_VOLHIDDEN;
        fillGetattr(*v, &out->return_volattrs);
        return TARN_OK;
    });
}

bool_t volsetattr_1_svc(VolSetattrIn* in, VolSetattrOut_t* out, struct svc_req*) {
    // vnode and unique name the object inside the volume; every settable attribute here
    // belongs to the volume itself, so they are not consulted.
    return simServeOnLps("volsetattr", &out->returnCode, TARN_ERR_LPMMISMATCH, {in->lpUUID}, [&] {
        return SimVolStore::get().setAttrs(simLpId(in->lpUUID), in->vfsID, in->set_attrs.how,
                                           fromWire(in->set_attrs.attrs));
    });
}

// The swap runs as the three renumberings a D-blade makes of it (SimVolStore::swapSteps),
// each durable on its own, and meets a fault point before each: volswapvolid.step1, .step2,
// .step3.  A status N there ends the swap with N, the earlier renumberings left done, as a
// D-blade that failed mid-swap leaves them (it does not undo them); a drop is a D-blade that
// died there: no reply, the earlier renumberings stay.  Those half-done states are what
// the daemon's crash recovery has to finish.
bool_t volswapvolid_1_svc(VolSwapVolIdIn* in, VolSwapVolIdOut_t* out, struct svc_req*) {
    static const char* const kPoints[] = {"volswapvolid.step1", "volswapvolid.step2",
                                          "volswapvolid.step3"};
    return simServeOnLps("volswapvolid", &out->returnCode, TARN_ERR_LPMMISMATCH,
                         {in->lpUUID1, in->lpUUID2},
                         [&](std::unique_lock<std::mutex>& lk) -> SimStepped {
        SimVolStore& store = SimVolStore::get();
        std::vector<SimRenumber> steps;
        if (unsigned st = store.swapSteps(simLpId(in->lpUUID1), in->vfsID1, simLpId(in->lpUUID2),
                                          in->vfsID2, in->vfsIDTemp, &steps))
            return {st, true};
        SimStepped r;
        for (size_t i = 0; i < steps.size(); ++i) {
            SimFaultVerdict v = simFaultPoint(kPoints[i], lk);
            if (v.kind == SimFaultKind::Drop) return {TARN_OK, false};
            if (v.kind == SimFaultKind::Status)
                return {v.status ? v.status : unsigned{TARN_ERR_EIO}, r.reply};
            if (v.kind == SimFaultKind::LoseReply) r.reply = false;
            // Between the steps the node went on: the step checks its volumes afresh.
            if ((r.status = store.renumber({steps[i]}))) return r;
        }
        return r;
    });
}

int dblade_vol_prog_1_freeresult(SVCXPRT*, xdrproc_t xdr_result, caddr_t result) {
    xdr_free(xdr_result, result);
    return 1;
}
