#include "vostate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>
#include <vector>

#include "dblade_incrcopy.h"
#include "dblade_vol.h"
#include "fake_rpc_server.h"
#include "fake_vostate.h"
#include "vldb_server.h"
#include "vodbCache.h"
#include "vorpccalls.h"
#include "vorpcclient.h"

namespace {

// ---- Code tables ----

TEST(VoStateCodes, TheReturnCodeOfBusyFlagsTakesTheFirstMatch) {
    struct {
        unsigned flags;
        int code;
    } cases[] = {
        {0x0, -1},  {0x1, -1},    {0x8, 288},   {0x4, 287},   {0x800, 280},
        {0xC, 288}, {0x804, 287}, {0x808, 288}, {0x80C, 288}, {0x3, -1},
    };
    for (const auto& c : cases)
        EXPECT_EQ(VoState::getTheReturnCode(c.flags), c.code) << std::hex << c.flags;
}

TEST(VoStateCodes, ErrorCodeForOpTypeNamesTheKindHoldingAVolume) {
    struct {
        int opType;
        unsigned code;
    } cases[] = {
        {VoRec::VODB_VOLOP_NULL, 0},
        {VoRec::VODB_VOLOP_COPY, 5022},
        {VoRec::VODB_VOLOP_MIRROR, 5023},
        {VoRec::VODB_VOLOP_MOVE, 5021},
        {VoRec::VODB_VOLOP_FINALMOVE, 5021},
        {VoRec::VODB_VOLOP_DELETE, 5024},
        {VoRec::VODB_VOLOP_DUMP, 5025},
        {VoRec::VODB_VOLOP_RESTORE, 5026},
        {8, 0},
        {-1, 0},
    };
    for (const auto& c : cases)
        EXPECT_EQ(VoState::getErrorCodeForOpType(c.opType), c.code) << c.opType;
}

// ---- Lifecycle predicates ----

TEST(VoStateLifecycle, RecoveryAttemptThresholds) {
    struct {
        unsigned attempts;
        bool stored;
        bool forceVodb, forceMem;
    } cases[] = {
        {0, true, false, false},  {2, true, false, false}, {3, true, true, false},
        {10, true, true, false},  {9, false, true, false}, {10, false, true, true},
        {0, false, false, false},
    };
    for (const auto& c : cases) {
        FakeOp op(1, VoRec::VODB_VOLOP_COPY, 1, 1);
        if (c.stored) op.setVodbRecordStored();
        op.setRecoveryAttempts(c.attempts);
        EXPECT_EQ(op.forceRetireFromVodb(), c.forceVodb) << c.attempts << " stored=" << c.stored;
        EXPECT_EQ(op.forceRetireFromMem(), c.forceMem) << c.attempts << " stored=" << c.stored;
    }
}

// ---- start() ----

CLIENT* const kClient = reinterpret_cast<CLIENT*>(0x1000);  // never called through

class VoStateStartTest : public ::testing::Test {
  protected:
    // Flags set to the opposite of what start() would make of them.
    void arrangeSentinels() {
        op.setConcluded(false);
        op.setOpComplete(false);
        op.setRunning(true);
        op.setRecoveryAttempts(4);
    }
    voErrRc hiLvl() {
        voErrRc rc;
        voErrFunc func;
        unsigned funcrc;
        op.getErr(&rc, &func, &funcrc);
        return rc;
    }

