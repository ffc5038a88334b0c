#include "vocopystate.h"

#include <gtest/gtest.h>

#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "dblade_incrcopy.h"
#include "dblade_vol.h"
#include "dldb_server.h"
#include "fake_rpc_server.h"
#include "vldb_server.h"
#include "vldb_lit.h"
#include "vodbCache.h"
#include "vodldb.h"
#include "vorpcclient.h"

namespace {

const unsigned char kLidA[16] = {0xA1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xA1};
const unsigned char kLidB[16] = {0xB2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xB2};
const unsigned kSrc = 100, kClone = 101, kSink = 300;
const unsigned long long kOpid = 7;

// A copy whose protected steps and state the tests reach directly.
class TestCopy : public VoCopyState {
  public:
    using VoCopyState::mkOpSrcSink;
    using VoCopyState::validate;
    using VoState::determineRecoveryStrategy;

    explicit TestCopy(bool srcRW, const char* sinkName = "copy1") {
        setSrcVfsType(srcRW ? RW_VFS : RO_VFS);
        EXPECT_TRUE(addStream(kSrc, kLidA, kLidB, sinkName));
    }
    // The copy as mkRec leaves it: the op src is the clone of a read-write
    // source, else the source itself.
    void recorded() {
        _opid = kOpid;
        _sinkRec.setVid(kSink);
        _opSrcRec.setOpType(VoRec::VODB_VOLOP_COPY);
        _opSrcRec.setRole(VoRec::VODB_ROLE_OPSRC);
        _opSrcRec.setVid(isSrcRW() ? kClone : kSrc);
        _opSrcRec.setLid(kLidA);
        _vodbRecordStored = true;
    }
    VoCopyPgrsOut& pgrs() { return _pgrs; }
    VoRec& sink() { return _sinkRec; }
    void setRunning(bool r) { _dbladeIncrCopyRunning = r; }
    void setRollForward(bool f) { _rollForward = f; }
    void setAttempts(unsigned n) { _recoveryAttempted = n; }
};

// A stream that ended well: what conclude commits.
VoCopyPgrsOut goodStream() {
    VoCopyPgrsOut p;
    memset(&p, 0, sizeof p);
    p.src.status = VoDone;
    p.sink.isDone = 1;
    return p;
}

// One node's services as fakes: the VLDB with its VODB, the DLDB naming
// 127.0.0.1 for every D-blade, and the D-blade's volume and incremental-copy
// programs. Every answer is the test's to set; the calls are recorded.
class CopyTest : public ::testing::Test {
  protected:
    void SetUp() override {
        VoDldb::initialize();
        memset(&attrs, 0, sizeof attrs);
        attrs.volname = empty;
        attrs.mountedatvolname = empty;
        memset(&stream, 0, sizeof stream);

        dldb.onVoid<DldbIterateRes>(ITERATE, xdr_DldbIterateRes, [this](DldbIterateRes& r) {
            dldbRec.did = 1;
            dldbRec.host.name = host;
            r.rec.rec_len = 1;
            r.rec.rec_val = &dldbRec;
        });
        vldb.onVoid<vodb_opid_lookup_result>(VODB_OPID_LOOKUP, xdr_vodb_opid_lookup_result,
                                             [this](vodb_opid_lookup_result& r) {
                                                 std::lock_guard<std::mutex> g(m);
                                                 r.result = vodbIdStatus;
                                                 r.last_create_opid = vodbGeneration;
                                                 return vodbIdAction;
                                             });
        vldb.onVoid<vodb_lookup_result>(VODB_LOOKUP, xdr_vodb_lookup_result,
                                        [this](vodb_lookup_result& r) {
                                            std::lock_guard<std::mutex> g(m);
                                            r.last_create_opid = vodbGeneration;
                                            r.rec.rec_len = static_cast<u_int>(vodb.size());
                                            r.rec.rec_val = vodb.data();
                                        });
        vldb.on<tarn_uuid_t, vldb_lp_convert_result>(
            VLDB_LP_CONVERT, xdr_tarn_uuid_t, xdr_vldb_lp_convert_result,
            [this](tarn_uuid_t&, vldb_lp_convert_result& r) {
                std::lock_guard<std::mutex> g(m);
                r.result = lpConvertStatus;
                r.dblade_id = 1;
            });
        vldb.on<vldb_record_lookup_input, vldb_record_lookup_result>(
            VLDB_RECORD_LOOKUP, xdr_vldb_record_lookup_input, xdr_vldb_record_lookup_result,
            [this](vldb_record_lookup_input&, vldb_record_lookup_result& r) {
                std::lock_guard<std::mutex> g(m);
                r.result = lookupStatus;
                r.r.r_len = static_cast<u_int>(lookupRecs.size());
                r.r.r_val = lookupRecs.data();
            });
        vldb.on<rec_create_input, int>(VLDB_CREATE_RECORD, xdr_rec_create_input, xdr_int,
                                       [this](rec_create_input& in, int& r) {
                                           std::lock_guard<std::mutex> g(m);
                                           created.push_back(in);
                                           createdNames.push_back(in.vfsname);
                                           r = 0;
                                       });
        vldb.on<rec_delete_input, int>(VLDB_DELETE_RECORD, xdr_rec_delete_input, xdr_int,
                                       [this](rec_delete_input& in, int& r) {
                                           std::lock_guard<std::mutex> g(m);
                                           vldbDeleted.push_back(in.vfsid);
                                           r = 0;
                                       });
        vldb.on<u_quad_t, int>(VODB_DELETE_BY_OPID, xdr_u_quad_t, xdr_int,
                               [](u_quad_t&, int& r) { r = 0; });

        vol.on<VolGetattrIn, VolGetattrOut_t>(VOLGETATTR, xdr_VolGetattrIn, xdr_VolGetattrOut_t,
                                              [this](VolGetattrIn&, VolGetattrOut_t& r) {
                                                  std::lock_guard<std::mutex> g(m);
                                                  r.returnCode = getattrStatus;
                                                  r.return_volattrs = attrs;
                                              });
        vol.on<VolCloneIn, VolCloneOut_t>(VOLCLONE, xdr_VolCloneIn, xdr_VolCloneOut_t,
                                          [this](VolCloneIn& in, VolCloneOut_t&) {
                                              std::lock_guard<std::mutex> g(m);
                                              clonedInto = in.cloneVfsID;
                                          });
        vol.on<VolCreateIn, VolCreateOut_t>(VOLCREATE, xdr_VolCreateIn, xdr_VolCreateOut_t,
                                            [this](VolCreateIn& in, VolCreateOut_t&) {
                                                std::lock_guard<std::mutex> g(m);
                                                createdVol = in.set_attrs;
                                                createdVolName = in.set_attrs.attrs.volname;
                                                createdVol.attrs.volname = nullptr;
                                                createdVol.attrs.mountedatvolname = nullptr;
                                            });
        vol.on<VolSetattrIn, VolSetattrOut_t>(VOLSETATTR, xdr_VolSetattrIn, xdr_VolSetattrOut_t,
                                              [this](VolSetattrIn& in, VolSetattrOut_t& r) {
                                                  std::lock_guard<std::mutex> g(m);
                                                  setattrHow = in.set_attrs.how;
                                                  r.returnCode = setattrStatus;
                                              });
        vol.on<VolDeleteIn, VolDeleteOut_t>(VOLDELETE, xdr_VolDeleteIn, xdr_VolDeleteOut_t,
                                            [this](VolDeleteIn& in, VolDeleteOut_t& r) {
                                                std::lock_guard<std::mutex> g(m);
                                                volDeleted.push_back(in.vfsID);
                                                r.returnCode = in.vfsID == failDelete ? 5 : 0;
                                            });
        incr.on<u_quad_t, IncrCopyProgressOut>(
            INCRCOPYPROGRESS, xdr_u_quad_t, xdr_IncrCopyProgressOut,
            [this](u_quad_t&, IncrCopyProgressOut& r) {
                std::lock_guard<std::mutex> g(m);
                r.rc = progressStatus;
                r.IncrCopyProgressOut_u.out = stream;
                r.IncrCopyProgressOut_u.out.dstProgress.dstProgress_len =
                    static_cast<u_int>(dests.size());
                r.IncrCopyProgressOut_u.out.dstProgress.dstProgress_val = dests.data();
                return progressAction;
            });

        clntVldb.clnttcp_create("127.0.0.1", VLDB_PROG, VLDB_VERS);
        clntVol.clnttcp_create("127.0.0.1", DBLADE_VOL_PROG, DBLADE_VOL_VERS);
        clntIncr.clnttcp_create("127.0.0.1", DBLADE_INCRCOPY_PROG, DBLADE_INCRCOPY_VERS);
        ASSERT_NE(nullptr, static_cast<CLIENT*>(clntVldb));
        ASSERT_NE(nullptr, static_cast<CLIENT*>(clntIncr));
    }

