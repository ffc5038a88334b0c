// VoRpcCalls: the remote calls the daemon makes to the VLDB, the DLDB, the
// D-blades' volume service and the coordinator, with their requests filled,
// their failures traced and folded into one return code, and the D-blade's
// try-again answers retried.
//
// The helpers keep no state and use the caller's client: safe from any
// thread. The D-blade helpers sleep while they retry (up to ten minutes), so
// they belong in worker threads or in handlers that may block.
//
// Two return conventions:
//
// VLDB-side helpers answer 0 or a composite code
//     0x01000000 | procedure << 16 | low
// where procedure names the remote call (0x00 vldb_record_lookup_3,
// 0x03 vldb_lp_convert_3, 0x04 new_vfsid_3, 0x40 getlidbylpname_1,
// 0x42 getvserveridbyname_1) and low is 30300 + clnt_stat for a transport
// failure, 30400 + status for a VLDB refusal, 30600 + status for a refusal of
// the two DLDB name calls. Not exactly one matching volume answers
// VO_RC_MULTIPLE_RECORDS, none at all VO_RC_VFS_NOT_FOUND.
//
// D-blade family members (dbladeVfsCreate, dbladeCloneVfs, dbladeVolDelete,
// swapVolId, dbladeVfsGetAttrs, dbladeVfsSetAttrs) answer the call's
// clnt_stat (0 when it went through; the D-blade's status is then in the
// result record) or VOD_ERR_CANT_SET_TIMEOUT (5031) when the client refused
// the time-out. Status 33 (TARN_ERR_ENORNUM) is retried every 10 seconds, up
// to 60 calls; after that the last answer is returned as it stands.
// The convenience forms (dbladeVolCreate, dbladeVolClone, dbladeGetAttrs,
// dbladeSetAttrs) use a 60-second time-out and answer 0, 30300 + clnt_stat,
// 5031, or the D-blade's non-zero status.
//
// A null client is not called: VLDB helpers answer 0x01809C43 (no VLDB
// client), the DLDB name helpers 0x01809C4B, the D-blade helpers 5004.
#ifndef VOLOP_VORPCCALLS_H
#define VOLOP_VORPCCALLS_H

#include <rpc/rpc.h>

#include <cstddef>

#include "dblade_vol.h"
#include "vldb_server.h"
#include "vo.h"
#include "voerrors.h"

// D-blade statuses the helpers act on.
constexpr unsigned TARN_ERR_LPMMISMATCH = 21;   // no such volume on that LP
constexpr unsigned TARN_ERR_VFSBUSY = 23;       // retried by volclone
constexpr unsigned TARN_ERR_ENORNUM = 33;       // short of a resource: call again
constexpr unsigned TARN_ERR_DELETE_DONE = 280;  // voldelete: already gone, counts as done
constexpr unsigned TARN_ERR_DELETE_BUSY = 297;  // voldelete still in progress: call again

// Fixed composite codes.
constexpr unsigned VO_RC_VFS_NOT_FOUND = 0x1007737;     // vldb_record_lookup_3, 30400 + 119
constexpr unsigned VO_RC_MULTIPLE_RECORDS = 0x1819C4D;  // VodVldbFindVfs, 35000 + 5013

// Longest host name findServerByLpId copies, terminator included.
constexpr size_t VO_HOST_NAME_SIZE = 256;

class VoRpcCalls {
  public:
    static constexpr unsigned ENORNUM_RETRY_SECONDS = 10;
    static constexpr int MAX_ATTEMPTS = 60;
    static constexpr unsigned DEFAULT_TIMEOUT = 60;

    // The daemon's folding of one remote call's outcome: a transport failure
    // gives (func + 10000, clnt_stat), a non-zero service status (func,
    // status); the error code is the function of the pair. Empty on success.
    static VoErr foldErr(voErrFunc func, enum clnt_stat st, unsigned status);

    // ---- VLDB and DLDB ----

