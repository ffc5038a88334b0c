// VoDelState against a fake VLDB (with its VODB) and a fake D-blade volume
// service: the order of the delete's steps and where a failure stops it, what
// it records, and how resurrection and recovery treat its records.
#include "vodelstate.h"

#include <gtest/gtest.h>

#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "dblade_vol.h"
#include "dldb_server.h"
#include "fake_rpc_server.h"
#include "vldb_server.h"
#include "vodbCache.h"
#include "vodldb.h"
#include "vorpccalls.h"

namespace {

const unsigned char kLid[16] = {0x01, 0x0A};
const unsigned kVid = 1000;

class VoDelStateTest : public ::testing::Test {
  protected:
    void SetUp() override {
        VoRpcCalls::setSleepForTest([](unsigned) {});
        VoDldb::initialize();
        // Every D-blade is this process's fake, at 127.0.0.1.
        dldb.onVoid<DldbIterateRes>(ITERATE, xdr_DldbIterateRes, [this](DldbIterateRes& r) {
            dldbRec.did = 1;
            dldbRec.host.name = host;
            r.rec.rec_len = 1;
            r.rec.rec_val = &dldbRec;
        });
        vldb.on<tarn_uuid_t, vldb_lp_convert_result>(
            VLDB_LP_CONVERT, xdr_tarn_uuid_t, xdr_vldb_lp_convert_result,
            [this](tarn_uuid_t&, vldb_lp_convert_result& r) {
                log("vldb_lp_convert");
                r.result = lpConvertStatus;
                r.dblade_id = 1;
            });
        vldb.on<rec_delete_input, int>(VLDB_DELETE_RECORD, xdr_rec_delete_input, xdr_int,
                                       [this](rec_delete_input&, int& st) {
                                           log("vldb_delete_record");
                                           st = vldbDeleteStatus;
                                       });
        vldb.on<u_quad_t, int>(VODB_DELETE_BY_OPID, xdr_u_quad_t, xdr_int,
                               [this](u_quad_t& opid, int& st) {
                                   log("vodb_delete_by_opid " + std::to_string(opid));
                                   st = vodbDeleteStatus;
                               });
        vldb.on<vodb_create2_input, vodb_create2_result>(
            VODB_CREATE2, xdr_vodb_create2_input, xdr_vodb_create2_result,
            [this](vodb_create2_input& in, vodb_create2_result& out) {
                std::lock_guard<std::mutex> g(m);
                ASSERT_EQ(in.rec.rec_len, 1u);
                created = in.rec.rec_val[0];
                out.result = vodbCreateStatus;
                out.out_create_opid = 77;
            });
        vldb.onVoid<vodb_opid_lookup_result>(VODB_OPID_LOOKUP, xdr_vodb_opid_lookup_result,
                                             [this](vodb_opid_lookup_result& r) {
                                                 std::lock_guard<std::mutex> g(m);
                                                 r.last_create_opid = lastCreate;
                                             });
        vldb.onVoid<vodb_lookup_result>(VODB_LOOKUP, xdr_vodb_lookup_result,
                                        [this](vodb_lookup_result& r) {
                                            std::lock_guard<std::mutex> g(m);
                                            r.last_create_opid = lastCreate;
                                            r.rec.rec_len = static_cast<u_int>(recs.size());
                                            r.rec.rec_val = recs.data();
                                        });
        dblade.on<VolDeleteIn, VolDeleteOut_t>(VOLDELETE, xdr_VolDeleteIn, xdr_VolDeleteOut_t,
                                               [this](VolDeleteIn& in, VolDeleteOut_t& out) {
                                                   log("voldelete " + std::to_string(in.vfsID));
                                                   out.returnCode = nextDbladeStatus();
                                               });
        vldbClnt = vldb.newClient();
        dbladeClnt = dblade.newClient();
        ASSERT_NE(vldbClnt, nullptr);
        ASSERT_NE(dbladeClnt, nullptr);
    }

    void TearDown() override {
        setVodb({});
        clnt_destroy(vldbClnt);
        clnt_destroy(dbladeClnt);
        VoDldb::destroy();
        VoRpcCalls::setSleepForTest(nullptr);
    }

