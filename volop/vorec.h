// VoRec: one volume's part in one operation, the in-memory form of a VODB
// record, plus the few fields an operation keeps beside it (data version,
// D-blade id, name, completion code).
//
// A VoRec is a plain value: no lock of its own. Whoever holds it decides who
// may touch it (an operation's own records, or the VODB cache's records under
// a VodbCacheLock).
#ifndef VOLOP_VOREC_H
#define VOLOP_VOREC_H

#include "vldb_server.h"

class VoRec {
  public:
    // Travels as vodbRec.optype; the values are part of the VODB's contents.
    enum VoType {
        VODB_VOLOP_NULL = 0,
        VODB_VOLOP_COPY = 1,
        VODB_VOLOP_MIRROR = 2,
        VODB_VOLOP_MOVE = 3,
        VODB_VOLOP_FINALMOVE = 4,
        VODB_VOLOP_DELETE = 5,
        VODB_VOLOP_DUMP = 6,
        VODB_VOLOP_RESTORE = 7,
    };

    // Travels as vodbRec.vfsrole.
    enum VfsRole {
        VODB_ROLE_NULL = 0,
        VODB_ROLE_SRC = 1,
        VODB_ROLE_SINK = 2,
        VODB_ROLE_OPSRC = 3,
        VODB_ROLE_OPSINK = 4,
        VODB_ROLE_TEMP = 5,
    };

    static constexpr int VNAME_MAX = 128;  // longest volume name, without terminator

    // Every field zero.
    VoRec();
    VoRec(const VoRec&) = default;
    VoRec& operator=(const VoRec&) = default;

    unsigned long long opid() const { return _opid; }
    void setOpid(unsigned long long opid) { _opid = opid; }
    // A type or role this daemon does not know reads as VODB_VOLOP_NULL /
    // VODB_ROLE_NULL; the raw values keep what the VODB said.
    VoType opType() const { return knownType() ? static_cast<VoType>(_opType) : VODB_VOLOP_NULL; }
    void setOpType(VoType t) { _opType = t; }
    unsigned rawOpType() const { return _opType; }
    unsigned vid() const { return _vid; }
    void setVid(unsigned vid) { _vid = vid; }
    unsigned char (&lid())[16] { return _lid; }
    const unsigned char (&lid() const)[16] { return _lid; }
    // Copies 16 bytes; null clears the LP id.
    void setLid(const unsigned char* lid);
    VfsRole role() const { return knownRole() ? static_cast<VfsRole>(_role) : VODB_ROLE_NULL; }
    void setRole(VfsRole r) { _role = r; }
    unsigned rawRole() const { return _role; }
    // Both the type and the role are values this daemon knows. A record that
    // is not comes from a newer daemon or a damaged VODB: it is left alone.
    bool isKnown() const { return knownType() && knownRole(); }
    unsigned long long dver() const { return _dver; }
    void setDver(unsigned long long dver) { _dver = dver; }
    unsigned short getDid() const { return _did; }
    void setDid(unsigned short did) { _did = did; }
    const char* getVname() const { return _vname; }
    // Copies at most VNAME_MAX characters and terminates; null gives "".
    void setVname(const char* name);
    unsigned getErrCode() const { return _errCode; }
    void setErrCode(unsigned code) { _errCode = code; }

    // The VODB's five fields (operation id, type, VFS id, LP id, role) to and
    // from their wire record; the other fields are left alone. Out-of-range
    // type and role values are kept raw (see isKnown), never cast.
    void setFromVodbRec(const vodbRec& r);
    void toVodbRec(vodbRec* r) const;

    // Names the volume after its part in the operation (at most VNAME_MAX
    // characters): with a base name "<base>@<role><vid>" (vol1@sink42),
    // without one "vfs<vid><role>Of<opType><opid>" (vfs42opsinkOfmove7).
    void genVname(const char* base);

    // One trace line with every field.
    void dbgDump() const;

    // Names for traces. A value beyond the table gives "opType<n>" /
    // "role<n>" in a buffer of the calling thread and function, valid until
    // that thread's next call of the same function.
    static const char* opType2str(unsigned t);
    static const char* role2str(unsigned r);

  private:
    bool knownType() const { return _opType <= VODB_VOLOP_RESTORE; }
    bool knownRole() const { return _role <= VODB_ROLE_TEMP; }

    unsigned long long _opid;
    unsigned _opType;  // raw VODB value
    unsigned _vid;
    unsigned char _lid[16];
    unsigned _role;  // raw VODB value
    unsigned long long _dver;
    unsigned short _did;
    char _vname[VNAME_MAX + 1];
    unsigned _errCode;
};

#endif  // VOLOP_VOREC_H
