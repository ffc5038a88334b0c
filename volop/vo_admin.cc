// Handlers of the short administration requests: delete (by id and LP, by
// name, by id), read-only and read-write, find, create, clone, and the
// cancel that is refused. They run on the loop thread and block it for their
// remote calls; only a delete that could not finish leaves work behind, as a
// registered VoDelState that recovery completes.
//
// Every failure is a code in the result, never an RPC error. Where a step
// fails after an earlier one created something, the handler undoes that one
// step and does not retry.
//
// Dump and restore only hand out the cookie here; the stream itself arrives
// on the dump/restore socket (VoServer::tcpVfsOp).
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>

#include <new>
#include <string>

#include "dblade_vol.h"
#include "dldb_server.h"
#include "vldb_server.h"
#include "vodelstate.h"
#include "vodumplabel.h"
#include "voerrors.h"
#include "vorpccalls.h"
#include "vorpcclient.h"
#include "voserver.h"
#include "vostate.h"
#include "vostatelist.h"
#include "votrace.h"
#include "util/tcpdump_frame.h"

namespace {

const unsigned kNotSupported = VOD_ERR_BASE + VOD_ERR_NOT_SUPPORTED;

// The fixed codes of these handlers.
const unsigned kNoVldbClient =
    voCompositeCode(VoProcVodRpcCreateClient, VOD_ERR_BASE + VOD_ERR_NO_VLDB_CLIENT);
const unsigned kNoDbladeClient =
    voCompositeCode(VoProcVodRpcCreateClient, VOD_ERR_BASE + VOD_ERR_NO_DBLADE_CLIENT);
const unsigned kNoDldbClient =
    voCompositeCode(VoProcVodRpcCreateClient, VOD_ERR_BASE + VOD_ERR_NO_DLDB_CLIENT);
const unsigned kNotOneMatch = VO_RC_MULTIPLE_RECORDS;
const unsigned kVfsDeleteFailed =
    voCompositeCode(VoProcVodVfsDelete, VOD_ERR_BASE + VOD_ERR_VFS_DELETE);

// CreateVfsIn.flags: the new volume is the root of its virtual server.
const unsigned kCreateVfsRoot = 0x1;
// A new volume has no export rule set.
const unsigned short kNoExportRuleset = 65535;
// The longest volume name the D-blade keeps.
const size_t kMaxVolNameLen = 128;

// A failed VLDB record creation: the VLDB's own result under its procedure.
unsigned createRecordCode(const VoErr& err) { return err.funcrc() | 0x01010000; }

// True when c holds a connected client to (prog, vers) on this node.
bool connectLocal(VoRPCClient& c, unsigned long prog, unsigned long vers) {
    VoErr err = c.clnttcp_create(localhost, prog, vers);
    return err == 0 && static_cast<CLIENT*>(c) != nullptr;
}

bool connectHost(VoRPCClient& c, const char* host, unsigned long prog, unsigned long vers) {
    VoErr err = c.clnttcp_create(host, prog, vers);
    return err == 0 && static_cast<CLIENT*>(c) != nullptr;
}

// The D-blade keeps a volume's creation time as seconds in the high word and
// nanoseconds in the low word.
unsigned attrCreateTimeToSec(unsigned long long t) { return static_cast<unsigned>(t >> 32); }
unsigned attrCreateTimeToNSec(unsigned long long t) { return static_cast<unsigned>(t); }

// Deletes (vfsId, lid) as vodelete does; 0, or the one code of a failed
// delete.
unsigned deleteVolume(VoServer& server, unsigned vfsId, const unsigned char* lid) {
    VoIn in;
    in.vidSrc = vfsId;
    memcpy(in.lidSrc, lid, sizeof in.lidSrc);
    VoOut out;
    server.vfsDelete(&in, &out);
    return out.rc != voErrRcSuccess ? kVfsDeleteFailed : 0;
}

// A clone is named after its source and its own id, which keeps the name
// unique among the clones of one volume and within the D-blade's limit.
std::string cloneNameOf(const char* srcName, unsigned cloneId) {
    char suffix[32];
    snprintf(suffix, sizeof suffix, ".clone%u", cloneId);
    std::string base = srcName != nullptr ? srcName : "";
    const size_t room = kMaxVolNameLen - strlen(suffix);
    if (base.size() > room) base.resize(room);
    return base + suffix;
}

// vosetro and vosetrw: the volume's type on its D-blade, then in the VLDB.
void setVfsType(VoIn* in, VoOut* out, vldb_vfs_types type) {
    VoTrace::Depth depth;
    out->rc = voErrRcSuccess;
    out->func = voErrFuncSuccess;
    out->funcrc = 0;

    VoRPCClient vldb, incrcopy, dbladeVol;
    unsigned code = VoServer::batchClntCreate(vldb, incrcopy, dbladeVol);
    if (code != 0) {
        VO_TR(vo_vod, vo_warn, "cannot make rpc client\n");
        out->rc = voErrNoResource;
        out->func = voErrVodClntTcpCreate;
        out->funcrc = code;
        return;
    }
    VoErr err = VoState::setVfsType(vldb, dbladeVol, in->vidSrc, in->lidSrc, type);
    if (err != 0) {
        out->rc = voErrMakeVFS;
        out->func = err.func();
        out->funcrc = err.funcrc();
    }
}

}  // namespace

