#include "vorec.h"

#include <cstdio>
#include <cstring>

#include "votrace.h"

namespace {

const char* const opTypeNames[] = {"null",      "copy", "mirror",  "move",
                                   "finalmove", "del",  "vfsdump", "vfsrestore"};
const char* const roleNames[] = {"null", "src", "sink", "opsrc", "opsink", "temp"};

// Buffers per thread and per function: a value beyond the table must not be
// overwritten by another thread's trace, nor by the other function's answer
// while both are arguments of one line.
thread_local char opTypeBuf[20];
thread_local char roleBuf[20];

}  // namespace

VoRec::VoRec()
    : _opid(0),
      _opType(VODB_VOLOP_NULL),
      _vid(0),
      _lid{},
      _role(VODB_ROLE_NULL),
      _dver(0),
      _did(0),
      _vname{},
      _errCode(0) {}

void VoRec::setLid(const unsigned char* lid) {
    if (lid)
        std::memcpy(_lid, lid, sizeof _lid);
    else
        std::memset(_lid, 0, sizeof _lid);
}

void VoRec::setVname(const char* name) {
    if (!name) name = "";
    std::strncpy(_vname, name, VNAME_MAX);
    _vname[VNAME_MAX] = '\0';
}

void VoRec::setFromVodbRec(const vodbRec& r) {
    _opid = r.opid;
    _opType = static_cast<unsigned>(r.optype);
    _vid = r.vfsid;
    setLid(r.lp_uuid);
    _role = static_cast<unsigned>(r.vfsrole);
}

void VoRec::toVodbRec(vodbRec* r) const {
    r->opid = _opid;
    r->optype = _opType;
    r->vfsid = _vid;
    std::memcpy(r->lp_uuid, _lid, sizeof _lid);
    r->vfsrole = _role;
}

void VoRec::genVname(const char* base) {
    // snprintf cuts at the buffer and terminates: the name never exceeds VNAME_MAX.
    if (base && *base)
        std::snprintf(_vname, sizeof _vname, "%s@%s%d", base, role2str(_role),
                      static_cast<int>(_vid));
    else
        std::snprintf(_vname, sizeof _vname, "vfs%d%sOf%s%lld", static_cast<int>(_vid),
                      role2str(_role), opType2str(_opType), static_cast<long long>(_opid));
}

void VoRec::dbgDump() const {
    const unsigned char* l = _lid;
    VO_TR(vo_vod, vo_event,
          "opid=%lld opType=%s vfsid=%d "
          "LP=0x%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X "
          "role=%s dver=%lld did=%d errCode=%#X vname=%s\n",
          static_cast<long long>(_opid), opType2str(_opType), static_cast<int>(_vid), l[0], l[1],
          l[2], l[3], l[4], l[5], l[6], l[7], l[8], l[9], l[10], l[11], l[12], l[13], l[14], l[15],
          role2str(_role), static_cast<long long>(_dver), _did, _errCode, _vname);
}

const char* VoRec::opType2str(unsigned t) {
    if (t < sizeof opTypeNames / sizeof opTypeNames[0]) return opTypeNames[t];
    std::snprintf(opTypeBuf, sizeof opTypeBuf, "opType%d", static_cast<int>(t));
    return opTypeBuf;
}

const char* VoRec::role2str(unsigned r) {
    if (r < sizeof roleNames / sizeof roleNames[0]) return roleNames[r];
    std::snprintf(roleBuf, sizeof roleBuf, "role%d", static_cast<int>(r));
    return roleBuf;
}