    FakeOp op{1, VoRec::VODB_VOLOP_COPY, 1, 1};
};

TEST_F(VoStateStartTest, MissingClientFailsBeforeTouchingAnyFlag) {
    struct {
        CLIENT *vldb, *vol, *incr;
        unsigned code;
    } cases[] = {
        {nullptr, kClient, kClient, 5003},
        {kClient, nullptr, kClient, 5004},
        {kClient, kClient, nullptr, 5004},
    };
    for (const auto& c : cases) {
        arrangeSentinels();
        EXPECT_EQ(op.start(c.vldb, c.vol, c.incr), c.code);
        EXPECT_FALSE(op.incrcopyGotConclude());
        EXPECT_FALSE(op.opCompleteReceived());
        EXPECT_TRUE(op.getDbladeIncrCopyStatus());
        EXPECT_EQ(op.recoveryAttempts(), 4u);
        EXPECT_EQ(op.mkOpSrcSinkCalls, 0);
        EXPECT_EQ(hiLvl(), voErrMakeVFS);
        voErrFunc func;
        unsigned funcrc;
        op.getErr(&func, &funcrc);
        EXPECT_EQ(func, voErrVodSanityCheck);
        EXPECT_EQ(funcrc, c.code);
    }
}

TEST_F(VoStateStartTest, FailedVolumeCreationLeavesTheOperationConcludedAndComplete) {
    arrangeSentinels();
    op.mkOpSrcSinkRc = 403;
    EXPECT_EQ(op.start(kClient, kClient, kClient), 403u);
    EXPECT_TRUE(op.incrcopyGotConclude());
    EXPECT_TRUE(op.opCompleteReceived());
    EXPECT_FALSE(op.getDbladeIncrCopyStatus());
    EXPECT_EQ(op.recoveryAttempts(), 0u);
    EXPECT_FALSE(op.rollForward());
    EXPECT_EQ(op.startStreamCalls, 0);
    EXPECT_EQ(op.getJobState(), VO_JOB_STARTED);
    EXPECT_EQ(hiLvl(), voErrMakeVFS);
}

TEST_F(VoStateStartTest, StreamOutcomes) {
    struct {
        unsigned streamRc;
        voErrRc hiLvl;
        bool rollForward;
    } cases[] = {
        {0, voErrRcSuccess, true},
        {5005, voErrRcSuccess, false},  // local mirror only: no high-level error
        {500, voErrStartStream, false},
    };
    for (const auto& c : cases) {
        FakeOp fresh(1, VoRec::VODB_VOLOP_COPY, 1, 1);
        fresh.startStreamRc = c.streamRc;
        EXPECT_EQ(fresh.start(kClient, kClient, kClient), c.streamRc);
        voErrRc rc;
        fresh.getErr(&rc, nullptr, nullptr);
        EXPECT_EQ(rc, c.hiLvl) << c.streamRc;
        EXPECT_EQ(fresh.rollForward(), c.rollForward) << c.streamRc;
        EXPECT_EQ(fresh.getJobState(), VO_JOB_STARTED);
        // Once volumes exist the stream is believed running until told otherwise.
        EXPECT_FALSE(fresh.incrcopyGotConclude());
        EXPECT_FALSE(fresh.opCompleteReceived());
        EXPECT_TRUE(fresh.getDbladeIncrCopyStatus());
    }
}

// The base conclusion of the stream, seen through a subclass that keeps it.
class BaseConcludeOp : public FakeOp {
  public:
    using FakeOp::FakeOp;
    void concludeDbladeIncrCopy(CLIENT* c) override { VoState::concludeDbladeIncrCopy(c); }
};

// ---- Against a fake D-blade and VLDB ----

// One status (or a dropped connection) per incremental-copy procedure.
class IncrCopyTest : public ::testing::Test {
  protected:
    void SetUp() override {
        for (unsigned long proc : {INCRCOPYPAUSE, INCRCOPYRESUME, INCRCOPYCONCLUDE}) {
            server.on<u_quad_t, u_int>(
                proc, xdr_u_quad_t, xdr_u_int, [this, proc](u_quad_t& opid, u_int& status) {
                    std::lock_guard<std::mutex> g(m);
                    seenOpid = opid;
                    status = statusOf[proc];
                    return closeOf[proc] ? FakeRpcServer::Close : FakeRpcServer::Reply;
                });
        }
        ASSERT_EQ(0u,
                  client.clnttcp_create("127.0.0.1", DBLADE_INCRCOPY_PROG, DBLADE_INCRCOPY_VERS));
    }
    void answer(unsigned long proc, u_int status, bool close = false) {
        std::lock_guard<std::mutex> g(m);
        statusOf[proc] = status;
        closeOf[proc] = close;
    }

    u_quad_t opidSeen() {
        std::lock_guard<std::mutex> g(m);
        return seenOpid;
    }