    void TearDown() override {
        setVodb({});  // later tests start from an empty cache
        VoDldb::destroy();
    }

    // Replaces the VODB's records and brings the process-wide cache up to date.
    void setVodb(std::vector<vodbRec> recs) {
        {
            std::lock_guard<std::mutex> g(m);
            vodb = std::move(recs);
            vodbGeneration++;
        }
        ASSERT_EQ(0u, VodbCacheLock::refreshVodbCache(clntVldb));
    }

    static vodbRec vodbRecOf(unsigned long long opid, int type, unsigned vid,
                             const unsigned char* lid, int role) {
        vodbRec r;
        memset(&r, 0, sizeof r);
        r.opid = opid;
        r.optype = type;
        r.vfsid = vid;
        memcpy(r.lp_uuid, lid, 16);
        r.vfsrole = role;
        return r;
    }

    // One stream report: the source's status and completion, one sink.
    void setStream(unsigned status, unsigned srcCode, unsigned sinkDone, unsigned sinkCode) {
        std::lock_guard<std::mutex> g(m);
        stream.srcVfsId = kSrc;
        stream.status = static_cast<IncrCopyStatusCode>(status);
        stream.completionCode = srcCode;
        stream.blksRead = 512;  // 2 MiB in 4 KiB blocks
        IncrCopyDestProgress d;
        memset(&d, 0, sizeof d);
        d.isDone = sinkDone;
        d.completionCode = sinkCode;
        d.vfsId = kSink;
        dests.assign(1, d);
    }

