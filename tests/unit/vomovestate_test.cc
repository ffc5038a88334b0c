#include "vomovestate.h"

#include <gtest/gtest.h>

#include <cstring>
#include <mutex>
#include <vector>

#include "dblade_lpm.h"
#include "dblade_vol.h"
#include "dldb_server.h"
#include "fake_rpc_server.h"
#include "vldb_lit.h"
#include "vldb_server.h"
#include "vodbCache.h"
#include "vodldb.h"
#include "vorpcclient.h"

namespace {

const unsigned char kLidA[16] = {0xA1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xA1};
const unsigned char kLidB[16] = {0xB2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xB2};
const unsigned kSrc = 100, kClone = 101;

class TestMove : public VoMoveState {
  public:
    using VoMoveState::validateFinalMove;

    explicit TestMove(bool srcRW) {
        setSrcVfsType(srcRW ? RW_VFS : RO_VFS);
        EXPECT_TRUE(addStream(kSrc, kLidA, kLidB));
    }
    // As if pass `pass` had run from a clone at data version dver.
    void afterPass(unsigned pass, unsigned clone, unsigned long long dver) {
        _iteration = pass + 1;
        std::unique_ptr<VoRec> r(new VoRec());
        r->setVid(clone);
        r->setLid(kLidA);
        r->setDver(dver);
        _opSrcRecs.push_back(std::move(r));
    }
};

// The source's D-blade (attributes), the LP service of the target, the VLDB
// naming D-blade 1 for every LP, and the DLDB naming 127.0.0.1.
class VoMoveStateTest : public ::testing::Test {
  protected:
    void SetUp() override {
        VoDldb::initialize();
        dldb.onVoid<DldbIterateRes>(ITERATE, xdr_DldbIterateRes, [this](DldbIterateRes& r) {
            dldbRec.did = 1;
            dldbRec.host.name = host;
            r.rec.rec_len = 1;
            r.rec.rec_val = &dldbRec;
        });
        vldb.on<tarn_uuid_t, vldb_lp_convert_result>(
            VLDB_LP_CONVERT, xdr_tarn_uuid_t, xdr_vldb_lp_convert_result,
            [](tarn_uuid_t&, vldb_lp_convert_result& r) { r.dblade_id = 1; });
        vol.on<VolGetattrIn, VolGetattrOut_t>(VOLGETATTR, xdr_VolGetattrIn, xdr_VolGetattrOut_t,
                                              [this](VolGetattrIn&, VolGetattrOut_t& r) {
                                                  std::lock_guard<std::mutex> g(m);
                                                  r.return_volattrs = attrs;
                                                  r.return_volattrs.volname = empty;
                                                  r.return_volattrs.mountedatvolname = empty;
                                              });
        lpm.on<DBLADE_LP_UUID, LPGetAttrsOut>(
            LP_GET_ATTRS_BY_UUID, xdr_DBLADE_LP_UUID, xdr_LPGetAttrsOut,
            [this](DBLADE_LP_UUID&, LPGetAttrsOut& r) {
                std::lock_guard<std::mutex> g(m);
                r.status = lpStatus;
                r.attr.unreservedSpaceAvailableInBlocks = unreserved;
                r.attr.name = empty;
            });
        clntVldb.clnttcp_create("127.0.0.1", VLDB_PROG, VLDB_VERS);
        clntVol.clnttcp_create("127.0.0.1", DBLADE_VOL_PROG, DBLADE_VOL_VERS);
        memset(&attrs, 0, sizeof attrs);
    }
    void TearDown() override { VoDldb::destroy(); }

    void setAttrs(unsigned long long minQuota, unsigned long long used, unsigned long long dver,
                  unsigned downstream) {
        std::lock_guard<std::mutex> g(m);
        attrs.minQuota = minQuota;
        attrs.blocksUsed = used;
        attrs.dataVersion = dver;
        attrs.downstream_vfsid = downstream;
    }

    char empty[1] = "";
    char host[10] = "127.0.0.1";
    DldbRec dldbRec{};
    std::mutex m;
    tarn_volgattrx_t attrs;
    int lpStatus = 0;
    unsigned long long unreserved = 0;
    FakeRpcServer vldb{VLDB_PROG, VLDB_VERS};
    FakeRpcServer dldb{DLDB_PROG, DLDB_VERS};
    FakeRpcServer vol{DBLADE_VOL_PROG, DBLADE_VOL_VERS};
    FakeRpcServer lpm{DBLADE_LPM_PROG, DBLADE_LPM_VERS};
    VoRPCClient clntVldb, clntVol;
};

TEST(VoMoveStateRequest, SameLpAndASecondStreamAreRefused) {
    VoMoveState op;
    EXPECT_FALSE(op.addStream(kSrc, kLidA, kLidA));
    voErrFunc func;
    unsigned funcrc;
    op.getErr(&func, &funcrc);
    EXPECT_EQ(voErrVodAddStream, func);
    EXPECT_EQ(5010u, funcrc);
    EXPECT_TRUE(op.addStream(kSrc, kLidA, kLidB));
    EXPECT_FALSE(op.addStream(kSrc, kLidA, kLidB));
}

TEST_F(VoMoveStateTest, SpaceNeededIsTheLargerOfQuotaAndUseAgainstTheUnreservedBlocks) {
    struct Row {
        const char* what;
        unsigned long long minQuota, used, unreserved;
        int lpStatus;
        unsigned want;
    } rows[] = {
        {"used decides, fits exactly", 10, 500, 500, 0, 0},
        {"used decides, one block short", 10, 501, 500, 0, 19},
        {"quota decides, fits exactly", 800, 20, 800, 0, 0},
        {"quota decides, one block short", 801, 20, 800, 0, 19},
        {"the LP service refuses", 1, 1, 800, 2, 5030},
    };
    for (const Row& r : rows) {
        setAttrs(r.minQuota, r.used, 1, 0);
        {
            std::lock_guard<std::mutex> g(m);
            unreserved = r.unreserved;
            lpStatus = r.lpStatus;
        }
        TestMove op(true);
        EXPECT_EQ(r.want,
                  op.CheckIfThereIsEnoughSpaceOnTheSink(kSrc, kLidA, clntVol, kLidB, clntVldb))
            << r.what;
    }
}

TEST_F(VoMoveStateTest, WhenAPassIsFinal) {
    const unsigned long long prev = 50000;
    struct Row {
        const char* what;
        bool rw;
        int passesRun;  // -1: none yet
        unsigned downstream;
        unsigned long long srcDver;
        bool final;
    } rows[] = {
        {"a read-only source is moved in one final pass", false, -1, 0, 0, true},
        {"a read-write source's first pass is regular", true, -1, 0, prev, false},
        {"settled: within the gap", true, 0, kClone, prev + 9900, true},
        {"one version beyond the gap", true, 0, kClone, prev + 9901, false},
        {"someone else cloned the source since", true, 2, kClone + 7, prev, false},
    };
    for (const Row& r : rows) {
        setAttrs(0, 0, r.srcDver, r.downstream);
        TestMove op(r.rw);
        if (r.passesRun >= 0) op.afterPass(static_cast<unsigned>(r.passesRun), kClone, prev);
        bool final = !r.final;
        EXPECT_TRUE(op.validateFinalMove(clntVol, &final)) << r.what;
        EXPECT_EQ(r.final, final) << r.what;
    }
}

}  // namespace
