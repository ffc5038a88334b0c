// Volume administration: voctl create, clone, delete, delete-by-name,
// delete-by-id, set-ro, set-rw, find. Each is one call to vod; a failure
// prints its code with the decoded text and exits with status 1.
#include <arpa/inet.h>
#include <sys/time.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "dldb_server.h"
#include "voctl/admin_common.h"
#include "voctl/command.h"
#include "voctl/lpid.h"
#include "voctl/number.h"
#include "voctl/stream_follow.h"
#include "voerrors.h"

namespace voctl {

// ---- shared with the other operation commands -------------------------------

namespace {

struct EnumName {
    unsigned value;
    const char* name;
};
#define N(x) \
    { static_cast<unsigned>(x), #x }
const EnumName kRcNames[] = {
    N(voErrRcSuccess),     N(voErrEndStream),  N(voErrRollForwardOp),  N(voErrRollBackOp),
    N(voErrNoSuchOp),      N(voErrNoResource), N(voErrRpcFailure),     N(VoErrDblade),
    N(voErrValidate),      N(voErrPersistOp),  N(voErrMakeVFS),        N(voErrStartStream),
    N(voErrCrashRecovery), N(voErrProgress),   N(voErrSrcVFSNotExist), N(voErrSinkVFSNotExist),
    N(voErrSinkVFSExist),  N(VoErrVldb),       N(VoJobInit),           N(voErrNotEnoughSpaceSinkLP),
};
// One line per hundred, as the protocol groups them.
// clang-format off
const EnumName kFuncNames[] = {
    N(voErrFuncSuccess),
    N(voErrGetHostByDid), N(voErrLpListAll),
    N(voErrVldbRecordLookup), N(voErrVldbNewVfsid), N(voErrVldbCreateRecord),
    N(voErrVldbDeleteRecord), N(voErrVldbLpConvert), N(voErrVldbRecordModify),
    N(voErrVodbOpidLookUp), N(voErrVodbLookup), N(voErrVodbUpdateOptypeByOpid),
    N(voErrVodbDeleteByOpid), N(voErrVodbCreate),
    N(voErrDbladeVolClone), N(voErrDbladeVolGetAttr), N(voErrDbladeVolSetAttr),
    N(voErrDbladeVolCreate), N(voErrDbladeVolDelete), N(voErrDbladeVolSwapVolId),
    N(voErrDbladeIncrCopyMirror), N(voErrDbladeIncrCopyCancel), N(voErrDbladeIncrCopyPause),
    N(voErrDbladeIncrCopyResume), N(voErrDbladeIncrCopyMove), N(voErrDbladeIncrCopyProgress),
    N(voErrDbladeIncrCopyConclude),
    N(voErrVodClntTcpCreate), N(voErrVodAllocVoRec), N(voErrVodAllocVoSinkPgrs),
    N(voErrVodAllocVoState), N(voErrVodVldbGetDataVer), N(voErrVodAttrGetDataVer),
    N(voErrVodCrashRecovery), N(voErrVodMirrorAdjustvid), N(voErrVodMirrorAdjustattr),
    N(voErrVodProgress), N(voErrVodConclude), N(voErrVodCancel), N(voErrVodStartStream),
    N(voErrVodMkOpSrcSink), N(voErrVodMkVodbRec), N(voErrVodValidate), N(voErrVodAddStream),
    N(voErrVodSanityCheck),
    N(voErrGetHostByDidRpc), N(voErrLpListAllRpc),
    N(voErrVldbRecordLookupRpc), N(voErrVldbNewVfsidRpc), N(voErrVldbCreateRecordRpc),
    N(voErrVldbDeleteRecordRpc), N(voErrVldbLpConvertRpc), N(voErrVldbRecordModifyRpc),
    N(voErrVodbOpidLookUpRpc), N(voErrVodbLookupRpc), N(voErrVodbUpdateOptypeByOpidRpc),
    N(voErrVodbDeleteByOpidRpc), N(voErrVodbCreateRpc),
    N(voErrDbladeVolCloneRpc), N(voErrDbladeVolGetAttrRpc), N(voErrDbladeVolSetAttrRpc),
    N(voErrDbladeVolCreateRpc), N(voErrDbladeVolDeleteRpc), N(voErrDbladeVolSwapVolIdRpc),
    N(voErrDbladeIncrCopyMirrorRpc), N(voErrDbladeIncrCopyCancelRpc),
    N(voErrDbladeIncrCopyPauseRpc), N(voErrDbladeIncrCopyResumeRpc), N(voErrDbladeIncrCopyMoveRpc),
    N(voErrDbladeIncrCopyProgressRpc), N(voErrDbladeIncrCopyConcludeRpc), N(voErrValidateSinkDV),
};
// clang-format on
#undef N

const char* lookupName(const EnumName* table, size_t n, unsigned value) {
    for (size_t i = 0; i < n; ++i)
        if (table[i].value == value) return table[i].name;
    return "?";
}

// A vod failure: "voctl: msg" on standard error and, with --json, detail
// plus "error" and "status" on standard output. Returns kExitVodFailure.
int vodFailure(Context& ctx, const std::string& msg, nlohmann::json detail) {
    std::fprintf(stderr, "voctl: %s\n", msg.c_str());
    if (ctx.out.json()) {
        detail["error"] = msg;
        detail["status"] = kExitVodFailure;
        std::printf("%s\n", detail.dump().c_str());
        std::fflush(stdout);
    }
    return kExitVodFailure;
}

std::string hex32(unsigned v) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%08X", v);
    return buf;
}

}  // namespace

const char* rcName(unsigned rc) {
    return lookupName(kRcNames, sizeof kRcNames / sizeof kRcNames[0], rc);
}

const char* funcName(unsigned func) {
    return lookupName(kFuncNames, sizeof kFuncNames / sizeof kFuncNames[0], func);
}

DecodedCode decodeCodeVia(VoClient* c, unsigned code) {
    DecodedCode d;
    if (c == nullptr) {
        d.whyLocal = "no connection to vod";
    } else if (!c->connected()) {
        d.whyLocal = c->createError();
    } else {
        XdrResult<VoErrOut> res(xdr_VoErrOut);
        u_int arg = code;
        if (c->call(decodeerror_1, &arg, res.get()) == RPC_SUCCESS && res->message != nullptr) {
            d.proc = res->proc;
            d.low = res->code;
            d.message = res->message;
            d.byVod = true;
            return d;
        }
        d.whyLocal = c->callError();
    }
    d.whyLocal = trimTrailing(d.whyLocal);
    // vod is not there to ask: its own tables give the same text.
    VoErrOut out{};
    char* text = errorDecode(code, &out);
    d.proc = out.proc;
    d.low = out.code;
    d.message = text != nullptr ? text : "";
    free(text);
    return d;
}

std::string decodeCode(VoClient* c, unsigned code) { return decodeCodeVia(c, code).message; }

int codeFailure(Context& ctx, VoClient* c, const std::string& what, unsigned code) {
    std::string decoded = decodeCode(c, code);
    return vodFailure(ctx, what + " failed: code " + hex32(code) + " " + decoded,
                      {{"code", code}, {"decoded", decoded}});
}

int lookupFailed(Context& ctx, const std::string& what, unsigned code) {
    unsigned low = code & 0xFFFF;
    if (low >= 30300 && low < 30400)
        return ctx.out.failure(kExitUnreachable, what + ": " + decodedText(nullptr, code));
    return codeFailure(ctx, nullptr, what, code);
}

nlohmann::json voOutJson(const VoOut& out) {
    return {{"rc", out.rc},
            {"rcName", rcName(out.rc)},
            {"func", out.func},
            {"funcName", funcName(out.func)},
            {"funcrc", out.funcrc}};
}

int voOutFailure(Context& ctx, const std::string& what, const VoOut& out) {
    char buf[256];
    std::snprintf(buf, sizeof buf, " failed: rc=%d %s func=%d %s funcrc=%u (%#x)", out.rc,
                  rcName(out.rc), out.func, funcName(out.func), out.funcrc, out.funcrc);
    return vodFailure(ctx, what + buf, voOutJson(out));
}

int resolveLp(Context& ctx, const std::string& text, LpId* out) {
    if (auto id = parseLpId(text)) {
        *out = *id;
        return kExitOk;
    }
    // A name: the node's DLDB knows every LP of the cluster by name.
    std::string err;
    ServiceClient dldb =
        connectService(ctx.opts.host, DLDB_PROG, DLDB_VERS, ctx.opts.timeoutSec, &err);
    if (!dldb) return ctx.out.failure(kExitUnreachable, "DLDB: " + err);
    XdrResult<DldbGetLidRes> res(xdr_DldbGetLidRes);
    dldb_name_t name = const_cast<char*>(text.c_str());
    if (getlidbylpname_1(&name, res.get(), dldb.get()) != RPC_SUCCESS)
        return ctx.out.failure(
            kExitUnreachable,
            "DLDB: " + std::string(clnt_sperror(dldb.get(), ctx.opts.host.c_str())));
    unsigned status = res->status;
    std::copy(std::begin(res->lid), std::end(res->lid), out->begin());
    if (status != DLDB_STATUS_OK)
        return codeFailure(ctx, nullptr, "LP name '" + text + "'",
                           voCompositeCode(VoProcDldbGetLidByLpName, VO_ERR_DLDB_BASE + status));
    return kExitOk;
}

// ---- the subcommands --------------------------------------------------------

namespace {

std::string lpText(const LpId& lp) { return formatLpId(lp); }

void fillVoIn(VoIn* in, uint32_t vfsId, const LpId& lp) {
    in->vidSrc = vfsId;
    std::copy(lp.begin(), lp.end(), in->lidSrc);
}

int create(Context& ctx, const std::string& name, const std::string& pool,
           const std::string& vserver, const std::string& flagsText) {
    uint32_t flags = *parseU32(flagsText);
    auto c = ctx.connect();
    if (!c) return kExitUnreachable;
    CreateVfsIn in{};
    in.vfsName = const_cast<char*>(name.c_str());
    in.storagePoolName = const_cast<char*>(pool.c_str());
    in.virtualServerName = const_cast<char*>(vserver.c_str());
    in.flags = flags;
    XdrResult<CreateVfsOut> res(xdr_CreateVfsOut);
    if (c->call(createvfs_1, &in, res.get()) != RPC_SUCCESS) return ctx.callFailed(*c);
    if (res->code != 0) return codeFailure(ctx, c.get(), "create of '" + name + "'", res->code);
    ctx.out.result(
        {{"name", name}, {"lp", pool}, {"vserver", vserver}, {"vfsid", res->vfsId}},
        "created volume '" + name + "' on " + pool + ": vfsid " + std::to_string(res->vfsId));
    return kExitOk;
}

int clone(Context& ctx, const std::string& idText) {
    uint32_t vfsId = *parseU32(idText);
    auto c = ctx.connect();
    if (!c) return kExitUnreachable;
    XdrResult<CloneVfsOut> res(xdr_CloneVfsOut);
    u_int arg = vfsId;
    if (c->call(clonevfs_1, &arg, res.get()) != RPC_SUCCESS) return ctx.callFailed(*c);
    if (res->code != 0)
        return codeFailure(ctx, c.get(), "clone of vfsid " + std::to_string(vfsId), res->code);
    std::string cloneName = res->cloneVfsName != nullptr ? res->cloneVfsName : "";
    ctx.out.result({{"vfsid", vfsId}, {"cloneVfsid", res->cloneVfsId}, {"cloneName", cloneName}},
                   "cloned vfsid " + std::to_string(vfsId) + ": clone vfsid " +
                       std::to_string(res->cloneVfsId) + " '" + cloneName + "'");
    return kExitOk;
}

// The three procedures that take a VoIn and answer a VoOut.
using VoInStub = clnt_stat (*)(VoIn*, VoOut*, CLIENT*);

int voInCall(Context& ctx, VoInStub stub, const char* verb, const std::string& idText,
             const std::string& lpTextArg) {
    uint32_t vfsId = *parseU32(idText);
    LpId lp{};
    if (int rc = resolveLp(ctx, lpTextArg, &lp); rc != kExitOk) return rc;
    auto c = ctx.connect();
    if (!c) return kExitUnreachable;
    VoIn in{};
    fillVoIn(&in, vfsId, lp);
    XdrResult<VoOut> res(xdr_VoOut);
    if (c->call(stub, &in, res.get()) != RPC_SUCCESS) return ctx.callFailed(*c);
    std::string what =
        std::string(verb) + " of vfsid " + std::to_string(vfsId) + " on LP " + lpText(lp);
    if (res->rc != voErrRcSuccess) return voOutFailure(ctx, what, *res);
    nlohmann::json obj = voOutJson(*res);
    obj["vfsid"] = vfsId;
    obj["lp"] = lpText(lp);
    ctx.out.result(obj, what + ": done");
    return kExitOk;
}

// deletevfsbyname and deletevfsbyid answer one code.
int deleteBy(Context& ctx, const std::string& what, bool byName, const std::string& arg) {
    auto c = ctx.connect();
    if (!c) return kExitUnreachable;
    u_int code = 0;
    clnt_stat st;
    if (byName) {
        vo_string name = const_cast<char*>(arg.c_str());
        st = c->call(deletevfsbyname_1, &name, &code);
    } else {
        u_int id = *parseU32(arg);
        st = c->call(deletevfsbyid_1, &id, &code);
    }
    if (st != RPC_SUCCESS) return ctx.callFailed(*c);
    if (code != 0) return codeFailure(ctx, c.get(), what, code);
    ctx.out.result(
        {{byName ? "name" : "vfsid", byName ? nlohmann::json(arg) : nlohmann::json(*parseU32(arg))},
         {"code", 0}},
        what + ": done");
    return kExitOk;
}

int find(Context& ctx, const std::string& name) {
    auto c = ctx.connect();
    if (!c) return kExitUnreachable;
    XdrResult<FindVfsByNameOut> res(xdr_FindVfsByNameOut);
    vo_string arg = const_cast<char*>(name.c_str());
    if (c->call(findvfsbyname_1, &arg, res.get()) != RPC_SUCCESS) return ctx.callFailed(*c);
    if (res->code != 0) return codeFailure(ctx, c.get(), "find of '" + name + "'", res->code);
    nlohmann::json addrs = nlohmann::json::array();
    std::string addrText;
    for (u_int i = 0; i < res->ipAddrs.ipAddrs_len; ++i) {
        // First octet in the high byte.
        in_addr a;
        a.s_addr = htonl(res->ipAddrs.ipAddrs_val[i]);
        char buf[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &a, buf, sizeof buf);
        addrs.push_back(buf);
        addrText += (i ? " " : "") + std::string(buf);
    }
    bool rw = res->isVfsModifiable != 0;
    ctx.out.result(
        {{"name", name}, {"vfsid", res->vfsId}, {"modifiable", rw}, {"addresses", addrs}},
        formatTable({{"name", name},
                     {"vfsid", std::to_string(res->vfsId)},
                     {"modifiable", rw ? "yes (read-write)" : "no"},
                     {"addresses", addrText.empty() ? "-" : addrText}}));
    return kExitOk;
}

// Declares VFSID and LP for the VoIn commands.
Action voInSetup(CLI::App& sub, VoInStub stub, const char* verb) {
    auto id = std::make_shared<std::string>();
    auto lp = std::make_shared<std::string>();
    sub.add_option("VFSID", *id, "the volume's VFS id")->required()->check(u32Check());
    sub.add_option("LP", *lp, "its LP: 32 hex digits, or the LP's name")->required();
    return [=](Context& ctx) { return voInCall(ctx, stub, verb, *id, *lp); };
}

const CommandRegistrar createReg(
    "create", "Create a read-write volume on an LP", [](CLI::App& sub) -> Action {
        auto name = std::make_shared<std::string>();
        auto pool = std::make_shared<std::string>();
        auto vserver = std::make_shared<std::string>();
        auto flags = std::make_shared<std::string>("0");
        sub.add_option("NAME", *name, "the new volume's name")->required();
        sub.add_option("LP", *pool, "the LP (storage pool) by name")->required();
        sub.add_option("VSERVER", *vserver, "the virtual server by name")->required();
        sub.add_option("--flags", *flags, "1: the volume is the root of its virtual server")
            ->check(u32Check())
            ->capture_default_str();
        return [=](Context& ctx) { return create(ctx, *name, *pool, *vserver, *flags); };
    });

const CommandRegistrar cloneReg(
    "clone", "Clone a volume on its own LP", [](CLI::App& sub) -> Action {
        auto id = std::make_shared<std::string>();
        sub.add_option("VFSID", *id, "the volume to clone")->required()->check(u32Check());
        return [=](Context& ctx) { return clone(ctx, *id); };
    });

const CommandRegistrar deleteReg("delete",
                                 "Delete a volume given by VFS id and LP (a recorded operation)",
                                 [](CLI::App& sub) {
                                     return voInSetup(sub, vodelete_1, "delete");
                                 });

const CommandRegistrar deleteByNameReg(
    "delete-by-name", "Delete the one volume of that name", [](CLI::App& sub) -> Action {
        auto name = std::make_shared<std::string>();
        sub.add_option("NAME", *name, "the volume's name")->required();
        return
            [=](Context& ctx) { return deleteBy(ctx, "delete of '" + *name + "'", true, *name); };
    });

const CommandRegistrar deleteByIdReg(
    "delete-by-id", "Delete the one volume with that VFS id", [](CLI::App& sub) -> Action {
        auto id = std::make_shared<std::string>();
        sub.add_option("VFSID", *id, "the volume's VFS id")->required()->check(u32Check());
        return [=](Context& ctx) { return deleteBy(ctx, "delete of vfsid " + *id, false, *id); };
    });

const CommandRegistrar setRoReg("set-ro", "Make a volume read-only",
                                [](CLI::App& sub) { return voInSetup(sub, vosetro_1, "set-ro"); });

const CommandRegistrar setRwReg("set-rw", "Make a volume read-write",
                                [](CLI::App& sub) { return voInSetup(sub, vosetrw_1, "set-rw"); });

const CommandRegistrar findReg(
    "find", "Find a volume by name: its VFS id, whether it is writable, its node's addresses",
    [](CLI::App& sub) -> Action {
        auto name = std::make_shared<std::string>();
        sub.add_option("NAME", *name, "the volume's name")->required();
        return [=](Context& ctx) { return find(ctx, *name); };
    });

}  // namespace
}  // namespace voctl
