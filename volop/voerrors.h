// The daemon's error model: the VoErr record, the 32-bit decodable codes and
// their decoding into "(module) procedure: message" lines.
//
// A decodable code holds a procedure number in its high 16 bits (VoProc) and
// the code proper in its low 16 bits. The numeric range of the low half tells
// which component produced it:
//        0            no error
//        1 .. 19999   D-blade volume status           ("TarnFS")
//    20000 .. 29999   incremental-copy completion     ("INCRCOPY")
//    30000 .. 30299   30000 + errno                   ("SYSTEM")
//    30300 .. 30399   30300 + clnt_stat               ("RPC")
//    30400 .. 30599   30400 + VLDB status             ("VLDB")
//    30600 .. 34999   30600 + DLDB status             ("DLDB")
//    35000 .. 40599   35000 + daemon code (VodErr)    ("VOD")
//    40600 ..         HA manager                      ("HAMgr")
//
// Everything here is stateless or reads static tables: safe from any thread.
#ifndef VOLOP_VOERRORS_H
#define VOLOP_VOERRORS_H

#include "vo.h"

// First values of the code spaces above.
constexpr unsigned VO_ERR_INCRCOPY_BASE = 20000;
constexpr unsigned VO_ERR_SYSTEM_BASE = 30000;
constexpr unsigned VO_ERR_RPC_BASE = 30300;
constexpr unsigned VO_ERR_VLDB_BASE = 30400;
constexpr unsigned VO_ERR_DLDB_BASE = 30600;
constexpr unsigned VOD_ERR_BASE = 35000;
constexpr unsigned VO_ERR_HAMGR_BASE = 40600;

// The daemon's own status numbers. They travel bare in funcrc, or as
// VOD_ERR_BASE + number in the low half of a composite code.
enum VodErr : unsigned {
    VOD_ERR_INTERNAL = 5001,  // inconsistent records or arguments
    VOD_ERR_NO_MEMORY = 5002,
    VOD_ERR_NO_VLDB_CLIENT = 5003,
    VOD_ERR_NO_DBLADE_CLIENT = 5004,
    VOD_ERR_LOCAL_MIRROR = 5005,      // mirror on its source's own LP
    VOD_ERR_NOTHING_ELIGIBLE = 5006,  // no stream could start / stream not found
    VOD_ERR_UP_TO_DATE = 5007,
    VOD_ERR_OP_NOT_FOUND = 5008,
    VOD_ERR_OFFENDING_STREAM = 5009,  // conflicts with an existing operation
    VOD_ERR_SAME_LP = 5010,
    VOD_ERR_NO_DLDB_CLIENT = 5011,
    VOD_ERR_NO_INCRCOPY_CLIENT = 5012,
    VOD_ERR_MULTIPLE_RECORDS = 5013,  // more than one VLDB record for one key
    VOD_ERR_NO_HOST = 5014,           // no host for a D-blade id
    VOD_ERR_NULL_DUMP_LABEL = 5015,
    VOD_ERR_BAD_DUMP_LABEL = 5016,
    VOD_ERR_INVALID_VFSID = 5017,
    VOD_ERR_NOT_SUPPORTED = 5018,
    VOD_ERR_BAD_COOKIE_LENGTH = 5019,
    VOD_ERR_BAD_REQUEST_TYPE = 5020,
    VOD_ERR_BUSY_MOVE = 5021,
    VOD_ERR_BUSY_COPY = 5022,
    VOD_ERR_BUSY_MIRROR = 5023,
    VOD_ERR_BUSY_DELETE = 5024,
    VOD_ERR_BUSY_DUMP = 5025,
    VOD_ERR_BUSY_RESTORE = 5026,
    VOD_ERR_SAME_DBLADE_STREAM = 5027,
    VOD_ERR_TOO_MANY_MOVE_PASSES = 5028,
    VOD_ERR_NO_HAMGR_CLIENT = 5029,
    VOD_ERR_LP_UNREACHABLE = 5030,    // has no catalog text
    VOD_ERR_CANT_SET_TIMEOUT = 5031,  // traced as "voErrRpcErrCantSetTimeOut"
    VOD_ERR_LOCAL_MIRROR_FAILED = 5032,
    VOD_ERR_VFS_DELETE = 5500,
    VOD_ERR_OPID_IN_USE = 5501,
};

