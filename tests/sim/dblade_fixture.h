// Fixture for the simulated D-blade's tests: RPC helpers over the volume and incremental-
// copy programs of a fresh vodsim, and the volume control commands.
#ifndef TESTS_SIM_DBLADE_FIXTURE_H
#define TESTS_SIM_DBLADE_FIXTURE_H

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "dblade_incrcopy.h"
#include "dblade_vol.h"
#include "sim/volstore.h"
#include "simtest.h"
#include "util/xdrproc.h"

namespace dbladetest {

using simtest::kLp1a;
using simtest::kLp1b;
using simtest::kLp2a;
using simtest::kLp2b;

// The fields of a volume's attributes that the tests look at.
struct Attrs {
    unsigned flags = 0;
    uint64_t minQuota = 0, maxQuota = 0, blocksUsed = 0, dataVersion = 0;
    std::string name, mountedatvolname;
    unsigned mountedatdirvnode = 0, virtualServer = 0, readRefCount = 0;
    unsigned downstream = 0, upstream = 0;
};

struct Dest {
    unsigned short did;
    unsigned vfsid;
    const unsigned char* lp;
};

struct Pgrs {
    unsigned rc = ~0u;
    unsigned status = 0, code = 0, vnodesTotal = 0, vnodesProcessed = 0;
    uint64_t blksRead = 0;
    std::vector<IncrCopyDestProgress> dests;
};

// Each D-blade serves its own LPs at its own address: the volume helpers call the
// D-blade of the LP they name (in the default layout an LP id's first byte is its
// D-blade), the stream helpers D-blade 1, where every stream of these tests starts.
class DbladeTest : public simtest::SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        reconnect();
        ASSERT_TRUE(vol && icp);
    }

    // After a restart of the simulator the old connections are gone.
    void reconnect() {
        dropClients();
        vols.clear();
        vol = volOf(kLp1a);
        icp = client(DBLADE_INCRCOPY_PROG, DBLADE_INCRCOPY_VERS);
    }

    // The volume program of the D-blade that serves lp, or of D-blade askOnly when set.
    CLIENT* volOf(const unsigned char* lp) {
        unsigned did = askOnly ? askOnly : lp[0];
        CLIENT*& c = vols[did];
        if (!c) c = client(DBLADE_VOL_PROG, DBLADE_VOL_VERS, 10, simtest::dbladeAddress(did));
        return c;
    }

    unsigned create(const unsigned char* lp, unsigned vfsid, const char* name = "vol",
                    unsigned how = VOLSET_VOLNAME, uint64_t minQuota = 0) {
        VolCreateIn in{};
        memcpy(in.lpUUID, lp, 16);
        in.vfsID = vfsid;
        in.set_attrs.how = how;
        in.set_attrs.attrs.volname = const_cast<char*>(name);
        in.set_attrs.attrs.mountedatvolname = const_cast<char*>("");
        in.set_attrs.attrs.minQuota = minQuota;
        VolCreateOut_t out{};
        EXPECT_EQ(volcreate_1(&in, &out, volOf(lp)), RPC_SUCCESS);
        return out.returnCode;
    }

    unsigned remove(const unsigned char* lp, unsigned vfsid) {
        VolDeleteIn in{};
        memcpy(in.lpUUID, lp, 16);
        in.vfsID = vfsid;
        VolDeleteOut_t out{};
        EXPECT_EQ(voldelete_1(&in, &out, volOf(lp)), RPC_SUCCESS);
        return out.returnCode;
    }

    unsigned clone(const unsigned char* lp, unsigned src, unsigned dst) {
        VolCloneIn in{};
        memcpy(in.lpUUID, lp, 16);
        in.srcVfsID = src;
        in.cloneVfsID = dst;
        VolCloneOut_t out{};
        EXPECT_EQ(volclone_1(&in, &out, volOf(lp)), RPC_SUCCESS);
        return out.returnCode;
    }

    unsigned getattr(const unsigned char* lp, unsigned vfsid, Attrs* a = nullptr) {
        VolGetattrIn in{};
        memcpy(in.lpUUID, lp, 16);
        in.vfsID = vfsid;
        simtest::XdrOut<VolGetattrOut_t> out(xdrProc(xdr_VolGetattrOut_t));
        EXPECT_EQ(volgetattr_1(&in, &out.v, volOf(lp)), RPC_SUCCESS);
        const tarn_volgattrx_t& g = out.v.return_volattrs;
        if (a && out.v.returnCode == 0) {
            a->flags = g.flags;
            a->minQuota = g.minQuota;
            a->maxQuota = g.maxQuota;
            a->blocksUsed = g.blocksUsed;
            a->dataVersion = g.dataVersion;
            a->name = g.volname ? g.volname : "";
            a->mountedatvolname = g.mountedatvolname ? g.mountedatvolname : "";
            a->mountedatdirvnode = g.mountedatdirvnode;
            a->virtualServer = g.virtualServer;
            a->readRefCount = g.read_ref_count;
            a->downstream = g.downstream_vfsid;
            a->upstream = g.upstream_vfsid;
        }
        return out.v.returnCode;
    }

    Attrs attrs(const unsigned char* lp, unsigned vfsid) {
        Attrs a;
        EXPECT_EQ(getattr(lp, vfsid, &a), 0u) << "volume " << vfsid;
        return a;
    }

    // Sets the attributes selected by `how` from `in` (strings may be left null).
    unsigned setattr(const unsigned char* lp, unsigned vfsid, unsigned how, tarn_volsattrx_t in) {
        VolSetattrIn req{};
        memcpy(req.lpUUID, lp, 16);
        req.vfsID = vfsid;
        req.set_attrs.how = how;
        req.set_attrs.attrs = in;
        if (!req.set_attrs.attrs.volname) req.set_attrs.attrs.volname = const_cast<char*>("");
        if (!req.set_attrs.attrs.mountedatvolname)
            req.set_attrs.attrs.mountedatvolname = const_cast<char*>("");
        VolSetattrOut_t out{};
        EXPECT_EQ(volsetattr_1(&req, &out, volOf(lp)), RPC_SUCCESS);
        return out.returnCode;
    }

    unsigned renumber(const unsigned char* lp, unsigned from, unsigned to) {
        tarn_volsattrx_t a{};
        a.volumeId = to;
        return setattr(lp, from, VOLSET_VOLUMEID, a);
    }

    // With rpc the transport status goes there (a dropped call times out); without, the
    // call must get through.
    unsigned swap(const unsigned char* lp, unsigned id1, unsigned id2, unsigned temp,
                  clnt_stat* rpc = nullptr) {
        VolSwapVolIdIn in{};
        memcpy(in.lpUUID1, lp, 16);
        memcpy(in.lpUUID2, lp, 16);
        in.vfsID1 = id1;
        in.vfsID2 = id2;
        in.vfsIDTemp = temp;
        VolSwapVolIdOut_t out{};
        clnt_stat cs = volswapvolid_1(&in, &out, volOf(lp));
        if (rpc)
            *rpc = cs;
        else
            EXPECT_EQ(cs, RPC_SUCCESS);
        return out.returnCode;
    }

    // opType: 1 a copy's stream, 2 a mirror's (the simulator streams both alike).
    unsigned mirror(uint64_t opId, const unsigned char* srcLp, unsigned src,
                    std::vector<Dest> dests, unsigned opType = 1) {
        std::vector<u_short> dids;
        std::vector<u_int> ids;
        std::vector<lpUuid_t> lps(dests.size());
        for (size_t i = 0; i < dests.size(); ++i) {
            dids.push_back(dests[i].did);
            ids.push_back(dests[i].vfsid);
            memcpy(lps[i], dests[i].lp, 16);
        }
        IncrCopyMirrorIn in{};
        in.opId = opId;
        in.opType = opType;
        in.srcVfsId = src;
        memcpy(in.srcLpUuid, srcLp, 16);
        in.numDests = static_cast<u_int>(dests.size());
        in.dstBladeId = {static_cast<u_int>(dids.size()), dids.data()};
        in.dstVfsId = {static_cast<u_int>(ids.size()), ids.data()};
        in.dstLpUuid = {static_cast<u_int>(lps.size()), lps.data()};
        u_int st = ~0u;
        EXPECT_EQ(incrcopymirror_1(&in, &st, icp), RPC_SUCCESS);
        return st;
    }

    Pgrs progress(uint64_t opId) {
        u_quad_t id = opId;
        simtest::XdrOut<IncrCopyProgressOut> out(xdrProc(xdr_IncrCopyProgressOut));
        Pgrs p;
        EXPECT_EQ(incrcopyprogress_1(&id, &out.v, icp), RPC_SUCCESS);
        p.rc = out.v.rc;
        if (p.rc != 0) return p;
        const IncrCopyPgrsOut& o = out.v.IncrCopyProgressOut_u.out;
        p.status = o.status;
        p.code = o.completionCode;
        p.vnodesTotal = o.vnodesTotal;
        p.vnodesProcessed = o.vnodesProcessed;
        p.blksRead = o.blksRead;
        EXPECT_EQ(o.numDests, o.dstProgress.dstProgress_len);
        for (u_int i = 0; i < o.dstProgress.dstProgress_len; ++i)
            p.dests.push_back(o.dstProgress.dstProgress_val[i]);
        return p;
    }

    template <typename Stub>
    unsigned byOpId(Stub stub, uint64_t opId) {
        u_quad_t id = opId;
        u_int st = ~0u;
        EXPECT_EQ(stub(&id, &st, icp), RPC_SUCCESS);
        return st;
    }
    unsigned pause(uint64_t opId) { return byOpId(incrcopypause_1, opId); }
    unsigned resume(uint64_t opId) { return byOpId(incrcopyresume_1, opId); }
    unsigned conclude(uint64_t opId) { return byOpId(incrcopyconclude_1, opId); }

    unsigned cancel(uint64_t opId, unsigned vfsid, const unsigned char* lp) {
        IncrCopyCancelIn in{};
        in.opId = opId;
        in.dstVfsId = vfsid;
        memcpy(in.dstLpUuid, lp, 16);
        u_int st = ~0u;
        EXPECT_EQ(incrcopycancel_1(&in, &st, icp), RPC_SUCCESS);
        return st;
    }

    // Polls until the stream reports done; its last progress.
    Pgrs waitDone(uint64_t opId, double timeoutSec = 60) {
        Pgrs p;
        simtest::pollUntil(
            [&] {
                p = progress(opId);
                return p.rc != 0 || p.status == IncrCopyDone;
            },
            timeoutSec);
        EXPECT_EQ(p.rc, 0u);
        EXPECT_EQ(p.status, unsigned{IncrCopyDone}) << "stream " << opId << " did not end";
        return p;
    }

    // vodsimctl helpers; LPs by name.
    void write(unsigned vfsid, const std::string& lp, const std::string& path, uint64_t size) {
        ctl({"vol-write", std::to_string(vfsid), lp, path, "--size", std::to_string(size)});
    }
    void fill(unsigned vfsid, const std::string& lp, unsigned files, uint64_t size) {
        ctl({"vol-fill", std::to_string(vfsid), lp, "--files", std::to_string(files), "--size",
             std::to_string(size)});
    }
    std::string checksum(unsigned vfsid, const std::string& lp) {
        return ctl({"vol-checksum", std::to_string(vfsid), lp});
    }

    CLIENT* vol = nullptr;  // D-blade 1's
    CLIENT* icp = nullptr;  // D-blade 1's
    std::map<unsigned, CLIENT*> vols;  // by D-blade; the fixture owns them
    unsigned askOnly = 0;  // when set, the volume helpers call this D-blade whatever the LP
};

}  // namespace dbladetest

#endif  // TESTS_SIM_DBLADE_FIXTURE_H