    // The D-blade's answer to this voldelete: the next of dbladeStatuses,
    // the last one again once they run out, dbladeStatus when none is given.
    unsigned nextDbladeStatus() {
        std::lock_guard<std::mutex> g(m);
        if (dbladeStatuses.empty()) return dbladeStatus;
        unsigned st = dbladeStatuses.front();
        if (dbladeStatuses.size() > 1) dbladeStatuses.erase(dbladeStatuses.begin());
        return st;
    }

    void log(const std::string& call) {
        std::lock_guard<std::mutex> g(m);
        calls.push_back(call);
    }
    std::vector<std::string> takeCalls() {
        std::lock_guard<std::mutex> g(m);
        return std::move(calls);
    }
    // Puts records into the fake VODB and the daemon's cache.
    void setVodb(std::vector<vodbRec> r) {
        {
            std::lock_guard<std::mutex> g(m);
            recs = std::move(r);
            lastCreate++;
        }
        ASSERT_EQ(static_cast<unsigned>(VodbCacheLock::refreshVodbCache(vldbClnt)), 0u);
    }
    static vodbRec rec(unsigned long long opid, int type, int role, unsigned vid = kVid) {
        vodbRec r;
        std::memset(&r, 0, sizeof r);
        r.opid = opid;
        r.optype = type;
        r.vfsid = vid;
        std::memcpy(r.lp_uuid, kLid, 16);
        r.vfsrole = role;
        return r;
    }
    // A delete as resurrection rebuilds it from opid's records.
    unsigned resurrect(VoDelState& op, unsigned long long opid) {
        VodbCacheLock lock;
        return op.resurrectFromVoRec(opid, vldbClnt);
    }