    // The fake is declared last so that it stops before what its handlers use.
    std::mutex m;
    std::map<unsigned long, u_int> statusOf;
    std::map<unsigned long, bool> closeOf;
    u_quad_t seenOpid = 0;
    FakeRpcServer server{DBLADE_INCRCOPY_PROG, DBLADE_INCRCOPY_VERS};
    VoRPCClient client;
};

TEST_F(IncrCopyTest, PauseAndResumeFoldTheirOutcomeIntoTheReply) {
    struct {
        bool resume;
        u_int status;
        bool close;
        voErrRc rc;
        voErrFunc func;
    } cases[] = {
        {false, 0, false, voErrRcSuccess, voErrFuncSuccess},
        {false, 0x21, false, VoErrDblade, voErrDbladeIncrCopyPause},
        {false, 0, true, voErrRpcFailure, voErrDbladeIncrCopyPauseRpc},
        {true, 0, false, voErrRcSuccess, voErrFuncSuccess},
        {true, 20013, false, VoErrDblade, voErrDbladeIncrCopyResume},
        {true, 0, true, voErrRpcFailure, voErrDbladeIncrCopyResumeRpc},
    };
    for (const auto& c : cases) {
        FakeOp op(0x123456789ULL, VoRec::VODB_VOLOP_COPY, 1, 1);
        answer(c.resume ? INCRCOPYRESUME : INCRCOPYPAUSE, c.status, c.close);
        VoRPCClient fresh;  // a closed connection is not reused
        ASSERT_EQ(0u,
                  fresh.clnttcp_create("127.0.0.1", DBLADE_INCRCOPY_PROG, DBLADE_INCRCOPY_VERS));
        VoOut out{voErrNoSuchOp, voErrVodCancel, 77};
        if (c.resume)
            op.resume(fresh, &out);
        else
            op.pause(fresh, &out);
        EXPECT_EQ(out.rc, c.rc) << c.resume << " " << c.status << " " << c.close;
        EXPECT_EQ(out.func, c.func);
        // A dropped connection reports the clnt_stat.
        EXPECT_EQ(out.funcrc != 0, c.close || c.status != 0);
        if (!c.close) {
            EXPECT_EQ(out.funcrc, c.status);
        }
        EXPECT_EQ(opidSeen(), 0x123456789ULL);
    }
}

TEST_F(IncrCopyTest, ConclusionAcceptsAForgottenStreamAndRetriesAnyOtherRefusal) {
    struct {
        u_int status;
        bool concluded;
    } cases[] = {{0, true}, {VIC_EOPNOTFOUND, true}, {VIC_EINVAL, false}, {0x21, false}};
    for (const auto& c : cases) {
        BaseConcludeOp op(9, VoRec::VODB_VOLOP_COPY, 1, 1);
        answer(INCRCOPYCONCLUDE, c.status);
        op.concludeDbladeIncrCopy(client);
        EXPECT_EQ(op.incrcopyGotConclude(), c.concluded) << c.status;
    }
}

TEST_F(IncrCopyTest, ConclusionWaitsWhileTheStreamRunsAndHappensOnce) {
    BaseConcludeOp op(9, VoRec::VODB_VOLOP_COPY, 1, 1);
    op.setRunning(true);  // the fake's progress leaves it running
    op.concludeDbladeIncrCopy(client);
    EXPECT_EQ(server.calls(INCRCOPYCONCLUDE), 0);

    op.setRunning(false);
    op.concludeDbladeIncrCopy(client);
    op.concludeDbladeIncrCopy(client);
    EXPECT_EQ(server.calls(INCRCOPYCONCLUDE), 1);
    EXPECT_TRUE(op.incrcopyGotConclude());
}

class DbladeVolTest : public ::testing::Test {
  protected:
    void SetUp() override {
        server.on<VolGetattrIn, VolGetattrOut_t>(VOLGETATTR, xdr_VolGetattrIn, xdr_VolGetattrOut_t,
                                                 [this](VolGetattrIn&, VolGetattrOut_t& out) {
                                                     out.returnCode = status;
                                                     out.return_volattrs.flags = flags;
                                                     out.return_volattrs.dataVersion = 4242;
                                                     out.return_volattrs.volname = empty;
                                                     out.return_volattrs.mountedatvolname = empty;
                                                 });
        ASSERT_EQ(0u, client.clnttcp_create("127.0.0.1", DBLADE_VOL_PROG, DBLADE_VOL_VERS));
    }