    Rec vldbRec(unsigned type) {
        Rec r;
        memset(&r, 0, sizeof r);
        r.vfsid = kSrc;
        r.family = empty;
        r.vfsname = empty;
        r.vfstype = type;
        r.vserver = 3;
        r.exportRuleset = 4;
        r.appId = APP_MGMT;
        r.dataVer = 42;
        return r;
    }

    char empty[1] = "";
    char host[10] = "127.0.0.1";
    char parent[7] = "parent";
    DldbRec dldbRec{};
    std::mutex m;
    std::vector<vodbRec> vodb;
    // Moves on every change, across tests too, so that the cache re-reads.
    static inline unsigned long long vodbGeneration = 1000;
    int vodbIdStatus = 0;
    FakeRpcServer::Action vodbIdAction = FakeRpcServer::Reply;
    unsigned lpConvertStatus = 0;
    int lookupStatus = 0;
    std::vector<Rec> lookupRecs;
    std::vector<rec_create_input> created;
    std::vector<std::string> createdNames;
    std::vector<unsigned> vldbDeleted, volDeleted;
    unsigned failDelete = 0;
    unsigned getattrStatus = 0;
    tarn_volgattrx_t attrs;
    unsigned clonedInto = 0;
    tarn_volsetattrx_t createdVol{};
    std::string createdVolName;
    unsigned setattrHow = 0, setattrStatus = 0;
    unsigned progressStatus = 0;
    FakeRpcServer::Action progressAction = FakeRpcServer::Reply;
    IncrCopyPgrsOut stream;
    std::vector<IncrCopyDestProgress> dests;