    std::mutex m;
    std::vector<std::string> calls;
    std::vector<vodbRec> recs;
    // The cache is re-read only when this moves; it moves on across tests too.
    static unsigned long long lastCreate;
    vodbRec created{};
    unsigned dbladeStatus = 0;
    std::vector<unsigned> dbladeStatuses;
    int lpConvertStatus = 0;
    int vldbDeleteStatus = 0;
    int vodbDeleteStatus = 0;
    int vodbCreateStatus = 0;
    CLIENT* vldbClnt = nullptr;
    CLIENT* dbladeClnt = nullptr;
    char host[10] = "127.0.0.1";
    DldbRec dldbRec{};
    // Last, so that they stop before what their handlers use.
    FakeRpcServer vldb{VLDB_PROG, VLDB_VERS};
    FakeRpcServer dldb{DLDB_PROG, DLDB_VERS};
    FakeRpcServer dblade{DBLADE_VOL_PROG, DBLADE_VOL_VERS};
};

unsigned long long VoDelStateTest::lastCreate = 500;

TEST_F(VoDelStateTest, PrepareRecordsOneDeleteSourceAndTakesTheVodbsOpid) {
    VoDelState op;
    ASSERT_TRUE(op.addSrc(kVid, kLid));
    EXPECT_FALSE(op.addSrc(kVid + 1, kLid));
    voErrFunc func;
    unsigned funcrc;
    op.getErr(&func, &funcrc);
    EXPECT_EQ(func, voErrVodAddStream);
    EXPECT_EQ(funcrc, 5001u);
    op.setErr(voErrFuncSuccess, 0);

    EXPECT_EQ(op.prepare(vldbClnt, dbladeClnt), 0u);
    EXPECT_EQ(op.getOpid(), 77u);
    EXPECT_FALSE(op.retiredFromVodb());
    EXPECT_EQ(created.optype, VoRec::VODB_VOLOP_DELETE);
    EXPECT_EQ(created.vfsrole, VoRec::VODB_ROLE_SRC);
    EXPECT_EQ(created.vfsid, kVid);
    EXPECT_EQ(std::memcmp(created.lp_uuid, kLid, 16), 0);

    VoDelState refused;
    refused.addSrc(kVid, kLid);
    vodbCreateStatus = 144;
    EXPECT_EQ(refused.prepare(vldbClnt, dbladeClnt), 2014u);
    voErrRc rc;
    refused.getErr(&rc, &func, &funcrc);
    EXPECT_EQ(rc, voErrPersistOp);
    EXPECT_EQ(func, voErrVodbCreate);
    EXPECT_EQ(funcrc, 144u);
    EXPECT_TRUE(refused.retiredFromVodb());
}

// Each row: the answers of the D-blade (one per voldelete), the VLDB and the
// VODB, the calls the delete makes, and the error it keeps. The volume goes
// first, its record second, the operation's record last; a failure stops the
// steps after it. "Not on this LP" (21) from the D-blade first asked is asked
// again of the LP's own D-blade, found through the VLDB: only that one's 21
// means the volume is gone.
TEST_F(VoDelStateTest, DeleteRunsItsStepsInOrderAndStopsAtTheFirstFailure) {
    struct Case {
        std::vector<unsigned> dblade;
        int lpConvert, vldbDelete, vodbDelete;
        std::vector<std::string> calls;
        voErrRc rc;
        voErrFunc func;
        unsigned funcrc;
        bool retired;
    };
    const std::vector<std::string> all = {"voldelete 1000", "vldb_delete_record",
                                          "vodb_delete_by_opid 77"};
    const std::vector<std::string> again = {"voldelete 1000", "vldb_lp_convert", "voldelete 1000",
                                            "vldb_delete_record", "vodb_delete_by_opid 77"};
    const std::vector<std::string> askedTwice = {"voldelete 1000", "vldb_lp_convert",
                                                 "voldelete 1000"};
    const std::vector<std::string> noLp = {"voldelete 1000", "vldb_lp_convert"};
    const std::vector<std::string> dbladeOnly = {"voldelete 1000"};
    const std::vector<std::string> toVldb = {"voldelete 1000", "vldb_delete_record"};
    const voErrRc ok = voErrRcSuccess;
    const voErrFunc none = voErrFuncSuccess;
    // clang-format off
    const Case cases[] = {
        {{0}, 0, 0, 0, all, ok, none, 0, true},
        {{21}, 0, 0, 0, again, ok, none, 0, true},     // gone from its own D-blade too
        {{21, 0}, 0, 0, 0, again, ok, none, 0, true},  // on another D-blade than the one asked
        {{21, 5}, 0, 0, 0, askedTwice, VoErrDblade, voErrDbladeVolDelete, 5, false},
        {{21}, 110, 0, 0, noLp, VoErrDblade, voErrVldbLpConvert, 110, false},
        {{0}, 0, 105, 0, all, ok, none, 0, true},      // record already gone
        {{280}, 0, 0, 0, all, ok, none, 0, true},      // D-blade: done before
        {{5}, 0, 0, 0, dbladeOnly, VoErrDblade, voErrDbladeVolDelete, 5, false},
        {{16}, 0, 0, 0, dbladeOnly, VoErrDblade, voErrDbladeVolDelete, 16, false},
        {{0}, 0, 133, 0, toVldb, VoErrVldb, voErrVldbDeleteRecord, 133, false},
        {{0}, 0, 0, 145, all, ok, voErrVodbDeleteByOpid, 145, false},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << "dblade " << c.dblade.front() << "," << c.dblade.back() << " lp_convert "
                     << c.lpConvert << " vldb " << c.vldbDelete << " vodb " << c.vodbDelete);
        VoDelState op;
        op.addSrc(kVid, kLid);
        dbladeStatus = 0;
        ASSERT_EQ(op.prepare(vldbClnt, dbladeClnt), 0u);
        takeCalls();
        {
            std::lock_guard<std::mutex> g(m);
            dbladeStatuses = c.dblade;
        }
        lpConvertStatus = c.lpConvert;
        vldbDeleteStatus = c.vldbDelete;
        vodbDeleteStatus = c.vodbDelete;
        unsigned r = op.del(vldbClnt, dbladeClnt);
        EXPECT_EQ(r == 0, c.retired);
        EXPECT_EQ(takeCalls(), c.calls);
        voErrRc rc;
        voErrFunc func;
        unsigned funcrc;
        op.getErr(&rc, &func, &funcrc);
        EXPECT_EQ(rc, c.rc);
        EXPECT_EQ(func, c.func);
        EXPECT_EQ(funcrc, c.funcrc);
        EXPECT_EQ(op.retiredFromVodb(), c.retired);
        // Nobody polls a delete: it may leave memory once its record is gone.
        EXPECT_TRUE(op.mgmtGotLastProgress());
    }
}