// --- delete -----------------------------------------------------------------

void VoServer::vfsDelete(VoIn* in, VoOut* out) {
    VoTrace::Depth depth;
    VoDelState* op = new (std::nothrow) VoDelState();
    if (op == nullptr) {
        VO_TR(vo_vod, vo_fatal, "Cannot create VoDeleteState\n");
        out->rc = voErrNoResource;
        out->func = voErrVodAllocVoState;
        out->funcrc = VOD_ERR_NO_MEMORY;
        return;
    }

    out->rc = voErrRcSuccess;
    out->func = voErrFuncSuccess;
    out->funcrc = 0;
    if (!op->addSrc(in->vidSrc, in->lidSrc)) {
        VO_TR(vo_vod, vo_warn, "addSrc failed \n");
        out->rc = voErrValidate;
        op->getErr(&out->func, &out->funcrc);
        delete op;
        return;
    }

    VoRPCClient vldb, incrcopy, dbladeVol;
    unsigned code = batchClntCreate(vldb, incrcopy, dbladeVol);
    if (code != 0) {
        VO_TR(vo_vod, vo_warn, "cannot make rpc client\n");
        out->rc = voErrNoResource;
        out->func = voErrVodClntTcpCreate;
        out->funcrc = code;
        delete op;
        return;
    }

    VO_TR(vo_vod, vo_audit, "call prepare()\n");
    if (op->prepare(vldb, dbladeVol) == 0) {
        VO_TR(vo_vod, vo_audit, "opid=%lld call del()\n", static_cast<long long>(op->getOpid()));
        op->del(vldb, dbladeVol);
    }
    op->getErr(&out->rc, &out->func, &out->funcrc);
    vldb.clntdestroy();
    incrcopy.clntdestroy();
    dbladeVol.clntdestroy();

    if (op->retiredFromVodb()) {
        VO_TR(vo_vod, vo_audit, "opid=%lld clean up done. Delete pVo\n",
              static_cast<long long>(op->getOpid()));
        delete op;
        return;
    }
    // Its VODB record stays: the registry hands it to recovery, which finishes
    // the delete.
    VO_TR(vo_vod, vo_warn, "opid=%lld failed to clean up.\n",
          static_cast<long long>(op->getOpid()));
    voStateList.addNewOp(op, 0);
    VO_TR_RAW(vo_vod, vo_audit,
              "Stored pVo=0x%p in _voStates. Attempt clean up later.  _voStates.size=%d\n\n",
              static_cast<void*>(op), voStateList.getSize());
}

