#include "vorpccalls.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "coord.h"
#include "dldb_server.h"
#include "vldb_lit.h"
#include "vodldb.h"
#include "vorpcclient.h"
#include "votrace.h"

// Like VO_TR, for the retry lambdas: they name the helper they serve, not
// their own operator().
#define VO_TR_IN(fn, mod, lvl, fmt, ...)                                                        \
    do {                                                                                        \
        if (VoTrace::wants(VoTrace::mod, VoTrace::lvl))                                         \
            VoTrace::tr(VoTrace::mod, VoTrace::lvl, "%s %d " fmt, fn, __LINE__, ##__VA_ARGS__); \
    } while (0)

#define LP_FMT "LP=0x%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X"
#define LP_ARGS(l)                                                                           \
    (l)[0], (l)[1], (l)[2], (l)[3], (l)[4], (l)[5], (l)[6], (l)[7], (l)[8], (l)[9], (l)[10], \
        (l)[11], (l)[12], (l)[13], (l)[14], (l)[15]

namespace {

const char* const kCoordHost = "127.0.0.1";
const unsigned long kCoordProgram = 0x20000800;
const unsigned long kCoordVersion = 1;

void realSleep(unsigned seconds) { sleep(seconds); }
std::atomic<void (*)(unsigned)> gSleep{realSleep};

void retrySleep() { gSleep.load()(VoRpcCalls::ENORNUM_RETRY_SECONDS); }

// 0x01000000 | proc << 16 | low: the VLDB-side helpers' codes.
unsigned vldbCode(VoProc proc, unsigned low) { return voCompositeCode(proc, low); }

unsigned rpcLow(enum clnt_stat st) { return VO_ERR_RPC_BASE + static_cast<unsigned>(st); }

const char* dbladeErrText(unsigned rc) {
    return rc == VOD_ERR_CANT_SET_TIMEOUT ? "voErrRpcErrCantSetTimeOut"
                                          : clnt_sperrno(static_cast<enum clnt_stat>(rc));
}

bool setTimeout(CLIENT* clnt, unsigned seconds) {
    return VoRPCClient::setCallTimeout(clnt, seconds);
}

// The D-blade family: set the time-out, then call until the D-blade stops
// asking to be called again (retryTrace answers whether this status is such a
// request, and traces it), at most MAX_ATTEMPTS times. The last answer stays
// in out as it stands.
template <typename In, typename Out, typename RetryTrace>
unsigned dbladeRetryLoop(CLIENT* clnt, unsigned timeout, In* in, Out* out, xdrproc_t outFilter,
                         enum clnt_stat (*stub)(In*, Out*, CLIENT*), RetryTrace retryTrace) {
    if (clnt == nullptr) return VOD_ERR_NO_DBLADE_CLIENT;
    if (!setTimeout(clnt, timeout)) return VOD_ERR_CANT_SET_TIMEOUT;
    for (int attempt = 1;; attempt++) {
        // Attempts after the first decoded into out already: release that first.
        if (attempt > 1) xdr_free(outFilter, reinterpret_cast<char*>(out));
        memset(out, 0, sizeof *out);
        enum clnt_stat st = stub(in, out, clnt);
        if (st != RPC_SUCCESS) return st;
        if (attempt >= VoRpcCalls::MAX_ATTEMPTS || !retryTrace(out->returnCode)) return 0;
        retrySleep();
    }
}

// The convenience forms' folding of a family member's answer.
unsigned convenienceCode(unsigned rc, unsigned status) {
    if (rc == VOD_ERR_CANT_SET_TIMEOUT || rc == VOD_ERR_NO_DBLADE_CLIENT) return rc;
    if (rc != 0) return VO_ERR_RPC_BASE + rc;
    return status;
}

// Strings the caller left null would make the request fail to encode.
void fillNullNames(tarn_volsattrx_t& a) {
    static char empty[] = "";
    if (a.volname == nullptr) a.volname = empty;
    if (a.mountedatvolname == nullptr) a.mountedatvolname = empty;
}

// The single VLDB record of a lookup by name or id, its LP id and type.
unsigned findOne(CLIENT* clnt, vldb_record_lookup_input& in, unsigned char* lid, unsigned* vfsid,
                 unsigned& vfsType, const char* fn, const char* name) {
    VoXdrResult<vldb_record_lookup_result> out(xdr_vldb_record_lookup_result);
    unsigned rc = VoRpcCalls::vldbFindVfs(clnt, in, *out);
    if (rc != 0) return rc;
    const unsigned n = out->r.r_len;
    if (n != 1) {
        if (name)
            VO_TR_IN(fn, vo_vldb, vo_warn, "vldbFindVfs(%s) has %d matches\n", name,
                     static_cast<int>(n));
        else
            VO_TR_IN(fn, vo_vldb, vo_warn, "vldbFindVfs(%d) has %d matches\n",
                     static_cast<int>(in.r.vfsid), static_cast<int>(n));
        return VO_RC_MULTIPLE_RECORDS;
    }
    const Rec& r = out->r.r_val[0];
    memcpy(lid, r.lp_uuid, sizeof r.lp_uuid);
    if (vfsid) *vfsid = r.vfsid;
    vfsType = r.vfstype;
    return 0;
}

}  // namespace

void VoRpcCalls::setSleepForTest(void (*sleeper)(unsigned)) {
    gSleep = sleeper ? sleeper : realSleep;
}

VoErr VoRpcCalls::foldErr(voErrFunc func, enum clnt_stat st, unsigned status) {
    VoErr e;
    if (st != RPC_SUCCESS) {
        voErrFunc rpcFunc = static_cast<voErrFunc>(static_cast<unsigned>(func) + 10000);
        e.setErr(rpcFunc, static_cast<unsigned>(st));
        e.setErrorCode(rpcFunc);
    } else if (status != 0) {
        e.setErr(func, status);
        e.setErrorCode(func);
    }
    return e;
}

// ---- VLDB and DLDB ----

unsigned VoRpcCalls::vldbFindVfs(CLIENT* clnt, vldb_record_lookup_input& in,
                                 vldb_record_lookup_result& out) {
    memset(&out, 0, sizeof out);
    if (clnt == nullptr)
        return voCompositeCode(VoProcVodRpcCreateClient, VOD_ERR_BASE + VOD_ERR_NO_VLDB_CLIENT);
    // Null strings cannot be encoded: a key left unset goes out empty, on a
    // copy so that the caller's record stays its own to free.
    static char empty[] = "";
    vldb_record_lookup_input req = in;
    if (req.r.family == nullptr) req.r.family = empty;
    if (req.r.vfsname == nullptr) req.r.vfsname = empty;
    enum clnt_stat st = vldb_record_lookup_3(&req, &out, clnt);
    if (st != RPC_SUCCESS) {
        VO_TR(vo_vldb, vo_warn, "vldb_record_lookup_3(name=%s,id=%d) RPC failed: %s\n",
              req.r.vfsname, static_cast<int>(in.r.vfsid), clnt_sperrno(st));
        return vldbCode(VoProcVldbRecordLookup, rpcLow(st));
    }
    if (out.result != 0) {
        VO_TR(vo_vldb, vo_warn, "vldb_record_lookup_3(name=%s,id=%d) failed: %s\n", req.r.vfsname,
              static_cast<int>(in.r.vfsid), statLit(static_cast<int>(out.result)));
        return vldbCode(VoProcVldbRecordLookup, VO_ERR_VLDB_BASE + out.result);
    }
    if (out.r.r_len == 0) {
        VO_TR(vo_vldb, vo_warn, "vldb_record_lookup_3(name=%s,id=%d) returned zero records\n",
              req.r.vfsname, static_cast<int>(in.r.vfsid));
        return VO_RC_VFS_NOT_FOUND;
    }
    return 0;
}

unsigned VoRpcCalls::findLpByVfsName(CLIENT* clnt, const char* name, unsigned char* lid,
                                     unsigned& vfsid, unsigned& vfsType) {
    vldb_record_lookup_input in;
    memset(&in, 0, sizeof in);
    in.input_mask = VFS_NAME;
    in.r.vfsname = const_cast<char*>(name ? name : "");
    return findOne(clnt, in, lid, &vfsid, vfsType, __func__, in.r.vfsname);
}

unsigned VoRpcCalls::findLpByVfsId(CLIENT* clnt, unsigned vfsid, unsigned char* lid,
                                   unsigned& vfsType) {
    vldb_record_lookup_input in;
    memset(&in, 0, sizeof in);
    in.input_mask = VFS_ID;
    in.r.vfsid = vfsid;
    return findOne(clnt, in, lid, nullptr, vfsType, __func__, nullptr);
}

unsigned VoRpcCalls::findLpByName(CLIENT* clnt, const char* lpName, unsigned char* lid) {
    if (clnt == nullptr)
        return voCompositeCode(VoProcVodRpcCreateClient, VOD_ERR_BASE + VOD_ERR_NO_DLDB_CLIENT);
    dldb_name_t arg = const_cast<char*>(lpName ? lpName : "");
    VoXdrResult<DldbGetLidRes> res(xdr_DldbGetLidRes);
    enum clnt_stat st = getlidbylpname_1(&arg, res.get(), clnt);
    if (st != RPC_SUCCESS) {
        VO_TR(vo_vldb, vo_warn, "getlidbylpname_1 lpName='%s' failed: %s\n", arg, clnt_sperrno(st));
        return vldbCode(VoProcDldbGetLidByLpName, rpcLow(st));
    }
    if (res->status != DLDB_STATUS_OK) {
        VO_TR(vo_vldb, vo_warn, "getlidbylpname_1 lpName='%s' err=%#X\n", arg,
              static_cast<unsigned>(res->status));
        return vldbCode(VoProcDldbGetLidByLpName,
                        VO_ERR_DLDB_BASE + static_cast<unsigned>(res->status));
    }
    memcpy(lid, res->lid, sizeof res->lid);
    return 0;
}

unsigned VoRpcCalls::getVSIdByName(CLIENT* clnt, const char* vsName, unsigned* id) {
    if (clnt == nullptr)
        return voCompositeCode(VoProcVodRpcCreateClient, VOD_ERR_BASE + VOD_ERR_NO_DLDB_CLIENT);
    dldb_name_t arg = const_cast<char*>(vsName ? vsName : "");
    VoXdrResult<DldbGetVserverIdRes> res(xdr_DldbGetVserverIdRes);
    enum clnt_stat st = getvserveridbyname_1(&arg, res.get(), clnt);
    if (st != RPC_SUCCESS) {
        VO_TR(vo_vldb, vo_warn, "getvserveridbyname_1 vsName='%s' failed: %s\n", arg,
              clnt_sperrno(st));
        return vldbCode(VoProcDldbGetVserverIdByName, rpcLow(st));
    }
    if (res->status != DLDB_STATUS_OK) {
        VO_TR(vo_vldb, vo_warn, "getvserveridbyname_1 vsName='%s' err=%#X\n", arg,
              static_cast<unsigned>(res->status));
        return vldbCode(VoProcDldbGetVserverIdByName,
                        VO_ERR_DLDB_BASE + static_cast<unsigned>(res->status));
    }
    *id = res->id;
    return 0;
}

unsigned VoRpcCalls::findDbladeByLpId(CLIENT* clnt, const unsigned char* lid, unsigned short& did) {
    if (clnt == nullptr)
        return voCompositeCode(VoProcVodRpcCreateClient, VOD_ERR_BASE + VOD_ERR_NO_VLDB_CLIENT);
    tarn_uuid_t arg;
    memcpy(arg, lid, sizeof arg);
    VoXdrResult<vldb_lp_convert_result> res(xdr_vldb_lp_convert_result);
    enum clnt_stat st = vldb_lp_convert_3(arg, res.get(), clnt);
    if (st != RPC_SUCCESS) {
        VO_TR(vo_vldb, vo_warn, "vldb_lp_convert_3 at " LP_FMT " failed: %s\n", LP_ARGS(lid),
              clnt_sperrno(st));
        return vldbCode(VoProcVldbLpConvert, rpcLow(st));
    }
    if (res->result != 0) {
        VO_TR(vo_vldb, vo_warn, "vldb_lp_convert_3 at " LP_FMT " err (%d) %s\n", LP_ARGS(lid),
              static_cast<int>(res->result), statLit(static_cast<int>(res->result)));
        return vldbCode(VoProcVldbLpConvert, VO_ERR_VLDB_BASE + res->result);
    }
    did = res->dblade_id;
    return 0;
}

unsigned VoRpcCalls::findServerByLpId(CLIENT* clnt, const unsigned char* lid, char* host) {
    unsigned short did = 0;
    unsigned rc = findDbladeByLpId(clnt, lid, did);
    if (rc != 0) return rc;
    char* name = VoDldb::getHostNameByDbladeId(did);
    if (name == nullptr) {
        VO_TR(vo_vldb, vo_warn, "no host for dblade %d at " LP_FMT "\n", did, LP_ARGS(lid));
        return voCompositeCode(VoProcDldbGetHostByDid, VOD_ERR_BASE + VOD_ERR_NO_HOST);
    }
    snprintf(host, VO_HOST_NAME_SIZE, "%s", name);
    free(name);
    return 0;
}

unsigned VoRpcCalls::newVfsId(CLIENT* clnt, unsigned& vfsid) {
    if (clnt == nullptr)
        return voCompositeCode(VoProcVodRpcCreateClient, VOD_ERR_BASE + VOD_ERR_NO_VLDB_CLIENT);
    VoXdrResult<new_vfsid_result> res(xdr_new_vfsid_result);
    enum clnt_stat st = new_vfsid_3(nullptr, res.get(), clnt);
    if (st != RPC_SUCCESS) {
        VO_TR(vo_vldb, vo_warn, "new_vfsid_3 failed: %s\n", clnt_sperrno(st));
        return vldbCode(VoProcVldbNewVfsId, rpcLow(st));
    }
    if (res->result != 0) {
        VO_TR(vo_vldb, vo_warn, "new_vfsid_3 err %s \n", statLit(static_cast<int>(res->result)));
        return vldbCode(VoProcVldbNewVfsId, VO_ERR_VLDB_BASE + res->result);
    }
    vfsid = res->newvfsid;
    return 0;
}

// ---- D-blade volume service ----

unsigned VoRpcCalls::dbladeVfsCreate(VolCreateIn* in, VolCreateOut_t* out, CLIENT* clnt,
                                     unsigned timeout) {
    const char* fn = __func__;
    return dbladeRetryLoop(clnt, timeout, in, out, xdrProc(xdr_VolCreateOut_t), volcreate_1,
                           [&](unsigned status) {
                               if (status != TARN_ERR_ENORNUM) return false;
                               VO_TR_IN(fn, vo_sinkvol, vo_warn,
                                        "encountered TARN_ERR_ENORNUM, Retrying volcreate after "
                                        "%d sec vfsid=%d\n",
                                        ENORNUM_RETRY_SECONDS, static_cast<int>(in->vfsID));
                               return true;
                           });
}

unsigned VoRpcCalls::dbladeCloneVfs(VolCloneIn* in, VolCloneOut_t* out, CLIENT* clnt,
                                    unsigned timeout) {
    const char* fn = __func__;
    return dbladeRetryLoop(
        clnt, timeout, in, out, xdrProc(xdr_VolCloneOut_t), volclone_1, [&](unsigned status) {
            if (status == TARN_ERR_ENORNUM) {
                VO_TR_IN(fn, vo_srcvol, vo_warn,
                         "encountered TARN_ERR_ENORNUM, Retrying volclone after %d sec vfsid=%d\n",
                         ENORNUM_RETRY_SECONDS, static_cast<int>(in->srcVfsID));
                return true;
            }
            if (status == TARN_ERR_VFSBUSY) {
                VO_TR_IN(fn, vo_srcvol, vo_warn, "Retrying volclone after %d sec vfsid=%d\n",
                         ENORNUM_RETRY_SECONDS, static_cast<int>(in->srcVfsID));
                return true;
            }
            return false;
        });
}

unsigned VoRpcCalls::swapVolId(VolSwapVolIdIn* in, VolSwapVolIdOut_t* out, CLIENT* clnt,
                               unsigned timeout) {
    const char* fn = __func__;
    return dbladeRetryLoop(clnt, timeout, in, out, xdrProc(xdr_VolSwapVolIdOut_t), volswapvolid_1,
                           [&](unsigned status) {
                               if (status != TARN_ERR_ENORNUM) return false;
                               VO_TR_IN(fn, vo_sinkvol, vo_warn,
                                        "encountered TARN_ERR_ENORNUM, Retrying volswapvolid "
                                        "after %d sec\n",
                                        ENORNUM_RETRY_SECONDS);
                               return true;
                           });
}

unsigned VoRpcCalls::dbladeVfsGetAttrs(VolGetattrIn* in, VolGetattrOut_t* out, CLIENT* clnt,
                                       unsigned timeout) {
    const char* fn = __func__;
    return dbladeRetryLoop(clnt, timeout, in, out, xdrProc(xdr_VolGetattrOut_t), volgetattr_1,
                           [&](unsigned status) {
                               if (status != TARN_ERR_ENORNUM) return false;
                               VO_TR_IN(fn, vo_srcvol, vo_warn,
                                        "encountered TARN_ERR_ENORNUM, Retrying volgetattr after "
                                        "%d sec vfsid=%d\n",
                                        ENORNUM_RETRY_SECONDS, static_cast<int>(in->vfsID));
                               return true;
                           });
}

unsigned VoRpcCalls::dbladeVfsSetAttrs(VolSetattrIn* in, VolSetattrOut_t* out, CLIENT* clnt,
                                       unsigned timeout) {
    const char* fn = __func__;
    return dbladeRetryLoop(clnt, timeout, in, out, xdrProc(xdr_VolSetattrOut_t), volsetattr_1,
                           [&](unsigned status) {
                               if (status != TARN_ERR_ENORNUM) return false;
                               VO_TR_IN(fn, vo_srcvol, vo_warn,
                                        "encountered TARN_ERR_ENORNUM, Retrying volsetattr after "
                                        "%d sec vfsid=%d\n",
                                        ENORNUM_RETRY_SECONDS, static_cast<int>(in->vfsID));
                               return true;
                           });
}

unsigned VoRpcCalls::dbladeVolDelete(VolDeleteIn* in, CLIENT* clnt, unsigned timeout,
                                     bool retried, clnt_stat* transport) {
    if (transport != nullptr) *transport = RPC_SUCCESS;
    if (clnt == nullptr) return VOD_ERR_NO_DBLADE_CLIENT;
    if (!setTimeout(clnt, timeout)) return VOD_ERR_CANT_SET_TIMEOUT;
    const int vfsid = static_cast<int>(in->vfsID);
    unsigned status = 0;
    for (int attempt = 1; attempt <= MAX_ATTEMPTS; attempt++) {
        VolDeleteOut_t out;
        memset(&out, 0, sizeof out);
        enum clnt_stat st = voldelete_1(in, &out, clnt);
        if (st != RPC_SUCCESS) {
            // A delete that outlasts the time-out usually completes on the
            // D-blade anyway: ask once more, briefly, and take that answer.
            if (st == RPC_TIMEDOUT && !retried)
                return dbladeVolDelete(in, clnt, 2, true, transport);
            VO_TR(vo_srcvol, vo_warn, "voldelete_1 vfsid=%d failed: %s\n", vfsid, clnt_sperrno(st));
            if (transport != nullptr) *transport = st;
            return st;
        }
        status = out.returnCode;
        switch (status) {
            case 0:
                VO_TR(vo_srcvol, vo_audit, "vfsid=%d is deleted\n", vfsid);
                return 0;
            case TARN_ERR_LPMMISMATCH:
                VO_TR(vo_srcvol, vo_warn, "vfsid=%d TARN_ERR_LPMMISMATCH\n", vfsid);
                return TARN_ERR_LPMMISMATCH;
            case TARN_ERR_ENORNUM:
                VO_TR(vo_srcvol, vo_warn, "vfsid=%d TARN_ERR_ENORNUM\n", vfsid);
                break;
            case TARN_ERR_DELETE_BUSY:
                VO_TR(vo_srcvol, vo_warn, "Retrying voldelete after %d sec vfsid=%d\n",
                      ENORNUM_RETRY_SECONDS, vfsid);
                break;
            case TARN_ERR_DELETE_DONE:
                VO_TR(vo_srcvol, vo_debug, "voldelete_1 vfsid=%d err=%#X\n", vfsid, status);
                return 0;
            default:
                VO_TR(vo_srcvol, vo_warn, "voldelete_1 vfsid=%d err=%#X\n", vfsid, status);
                return status;
        }
        if (attempt < MAX_ATTEMPTS) retrySleep();
    }
    // Still asked to call again after every attempt: that answer stands.
    return status;
}

unsigned VoRpcCalls::dbladeVolCreate(CLIENT* clnt, unsigned vfsid, const unsigned char* lid,
                                     tarn_volsetattrx_t& attrs) {
    VolCreateIn in;
    memset(&in, 0, sizeof in);
    memcpy(in.lpUUID, lid, sizeof in.lpUUID);
    in.vfsID = vfsid;
    in.set_attrs = attrs;
    fillNullNames(in.set_attrs.attrs);
    VolCreateOut_t out;
    unsigned rc = dbladeVfsCreate(&in, &out, clnt, DEFAULT_TIMEOUT);
    if (rc != 0) {
        VO_TR(vo_sinkvol, vo_warn, "dbladeVfsCreate vfsid=%d failed: %s\n", static_cast<int>(vfsid),
              dbladeErrText(rc));
        return convenienceCode(rc, 0);
    }
    if (out.returnCode != 0)
        VO_TR(vo_sinkvol, vo_warn, "dbladeVfsCreate vfsid=%d err=%#X\n", static_cast<int>(vfsid),
              out.returnCode);
    return out.returnCode;
}

unsigned VoRpcCalls::dbladeVolClone(CLIENT* clnt, unsigned vfsid, const unsigned char* lid,
                                    unsigned cloneVfsid) {
    VolCloneIn in;
    memset(&in, 0, sizeof in);
    in.srcVfsID = vfsid;
    in.cloneVfsID = cloneVfsid;
    in.flags = 0;
    memcpy(in.lpUUID, lid, sizeof in.lpUUID);
    VolCloneOut_t out;
    unsigned rc = dbladeCloneVfs(&in, &out, clnt, DEFAULT_TIMEOUT);
    if (rc != 0) {
        VO_TR(vo_srcvol, vo_warn, "dbladeCloneVfs vfsid=%d failed: %s\n", static_cast<int>(vfsid),
              dbladeErrText(rc));
        return convenienceCode(rc, 0);
    }
    if (out.returnCode != 0)
        VO_TR(vo_srcvol, vo_warn, "dbladeCloneVfs vfsid=%d err=%#X\n", static_cast<int>(vfsid),
              out.returnCode);
    return out.returnCode;
}

unsigned VoRpcCalls::dbladeGetAttrs(CLIENT* clnt, unsigned vfsid, const unsigned char* lid,
                                    VolGetattrOut_t& out) {
    memset(&out, 0, sizeof out);
    VolGetattrIn in;
    memset(&in, 0, sizeof in);
    in.vfsID = vfsid;
    memcpy(in.lpUUID, lid, sizeof in.lpUUID);
    unsigned rc = dbladeVfsGetAttrs(&in, &out, clnt, DEFAULT_TIMEOUT);
    if (rc != 0) {
        VO_TR(vo_srcvol, vo_warn, "dbladeVfsGetAttrs vfsid=%d failed: %s\n",
              static_cast<int>(vfsid), dbladeErrText(rc));
        return convenienceCode(rc, 0);
    }
    if (out.returnCode != 0)
        VO_TR(vo_srcvol, vo_warn, "dbladeVfsGetAttrs vfsid=%d err=%#X\n", static_cast<int>(vfsid),
              out.returnCode);
    return out.returnCode;
}

unsigned VoRpcCalls::dbladeSetAttrs(CLIENT* clnt, VolSetattrIn& in) {
    VolSetattrIn req = in;  // the caller's record keeps its own strings
    fillNullNames(req.set_attrs.attrs);
    VolSetattrOut_t out;
    unsigned rc = dbladeVfsSetAttrs(&req, &out, clnt, DEFAULT_TIMEOUT);
    if (rc != 0) {
        VO_TR(vo_srcvol, vo_warn, "dbladeVfsSetAttrs vfsid=%d failed: %s\n",
              static_cast<int>(in.vfsID), dbladeErrText(rc));
        return convenienceCode(rc, 0);
    }
    if (out.returnCode != 0)
        VO_TR(vo_srcvol, vo_warn, "dbladeVfsSetAttrs vfsid=%d err=%#X\n",
              static_cast<int>(in.vfsID), out.returnCode);
    return out.returnCode;
}

// ---- Coordinator ----

unsigned VoRpcCalls::getHostAddrs(unsigned short did, unsigned* count, unsigned** addrs) {
    *count = 0;
    *addrs = nullptr;
    VoRPCClient coord;
    if (coord.clnttcp_create(kCoordHost, kCoordProgram, kCoordVersion) != 0)
        return voCompositeCode(VoProcVodRpcCreateClient, VOD_ERR_BASE + VOD_ERR_NO_HAMGR_CLIENT);

    admin_2_getnode_1_argument arg;
    arg.dbladeId = did;
    VoXdrResult<admin_attr_nodeInfo_t> node(xdr_admin_attr_nodeInfo_t);
    enum clnt_stat st = admin_2_getnode_1(&arg, node.get(), coord);
    if (st != RPC_SUCCESS) {
        VO_TR(vo_vod, vo_warn, "admin_2_getnode_1 dbladeId=%d failed: %s\n", did, clnt_sperrno(st));
        return voCompositeCode(VoProcHAMgrAdmin2GetNode, rpcLow(st));
    }
    if (node->status != 0) {
        VO_TR(vo_vod, vo_warn, "admin_2_getnode_1 dbladeId=%d err=%#X\n", did, node->status);
        return voCompositeCode(VoProcHAMgrAdmin2GetNode, VO_ERR_HAMGR_BASE + node->status);
    }

    admin_node_name_t nodeName = node->nodeName ? node->nodeName : const_cast<char*>("");
    VoXdrResult<admin_list_ips_t> ips(xdr_admin_list_ips_t);
    st = admin_2_listallips_1(&nodeName, ips.get(), coord);
    if (st != RPC_SUCCESS) {
        VO_TR(vo_vod, vo_warn, "admin_2_listallips_1 nodeName=%s failed: %s\n", nodeName,
              clnt_sperrno(st));
        return voCompositeCode(VoProcHAMgrAdmin2ListAllIPs, rpcLow(st));
    }
    if (ips->status != 0) {
        VO_TR(vo_vod, vo_warn, "admin_2_listallips_1 nodeName=%s err=%#X\n", nodeName, ips->status);
        return voCompositeCode(VoProcHAMgrAdmin2ListAllIPs, VO_ERR_HAMGR_BASE + ips->status);
    }

    const u_int n = ips->ips.ips_len;
    if (n == 0) return 0;
    unsigned* copy = static_cast<unsigned*>(malloc(n * sizeof(unsigned)));
    if (copy == nullptr) {
        VO_TR(vo_vod, vo_warn, "malloc of %u addresses failed\n", n);
        return voCompositeCode(VoProcSysMalloc, VO_ERR_SYSTEM_BASE + ENOMEM);
    }
    memcpy(copy, ips->ips.ips_val, n * sizeof(unsigned));
    *count = n;
    *addrs = copy;
    return 0;
}