    std::atomic<u_int> status{0}, flags{0};
    char empty[1] = "";
    FakeRpcServer server{DBLADE_VOL_PROG, DBLADE_VOL_VERS};
    VoRPCClient client;
};

TEST_F(DbladeVolTest, DataVersionIsRefusedWhileTheVolumeIsBusy) {
    struct {
        u_int status, flags;
        unsigned code;
        voErrFunc func;
        unsigned long long dver;
    } cases[] = {
        {0, 0x1, 0, voErrFuncSuccess, 4242},       {0, 0x8 | 0x4, 288, voErrDbladeVolGetAttr, 0},
        {0, 0x800, 280, voErrDbladeVolGetAttr, 0}, {16, 0, 16, voErrDbladeVolGetAttr, 0},
        {21, 0, 21, voErrDbladeVolGetAttr, 0},
    };
    unsigned char lid[16] = {1};
    for (const auto& c : cases) {
        status = c.status;
        flags = c.flags;
        unsigned long long dver = 99;
        VoErr e = VoState::getDataVerFromDblade(client, 7, lid, &dver);
        EXPECT_EQ(static_cast<unsigned>(e), c.code) << c.status << " " << c.flags;
        EXPECT_EQ(e.func(), c.func);
        if (c.code != 0) {
            EXPECT_EQ(e.funcrc(), c.code);
        }
        EXPECT_EQ(dver, c.dver);
    }
    VoErr e = VoState::getDataVerFromDblade(nullptr, 7, lid, nullptr);
    EXPECT_EQ(static_cast<unsigned>(e), 5004u);
    EXPECT_EQ(e.func(), voErrVodAttrGetDataVer);
}

// A D-blade status and a transport failure that carry the same number must
// never be taken for each other: only the D-blade's own 21 says "not there".
TEST(VoStateDelete, OnlyTheDbladesOwnStatusSaysTheVolumeIsGone) {
    std::atomic<int> action{FakeRpcServer::Reply};
    std::atomic<u_int> status{TARN_ERR_LPMMISMATCH};
    FakeRpcServer server{DBLADE_VOL_PROG, DBLADE_VOL_VERS};
    server.on<VolDeleteIn, VolDeleteOut_t>(
        VOLDELETE, xdr_VolDeleteIn, xdr_VolDeleteOut_t, [&](VolDeleteIn&, VolDeleteOut_t& out) {
            out.returnCode = status;
            return static_cast<FakeRpcServer::Action>(action.load());
        });
    unsigned char lid[16] = {1};
    struct {
        const char* what;
        FakeRpcServer::Action action;
        voErrFunc func;
    } cases[] = {
        {"the D-blade says not on that LP", FakeRpcServer::Reply, voErrDbladeVolDelete},
        {"the connection is cut", FakeRpcServer::Close, voErrDbladeVolDeleteRpc},
    };
    for (const auto& c : cases) {
        action = c.action;
        VoRPCClient client;
        ASSERT_EQ(0u, client.clnttcp_create("127.0.0.1", DBLADE_VOL_PROG, DBLADE_VOL_VERS));
        VoErr e = VoState::dbladeDeleteVfs(client, 7, lid);
        EXPECT_EQ(c.func, e.func()) << c.what;
        const unsigned code = c.func == voErrDbladeVolDelete ? TARN_ERR_LPMMISMATCH
                                                              : static_cast<unsigned>(c.func);
        EXPECT_EQ(code, static_cast<unsigned>(e)) << c.what;
    }
}

// setVfsType: refused while a recorded operation uses the volume; else the
// D-blade first, then the VLDB.
class SetVfsTypeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        vldb.onVoid<vodb_opid_lookup_result>(
            VODB_OPID_LOOKUP, xdr_vodb_opid_lookup_result,
            [this](vodb_opid_lookup_result& r) { r.last_create_opid = lastCreate; });
        vldb.onVoid<vodb_lookup_result>(VODB_LOOKUP, xdr_vodb_lookup_result,
                                        [this](vodb_lookup_result& r) {
                                            r.last_create_opid = lastCreate;
                                            r.rec.rec_len = static_cast<u_int>(recs.size());
                                            r.rec.rec_val = recs.data();
                                        });
        vldb.on<vldb_record_modify_input, int>(VLDB_RECORD_MODIFY, xdr_vldb_record_modify_input,
                                               xdr_int,
                                               [this](vldb_record_modify_input& in, int& status) {
                                                   modifiedType = in.newrec.vfstype;
                                                   modifyMask = in.input_mask;
                                                   status = 0;
                                               });
        vol.on<VolSetattrIn, VolSetattrOut_t>(
            VOLSETATTR, xdr_VolSetattrIn, xdr_VolSetattrOut_t,
            [this](VolSetattrIn&, VolSetattrOut_t& out) { out.returnCode = dbladeStatus; });
        ASSERT_EQ(0u, vldbClient.clnttcp_create("127.0.0.1", VLDB_PROG, VLDB_VERS));
        ASSERT_EQ(0u, volClient.clnttcp_create("127.0.0.1", DBLADE_VOL_PROG, DBLADE_VOL_VERS));
        memset(lid, 7, sizeof lid);
    }
    void TearDown() override {
        recs.clear();
        lastCreate++;
        VodbCacheLock::refreshVodbCache(vldbClient);
    }
    void record(int opType, unsigned vid) {
        vodbRec r;
        memset(&r, 0, sizeof r);
        r.opid = 500;
        r.optype = opType;
        r.vfsid = vid;
        memcpy(r.lp_uuid, lid, sizeof lid);
        r.vfsrole = VoRec::VODB_ROLE_SINK;
        recs.push_back(r);
        lastCreate++;
    }

    std::vector<vodbRec> recs;  // changed only between calls
    std::atomic<unsigned long long> lastCreate{7000};
    std::atomic<u_int> dbladeStatus{0};
    std::atomic<u_int> modifiedType{0}, modifyMask{0};
    unsigned char lid[16];
    FakeRpcServer vldb{VLDB_PROG, VLDB_VERS};
    FakeRpcServer vol{DBLADE_VOL_PROG, DBLADE_VOL_VERS};
    VoRPCClient vldbClient, volClient;
};