void VoServer::vfsDeleteByName(char* name, unsigned* code) {
    VoTrace::Depth depth;
    VO_TR(vo_vod, vo_audit, "vfsName=%s\n", name);
    unsigned char lid[16];
    unsigned vfsId = 0, kind = 0;
    {
        VoRPCClient vldb;
        if (!connectLocal(vldb, VLDB_PROG, VLDB_VERS)) {
            // The bare daemon code, unlike the other handlers: clients test for it.
            *code = VOD_ERR_NO_VLDB_CLIENT;
            return;
        }
        unsigned r = VoRpcCalls::findLpByVfsName(vldb, name, lid, vfsId, kind);
        if (r != 0) {
            *code = r;
            return;
        }
    }
    *code = deleteVolume(*this, vfsId, lid);
}

void VoServer::vfsDeleteById(unsigned vfsId, unsigned* code) {
    VoTrace::Depth depth;
    VO_TR(vo_vod, vo_audit, "vfsId=%u\n", vfsId);
    unsigned char lid[16];
    unsigned kind = 0;
    {
        VoRPCClient vldb;
        if (!connectLocal(vldb, VLDB_PROG, VLDB_VERS)) {
            *code = VOD_ERR_NO_VLDB_CLIENT;  // bare, as for the delete by name
            return;
        }
        unsigned r = VoRpcCalls::findLpByVfsId(vldb, vfsId, lid, kind);
        if (r != 0) {
            *code = r;
            return;
        }
    }
    *code = deleteVolume(*this, vfsId, lid);
}

// --- read-only / read-write -------------------------------------------------

void VoServer::vfsSetRO(VoIn* in, VoOut* out) { setVfsType(in, out, RO_VFS); }

void VoServer::vfsSetRW(VoIn* in, VoOut* out) { setVfsType(in, out, RW_VFS); }

// --- find -------------------------------------------------------------------

void VoServer::vfsFindByName(char* name, FindVfsByNameOut* out) {
    VoTrace::Depth depth;
    VO_TR(vo_vod, vo_audit, "vfsName=%s\n", name);
    memset(out, 0, sizeof *out);

    VoRPCClient vldb;
    if (!connectLocal(vldb, VLDB_PROG, VLDB_VERS)) {
        out->code = VOD_ERR_NO_VLDB_CLIENT;  // bare, as for the deletes by name and id
        return;
    }
    unsigned char lid[16];
    unsigned kind = 0;
    // The id goes out as soon as the name is found: a caller learns it even
    // when the volume's D-blade or node cannot be found after.
    unsigned code = VoRpcCalls::findLpByVfsName(vldb, name, lid, out->vfsId, kind);
    if (code != 0) {
        out->code = code;
        return;
    }
    unsigned short did = 0;
    code = VoRpcCalls::findDbladeByLpId(vldb, lid, did);
    if (code != 0) {
        out->code = code;
        return;
    }
    out->isVfsModifiable = kind == RW_VFS;
    out->code = VoRpcCalls::getHostAddrs(did, &out->ipAddrs.ipAddrs_len, &out->ipAddrs.ipAddrs_val);
}

// --- create -----------------------------------------------------------------

