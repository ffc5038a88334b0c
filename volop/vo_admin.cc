// Handlers of the short administration requests: delete, read-only and
// read-write, find, create, clone, dump and restore cookies, cancel.
//
// Those not built yet fill every field of their result and answer "Not
// supported" (or "no such operation" for the VoOut ones), so a client gets a
// decodable code.
#include <string.h>

#include "voerrors.h"
#include "voserver.h"
#include "votrace.h"

namespace {

const unsigned kNotSupported = VOD_ERR_BASE + VOD_ERR_NOT_SUPPORTED;

void noSuchOp(VoOut* out) {
    out->rc = voErrNoSuchOp;
    out->func = voErrFuncSuccess;
    out->funcrc = 0;
}

}  // namespace

void VoServer::vfsDelete(VoIn*, VoOut* out) { noSuchOp(out); }
void VoServer::vfsSetRO(VoIn*, VoOut* out) { noSuchOp(out); }
void VoServer::vfsSetRW(VoIn*, VoOut* out) { noSuchOp(out); }

void VoServer::vfsFindByName(char*, FindVfsByNameOut* out) {
    memset(out, 0, sizeof *out);
    out->code = kNotSupported;
}

void VoServer::vfsCreate(CreateVfsIn*, CreateVfsOut* out) {
    out->code = kNotSupported;
    out->vfsId = 0;
}

void VoServer::vfsClone(unsigned, CloneVfsOut* out) {
    out->code = kNotSupported;
    out->cloneVfsId = 0;
    out->cloneVfsName = strdup("");
}

void VoServer::vfsDeleteByName(char*, unsigned* code) { *code = kNotSupported; }
void VoServer::vfsDeleteById(unsigned, unsigned* code) { *code = kNotSupported; }

void VoServer::vfsDump(DumpVfsIn*, DumpVfsOut* out) {
    memset(out, 0, sizeof *out);
    out->code = kNotSupported;
}

void VoServer::vfsRestore(RestoreVfsIn*, RestoreVfsOut* out) {
    memset(out, 0, sizeof *out);
    out->code = kNotSupported;
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