// Procedure numbers of the high half, grouped by 64: D-blade volume calls,
// LP listing, incremental copy and TCP dump/restore, system calls, VLDB/VODB,
// DLDB, then the daemon's own steps.
enum VoProc : unsigned {
    VoProcNone = 0,
    VoProcDbladeVolSetAttrs = 1,
    VoProcDbladeVolCreate = 2,
    VoProcDbladeVolDelete = 3,
    VoProcDbladeVolClone = 4,
    VoProcDbladeVolShadow = 5,
    VoProcDbladeLpListAll = 64,
    VoProcVicIncrCopyMirror = 128,
    VoProcVicIncrCopyMove = 129,
    VoProcVicIncrCopyProgress = 130,
    VoProcVicIncrCopyPause = 131,
    VoProcVicIncrCopyResume = 132,
    VoProcVicIncrCopyConclude = 133,
    VoProcVicIncrCopyCancel = 134,
    VoProcVicIncrCopyStats = 135,
    VoProcVicTcpVfsDump = 136,
    VoProcVicTcpVfsRestore = 137,
    VoProcVicIncrCopyCancelOp = 138,
    VoProcSysGetTimeOfDay = 192,
    VoProcSysSocket = 193,
    VoProcSysBind = 194,
    VoProcSysListen = 195,
    VoProcSysRecv = 196,
    VoProcSysSend = 197,
    VoProcSysSetSoKeepAlive = 198,
    VoProcSysSetSoLinger = 199,
    VoProcSysMalloc = 200,
    VoProcVldbRecordLookup = 256,
    VoProcVldbCreateRecord = 257,
    VoProcVldbDeleteRecord = 258,
    VoProcVldbLpConvert = 259,
    VoProcVldbNewVfsId = 260,
    VoProcVodbCreate = 261,
    VoProcDldbGetLidByLpName = 320,
    VoProcDldbGetHostByDid = 321,
    VoProcDldbGetVserverIdByName = 322,
    VoProcVodRpcCreateClient = 384,
    VoProcVodVldbFindVfs = 385,
    VoProcVodVfsDelete = 386,
    VoProcVodVfsDump = 387,
    VoProcVodVfsRestore = 388,
    VoProcVodVfsOpCancel = 389,
    VoProcVodVfsDumpOldLabel = 390,
    VoProcVodVfsDumpNewLabel = 391,
    VoProcVodRecvCookie = 392,
    VoProcVodTcpOpValidate = 393,
    VoProcVodInvokeDbladeDump = 394,
    VoProcVodInvokeDbladeRestore = 395,
    VoProcVodStartDbladeIncrCopy = 396,
    VoProcVodCreateState = 397,
    VoProcHAMgrAdmin2GetNode = 398,
    VoProcHAMgrAdmin2ListAllIPs = 399,
};

// A decodable code: procedure in the high half, the code proper in the low half
// (which keeps only its low 16 bits).
inline unsigned voCompositeCode(unsigned proc, unsigned low) {
    return (proc << 16) | (low & 0xFFFF);
}

// A step's error: _errorCode (non-zero means failed; what the record converts
// to), the failing function and that function's own return code.
class VoErr {
  public:
    VoErr() : _errorCode(0), _func(voErrFuncSuccess), _funcrc(0) {}

    operator unsigned() const { return _errorCode; }

    void setErrorCode(voErrFunc func) { _errorCode = static_cast<unsigned>(func); }
    void setErrorCode(unsigned code) { _errorCode = code; }
    void setErr(voErrFunc func, unsigned funcrc) {
        _func = func;
        _funcrc = funcrc;
    }
    voErrFunc func() const { return _func; }
    unsigned funcrc() const { return _funcrc; }

  private:
    unsigned _errorCode;
    voErrFunc _func;
    unsigned _funcrc;
};

// Name of a procedure number: "" for 0, "procUnknown" for a number not listed.
const char* proc2string(unsigned proc);

// Module name of the low half of a code, by the ranges above ("" for 0).
const char* error2module(unsigned code);

// The message of the first row of catalog `catalog` whose key equals
// keyFormat formatted with value, or null: for catalog 0, 48 and up, an empty
// slot, or no matching row. The text is static.
const char* getMessageFromCatalog(int catalog, const char* keyFormat, unsigned value);

// The message for the low half of a code: a static catalog text, a strerror
// text, buf holding "message not cataloged for code=%u" (cut to size), or null
// (code 0, or a code whose catalog has no row for it).
const char* getMessage(unsigned code, char* buf, int size);

// Fills out (proc, code, and message "(module) procedure: message" as a heap
// string, "(null)" standing for a missing message) and returns out->message,
// which the caller frees. Null only when the copy could not be allocated.
char* errorDecode(unsigned code, VoErrOut* out);

#endif  // VOLOP_VOERRORS_H