void VoServer::vfsCreate(CreateVfsIn* in, CreateVfsOut* out) {
    VoTrace::Depth depth;
    VO_TR(vo_vod, vo_audit, "vfsName=%s pool=%s vserver=%s\n", in->vfsName, in->storagePoolName,
          in->virtualServerName);
    out->code = 0;
    out->vfsId = 0;

    unsigned char lid[16];
    unsigned vserver = 0;
    {
        VoRPCClient dldb;
        if (!connectLocal(dldb, DLDB_PROG, DLDB_VERS)) {
            out->code = kNoDldbClient;
            return;
        }
        unsigned code = VoRpcCalls::findLpByName(dldb, in->storagePoolName, lid);
        if (code == 0) code = VoRpcCalls::getVSIdByName(dldb, in->virtualServerName, &vserver);
        if (code != 0) {
            out->code = code;
            return;
        }
    }

    VoRPCClient vldb;
    if (!connectLocal(vldb, VLDB_PROG, VLDB_VERS)) {
        out->code = kNoVldbClient;
        return;
    }
    char host[VO_HOST_NAME_SIZE] = "";
    unsigned vfsId = 0;
    unsigned code = VoRpcCalls::findServerByLpId(vldb, lid, host);
    if (code == 0) code = VoRpcCalls::newVfsId(vldb, vfsId);
    if (code != 0) {
        out->code = code;
        return;
    }

    // The VLDB and the D-blade get the same creation time.
    timeval now;
    gettimeofday(&now, nullptr);
    const unsigned isRoot = in->flags & kCreateVfsRoot;
    VoErr err =
        VoState::vldbCreateRecord(vldb, vfsId, lid, in->vfsName, in->vfsName, RW_VFS, isRoot,
                                  now.tv_sec, now.tv_usec, vserver, 0, kNoExportRuleset, APP_NONE);
    if (err != 0) {
        VO_TR(vo_vod, vo_warn, "vldbCreateRecord for vfsId=%u, name=%s failed; code=%u\n", vfsId,
              in->vfsName, err.funcrc());
        out->code = createRecordCode(err);
        return;
    }

    VoRPCClient dbladeVol;
    if (!connectHost(dbladeVol, host, DBLADE_VOL_PROG, DBLADE_VOL_VERS)) {
        out->code = kNoDbladeClient;
    } else {
        tarn_volsetattrx_t attrs;
        memset(&attrs, 0, sizeof attrs);
        attrs.how = VOLSET_VOLNAME | VOLSET_CREATETIME | VOLSET_VIRTUALSERVER;
        attrs.attrs.volname = in->vfsName;
        attrs.attrs.mountedatvolname = const_cast<char*>("");
        attrs.attrs.createTime = (static_cast<unsigned long long>(now.tv_sec) << 32) |
                                 static_cast<unsigned>(now.tv_usec * 1000);
        attrs.attrs.virtualServer = vserver;
        code = VoRpcCalls::dbladeVolCreate(dbladeVol, vfsId, lid, attrs);
        if (code != 0) out->code = voCompositeCode(VoProcDbladeVolCreate, code);
    }
    if (out->code != 0) {
        // No volume behind it: the record goes again.
        VoState::vldbDeleteRecord(vldb, vfsId, lid);
        return;
    }
    out->vfsId = vfsId;
}

// --- clone ------------------------------------------------------------------

