#include "voerrors.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>

#include "message_catalogs/resource_bundle.h"

namespace {

struct ProcName {
    unsigned proc;
    const char* name;
};

const ProcName procNames[] = {
    {VoProcDbladeVolSetAttrs, "DbladeVolSetAttrs"},
    {VoProcDbladeVolCreate, "DbladeVolCreate"},
    {VoProcDbladeVolDelete, "DbladeVolDelete"},
    {VoProcDbladeVolClone, "DbladeVolClone"},
    {VoProcDbladeVolShadow, "DbladeVolShadow"},
    {VoProcDbladeLpListAll, "DbladeLpListAll"},
    {VoProcVicIncrCopyMirror, "VicIncrCopyMirror"},
    {VoProcVicIncrCopyMove, "VicIncrCopyMove"},
    {VoProcVicIncrCopyProgress, "VicIncrCopyProgress"},
    {VoProcVicIncrCopyPause, "VicIncrCopyPause"},
    {VoProcVicIncrCopyResume, "VicIncrCopyResume"},
    {VoProcVicIncrCopyConclude, "VicIncrCopyConclude"},
    {VoProcVicIncrCopyCancel, "VicIncrCopyCancel"},
    {VoProcVicIncrCopyStats, "VicIncrCopyStats"},
    {VoProcVicTcpVfsDump, "VicTcpVfsDump"},
    {VoProcVicTcpVfsRestore, "VicTcpVfsRestore"},
    {VoProcVicIncrCopyCancelOp, "VicIncrCopyCancelOp"},
    {VoProcSysGetTimeOfDay, "SysGetTimeOfDay"},
    {VoProcSysSocket, "SysSocket"},
    {VoProcSysBind, "SysBind"},
    {VoProcSysListen, "SysListen"},
    {VoProcSysRecv, "SysRecv"},
    {VoProcSysSend, "SysSend"},
    {VoProcSysSetSoKeepAlive, "SysSetSoKeepAlive"},
    {VoProcSysSetSoLinger, "SysSetSoLinger"},
    {VoProcSysMalloc, "SysMalloc"},
    {VoProcVldbRecordLookup, "VldbRecordLookup"},
    {VoProcVldbCreateRecord, "VldbCreateRecord"},
    {VoProcVldbDeleteRecord, "VldbDeleteRecord"},
    {VoProcVldbLpConvert, "VldbLpConvert"},
    {VoProcVldbNewVfsId, "VldbNewVfsId"},
    {VoProcVodbCreate, "VodbCreate"},
    {VoProcDldbGetLidByLpName, "DldbGetLidByLpName"},
    {VoProcDldbGetHostByDid, "DldbGetHostByDid"},
    {VoProcDldbGetVserverIdByName, "DldbGetVserverIdByName"},
    {VoProcVodRpcCreateClient, "VodRpcCreateClient"},
    {VoProcVodVldbFindVfs, "VodVldbFindVfs"},
    {VoProcVodVfsDelete, "VodVfsDelete"},
    {VoProcVodVfsDump, "VodVfsDump"},
    {VoProcVodVfsRestore, "VodVfsRestore"},
    {VoProcVodVfsOpCancel, "VodVfsOpCancel"},
    {VoProcVodVfsDumpOldLabel, "VodVfsDumpOldLabel"},
    {VoProcVodVfsDumpNewLabel, "VodVfsDumpNewLabel"},
    {VoProcVodRecvCookie, "VodRecvCookie"},
    {VoProcVodTcpOpValidate, "VodTcpOpValidate"},
    {VoProcVodInvokeDbladeDump, "VodInvokeDbladeDump"},
    {VoProcVodInvokeDbladeRestore, "VodInvokeDbladeRestore"},
    {VoProcVodStartDbladeIncrCopy, "VodStartDbladeIncrCopy"},
    {VoProcVodCreateState, "VodCreateState"},
    {VoProcHAMgrAdmin2GetNode, "HAMgrAdmin2GetNode"},
    {VoProcHAMgrAdmin2ListAllIPs, "HAMgrAdmin2ListAllIPs"},
};

const char* notCataloged(unsigned code, char* buf, int size) {
    if (buf == nullptr || size <= 0) return nullptr;
    snprintf(buf, static_cast<size_t>(size), "message not cataloged for code=%u", code);
    return buf;
}

}  // namespace

const char* proc2string(unsigned proc) {
    if (proc == VoProcNone) return "";
    for (const ProcName& p : procNames) {
        if (p.proc == proc) return p.name;
    }
    return "procUnknown";
}