TEST_F(SetVfsTypeTest, VolumeInARecordedMoveIsBusy) {
    record(VoRec::VODB_VOLOP_MOVE, 55);
    VoErr e = VoState::setVfsType(vldbClient, volClient, 55, lid, RO_VFS);
    EXPECT_NE(static_cast<unsigned>(e), 0u);
    EXPECT_EQ(e.func(), voErrVodValidate);
    EXPECT_EQ(e.funcrc(), 5021u);
    EXPECT_EQ(vol.calls(VOLSETATTR), 0);
    EXPECT_EQ(vldb.calls(VLDB_RECORD_MODIFY), 0);
}

TEST_F(SetVfsTypeTest, DbladeFirstThenTheVldb) {
    record(VoRec::VODB_VOLOP_COPY, 56);  // another volume: no conflict
    EXPECT_EQ(static_cast<unsigned>(VoState::setVfsType(vldbClient, volClient, 55, lid, RO_VFS)),
              0u);
    EXPECT_EQ(vol.calls(VOLSETATTR), 1);
    EXPECT_EQ(modifiedType, static_cast<u_int>(RO_VFS));
    EXPECT_EQ(modifyMask, 0x20u);

    dbladeStatus = 22;  // TARN_ERR_EINVAL; 33 would be retried for minutes
    VoErr e = VoState::setVfsType(vldbClient, volClient, 55, lid, RW_VFS);
    EXPECT_EQ(static_cast<unsigned>(e), 402u);
    EXPECT_EQ(e.func(), voErrDbladeVolSetAttr);
    EXPECT_EQ(e.funcrc(), 22u);
    EXPECT_EQ(vldb.calls(VLDB_RECORD_MODIFY), 1);  // the VLDB is left alone
}

}  // namespace