namespace {

// The clone of vfsId with its VLDB record; 0, or the code of the step that
// failed (a clone made before the failure is deleted again).
unsigned cloneVolume(VoServer& server, unsigned vfsId, unsigned* cloneId, std::string* cloneName) {
    VoRPCClient vldb;
    if (!connectLocal(vldb, VLDB_PROG, VLDB_VERS)) return kNoVldbClient;

    vldb_record_lookup_input lookup;
    memset(&lookup, 0, sizeof lookup);
    lookup.input_mask = VFS_ID;
    lookup.r.vfsid = vfsId;
    lookup.r.family = const_cast<char*>("");
    lookup.r.vfsname = const_cast<char*>("");
    VoXdrResult<vldb_record_lookup_result> found(xdr_vldb_record_lookup_result);
    unsigned code = VoRpcCalls::vldbFindVfs(vldb, lookup, *found);
    unsigned matches = code == 0 ? found->r.r_len : 0;
    VO_TR(vo_vod, vo_audit, "vldbFindVfs(%d) has %d matches\n", vfsId, matches);
    // No match, several, or a lookup that failed: all are the one refusal.
    if (code != 0 || matches != 1) return kNotOneMatch;
    const Rec& src = found->r.r_val[0];
    unsigned char lid[16];
    memcpy(lid, src.lp_uuid, sizeof lid);

    char host[VO_HOST_NAME_SIZE] = "";
    unsigned newId = 0;
    code = VoRpcCalls::findServerByLpId(vldb, lid, host);
    if (code == 0) code = VoRpcCalls::newVfsId(vldb, newId);
    if (code != 0) return code;

    VoRPCClient dbladeVol;
    if (!connectHost(dbladeVol, host, DBLADE_VOL_PROG, DBLADE_VOL_VERS)) return kNoDbladeClient;
    code = VoRpcCalls::dbladeVolClone(dbladeVol, vfsId, lid, newId);
    if (code != 0) return voCompositeCode(VoProcDbladeVolClone, code);

    VoXdrResult<VolGetattrOut_t> attrs(xdr_VolGetattrOut_t);
    code = VoRpcCalls::dbladeGetAttrs(dbladeVol, newId, lid, *attrs);
    dbladeVol.clntdestroy();
    unsigned long long dataVer = 0, createTime = 0;
    if (code == 0) {
        dataVer = attrs->return_volattrs.dataVersion;
        createTime = attrs->return_volattrs.createTime;
        *cloneName = cloneNameOf(src.vfsname, newId);
        VoErr err = VoState::vldbCreateRecord(vldb, newId, lid, cloneName->c_str(), src.family,
                                              CLONE, 0, attrCreateTimeToSec(createTime),
                                              attrCreateTimeToNSec(createTime) / 1000, src.vserver,
                                              dataVer, src.exportRuleset, src.appId);
        if (err != 0) {
            VO_TR(vo_vod, vo_warn, "vldbCreateRecord for vfsId=%u, name=%s failed; code=%u\n",
                  newId, cloneName->c_str(), err.funcrc());
            code = createRecordCode(err);
        }
    } else {
        code = voCompositeCode(VoProcDbladeVolClone, code);
    }
    if (code != 0) {
        // The clone has no record: delete it again, as a recorded delete so
        // that a failure half way is finished by recovery.
        vldb.clntdestroy();
        cloneName->clear();
        deleteVolume(server, newId, lid);
        return code;
    }
    *cloneId = newId;
    return 0;
}

}  // namespace

void VoServer::vfsClone(unsigned vfsId, CloneVfsOut* out) {
    VoTrace::Depth depth;
    VO_TR(vo_vod, vo_audit, "vfsId=%u\n", vfsId);
    out->code = 0;
    out->cloneVfsId = 0;
    out->cloneVfsName = nullptr;
    std::string cloneName;
    out->code = cloneVolume(*this, vfsId, &out->cloneVfsId, &cloneName);
    if (out->code != 0) out->cloneVfsId = 0;
    // The RPC layer frees the name after the reply.
    out->cloneVfsName = strdup(cloneName.c_str());
}

// --- dump, restore, cancel --------------------------------------------------

// The LP of the volume vfsId as the local VLDB has it: 0, kNoVldbClient,
// or the look-up's code.
static unsigned lpOfVolume(unsigned vfsId, unsigned char* lid) {
    VoRPCClient vldb;
    if (!connectLocal(vldb, VLDB_PROG, VLDB_VERS)) return kNoVldbClient;
    unsigned kind = 0;
    return VoRpcCalls::findLpByVfsId(vldb, vfsId, lid, kind);
}

// Clients swap the port's low 16 bits back; the value goes out in host
// order on purpose, and names 909 whatever port the socket really has.
static const unsigned kDumpPortField = htons(909);