const char* error2module(unsigned code) {
    if (code == 0) return "";
    if (code < VO_ERR_INCRCOPY_BASE) return "TarnFS";
    if (code < VO_ERR_SYSTEM_BASE) return "INCRCOPY";
    if (code < VO_ERR_RPC_BASE) return "SYSTEM";
    if (code < VO_ERR_VLDB_BASE) return "RPC";
    if (code < VO_ERR_DLDB_BASE) return "VLDB";
    if (code < VOD_ERR_BASE) return "DLDB";
    if (code < VO_ERR_HAMGR_BASE) return "VOD";
    return "HAMgr";
}

namespace {

// The first row whose key a value formats to, per (catalog, key format).  Built
// on first use by formatting each row's number back and keeping the rows that
// round-trip exactly, so it answers what a scan of the rows in order would,
// without a snprintf and a string compare per row on every decode.
using CatalogIndex = std::unordered_map<unsigned, const char*>;

const CatalogIndex& catalogIndex(int catalog, const arrayResourceBundle* rb, const char* keyFormat) {
    static std::mutex lock;
    static std::map<std::pair<int, std::string>, CatalogIndex> indexes;
    std::lock_guard<std::mutex> g(lock);
    auto found = indexes.find({catalog, keyFormat});
    if (found != indexes.end()) return found->second;
    CatalogIndex& idx = indexes[{catalog, keyFormat}];
    for (unsigned i = 0; i < rb->table_size_; ++i) {
        const char* key = rb->resource_table_[i][RB_KEY];
        unsigned value;
        char back[256];
        if (sscanf(key, keyFormat, &value) != 1) continue;
        snprintf(back, sizeof(back), keyFormat, value);
        if (strcmp(back, key) == 0) idx.emplace(value, rb->resource_table_[i][RB_MESSAGE]);
    }
    return idx;
}

}  // namespace

const char* getMessageFromCatalog(int catalog, const char* keyFormat, unsigned value) {
    if (catalog <= 0 || catalog >= RB_SLOT_COUNT) return nullptr;
    const arrayResourceBundle* rb = resourceBundleTable[catalog];
    if (rb == nullptr) return nullptr;

    // A format without a conversion names one fixed key (the catch-all row):
    // nothing to index by number, so scan for it.
    if (strchr(keyFormat, '%') == nullptr) {
        for (unsigned i = 0; i < rb->table_size_; ++i)
            if (strcmp(rb->resource_table_[i][RB_KEY], keyFormat) == 0)
                return rb->resource_table_[i][RB_MESSAGE];
        return nullptr;
    }
    const CatalogIndex& idx = catalogIndex(catalog, rb, keyFormat);
    auto row = idx.find(value);
    return row == idx.end() ? nullptr : row->second;
}

// The first value of each catalogued range, and all of the DLDB range, have no
// catalog row on purpose; callers see the code echoed instead.
const char* getMessage(unsigned code, char* buf, int size) {
    if (code == 0) return nullptr;
    if (code < VO_ERR_INCRCOPY_BASE)
        return getMessageFromCatalog(RB_SLOT_TARNFSCLIENT, "0x%08x", code);
    if (code < VO_ERR_SYSTEM_BASE) {
        if (code == VO_ERR_INCRCOPY_BASE) return notCataloged(code, buf, size);
        return getMessageFromCatalog(RB_SLOT_DBLADEINCRCOPY, "%08u", code);
    }
    if (code < VO_ERR_RPC_BASE) {
        if (code == VO_ERR_SYSTEM_BASE) return notCataloged(code, buf, size);
        return strerror(static_cast<int>(code - VO_ERR_SYSTEM_BASE));
    }
    if (code < VO_ERR_VLDB_BASE) {
        if (code == VO_ERR_RPC_BASE) return notCataloged(code, buf, size);
        return getMessageFromCatalog(RB_SLOT_RPC, "%u", code - VO_ERR_RPC_BASE);
    }
    if (code < VO_ERR_DLDB_BASE) {
        if (code == VO_ERR_VLDB_BASE) return notCataloged(code, buf, size);
        return getMessageFromCatalog(RB_SLOT_VLDBCLIENT, "%08u", code - VO_ERR_VLDB_BASE);
    }
    if (code <= VOD_ERR_BASE) return notCataloged(code, buf, size);
    return getMessageFromCatalog(RB_SLOT_VODCLIENT, "%08u", code - VOD_ERR_BASE);
}

char* errorDecode(unsigned code, VoErrOut* out) {
    out->proc = code >> 16;
    out->code = code & 0xFFFF;

    char buf[256];
    const char* msg = getMessage(out->code, buf, sizeof(buf));
    char line[256];
    // A missing catalog row prints as "(null)", the text clients already know;
    // spelled out so it does not depend on how printf treats a null "%s".
    snprintf(line, sizeof(line), "(%s) %s: %s", error2module(out->code), proc2string(out->proc),
             msg != nullptr ? msg : "(null)");
    out->message = strdup(line);
    return out->message;
}