    FakeRpcServer vldb{VLDB_PROG, VLDB_VERS};
    FakeRpcServer dldb{DLDB_PROG, DLDB_VERS};
    FakeRpcServer vol{DBLADE_VOL_PROG, DBLADE_VOL_VERS};
    FakeRpcServer incr{DBLADE_INCRCOPY_PROG, DBLADE_INCRCOPY_VERS};
    VoRPCClient clntVldb, clntVol, clntIncr;
};

TEST(VoCopyStateRequest, OneStreamOnlyAndANamedSink) {
    VoCopyState op;
    EXPECT_FALSE(op.addStream(kSrc, kLidA, kLidB, ""));
    ASSERT_TRUE(op.addStream(kSrc, kLidA, kLidB, "copy1"));
    EXPECT_FALSE(op.addStream(kSrc + 1, kLidB, kLidA, "copy2"));
    voErrFunc func;
    unsigned funcrc;
    op.getErr(&func, &funcrc);
    EXPECT_EQ(voErrVodAddStream, func);
    EXPECT_EQ(5001u, funcrc);
    // The first stream stands.
    EXPECT_TRUE(op.isUsing(kSrc, kLidA, VoRec::VODB_VOLOP_COPY, VoRec::VODB_ROLE_SRC));
    EXPECT_FALSE(op.isUsing(kSrc + 1, kLidB));
    EXPECT_EQ(0u, op.sinkVid());
}

TEST(VoCopyStateRequest, TheFirstRecordOnAVolumeDecidesIsUsing) {
    TestCopy ro(false);
    ro.recorded();
    // A read-only source is its own op src: its source record answers first.
    EXPECT_TRUE(ro.isUsing(kSrc, kLidA, VoRec::VODB_VOLOP_COPY, VoRec::VODB_ROLE_SRC));
    EXPECT_FALSE(ro.isUsing(kSrc, kLidA, VoRec::VODB_VOLOP_COPY, VoRec::VODB_ROLE_OPSRC));
    EXPECT_TRUE(ro.isUsing(kSink, kLidB, VoRec::VODB_VOLOP_COPY, VoRec::VODB_ROLE_SINK));
    EXPECT_FALSE(ro.isUsing(kSink, kLidB, VoRec::VODB_VOLOP_MOVE, VoRec::VODB_ROLE_SINK));
    EXPECT_FALSE(ro.isUsing(kSink, kLidA, VoRec::VODB_VOLOP_COPY, VoRec::VODB_ROLE_SINK));

    TestCopy rw(true);
    rw.recorded();
    EXPECT_TRUE(rw.isUsing(kClone, kLidA, VoRec::VODB_VOLOP_COPY, VoRec::VODB_ROLE_OPSRC));
    EXPECT_TRUE(rw.isUsing(kClone, kLidA));
    EXPECT_TRUE(rw.isUsing(kLidB));
    EXPECT_FALSE(rw.isUsing(kClone, kLidB));
    // A sink on the source's very volume is never reached: the source decides.
    rw.sink().setVid(kSrc);
    rw.sink().setLid(kLidA);
    EXPECT_FALSE(rw.isUsing(kSrc, kLidA, VoRec::VODB_VOLOP_COPY, VoRec::VODB_ROLE_SINK));
}

TEST(VoCopyStateConclude, FiveTestsOfASuccessfulStream) {
    struct Row {
        const char* what;
        void (*change)(VoCopyPgrsOut&);
        int failed;
    };
    const Row rows[] = {
        {"clean", [](VoCopyPgrsOut&) {}, 0},
        {"sink already up to date", [](VoCopyPgrsOut& p) { p.sink.completionCode = 20002; }, 0},
        {"poll refused", [](VoCopyPgrsOut& p) { p.rc = VoErrDblade; }, 1},
        {"source failed", [](VoCopyPgrsOut& p) { p.src.completionCode = 20025; }, 2},
        {"still running", [](VoCopyPgrsOut& p) { p.src.status = VoRunning; }, 3},
        {"paused", [](VoCopyPgrsOut& p) { p.src.status = VoPaused; }, 3},
        {"sink not done", [](VoCopyPgrsOut& p) { p.sink.isDone = 0; }, 4},
        {"sink cancelled", [](VoCopyPgrsOut& p) { p.sink.completionCode = 20036; }, 5},
        {"sink data version mismatch", [](VoCopyPgrsOut& p) { p.sink.completionCode = 20101; }, 5},
    };
    for (const Row& r : rows) {
        VoCopyPgrsOut p = goodStream();
        r.change(p);
        EXPECT_EQ(r.failed, VoCopyState::failedSuccessTest(p)) << r.what;
    }
}

// A copy refused because the VODB could not be read must never answer rc 0
// beside the failing call: a client would take it for a started copy.
TEST_F(CopyTest, AFailedVodbReadRefusesTheCopyWithANonZeroRc) {
    struct {
        const char* what;
        int status;
        FakeRpcServer::Action action;
        voErrFunc func;
    } cases[] = {
        {"refused", VODB_NO_DATABASE, FakeRpcServer::Reply, voErrVodbOpidLookUp},
        {"cut", 0, FakeRpcServer::Close, voErrVodbOpidLookUpRpc},
    };
    for (const auto& c : cases) {
        {
            std::lock_guard<std::mutex> g(m);
            lookupRecs = {vldbRec(RW_VFS)};
            vodbIdStatus = c.status;
            vodbIdAction = c.action;
        }
        clntVldb.clntdestroy();
        clntVldb.clnttcp_create("127.0.0.1", VLDB_PROG, VLDB_VERS);
        TestCopy op(true);
        EXPECT_NE(0u, op.prepare(clntVldb, clntVol)) << c.what;
        voErrRc rc;
        voErrFunc func;
        unsigned funcrc;
        op.getErr(&rc, &func, &funcrc);
        EXPECT_EQ(voErrValidate, rc) << c.what;
        EXPECT_EQ(c.func, func) << c.what;
        EXPECT_TRUE(op.retiredFromVodb()) << c.what;
    }
    {
        std::lock_guard<std::mutex> g(m);
        vodbIdStatus = 0;
        vodbIdAction = FakeRpcServer::Reply;
    }
    clntVldb.clntdestroy();
    clntVldb.clnttcp_create("127.0.0.1", VLDB_PROG, VLDB_VERS);
}

TEST_F(CopyTest, ValidateRoleTable) {
    struct Row {
        int role;
        int type;
        bool srcRW;
        unsigned busy;  // 0: allowed
    };
    using R = VoRec;
    const Row rows[] = {
        // Other readers of the source are welcome; writers and removers are not.
        {R::VODB_ROLE_SRC, R::VODB_VOLOP_COPY, true, 0},
        {R::VODB_ROLE_SRC, R::VODB_VOLOP_MIRROR, false, 0},
        {R::VODB_ROLE_SRC, R::VODB_VOLOP_MOVE, true, 5021},
        {R::VODB_ROLE_SRC, R::VODB_VOLOP_FINALMOVE, false, 5021},
        {R::VODB_ROLE_SRC, R::VODB_VOLOP_DELETE, true, 5024},
        {R::VODB_ROLE_SRC, R::VODB_VOLOP_DUMP, false, 5025},
        {R::VODB_ROLE_SRC, R::VODB_VOLOP_RESTORE, true, 5026},
        // The source is being written by another operation.
        {R::VODB_ROLE_SINK, R::VODB_VOLOP_COPY, false, 5022},
        {R::VODB_ROLE_SINK, R::VODB_VOLOP_MIRROR, true, 5023},
        // A read-only source may be several operations' op src at once.
        {R::VODB_ROLE_OPSRC, R::VODB_VOLOP_COPY, false, 0},
        {R::VODB_ROLE_OPSRC, R::VODB_VOLOP_MIRROR, false, 0},
        {R::VODB_ROLE_OPSRC, R::VODB_VOLOP_COPY, true, 5022},
        {R::VODB_ROLE_OPSINK, R::VODB_VOLOP_MOVE, false, 5021},
        {R::VODB_ROLE_TEMP, R::VODB_VOLOP_MIRROR, true, 5023},
        {R::VODB_ROLE_NULL, R::VODB_VOLOP_DELETE, true, 0},
    };
    for (const Row& r : rows) {
        setVodb({vodbRecOf(9, r.type, kSrc, kLidA, r.role)});
        TestCopy op(r.srcRW);
        EXPECT_EQ(r.busy == 0, op.validate(clntVldb, clntVol))
            << "role " << r.role << " type " << r.type << " RW " << r.srcRW;
        if (r.busy == 0) continue;
        voErrFunc func;
        unsigned funcrc;
        op.getErr(&func, &funcrc);
        EXPECT_EQ(voErrVodValidate, func);
        EXPECT_EQ(r.busy, funcrc) << "role " << r.role << " type " << r.type;
    }

    // The same VFS id on another LP is another volume.
    setVodb({vodbRecOf(9, R::VODB_VOLOP_DELETE, kSrc, kLidB, R::VODB_ROLE_SRC)});
    EXPECT_TRUE(TestCopy(true).validate(clntVldb, clntVol));
    // A sink id in use by any record, on any LP, is refused.
    setVodb({vodbRecOf(9, R::VODB_VOLOP_MIRROR, kSink, kLidA, R::VODB_ROLE_OPSRC)});
    TestCopy op(true);
    op.sink().setVid(kSink);
    EXPECT_FALSE(op.validate(clntVldb, clntVol));
}

TEST_F(CopyTest, ProgressAnswersWhileStreamingAndWhenTheStreamEnds) {
    TestCopy op(true);
    op.recorded();
    op.setRunning(true);
    op.setRollForward(true);
    VoCopyPgrsOut out;

    setStream(IncrCopyRunning, 0, 0, 0);
    EXPECT_EQ(0u, op.progress(clntIncr, &out));
    EXPECT_EQ(voErrRcSuccess, out.rc);
    EXPECT_EQ(kOpid, out.voOpid);
    EXPECT_EQ(2u, out.src.megsProcessed);
    EXPECT_EQ(kSink, out.sink.vfsId);
    EXPECT_TRUE(op.getDbladeIncrCopyStatus());

    // Of several sinks the first one is reported.
    {
        std::lock_guard<std::mutex> g(m);
        dests.push_back(dests[0]);
        dests[1].vfsId = kSink + 1;
    }
    EXPECT_EQ(0u, op.progress(clntIncr, &out));
    EXPECT_EQ(kSink, out.sink.vfsId);

    // A refusal other than "stream unknown" may pass: still running.
    {
        std::lock_guard<std::mutex> g(m);
        progressStatus = 20025;
    }
    EXPECT_EQ(505u, op.progress(clntIncr, &out));
    EXPECT_EQ(voErrEndStream, out.rc);
    EXPECT_TRUE(op.getDbladeIncrCopyStatus());

    // A transport failure is the whole error triple, until a poll succeeds.
    {
        std::lock_guard<std::mutex> g(m);
        progressStatus = 0;
        progressAction = FakeRpcServer::Close;
    }
    EXPECT_EQ(6u, op.progress(clntIncr, &out));
    EXPECT_EQ(voErrRpcFailure, out.rc);
    EXPECT_EQ(voErrDbladeIncrCopyProgressRpc, out.func);
    {
        std::lock_guard<std::mutex> g(m);
        progressAction = FakeRpcServer::Reply;
    }
    clntIncr.clntdestroy();
    clntIncr.clnttcp_create("127.0.0.1", DBLADE_INCRCOPY_PROG, DBLADE_INCRCOPY_VERS);
    EXPECT_EQ(0u, op.progress(clntIncr, &out));
    voErrRc rc;
    voErrFunc func;
    unsigned funcrc;
    op.getErr(&rc, &func, &funcrc);
    EXPECT_EQ(voErrRcSuccess, rc);
    EXPECT_EQ(voErrFuncSuccess, func);

    // The stream ends well: the copy goes on to be committed.
    setStream(IncrCopyDone, 0, 1, 0);
    EXPECT_EQ(0u, op.progress(clntIncr, &out));
    EXPECT_EQ(voErrEndStream, out.rc);
    EXPECT_FALSE(op.getDbladeIncrCopyStatus());
    EXPECT_EQ(0u, op.progress(clntIncr, &out));
    EXPECT_EQ(voErrRollForwardOp, out.rc);
    EXPECT_FALSE(op.mgmtGotLastProgress());

    // Once retired from the VODB: the final triple, and the copy stays for
    // another poll of it.
    op.setAllErr(voErrMakeVFS, voErrDbladeVolCreate, 28);
    op.setRetiredFromVodb();
    EXPECT_EQ(0u, op.progress(clntIncr, &out));
    EXPECT_EQ(voErrMakeVFS, out.rc);
    EXPECT_EQ(voErrDbladeVolCreate, out.func);
    EXPECT_EQ(28u, out.funcrc);
    EXPECT_EQ(VoDone, out.src.status);
    EXPECT_TRUE(op.mgmtGotLastProgress());
    EXPECT_FALSE(op.canRetireFromMem());
}

TEST_F(CopyTest, AFailedOrForgottenStreamIsRolledBack) {
    for (bool forgotten : {false, true}) {
        TestCopy op(true);
        op.recorded();
        op.setRunning(true);
        op.setRollForward(true);
        setStream(IncrCopyDone, 0, 1, 20036);  // the sink was cancelled
        {
            std::lock_guard<std::mutex> g(m);
            progressStatus = forgotten ? 20013 : 0;
        }
        VoCopyPgrsOut out;
        EXPECT_EQ(forgotten ? 505u : 0u, op.progress(clntIncr, &out));
        EXPECT_EQ(voErrEndStream, out.rc);
        EXPECT_FALSE(op.getDbladeIncrCopyStatus());
        EXPECT_NE(0, VoCopyState::failedSuccessTest(op.pgrs()));
        EXPECT_EQ(0u, op.progress(clntIncr, &out));
        EXPECT_EQ(voErrRollBackOp, out.rc) << "forgotten " << forgotten;
    }
}

TEST_F(CopyTest, RecoveryStrategyTable) {
    struct Row {
        const char* what;
        unsigned lpConvert;  // VLDB status of vldb_lp_convert_3
        unsigned getattr;    // D-blade status for the sink
        unsigned long long sinkDver;
        int vldbStatus;
        unsigned vldbRecs;
        unsigned long long expected;
        bool decided;
        bool forward;
    };
    const Row rows[] = {
        {"sink complete", 0, 0, 42, 0, 1, 42, true, true},
        {"sink behind", 0, 0, 0, 0, 1, 42, true, false},
        {"sink on no LP", 0, 16, 0, 0, 1, 42, true, false},
        {"sink not on its LP", 0, 21, 0, 0, 1, 42, true, false},
        {"sink without VLDB record", 0, 0, 42, 119, 0, 0, true, false},
        {"sink with zero VLDB records", 0, 0, 42, 0, 0, 0, true, false},
        {"sink hidden mid-stream", 0, 32, 0, 0, 1, 42, false, false},
        {"VLDB lookup refused", 0, 0, 42, 133, 0, 0, false, false},
        {"sink's D-blade unknown", 110, 0, 42, 0, 1, 42, false, false},
    };
    for (const Row& r : rows) {
        {
            std::lock_guard<std::mutex> g(m);
            lpConvertStatus = r.lpConvert;
            getattrStatus = r.getattr;
            attrs.dataVersion = r.sinkDver;
            lookupStatus = r.vldbStatus;
            lookupRecs.assign(r.vldbRecs, vldbRec(RW_VFS));
            for (Rec& rec : lookupRecs) rec.dataVer = r.expected;
        }
        TestCopy op(true);
        op.recorded();
        op.setRollForward(!r.forward);
        unsigned rc = op.determineRecoveryStrategy(clntVldb, op.sink());
        EXPECT_EQ(r.decided, rc == 0) << r.what;
        if (r.decided) {
            EXPECT_EQ(r.forward, op.rollForward()) << r.what;
        }
    }
    TestCopy op(true);
    EXPECT_EQ(5003u, op.determineRecoveryStrategy(nullptr, op.sink()));
}

TEST_F(CopyTest, ReadOnlySourceStreamsItselfAndALongNameIsCut) {
    attrs.minQuota = 5;
    attrs.maxQuota = 10;
    attrs.virtualServer = 3;
    attrs.mountedatvolname = parent;
    attrs.mountedatdirvnode = 11;
    attrs.dataVersion = 42;
    lookupRecs.assign(1, vldbRec(RO_VFS));

    TestCopy op(false, std::string(129, 'n').c_str());
    op.recorded();
    ASSERT_EQ(0u, op.mkOpSrcSink(clntVldb, clntVol));
    EXPECT_EQ(0, vol.calls(VOLCLONE));
    EXPECT_EQ(std::string(128, 'n'), createdVolName);
    // The sink keeps the source's quotas, mounted-at fields and virtual server.
    EXPECT_EQ(5u, createdVol.attrs.minQuota);
    EXPECT_EQ(10u, createdVol.attrs.maxQuota);
    EXPECT_EQ(3u, createdVol.attrs.virtualServer);
    EXPECT_EQ(11u, createdVol.attrs.mountedatdirvnode);
    // Its VLDB record: read-only like the source, expected at the source's
    // data version, owned and exported as the source is.
    ASSERT_EQ(1u, created.size());
    EXPECT_EQ(kSink, created[0].vfsid);
    EXPECT_EQ(std::string(128, 'n'), createdNames[0]);
    EXPECT_EQ(unsigned(RO_VFS), created[0].vfstype);
    EXPECT_EQ(42u, created[0].dataVer);
    EXPECT_EQ(3u, created[0].vserver);
    EXPECT_EQ(4u, created[0].exportRuleset);
    EXPECT_EQ(0u, created[0].is_root);
    EXPECT_EQ(1, op.sink().getDid());
}

TEST_F(CopyTest, ReadWriteSourceIsStreamedFromARegisteredClone) {
    lookupRecs.assign(1, vldbRec(RW_VFS));
    TestCopy op(true);
    op.recorded();
    ASSERT_EQ(0u, op.mkOpSrcSink(clntVldb, clntVol));
    EXPECT_EQ(kClone, clonedInto);
    ASSERT_EQ(2u, created.size());
    EXPECT_EQ(kClone, created[0].vfsid);
    EXPECT_EQ(unsigned(CLONE), created[0].vfstype);
    EXPECT_EQ(kSink, created[1].vfsid);
    EXPECT_EQ(unsigned(RW_VFS), created[1].vfstype);
    EXPECT_EQ("copy1", createdNames[1]);
}

TEST_F(CopyTest, ConcludeCommitsAGoodStreamAndKeepsRecordsOfAFailedCleanUp) {
    // Read-only source, stream done: the sink becomes read-only, no clone to
    // remove, the records go.
    {
        TestCopy op(false);
        op.recorded();
        op.setRollForward(true);
        op.pgrs() = goodStream();
        EXPECT_EQ(0u, op.conclude(clntVldb, clntVol, clntIncr));
        EXPECT_NE(0u, setattrHow & (1u << 29));
        EXPECT_TRUE(volDeleted.empty());
        EXPECT_EQ(1, vldb.calls(VODB_DELETE_BY_OPID));
        EXPECT_TRUE(op.retiredFromVodb());
    }

    // Read-write source, sink cancelled and hidden: recovery cannot read the
    // sink and rolls back: sink, then clone, each D-blade first. The clone
    // will not go, so the records stay for crash recovery to finish the job.
    getattrStatus = 32;
    failDelete = kClone;
    vldb.resetCalls();
    {
        TestCopy op(true);
        op.recorded();
        op.setRollForward(true);
        op.pgrs() = goodStream();
        op.pgrs().sink.completionCode = 20036;
        EXPECT_NE(0u, op.conclude(clntVldb, clntVol, clntIncr));
        EXPECT_FALSE(op.rollForward());
        EXPECT_EQ((std::vector<unsigned>{kSink, kClone}), volDeleted);
        EXPECT_EQ((std::vector<unsigned>{kSink}), vldbDeleted);
        EXPECT_EQ(0, vldb.calls(VODB_DELETE_BY_OPID));
        EXPECT_FALSE(op.retiredFromVodb());
    }

    // A good stream whose sink cannot be finished: the records stay, unless
    // the copy is past its recovery attempts.
    setattrStatus = 5;
    for (unsigned attempts : {0u, 3u}) {
        vldb.resetCalls();
        TestCopy op(false);
        op.recorded();
        op.setRollForward(true);
        op.setAttempts(attempts);
        op.pgrs() = goodStream();
        EXPECT_NE(0u, op.conclude(clntVldb, clntVol, clntIncr));
        EXPECT_EQ(attempts >= 3, op.retiredFromVodb()) << attempts;
        EXPECT_EQ(attempts >= 3 ? 1 : 0, vldb.calls(VODB_DELETE_BY_OPID)) << attempts;
    }
}

TEST_F(CopyTest, ForcedRecoveryOnlyDropsTheRecords) {
    TestCopy op(true);
    op.recorded();
    op.setAttempts(3);
    EXPECT_EQ(0u, op.recoverFromCrash(clntVldb, clntVol, clntIncr));
    EXPECT_EQ(1, vldb.calls(VODB_DELETE_BY_OPID));
    EXPECT_EQ(0, vol.calls(VOLDELETE));
    EXPECT_EQ(0, vol.calls(VOLGETATTR));
    EXPECT_TRUE(op.retiredFromVodb());
}

TEST_F(CopyTest, ResurrectionRebuildsTheThreeRecords) {
    using R = VoRec;
    setVodb({vodbRecOf(kOpid, R::VODB_VOLOP_COPY, kSrc, kLidA, R::VODB_ROLE_SRC),
             vodbRecOf(kOpid, R::VODB_VOLOP_COPY, kSink, kLidB, R::VODB_ROLE_SINK),
             vodbRecOf(kOpid, R::VODB_VOLOP_COPY, kClone, kLidA, R::VODB_ROLE_OPSRC),
             vodbRecOf(8, R::VODB_VOLOP_DELETE, 5, kLidA, R::VODB_ROLE_SRC)});
    VoCopyState op;
    ASSERT_EQ(0u, op.resurrectFromVoRec(kOpid, nullptr));
    EXPECT_EQ(kSink, op.sinkVid());
    EXPECT_TRUE(op.isUsing(kClone, kLidA, R::VODB_VOLOP_COPY, R::VODB_ROLE_OPSRC));
    EXPECT_TRUE(op.isUsing(kSrc, kLidA, R::VODB_VOLOP_COPY, R::VODB_ROLE_SRC));
    EXPECT_FALSE(op.retiredFromVodb());

    // Another operation's records under the id are refused.
    VoCopyState other;
    EXPECT_EQ(5001u, other.resurrectFromVoRec(8, nullptr));
    setVodb({vodbRecOf(kOpid, R::VODB_VOLOP_COPY, kSrc, kLidA, R::VODB_ROLE_SRC),
             vodbRecOf(kOpid, R::VODB_VOLOP_COPY, 9, kLidA, R::VODB_ROLE_TEMP)});
    VoCopyState odd;
    EXPECT_EQ(5001u, odd.resurrectFromVoRec(kOpid, nullptr));
}

}  // namespace