void VoServer::vfsDump(DumpVfsIn* in, DumpVfsOut* out) {
    VoTrace::Depth depth;
    VO_TR(vo_vod, vo_audit, "vfsId=%u\n", in->fromVfsId);
    memset(out, 0, sizeof *out);
    unsigned char lid[16];
    if ((out->code = lpOfVolume(in->fromVfsId, lid)) != 0) return;
    // The field need not be terminated.
    char prior[sizeof in->priorDumpLabel + 1];
    memcpy(prior, in->priorDumpLabel, sizeof in->priorDumpLabel);
    prior[sizeof in->priorDumpLabel] = '\0';
    DumpLabel label;
    if (unsigned r = label.initialize(prior)) {
        out->code = voCompositeCode(VoProcVodVfsDumpOldLabel, r + VOD_ERR_BASE);
        return;
    }
    TcpVfsOpCookie* c = static_cast<TcpVfsOpCookie*>(calloc(1, TCP_DUMP_COOKIE_LEN));
    if (c == nullptr) {
        out->code = voCompositeCode(VoProcVodVfsDump, VOD_ERR_BASE + VOD_ERR_NO_MEMORY);
        return;
    }
    c->requestType = TCP_REQ_DUMP;
    c->u.dump.fromVfsId = in->fromVfsId;
    memcpy(c->u.dump.lpId, lid, sizeof c->u.dump.lpId);
    c->u.dump.dumpFromDV = label.getToDV() + 1;
    c->u.dump.skipClone = in->skipClone;
    const size_t n = strnlen(in->dumpName, sizeof in->dumpName);
    c->u.dump.dumpNameLength = static_cast<uint32_t>(n);
    memcpy(c->u.dump.dumpName, in->dumpName, n);
    out->code = 0;
    out->port = kDumpPortField;
    // The RPC layer frees the cookie after the reply.
    out->cookie.cookie_len = TCP_DUMP_COOKIE_LEN;
    out->cookie.cookie_val = reinterpret_cast<char*>(c);
}

void VoServer::vfsRestore(RestoreVfsIn* in, RestoreVfsOut* out) {
    VoTrace::Depth depth;
    VO_TR(vo_vod, vo_audit, "vfsId=%u\n", in->vfsId);
    memset(out, 0, sizeof *out);
    if (in->vfsId == 0) {
        out->code = voCompositeCode(VoProcVodVfsRestore, VOD_ERR_BASE + VOD_ERR_INVALID_VFSID);
        return;
    }
    unsigned char lid[16];
    if ((out->code = lpOfVolume(in->vfsId, lid)) != 0) return;
    // Made whole, handed out as its first 28 bytes: the restore's part of it.
    TcpVfsOpCookie whole;
    memset(&whole, 0, sizeof whole);
    whole.requestType = TCP_REQ_RESTORE;
    whole.u.restore.force = in->force;
    whole.u.restore.toVfsId = in->vfsId;
    memcpy(whole.u.restore.lpId, lid, sizeof whole.u.restore.lpId);
    char* c = static_cast<char*>(malloc(TCP_RESTORE_COOKIE_LEN));
    if (c == nullptr) {
        // The dump's code: the two share it.
        out->code = voCompositeCode(VoProcVodVfsDump, VOD_ERR_BASE + VOD_ERR_NO_MEMORY);
        return;
    }
    memcpy(c, &whole, TCP_RESTORE_COOKIE_LEN);
    out->code = 0;
    out->port = kDumpPortField;
    out->cookie.cookie_len = TCP_RESTORE_COOKIE_LEN;
    out->cookie.cookie_val = c;
}

void VoServer::vfsOpCancel(unsigned long long opid, unsigned* code) {
    VO_TR(vo_vod, vo_audit, "opid=%llu\n", opid);
    *code = voCompositeCode(VoProcVodVfsOpCancel, VOD_ERR_BASE + VOD_ERR_NOT_SUPPORTED);
}

void VoServer::vfsGetAttr(VoIn*, VoGetAttrOut* out) {
    memset(out, 0, sizeof *out);
    out->rc = voErrValidate;
}

void VoServer::vfsSetAttr(VoSetAttrIn*, unsigned* code) { *code = kNotSupported; }