    // vldb_record_lookup_3 of in. out is cleared first and belongs to the
    // caller, who frees it with xdr_free on every return. Zero records answer
    // VO_RC_VFS_NOT_FOUND.
    static unsigned vldbFindVfs(CLIENT* clnt, vldb_record_lookup_input& in,
                                vldb_record_lookup_result& out);
    // The LP id (16 bytes into lid), VFS id and VLDB type (vldb_vfs_types) of
    // the one volume named name.
    static unsigned findLpByVfsName(CLIENT* clnt, const char* name, unsigned char* lid,
                                    unsigned& vfsid, unsigned& vfsType);
    // The LP id and VLDB type of the one volume with that id.
    static unsigned findLpByVfsId(CLIENT* clnt, unsigned vfsid, unsigned char* lid,
                                  unsigned& vfsType);
    // clnt is a DLDB client. The LP id of the LP named lpName.
    static unsigned findLpByName(CLIENT* clnt, const char* lpName, unsigned char* lid);
    // clnt is a DLDB client. The id of the virtual server named vsName.
    static unsigned getVSIdByName(CLIENT* clnt, const char* vsName, unsigned* id);
    // The D-blade that serves the LP.
    static unsigned findDbladeByLpId(CLIENT* clnt, const unsigned char* lid, unsigned short& did);
    // The host of the D-blade that serves the LP, copied into host (at least
    // VO_HOST_NAME_SIZE bytes; a longer name is cut). A D-blade id the host
    // cache does not know answers 0x01419C4E (DldbGetHostByDid, 35000 + 5014).
    static unsigned findServerByLpId(CLIENT* clnt, const unsigned char* lid, char* host);
    // A VFS id the VLDB hands out.
    static unsigned newVfsId(CLIENT* clnt, unsigned& vfsid);

    // ---- D-blade volume service ----

    static unsigned dbladeVolCreate(CLIENT* clnt, unsigned vfsid, const unsigned char* lid,
                                    tarn_volsetattrx_t& attrs);
    static unsigned dbladeVfsCreate(VolCreateIn* in, VolCreateOut_t* out, CLIENT* clnt,
                                    unsigned timeout);
    // Clones volume vfsid on its LP into cloneVfsid.
    static unsigned dbladeVolClone(CLIENT* clnt, unsigned vfsid, const unsigned char* lid,
                                   unsigned cloneVfsid);
    // Also retries TARN_ERR_VFSBUSY like TARN_ERR_ENORNUM.
    static unsigned dbladeCloneVfs(VolCloneIn* in, VolCloneOut_t* out, CLIENT* clnt,
                                   unsigned timeout);
    // Answers 0 when the volume is gone (deleted now, or already, status
    // 280); TARN_ERR_LPMMISMATCH (21) when the LP does not hold it; another
    // D-blade status as it stands; or the clnt_stat / 5031. Status 297 is
    // retried like 33. A first call that times out, when retried is false, is
    // repeated once with a 2-second time-out (and retried true), and that
    // answer is returned. A clnt_stat and a D-blade status share numbers:
    // *transport, when given, is set to the failed call's clnt_stat, and to
    // RPC_SUCCESS whenever the D-blade answered.
    static unsigned dbladeVolDelete(VolDeleteIn* in, CLIENT* clnt, unsigned timeout, bool retried,
                                    clnt_stat* transport = nullptr);
    static unsigned swapVolId(VolSwapVolIdIn* in, VolSwapVolIdOut_t* out, CLIENT* clnt,
                              unsigned timeout);
    // out is cleared first; the caller frees it with xdr_free on every return.
    static unsigned dbladeGetAttrs(CLIENT* clnt, unsigned vfsid, const unsigned char* lid,
                                   VolGetattrOut_t& out);
    static unsigned dbladeVfsGetAttrs(VolGetattrIn* in, VolGetattrOut_t* out, CLIENT* clnt,
                                      unsigned timeout);
    static unsigned dbladeSetAttrs(CLIENT* clnt, VolSetattrIn& in);
    static unsigned dbladeVfsSetAttrs(VolSetattrIn* in, VolSetattrOut_t* out, CLIENT* clnt,
                                      unsigned timeout);

    // ---- Coordinator ----

    // Every IPv4 address of the node that runs D-blade did (host order, first
    // octet high), through the local coordinator. On success *addrs is a
    // malloc'd array of *count entries the caller free()s (null when there
    // are none). Answers 0 or a composite code: VodRpcCreateClient with
    // 35000 + 5029 (no coordinator client), HAMgrAdmin2GetNode or
    // HAMgrAdmin2ListAllIPs with 30300 + clnt_stat or 40600 + the
    // coordinator's status, SysMalloc with 30000 + ENOMEM.
    static unsigned getHostAddrs(unsigned short did, unsigned* count, unsigned** addrs);

    // Test seam: how the retries wait (sleep() by default). Tests record the
    // requested seconds instead of sleeping; null restores sleep().
    static void setSleepForTest(void (*sleeper)(unsigned seconds));
};

#endif  // VOLOP_VORPCCALLS_H