TEST_F(VoDelStateTest, ValidateRefusesAVolumeAnotherOperationNamesInAnyRole) {
    setVodb({rec(40, VoRec::VODB_VOLOP_MIRROR, VoRec::VODB_ROLE_OPSINK),
             rec(41, VoRec::VODB_VOLOP_COPY, VoRec::VODB_ROLE_SRC, kVid + 1)});
    VoDelState op;
    op.addSrc(kVid, kLid);
    EXPECT_EQ(op.prepare(vldbClnt, dbladeClnt), 8u);
    voErrRc rc;
    voErrFunc func;
    unsigned funcrc;
    op.getErr(&rc, &func, &funcrc);
    EXPECT_EQ(rc, voErrValidate);
    EXPECT_EQ(func, voErrVodValidate);
    EXPECT_EQ(funcrc, 5023u);  // busy in a mirror
    EXPECT_TRUE(takeCalls().empty()) << "nothing recorded, nothing deleted";

    // The other volume on that LP is free.
    VoDelState other;
    other.addSrc(kVid + 2, kLid);
    EXPECT_EQ(other.prepare(vldbClnt, dbladeClnt), 0u);
}

TEST_F(VoDelStateTest, ResurrectionAcceptsOnlyADeleteSource) {
    setVodb({rec(50, VoRec::VODB_VOLOP_DELETE, VoRec::VODB_ROLE_SRC),
             rec(51, VoRec::VODB_VOLOP_COPY, VoRec::VODB_ROLE_SRC),
             rec(52, VoRec::VODB_VOLOP_DELETE, VoRec::VODB_ROLE_SRC),
             rec(52, VoRec::VODB_VOLOP_DELETE, VoRec::VODB_ROLE_SINK)});
    VoDelState good;
    EXPECT_EQ(resurrect(good, 50), 0u);
    EXPECT_TRUE(good.isUsing(kVid, kLid));
    EXPECT_TRUE(good.isUsing(kVid, kLid, VoRec::VODB_VOLOP_DELETE, VoRec::VODB_ROLE_SRC));
    EXPECT_FALSE(good.isUsing(kVid, kLid, VoRec::VODB_VOLOP_COPY, VoRec::VODB_ROLE_SRC));
    EXPECT_FALSE(good.retiredFromVodb());
    EXPECT_TRUE(good.incrcopyGotConclude()) << "no stream for the registry to wait for";

    for (unsigned long long opid : {51ull, 52ull, 53ull}) {
        VoDelState bad;
        EXPECT_EQ(resurrect(bad, opid), 5001u) << opid;
        voErrFunc func;
        unsigned funcrc;
        bad.getErr(&func, &funcrc);
        EXPECT_EQ(func, voErrVodCrashRecovery) << opid;
    }
}

TEST_F(VoDelStateTest, RecoveryRerunsTheDeleteUntilItGivesUpOnTheRecordOnly) {
    setVodb({rec(77, VoRec::VODB_VOLOP_DELETE, VoRec::VODB_ROLE_SRC)});
    VoDelState op;
    ASSERT_EQ(resurrect(op, 77), 0u);
    dbladeStatus = 5;
    EXPECT_NE(op.recoverFromCrash(vldbClnt, dbladeClnt, nullptr), 0u);
    EXPECT_EQ(takeCalls(), std::vector<std::string>{"voldelete 1000"});

    // After three attempts only the VODB record goes; the volume stays.
    for (int i = 0; i < 3; i++) op.bumpUpRecoveryAttempts();
    EXPECT_EQ(op.recoverFromCrash(vldbClnt, dbladeClnt, nullptr), 0u);
    EXPECT_EQ(takeCalls(), std::vector<std::string>{"vodb_delete_by_opid 77"});
    EXPECT_TRUE(op.retiredFromVodb());

    // Once retired there is nothing left to recover.
    EXPECT_EQ(op.recoverFromCrash(vldbClnt, dbladeClnt, nullptr), 5001u);
    EXPECT_TRUE(takeCalls().empty());
}

TEST_F(VoDelStateTest, StreamStepsDoNothing) {
    VoDelState op;
    op.addSrc(kVid, kLid);
    EXPECT_FALSE(op.addStream(kVid, kLid, 5, kLid, "x"));
    EXPECT_EQ(op.progress(nullptr), 0u);
    EXPECT_EQ(op.conclude(vldbClnt, dbladeClnt, nullptr), 0u);
    EXPECT_TRUE(takeCalls().empty());
    EXPECT_TRUE(op.isUsing(kVid, kLid));
}

}  // namespace
