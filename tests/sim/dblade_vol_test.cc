// The simulated D-blade's volume service: create, delete, clone, attributes, renumbering
// and the id swap, with the statuses vod tells apart, and volumes surviving a restart.

#include <functional>

#include "dblade_fixture.h"

using namespace dbladetest;

namespace {

class DbladeVolTest : public DbladeTest {};

TEST_F(DbladeVolTest, CreateSetsOnlyTheAttributesItsMaskNames) {
    VolCreateIn in{};
    memcpy(in.lpUUID, kLp1a, 16);
    in.vfsID = 100;
    in.set_attrs.how = VOLSET_VOLNAME | VOLSET_MINQUOTA | VOLSET_MOUNTEDATVOLNAME;
    in.set_attrs.attrs.volname = const_cast<char*>("home");
    in.set_attrs.attrs.mountedatvolname = const_cast<char*>("root");
    in.set_attrs.attrs.minQuota = 10;
    in.set_attrs.attrs.maxQuota = 99;          // not in the mask
    in.set_attrs.attrs.mountedatdirvnode = 7;  // not in the mask
    VolCreateOut_t out{};
    ASSERT_EQ(volcreate_1(&in, &out, vol), RPC_SUCCESS);
    ASSERT_EQ(out.returnCode, 0u);

    Attrs a = attrs(kLp1a, 100);
    EXPECT_EQ(a.name, "home");
    EXPECT_EQ(a.mountedatvolname, "root");
    EXPECT_EQ(a.minQuota, 10u);
    EXPECT_EQ(a.maxQuota, 0u);
    EXPECT_EQ(a.mountedatdirvnode, 0u);
    EXPECT_EQ(a.flags, unsigned{VOLFLAG_RW});
    EXPECT_EQ(a.dataVersion, 0u);
    EXPECT_EQ(a.blocksUsed, 0u);
}

// Every refusal of the volume calls, one row each.
TEST_F(DbladeVolTest, RefusalsAnswerTheirStatus) {
    ASSERT_EQ(create(kLp1a, 100), 0u);
    ASSERT_EQ(create(kLp1a, 101), 0u);
    const unsigned char unknownLp[16] = {0x09, 0x09};
    struct Row {
        const char* what;
        std::function<unsigned()> call;
        unsigned status;
    };
    const Row rows[] = {
        {"create an id the LP has", [&] { return create(kLp1a, 100); }, TARN_ERR_EEXIST},
        {"create id 0", [&] { return create(kLp1a, 0); }, TARN_ERR_EINVAL},
        {"create on an unknown LP", [&] { return create(unknownLp, 5); }, TARN_ERR_LPMMISMATCH},
        {"create beyond the LP's space", [&] { return create(kLp1b, 5, "big", VOLSET_MINQUOTA, 1ull << 40); },
         TARN_ERR_ENOSPC},
        {"getattr of an id no LP has", [&] { return getattr(kLp1a, 555); }, TARN_ERR_VOLNOTFOUND},
        {"getattr on the wrong LP", [&] { return getattr(kLp2a, 100); }, TARN_ERR_LPMMISMATCH},
        {"delete on the wrong LP", [&] { return remove(kLp2a, 100); }, TARN_ERR_LPMMISMATCH},
        // Nothing to delete is 21 as well: vod's delete counts 21 as already done.
        {"delete of an id no LP has", [&] { return remove(kLp1a, 555); }, TARN_ERR_LPMMISMATCH},
        {"clone of a missing volume", [&] { return clone(kLp1a, 555, 556); }, TARN_ERR_VOLNOTFOUND},
        {"clone onto a taken id", [&] { return clone(kLp1a, 100, 101); }, TARN_ERR_EEXIST},
        {"clone onto itself", [&] { return clone(kLp1a, 100, 100); }, TARN_ERR_EINVAL},
        {"renumber onto a taken id", [&] { return renumber(kLp1a, 100, 101); }, TARN_ERR_EEXIST},
        {"renumber to 0", [&] { return renumber(kLp1a, 100, 0); }, TARN_ERR_EINVAL},
        {"setattr of a missing volume", [&] { return renumber(kLp1a, 555, 556); },
         TARN_ERR_VOLNOTFOUND},
        {"swap with a missing volume", [&] { return swap(kLp1a, 100, 555, 300); },
         TARN_ERR_VOLNOTFOUND},
        {"swap through one of the two ids", [&] { return swap(kLp1a, 100, 101, 100); },
         TARN_ERR_EINVAL},
        {"swap of a volume with itself", [&] { return swap(kLp1a, 100, 100, 300); },
         TARN_ERR_EINVAL},
    };
    for (const Row& r : rows) EXPECT_EQ(r.call(), r.status) << r.what;
    // The refusals changed nothing.
    EXPECT_EQ(getattr(kLp1a, 100), 0u);
    EXPECT_EQ(getattr(kLp1a, 101), 0u);
    EXPECT_EQ(getattr(kLp1a, 300), unsigned{TARN_ERR_VOLNOTFOUND});
}

TEST_F(DbladeVolTest, OneIdMayLiveOnSeveralLpsAndEachGoesAlone) {
    const unsigned mirrorId = 0x40000005;
    ASSERT_EQ(create(kLp1a, mirrorId, "m1"), 0u);
    ASSERT_EQ(create(kLp2a, mirrorId, "m2"), 0u);
    EXPECT_EQ(attrs(kLp2a, mirrorId).name, "m2");
    EXPECT_EQ(remove(kLp1a, mirrorId), 0u);
    EXPECT_EQ(getattr(kLp1a, mirrorId), unsigned{TARN_ERR_LPMMISMATCH});
    EXPECT_EQ(attrs(kLp2a, mirrorId).name, "m2");
    EXPECT_EQ(remove(kLp2a, mirrorId), 0u);
    EXPECT_EQ(getattr(kLp2a, mirrorId), unsigned{TARN_ERR_VOLNOTFOUND});
}

TEST_F(DbladeVolTest, FilesCountInBlocksAndBumpTheDataVersion) {
    ASSERT_EQ(create(kLp1a, 100), 0u);
    write(100, "lp1a", "a", 10000);   // three 4 KiB blocks
    write(100, "lp1a", "d/b", 4096);  // one
    Attrs a = attrs(kLp1a, 100);
    EXPECT_EQ(a.blocksUsed, 4u);
    EXPECT_EQ(a.dataVersion, 2u);
    ctl({"vol-append", "100", "lp1a", "d/b", "--text", "x"});
    ctl({"vol-rm", "100", "lp1a", "a"});
    a = attrs(kLp1a, 100);
    EXPECT_EQ(a.blocksUsed, 2u);
    EXPECT_EQ(a.dataVersion, 4u);
    EXPECT_EQ(ctl({"vol-files", "100", "lp1a"}), "v=4 deleted a\nv=3 size=4097 d/b\n");

    // A maximum quota of 3 blocks leaves room for one more block only.
    tarn_volsattrx_t q{};
    q.maxQuota = 3;
    ASSERT_EQ(setattr(kLp1a, 100, VOLSET_MAXQUOTA, q), 0u);
    ctl({"vol-write", "100", "lp1a", "c", "--size", "8192"}, false);
    write(100, "lp1a", "c", 4096);
    // Paths that would leave the volume are refused.
    ctl({"vol-write", "100", "lp1a", "../x", "--text", "x"}, false);
    ctl({"vol-write", "100", "lp1a", "/etc/x", "--text", "x"}, false);
}

TEST_F(DbladeVolTest, CloneIsAPointInTimeImageThatSharesNothingMutable) {
    ASSERT_EQ(create(kLp1a, 100, "src"), 0u);
    fill(100, "lp1a", 5, 5000);
    std::string before = checksum(100, "lp1a");
    ASSERT_EQ(clone(kLp1a, 100, 101), 0u);

    Attrs s = attrs(kLp1a, 100), c = attrs(kLp1a, 101);
    EXPECT_EQ(s.downstream, 101u);
    EXPECT_EQ(c.upstream, 100u);
    EXPECT_EQ(c.dataVersion, s.dataVersion);
    EXPECT_EQ(c.flags, unsigned{VOLFLAG_CLONE});
    EXPECT_EQ(checksum(101, "lp1a"), before);

    // Replacing, appending to and removing the source's files leaves the clone as it was;
    // so does writing into the clone for the source.
    write(100, "lp1a", "fill/00000", 100);
    ctl({"vol-append", "100", "lp1a", "fill/00001", "--text", "more"});
    ctl({"vol-rm", "100", "lp1a", "fill/00002"});
    EXPECT_EQ(checksum(101, "lp1a"), before);
    std::string srcNow = checksum(100, "lp1a");
    ctl({"vol-append", "101", "lp1a", "fill/00003", "--text", "more"});
    EXPECT_EQ(checksum(100, "lp1a"), srcNow);

    // Deleting the clone clears the source's downstream id.
    EXPECT_EQ(remove(kLp1a, 101), 0u);
    EXPECT_EQ(attrs(kLp1a, 100).downstream, 0u);
}

TEST_F(DbladeVolTest, SetattrChangesNamesQuotasTypeAndRenumbers) {
    ASSERT_EQ(create(kLp1a, 100, "old"), 0u);
    fill(100, "lp1a", 3, 100);
    std::string sum = checksum(100, "lp1a");
    ASSERT_EQ(clone(kLp1a, 100, 101), 0u);

    tarn_volsattrx_t a{};
    a.volname = const_cast<char*>("new");
    a.mountedatvolname = const_cast<char*>("parent");
    a.mountedatdirvnode = 12;
    a.maxQuota = 1000;
    a.virtualServer = 3;
    ASSERT_EQ(setattr(kLp1a, 100,
                      VOLSET_VOLNAME | VOLSET_MOUNTEDATVOLNAME | VOLSET_MOUNTEDATDIRVNODE |
                          VOLSET_MAXQUOTA | VOLSET_VIRTUALSERVER | VOLSET_MAKE_RO,
                      a),
              0u);
    Attrs got = attrs(kLp1a, 100);
    EXPECT_EQ(got.name, "new");
    EXPECT_EQ(got.mountedatvolname, "parent");
    EXPECT_EQ(got.mountedatdirvnode, 12u);
    EXPECT_EQ(got.maxQuota, 1000u);
    EXPECT_EQ(got.virtualServer, 3u);
    EXPECT_EQ(got.flags & (VOLFLAG_RO | VOLFLAG_RW), unsigned{VOLFLAG_RO});

    // Renumbering keeps the contents and the clone's link to its source.
    ASSERT_EQ(renumber(kLp1a, 100, 200), 0u);
    EXPECT_EQ(getattr(kLp1a, 100), unsigned{TARN_ERR_VOLNOTFOUND});
    EXPECT_EQ(checksum(200, "lp1a"), sum);
    EXPECT_EQ(attrs(kLp1a, 200).name, "new");
    EXPECT_EQ(attrs(kLp1a, 101).upstream, 200u);
}

TEST_F(DbladeVolTest, SwapExchangesIdsThroughTheSpareId) {
    ASSERT_EQ(create(kLp1a, 100, "a"), 0u);
    ASSERT_EQ(create(kLp1a, 200, "b"), 0u);
    write(100, "lp1a", "x", 1000);
    write(200, "lp1a", "y", 2000);
    std::string a = checksum(100, "lp1a"), b = checksum(200, "lp1a");
    ASSERT_EQ(clone(kLp1a, 200, 201), 0u);

    ASSERT_EQ(swap(kLp1a, 100, 200, 300), 0u);
    EXPECT_EQ(checksum(100, "lp1a"), b);
    EXPECT_EQ(checksum(200, "lp1a"), a);
    EXPECT_EQ(attrs(kLp1a, 100).name, "b");
    EXPECT_EQ(getattr(kLp1a, 300), unsigned{TARN_ERR_VOLNOTFOUND});
    // The clone follows its source to the new id.
    EXPECT_EQ(attrs(kLp1a, 201).upstream, 100u);
    EXPECT_EQ(attrs(kLp1a, 100).downstream, 201u);

    // A spare id that a volume holds is refused and nothing moves.
    ASSERT_EQ(create(kLp1a, 300, "c"), 0u);
    EXPECT_EQ(swap(kLp1a, 100, 200, 300), unsigned{TARN_ERR_EEXIST});
    EXPECT_EQ(checksum(100, "lp1a"), b);
}

TEST_F(DbladeVolTest, VolumesSurviveARestart) {
    ASSERT_EQ(create(kLp1a, 100, "keep"), 0u);
    fill(100, "lp1a", 4, 3000);
    ctl({"vol-rm", "100", "lp1a", "fill/00001"});
    ASSERT_EQ(clone(kLp1a, 100, 101), 0u);
    ASSERT_EQ(create(kLp2b, 200, "swapped"), 0u);
    ASSERT_EQ(renumber(kLp1a, 101, 150), 0u);
    std::string sum = checksum(100, "lp1a"), files = ctl({"vol-files", "100", "lp1a"});
    Attrs before = attrs(kLp1a, 100);

    ASSERT_TRUE(sim->restart(/*crash=*/true));
    reconnect();
    Attrs after = attrs(kLp1a, 100);
    EXPECT_EQ(after.name, "keep");
    EXPECT_EQ(after.dataVersion, before.dataVersion);
    EXPECT_EQ(after.downstream, 150u);
    EXPECT_EQ(checksum(100, "lp1a"), sum);
    EXPECT_EQ(ctl({"vol-files", "100", "lp1a"}), files);
    EXPECT_EQ(checksum(150, "lp1a"), sum);
    EXPECT_EQ(attrs(kLp2b, 200).name, "swapped");
    EXPECT_EQ(getattr(kLp1a, 101), unsigned{TARN_ERR_VOLNOTFOUND});
}

// A D-blade answers for its own LPs only: asked about another D-blade's, it finds no
// volume there, whatever the call, and changes nothing.
TEST_F(DbladeVolTest, EachDbladeServesItsOwnLpsOnly) {
    ASSERT_EQ(create(kLp2a, 100, "there"), 0u);
    ASSERT_EQ(create(kLp1a, 200, "here"), 0u);
    struct Row {
        const char* what;
        unsigned asked;  // the D-blade called
        std::function<unsigned()> call;
    };
    const Row rows[] = {
        {"create", 1, [&] { return create(kLp2a, 101); }},
        {"getattr", 1, [&] { return getattr(kLp2a, 100); }},
        {"setattr", 1, [&] { return renumber(kLp2a, 100, 102); }},
        {"clone", 1, [&] { return clone(kLp2a, 100, 103); }},
        {"swap", 1, [&] { return swap(kLp2a, 100, 101, 104); }},
        {"delete", 1, [&] { return remove(kLp2a, 100); }},
        {"delete the other way", 2, [&] { return remove(kLp1a, 200); }},
    };
    for (const Row& r : rows) {
        askOnly = r.asked;
        EXPECT_EQ(r.call(), unsigned{TARN_ERR_LPMMISMATCH}) << r.what;
    }
    askOnly = 0;
    EXPECT_EQ(ctl({"vol-list"}),
              "lp=lp2a vfsid=100 type=rw dv=0 files=0 blocks=0 hidden=0 busy=0 name=there\n"
              "lp=lp1a vfsid=200 type=rw dv=0 files=0 blocks=0 hidden=0 busy=0 name=here\n");
    EXPECT_EQ(ctl({"calls", "volcreate", "--dblade", "2"}), "1\n");
    EXPECT_EQ(ctl({"calls", "volcreate", "--dblade", "1"}), "2\n");
}

// A fault aimed at one D-blade hits the calls and connections at its address only.
TEST_F(DbladeVolTest, FaultsAimedAtOneDbladeLeaveTheOthersAlone) {
    ctl({"fault", "status", "volcreate", "28", "always", "--dblade", "2"});
    EXPECT_EQ(create(kLp2a, 100), unsigned{TARN_ERR_ENOSPC});
    EXPECT_EQ(create(kLp1a, 100), 0u);
    EXPECT_EQ(ctl({"fault", "list"}), "volcreate status 28 always dblade 2\n");
    ctl({"fault", "clear", "volcreate"});
    EXPECT_EQ(create(kLp2a, 100), 0u);

    // Connections to D-blade 2 are reset; D-blade 1 answers on the same port.
    ctl({"fault", "refuse", "dblade_vol", "--dblade", "2", "always"});
    CLIENT* two = clnt_create(simtest::dbladeAddress(2).c_str(), DBLADE_VOL_PROG, DBLADE_VOL_VERS,
                              "tcp");
    if (two) {
        VolDeleteIn in{};
        memcpy(in.lpUUID, kLp2a, 16);
        in.vfsID = 100;
        VolDeleteOut_t out{};
        timeval tv{5, 0};
        clnt_control(two, CLSET_TIMEOUT, reinterpret_cast<char*>(&tv));
        EXPECT_NE(voldelete_1(&in, &out, two), RPC_SUCCESS);
        clnt_destroy(two);
    }
    reconnect();
    EXPECT_EQ(remove(kLp1a, 100), 0u);
    ctl({"fault", "clear", "dblade_vol"});
    reconnect();
    EXPECT_EQ(getattr(kLp2a, 100), 0u) << "the refused delete happened";

    // What only D-blades have cannot be aimed at one.
    for (std::vector<std::string> bad :
         {std::vector<std::string>{"fault", "status", "new_vfsid", "5", "--dblade", "1"},
          {"fault", "refuse", "vldb", "--dblade", "1"},
          {"fault", "status", "volcreate", "5", "--dblade", "9"},
          {"fault", "wait-held", "volcreate", "--dblade", "1"},
          {"fault", "status", "volcreate", "5", "--dblade"}})
        ctl(bad, /*expectOk=*/false);
}

// Without a reply the caller cannot tell a call that never happened (drop) from one
// carried out whose answer was lost (lose-reply); the volumes can.
TEST_F(DbladeVolTest, ADroppedCallChangesNothingALostReplyKeepsItsEffect) {
    CLIENT* quick = client(DBLADE_VOL_PROG, DBLADE_VOL_VERS, 1);
    ASSERT_NE(quick, nullptr);
    auto createQuick = [&] {
        VolCreateIn in{};
        memcpy(in.lpUUID, kLp1a, 16);
        in.vfsID = 100;
        in.set_attrs.how = VOLSET_VOLNAME;
        in.set_attrs.attrs.volname = const_cast<char*>("vol");
        in.set_attrs.attrs.mountedatvolname = const_cast<char*>("");
        VolCreateOut_t out{};
        return volcreate_1(&in, &out, quick);
    };
    auto deleteQuick = [&] {
        VolDeleteIn in{};
        memcpy(in.lpUUID, kLp1a, 16);
        in.vfsID = 100;
        VolDeleteOut_t out{};
        return voldelete_1(&in, &out, quick);
    };
    struct Row {
        const char* fault;
        const char* proc;
        bool existsBefore;
        std::function<clnt_stat()> call;
        bool existsAfter;
    };
    const Row rows[] = {
        {"drop", "volcreate", false, createQuick, false},
        {"lose-reply", "volcreate", false, createQuick, true},
        {"drop", "voldelete", true, deleteQuick, true},
        {"lose-reply", "voldelete", true, deleteQuick, false},
    };
    for (const Row& r : rows) {
        const std::string what = std::string(r.fault) + " " + r.proc;
        remove(kLp1a, 100);
        if (r.existsBefore) {
            ASSERT_EQ(create(kLp1a, 100), 0u) << what;
        }
        ctl({"fault", r.fault, r.proc});
        EXPECT_EQ(r.call(), RPC_TIMEDOUT) << what;
        EXPECT_EQ(getattr(kLp1a, 100) == 0, r.existsAfter) << what;
        // The fault was spent on that one call.
        EXPECT_EQ(ctl({"fault", "list"}), "") << what;
    }
}

}  // namespace
