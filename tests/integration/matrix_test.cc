// The crash and fault matrices. Every operation kind is run once on a clean
// node to learn, from the simulator's call log, the remote calls vod makes.
// Then, one node sandbox per case:
//   - crash: vod is killed while one of those calls is held, before the peer
//     carried it out or after (only its reply held back), and started again;
//     sampled cases kill the recovering vod once more at one of its changing
//     calls;
//   - fault: one call fails: its answer never comes (dropped before or after
//     the work), its program refuses the connection, or it answers one of its
//     documented statuses.
// Afterwards the VODB is empty, the VLDB agrees with every D-blade, no
// hidden, temp or orphan volume is left, and the cluster holds exactly what
// the operation leaves when rolled forward or exactly what was there before;
// a crash case also checks that the direction is the one recovery must take
// at that point, a fault case that vod lived and the client heard the failure
// of the procedure that failed (or nothing, when the failure is one vod rides
// out).
//
// scripts/crash-matrix.sh and scripts/fault-matrix.sh run the full matrices
// through the env-driven tests (VOD_MATRIX_*); ctest runs the sampled slice.
#include <gtest/gtest.h>
#include <rpc/rpc.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "cluster_fixture.h"
#include "dblade_incrcopy.h"
#include "util/xdrproc.h"
#include "voerrors.h"

namespace vodtest {
namespace {

using nlohmann::json;

constexpr uint32_t kMirrorBit = 0x40000000;
// Recovery of an operation rebuilt at start-up comes due within seconds; one
// that failed in the running vod waits for the registry's next look (30 s),
// and a clean-up that fails again waits for one more.
constexpr double kSettleSec = 150;
// A fault may leave records of an operation the registry never knew (the
// answer to their creation was lost): an idle registry looks every 300 s.
constexpr double kFaultSettleSec = 400;
// How long vod waits for any answer in the fault matrix (vod -w).
constexpr unsigned kCallCapSec = 4;

enum class Outcome { Back, Forward, Either, Neither };

const char* nameOf(Outcome o) {
    switch (o) {
        case Outcome::Back:
            return "back";
        case Outcome::Forward:
            return "forward";
        case Outcome::Either:
            return "either";
        case Outcome::Neither:
            return "neither";
    }
    return "?";
}

// One call of the simulator's log.
struct Call {
    std::string proc;
    unsigned dblade = 0;
    unsigned nth = 0;  // 1 for the first call of proc in the log, and so on
};

// After the nth call of proc was carried out, recovery must take the
// operation in this direction (until a later marker says otherwise).
struct Marker {
    const char* proc;
    unsigned nth;
    Outcome after;
};

class MatrixTest;

// One operation kind: how it is set up (before the log starts), started and
// judged, and where its direction of recovery turns.
struct OpKind {
    const char* name;
    void (*setup)(MatrixTest& t);
    void (*start)(MatrixTest& t);
    // Forward, Back or Neither (with *why) from the cluster as found.
    Outcome (*judge)(MatrixTest& t, std::string* why);
    std::vector<Marker> markers;
    // Calls other processes than vod make (voctl), or vod makes as often as
    // time passes: no crash point, no fault case, no marker.
    std::set<std::string> noisy;
};

// Every procedure a crash during recovery is aimed at: the calls that change
// something.
const char* const kChangingProcs[] = {"volclone",
                                      "volcreate",
                                      "voldelete",
                                      "volsetattr",
                                      "volswapvolid",
                                      "vldb_create_record",
                                      "vldb_delete_record",
                                      "vldb_record_modify",
                                      "vldb_modify_dataver",
                                      "vldb_vfs_move",
                                      "vodb_create",
                                      "vodb_create2",
                                      "vodb_delete_by_opid",
                                      "vodb_update_optype_by_opid",
                                      "incrcopymirror",
                                      "incrcopymove",
                                      "incrcopyconclude",
                                      "incrcopycancel",
                                      "tcpvfsdump",
                                      "tcpvfsrestore"};

// The voErrFunc of each procedure's failure as vod reports it; the transport
// failure is the same plus 10000.
const std::map<std::string, int> kProcFunc = {
    {"vldb_record_lookup", voErrVldbRecordLookup},
    {"new_vfsid", voErrVldbNewVfsid},
    {"vldb_create_record", voErrVldbCreateRecord},
    {"vldb_delete_record", voErrVldbDeleteRecord},
    {"vldb_lp_convert", voErrVldbLpConvert},
    {"vldb_record_modify", voErrVldbRecordModify},
    {"vldb_modify_dataver", voErrVldbRecordModify},
    {"vldb_vfs_move", voErrVldbRecordModify},
    {"vodb_opid_lookup", voErrVodbOpidLookUp},
    {"vodb_lookup", voErrVodbLookup},
    {"vodb_update_optype_by_opid", voErrVodbUpdateOptypeByOpid},
    {"vodb_delete_by_opid", voErrVodbDeleteByOpid},
    {"vodb_create", voErrVodbCreate},
    {"vodb_create2", voErrVodbCreate},
    {"volclone", voErrDbladeVolClone},
    {"volgetattr", voErrDbladeVolGetAttr},
    {"volsetattr", voErrDbladeVolSetAttr},
    {"volcreate", voErrDbladeVolCreate},
    {"voldelete", voErrDbladeVolDelete},
    {"volswapvolid", voErrDbladeVolSwapVolId},
    {"incrcopymirror", voErrDbladeIncrCopyMirror},
    {"incrcopycancel", voErrDbladeIncrCopyCancel},
    {"incrcopymove", voErrDbladeIncrCopyMove},
    {"incrcopyprogress", voErrDbladeIncrCopyProgress},
    {"incrcopyconclude", voErrDbladeIncrCopyConclude},
    {"admin_2_getnode", voErrGetHostByDid},
    {"admin_2_listallips", voErrGetHostByDid},
    {"lp_list_all", voErrLpListAll},
};

// The program a procedure belongs to, as "fault refuse" names it.
std::string programOf(const std::string& proc) {
    if (proc.rfind("vldb_", 0) == 0 || proc.rfind("vodb_", 0) == 0 || proc == "new_vfsid")
        return "vldb";
    if (proc.rfind("vol", 0) == 0) return "dblade_vol";
    if (proc.rfind("incrcopy", 0) == 0 || proc.rfind("tcpvfs", 0) == 0) return "dblade_incrcopy";
    if (proc.rfind("lp_", 0) == 0) return "dblade_lpm";
    if (proc.rfind("admin_", 0) == 0) return "coord";
    return "dldb";
}

// The statuses each procedure documents, tried one by one in the fault
// matrix, and which of them vod rides out (the D-blade asked to be called
// again). Statuses that say the work was already done (a volume or record
// already gone: voldelete 21 and 280, vldb_delete_record 105) are left out:
// answered instead of doing the work they would be lies, and the crash
// matrix meets them truthfully, when recovery deletes again.
struct Documented {
    const char* proc;
    std::vector<unsigned> statuses;
    std::set<unsigned> riddenOut;
};

const Documented kDocumented[] = {
    {"vldb_record_lookup", {119, 111}, {}},
    {"new_vfsid", {121}, {}},
    {"vldb_create_record", {103, 101, 110}, {}},
    {"vldb_delete_record", {133}, {}},
    {"vldb_lp_convert", {110}, {}},
    {"vldb_record_modify", {119}, {}},
    {"vldb_modify_dataver", {119}, {}},
    {"vldb_vfs_move", {109}, {}},
    {"vodb_create2", {144}, {}},
    {"vodb_create", {145, 146}, {}},
    {"vodb_delete_by_opid", {145}, {}},
    {"vodb_update_optype_by_opid", {145}, {}},
    {"vodb_lookup", {135}, {}},
    {"vodb_opid_lookup", {135}, {}},
    {"volcreate", {5, 17, 33}, {33}},
    {"volclone", {5, 33}, {33}},
    {"volgetattr", {16, 33}, {33}},
    {"volsetattr", {5, 33}, {33}},
    {"volswapvolid", {5, 33}, {33}},
    {"voldelete", {5, 33, 297}, {33, 297}},
    {"incrcopymirror", {VIC_EINVAL, VIC_ELPNOTFOUND, VIC_EVOLBUSY}, {}},
    {"incrcopymove", {VIC_EINVAL, VIC_EVOLBUSY}, {}},
    {"incrcopyprogress", {VIC_EOPNOTFOUND}, {}},
    {"incrcopyconclude", {VIC_EOPNOTFOUND}, {}},
    {"tcpvfsdump", {14, 29}, {}},
    {"tcpvfsrestore", {14, 30}, {}},
    {"lp_get_attrs_by_uuid", {2}, {}},
    {"lp_list_all", {2}, {}},
    {"admin_2_getnode", {2}, {}},
    {"admin_2_listallips", {2}, {}},
    {"iterate", {2}, {}},
    {"getlidbylpname", {2}, {}},
};

// Failures a step reports in a code of its own rather than in the
// procedure's voErrFunc: the space check of a move answers 5030 whatever went
// wrong in asking the target's LP service.
struct AlsoTold {
    const char* proc;
    unsigned funcrc;
};
const AlsoTold kAlsoTold[] = {
    {"lp_get_attrs_by_uuid", VOD_ERR_LP_UNREACHABLE},
};

const Documented* documented(const std::string& proc) {
    for (const Documented& d : kDocumented)
        if (proc == d.proc) return &d;
    return nullptr;
}

std::string env(const char* name) {
    const char* v = std::getenv(name);
    return v != nullptr ? v : "";
}

class MatrixTest : public ClusterTest {
  public:
    // For the operation kinds' own steps.
    using ClusterTest::checksum;
    using ClusterTest::lpBytes;
    using ClusterTest::makeVolume;
    using ClusterTest::setRo;
    using ClusterTest::sim;
    using ClusterTest::vldbRecord;
    using ClusterTest::vo;
    using ClusterTest::volumeKeys;
    using NodeTest::node;

    // ---- what every operation kind shares
    uint32_t src = 0;
    std::string srcSum;
    json srcRecord;
    uint64_t srcDv = 0;
    std::set<VolumeKey> before;  // the volumes once set up
    std::string dumpFile;        // dump and restore
    uint32_t target = 0;         // restore
    std::string targetSum;
    std::map<std::string, std::string> mirrorSums;  // refresh: each mirror as it was
    std::vector<std::string> mirrorLps;
    bool destinationsApart = false;  // mirror destinations may end apart

    // The client, run aside: vod may block it at a held call, or die under it.
    std::thread client;
    std::atomic<bool> clientDone{false};
    VoOut clientOut{};  // the start's answer, when it came
    bool clientAnswered = false;
    uint32_t clientVid = 0;  // a copy's sink, as the start answered it
    RunResult tool;          // voctl, for dump and restore

    ~MatrixTest() override {
        if (client.joinable()) client.join();
    }

    uint64_t dvOf(uint32_t vid, const std::string& lp) {
        for (const DbladeVolume& v : volumes())
            if (v.lp == lp && v.vfsid == vid) return v.dv;
        return 0;
    }

    void makeSource(unsigned files = 8) {
        src = makeVolume("msrc", "lp1a", files, 16 * 1024);
        ASSERT_NE(src, 0u);
    }

    // Called once the kind's own set-up is done.
    void noteBefore() {
        srcSum = checksum(src, "lp1a");
        srcRecord = vldbRecord(src, "lp1a");
        srcDv = dvOf(src, "lp1a");
        before = volumeKeys();
    }

    // Runs call on a thread of its own with a client of its own.
    template <typename In>
    void startRpc(clnt_stat (*stub)(In*, VoOut*, CLIENT*), In in) {
        client = std::thread([this, stub, in]() mutable {
            timeval tv{120, 0};
            CLIENT* c = clnt_create_timed("127.0.0.1", VOPROG, VOVERS, "tcp", &tv);
            if (c != nullptr) {
                clnt_control(c, CLSET_TIMEOUT, reinterpret_cast<char*>(&tv));
                VoOut out{};
                if (stub(&in, &out, c) == RPC_SUCCESS) {
                    clientOut = out;
                    clientAnswered = true;
                }
                clnt_destroy(c);
            }
            clientDone = true;
        });
    }
    void startVoVid(clnt_stat (*stub)(VoLidVnameIn*, VoVidOut*, CLIENT*), VoLidVnameIn in,
                    std::string name) {
        client = std::thread([this, stub, in, name]() mutable {
            in.vnameSink = const_cast<char*>(name.c_str());
            timeval tv{120, 0};
            CLIENT* c = clnt_create_timed("127.0.0.1", VOPROG, VOVERS, "tcp", &tv);
            if (c != nullptr) {
                clnt_control(c, CLSET_TIMEOUT, reinterpret_cast<char*>(&tv));
                VoVidOut out{};
                if (stub(&in, &out, c) == RPC_SUCCESS) {
                    clientOut = {out.rc, out.func, out.funcrc};
                    clientVid = out.vid;
                    clientAnswered = true;
                }
                clnt_destroy(c);
            }
            clientDone = true;
        });
    }
    void startTool(std::vector<std::string> args) {
        client = std::thread([this, args] {
            tool = runProgram(voctlBinary(), args, 240);
            clientDone = true;
        });
    }
    void joinClient(double timeoutSec) {
        pollUntil([&] { return clientDone.load(); }, timeoutSec, 0.1);
        if (client.joinable() && clientDone) client.join();
    }

    // ---- the operation run to its end, the log, the settled cluster

    std::vector<Call> callLog() {
        std::vector<Call> calls;
        std::map<std::string, unsigned> seen;
        std::istringstream in(sim({"calls", "--log"}));
        std::string line;
        while (std::getline(in, line)) {
            std::istringstream f(line);
            uint64_t seq;
            Call c;
            if (!(f >> seq >> c.proc >> c.dblade)) continue;
            c.nth = ++seen[c.proc];
            calls.push_back(c);
        }
        return calls;
    }

    // Polls until the VODB is empty and the log has been quiet for a second.
    bool waitSettled(double timeoutSec) {
        size_t last = SIZE_MAX;
        int quiet = 0;
        return pollUntil(
            [&] {
                if (!vodbRecords().empty()) {
                    quiet = 0;
                    return false;
                }
                size_t n = callLog().size();
                quiet = n == last ? quiet + 1 : 0;
                last = n;
                return quiet >= 3;
            },
            timeoutSec, 0.4);
    }

    // The invariants that hold whatever the outcome, as text; empty when all hold.
    std::string invariantBreaches() {
        std::ostringstream o;
        if (!vodbRecords().empty()) o << "VODB records left:\n" << sim({"vodb"});
        std::set<VolumeKey> onDblades;
        for (const DbladeVolume& v : volumes()) {
            if (v.hidden) o << "hidden volume " << v.vfsid << " on " << v.lp << "\n";
            onDblades.insert({v.lp, v.vfsid});
        }
        std::set<VolumeKey> inVldb;
        for (const json& r : vldb()) {
            const VolumeKey k{r["lp"].get<std::string>(), r["vfsid"].get<uint32_t>()};
            inVldb.insert(k);
            // A member that joined a mirror group and was never filled has its
            // record alone, at data version 0.
            const bool unfilledMember =
                (k.second & kMirrorBit) != 0 && r["dataVer"].get<uint64_t>() == 0;
            if (!onDblades.count(k) && !unfilledMember)
                o << "VLDB record " << k.second << " on " << k.first << " has no volume\n";
        }
        for (const VolumeKey& k : onDblades)
            if (!inVldb.count(k))
                o << "volume " << k.second << " on " << k.first << " has no VLDB record\n";
        return o.str();
    }

    std::string stateText() {
        return "volumes:\n" + sim({"vol-list"}) + "VLDB:\n" + sim({"vldb"}) + "VODB:\n" +
               sim({"vodb"});
    }

    // The source as it was: same volume, contents and record.
    bool sourceIntact(std::string* why) {
        if (checksum(src, "lp1a") != srcSum) {
            *why += "the source's contents changed; ";
            return false;
        }
        if (vldbRecord(src, "lp1a") != srcRecord) {
            *why += "the source's VLDB record changed; ";
            return false;
        }
        return true;
    }

    // Volumes now beyond those set up, and whether any set up went missing.
    std::set<VolumeKey> added(bool* lost) {
        std::set<VolumeKey> now = volumeKeys(), extra;
        *lost = false;
        for (const VolumeKey& k : before)
            if (!now.count(k)) *lost = true;
        for (const VolumeKey& k : now)
            if (!before.count(k)) extra.insert(k);
        return extra;
    }
};

// ---- the operation kinds

VoLidVnameIn copyArgs(MatrixTest& t, const char* sinkLp) {
    VoLidVnameIn in{};
    in.vidSrc = t.src;
    t.lpBytes("lp1a", in.lidSrc);
    t.lpBytes(sinkLp, in.lidSink);
    return in;
}

void setupCopy(MatrixTest& t, bool readOnly) {
    t.makeSource();
    if (readOnly) expectTriple(t.setRo(t.src, "lp1a"), 0, 0, 0, "set-ro");
    t.noteBefore();
}

// Forward: one new volume on lp2a named mcopy with the source's contents.
Outcome judgeCopy(MatrixTest& t, std::string* why) {
    bool lost = false;
    std::set<VolumeKey> extra = t.added(&lost);
    if (!t.sourceIntact(why) || lost) return Outcome::Neither;
    if (extra.empty()) return Outcome::Back;
    if (extra.size() == 1 && extra.begin()->first == "lp2a") {
        uint32_t sink = extra.begin()->second;
        json rec = t.vldbRecord(sink, "lp2a");
        if (!rec.is_null() && rec["name"] == "mcopy" && t.checksum(sink, "lp2a") == t.srcSum)
            return Outcome::Forward;
        *why += "the sink is not the whole copy; ";
    } else {
        *why += "volumes left beyond the copy; ";
    }
    return Outcome::Neither;
}

// Forward: the source and its record are gone.
Outcome judgeDelete(MatrixTest& t, std::string* why) {
    bool lost = false;
    std::set<VolumeKey> extra = t.added(&lost);
    if (!extra.empty()) {
        *why += "volumes appeared; ";
        return Outcome::Neither;
    }
    std::set<VolumeKey> now = t.volumeKeys();
    if (!now.count({"lp1a", t.src}))
        return t.vldbRecord(t.src, "lp1a").is_null() ? Outcome::Forward : Outcome::Neither;
    if (now != t.before) return Outcome::Neither;
    return t.sourceIntact(why) ? Outcome::Back : Outcome::Neither;
}

// Forward: the volume under its own id on dst, whole, the VLDB pointing there,
// nothing left on lp1a.
Outcome judgeMove(MatrixTest& t, const std::string& dst, std::string* why) {
    std::set<VolumeKey> now = t.volumeKeys();
    std::set<VolumeKey> others = t.before;
    others.erase({"lp1a", t.src});
    std::set<VolumeKey> fwd = others;
    fwd.insert({dst, t.src});
    if (now == t.before) return t.sourceIntact(why) ? Outcome::Back : Outcome::Neither;
    if (now == fwd) {
        json rec = t.vldbRecord(t.src, dst);
        if (!rec.is_null() && t.checksum(t.src, dst) == t.srcSum &&
            rec["dataVer"].get<uint64_t>() == t.srcDv && t.vldbRecord(t.src, "lp1a").is_null())
            return Outcome::Forward;
        *why += "the moved volume is not whole or its record is wrong; ";
        return Outcome::Neither;
    }
    *why += "the volumes are neither the source alone nor the moved volume alone; ";
    return Outcome::Neither;
}

void addMirrorDestination(MatrixTest& t, const std::string& lp) {
    t.sim({"vldb-add", std::to_string(t.src | kMirrorBit), lp, "m.mir@" + lp, "type", "ro"});
    t.mirrorLps.push_back(lp);
}

void startMirror(MatrixTest& t) {
    VoIn in{};
    in.vidSrc = t.src;
    t.lpBytes("lp1a", in.lidSrc);
    t.startRpc(vomirror_1, in);
}

// Forward: every destination holds the source's contents and version under
// the mirror id; back: each holds what it held before (nothing for a first
// mirror, its old contents for a refresh).
Outcome judgeMirror(MatrixTest& t, std::string* why) {
    const uint32_t m = t.src | kMirrorBit;
    bool lost = false;
    std::set<VolumeKey> extra = t.added(&lost);
    if (!t.sourceIntact(why)) return Outcome::Neither;
    int fwd = 0, back = 0;
    for (const std::string& lp : t.mirrorLps) {
        json rec = t.vldbRecord(m, lp);
        const uint64_t recDv = rec.is_null() ? 0 : rec["dataVer"].get<uint64_t>();
        const bool has = t.volumeKeys().count({lp, m}) > 0;
        if (has && t.checksum(m, lp) == t.srcSum && recDv == t.srcDv)
            ++fwd;
        else if (t.mirrorSums.count(lp) ? has && t.checksum(m, lp) == t.mirrorSums[lp]
                                        : !has && recDv == 0)
            ++back;
        else
            *why += "the mirror on " + lp + " is neither old nor new; ";
    }
    // A first mirror adds one volume per destination; nothing else may stay.
    for (const VolumeKey& k : extra)
        if (k.second != m) {
            *why += "volume " + std::to_string(k.second) + " on " + k.first + " left; ";
            return Outcome::Neither;
        }
    if (lost && back != 0) return Outcome::Neither;
    const int n = static_cast<int>(t.mirrorLps.size());
    if (fwd == n) return Outcome::Forward;
    if (back == n) return Outcome::Back;
    // Destinations settle one by one: one that failed alone goes back while
    // the others go forward. A crash stops them all at one step.
    if (t.destinationsApart && fwd + back == n) return Outcome::Either;
    return Outcome::Neither;
}

// Forward: the dump file is whole; back: there is none.
Outcome judgeDump(MatrixTest& t, std::string* why) {
    bool lost = false;
    std::set<VolumeKey> extra = t.added(&lost);
    if (!t.sourceIntact(why) || lost || !extra.empty()) {
        *why += "a clone or another volume was left; ";
        return Outcome::Neither;
    }
    Node::Result info = t.node.voctl({"dump-info", t.dumpFile});
    if (info.status == 0) return Outcome::Forward;
    if (access(t.dumpFile.c_str(), F_OK) != 0) return Outcome::Back;
    *why += "a damaged dump file was kept; ";
    return Outcome::Neither;
}

// Forward: the target holds the dump's contents; back: its own.
Outcome judgeRestore(MatrixTest& t, std::string* why) {
    bool lost = false;
    std::set<VolumeKey> extra = t.added(&lost);
    if (!t.sourceIntact(why) || lost || !extra.empty()) {
        *why += "a volume was lost or left; ";
        return Outcome::Neither;
    }
    const std::string sum = t.checksum(t.target, "lp1b");
    if (sum == t.srcSum) return Outcome::Forward;
    if (sum == t.targetSum) return Outcome::Back;
    *why += "the target holds part of the dump; ";
    return Outcome::Neither;
}

const std::vector<OpKind>& opKinds() {
    static const std::vector<OpKind> kinds = {
        {"copy-rw",
         [](MatrixTest& t) { setupCopy(t, false); },
         [](MatrixTest& t) { t.startVoVid(vocopy_1, copyArgs(t, "lp2a"), "mcopy"); },
         judgeCopy,
         {{"incrcopymirror", 1, Outcome::Forward}},
         {"incrcopyprogress"}},
        {"copy-ro",
         [](MatrixTest& t) { setupCopy(t, true); },
         [](MatrixTest& t) { t.startVoVid(vocopy_1, copyArgs(t, "lp2a"), "mcopy"); },
         judgeCopy,
         {{"incrcopymirror", 1, Outcome::Forward}},
         {"incrcopyprogress"}},
        {"delete",
         [](MatrixTest& t) {
             t.makeSource(2);
             t.noteBefore();
         },
         [](MatrixTest& t) {
             VoIn in{};
             in.vidSrc = t.src;
             t.lpBytes("lp1a", in.lidSrc);
             t.startRpc(vodelete_1, in);
         },
         judgeDelete,
         {{"vodb_create2", 1, Outcome::Forward}},
         {}},
        {"move-remote",
         [](MatrixTest& t) {
             t.makeSource();
             t.noteBefore();
         },
         [](MatrixTest& t) {
             VoLidIn in{};
             in.vidSrc = t.src;
             t.lpBytes("lp1a", in.lidSrc);
             t.lpBytes("lp2a", in.lidSink);
             t.startRpc(vomove_1, in);
         },
         [](MatrixTest& t, std::string* why) { return judgeMove(t, "lp2a", why); },
         {{"incrcopymirror", 1, Outcome::Forward},
          {"vodb_update_optype_by_opid", 1, Outcome::Back},
          {"incrcopymove", 1, Outcome::Forward}},
         {"incrcopyprogress"}},
        {"move-local",
         [](MatrixTest& t) {
             t.makeSource();
             t.noteBefore();
         },
         [](MatrixTest& t) {
             VoLidIn in{};
             in.vidSrc = t.src;
             t.lpBytes("lp1a", in.lidSrc);
             t.lpBytes("lp1b", in.lidSink);
             t.startRpc(vomove_1, in);
         },
         [](MatrixTest& t, std::string* why) { return judgeMove(t, "lp1b", why); },
         {{"incrcopymirror", 1, Outcome::Forward},
          {"vodb_update_optype_by_opid", 1, Outcome::Back},
          {"incrcopymove", 1, Outcome::Forward}},
         {"incrcopyprogress"}},
        {"mirror-first",
         [](MatrixTest& t) {
             t.makeSource();
             addMirrorDestination(t, "lp1b");
             addMirrorDestination(t, "lp2a");
             t.noteBefore();
         },
         startMirror,
         judgeMirror,
         {{"incrcopymirror", 1, Outcome::Forward}},
         {"incrcopyprogress"}},
        {"mirror-refresh",
         [](MatrixTest& t) {
             t.makeSource();
             addMirrorDestination(t, "lp2a");
             addMirrorDestination(t, "lp1a");
             VoIn in{};
             in.vidSrc = t.src;
             t.lpBytes("lp1a", in.lidSrc);
             VoOut out{};
             ASSERT_EQ(vomirror_1(&in, &out, t.vo()), RPC_SUCCESS);
             expectTriple(out, 0, 0, 0, "first mirror");
             ASSERT_TRUE(t.waitSettled(60)) << "the first mirror did not end";
             for (const std::string& lp : t.mirrorLps)
                 t.mirrorSums[lp] = t.checksum(t.src | kMirrorBit, lp);
             t.sim({"vol-write", std::to_string(t.src), "lp1a", "changed.txt", "--text", "new"});
             t.noteBefore();
         },
         startMirror,
         judgeMirror,
         {{"incrcopymirror", 1, Outcome::Forward}},
         {"incrcopyprogress"}},
        {"dump",
         [](MatrixTest& t) {
             t.makeSource();
             t.dumpFile = t.node.dir() + "/m.dump";
             t.noteBefore();
         },
         [](MatrixTest& t) {
             t.startTool({"dump", std::to_string(t.src), t.dumpFile});
         },
         judgeDump,
         {{"tcpvfsdump", 1, Outcome::Either}},
         // voctl reads the VODB itself while it waits for vod to wind up.
         {"incrcopyprogress", "vodb_lookup"}},
        {"restore",
         [](MatrixTest& t) {
             t.makeSource();
             t.dumpFile = t.node.dir() + "/m.dump";
             Node::Result d = t.node.voctl({"dump", std::to_string(t.src), t.dumpFile});
             ASSERT_EQ(d.status, 0) << d.err;
             t.target = t.makeVolume("mtarget", "lp1b", 3, 1024);
             ASSERT_NE(t.target, 0u);
             t.targetSum = t.checksum(t.target, "lp1b");
             ASSERT_TRUE(t.waitSettled(60));
             t.noteBefore();
         },
         [](MatrixTest& t) {
             t.startTool({"restore", t.dumpFile, std::to_string(t.target), "--force"});
         },
         judgeRestore,
         {{"tcpvfsrestore", 1, Outcome::Forward}},
         {"incrcopyprogress", "vodb_lookup"}},
    };
    return kinds;
}

const OpKind* findKind(const std::string& name) {
    for (const OpKind& k : opKinds())
        if (name == k.name) return &k;
    return nullptr;
}

// The direction recovery must take once calls [0, done) of log were carried out.
Outcome allowedAfter(const OpKind& kind, const std::vector<Call>& log, size_t done) {
    Outcome o = Outcome::Back;
    for (size_t i = 0; i < done && i < log.size(); ++i)
        for (const Marker& m : kind.markers)
            if (log[i].proc == m.proc && log[i].nth == m.nth) o = m.after;
    return o;
}

bool allows(Outcome allowed, Outcome found) {
    return found != Outcome::Neither && (allowed == Outcome::Either || allowed == found);
}

std::string logText(const std::vector<Call>& log, size_t from, size_t to, size_t mark) {
    std::ostringstream o;
    for (size_t i = from; i < to && i < log.size(); ++i)
        o << (i == mark ? " >> " : "    ") << i + 1 << " " << log[i].proc << "#" << log[i].nth
          << " dblade " << log[i].dblade << "\n";
    return o.str();
}

// ---- one crash point

// Which call vod dies at: the nth call of proc, held before the peer carries it
// out or after (its reply held back); and, when secondAt > 0, the recovering
// vod dies too, at its secondAt-th changing call.
struct CrashPoint {
    std::string op;
    std::string proc;
    unsigned nth = 1;
    bool after = false;
    unsigned secondAt = 0;
};

std::string pointName(const CrashPoint& p) {
    return p.op + " " + p.proc + "#" + std::to_string(p.nth) + (p.after ? " after" : " before") +
           (p.secondAt ? " +recovery#" + std::to_string(p.secondAt) : "");
}

class CrashMatrix : public MatrixTest {
  protected:
    // The operation once through, on this node: its log, and it must roll
    // forward.
    std::vector<Call> recordRun(const OpKind& kind) {
        kind.setup(*this);
        if (HasFatalFailure()) return {};
        sim({"calls", "reset"});
        kind.start(*this);
        EXPECT_TRUE(waitSettled(kSettleSec)) << "the operation did not end:\n" << sim({"vodb"});
        joinClient(120);
        std::vector<Call> log = callLog();
        std::string why;
        EXPECT_EQ(kind.judge(*this, &why), Outcome::Forward) << why << stateText();
        EXPECT_EQ(invariantBreaches(), "");
        return log;
    }

    // Runs one point and reports it on one line for the matrix script; true
    // when consistent.
    bool runPoint(const CrashPoint& p) {
        const OpKind* kind = findKind(p.op);
        if (kind == nullptr) {
            ADD_FAILURE() << "no operation kind " << p.op;
            return false;
        }
        kind->setup(*this);
        if (HasFatalFailure()) return false;
        sim({"calls", "reset"});
        const std::string skip = std::to_string(p.nth - 1);
        fault({p.after ? "hold-reply" : "hold", p.proc, "--skip", skip});
        kind->start(*this);
        const bool reached = waitHeld(p.proc, 90);
        const std::vector<Call> log = callLog();
        killVod();
        release(p.proc, /*drop=*/true);
        sim({"fault", "clear"});
        joinClient(30);

        // What was carried out before vod died says where recovery must go.
        size_t at = log.size();
        for (size_t i = 0; i < log.size(); ++i)
            if (log[i].proc == p.proc && log[i].nth == p.nth) at = i;
        const Outcome allowed = allowedAfter(*kind, log, p.after ? at + 1 : at);

        const auto t0 = std::chrono::steady_clock::now();
        if (p.secondAt > 0) secondCrash(p.secondAt);
        restartVod();
        const bool settled = waitSettled(kSettleSec);
        const double recoverySec =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        if (p.op == "dump" || p.op == "restore") joinClient(120);

        std::string why;
        const Outcome found = kind->judge(*this, &why);
        const std::string breaches = invariantBreaches();
        const bool consistent = reached && settled && breaches.empty() && allows(allowed, found);
        std::ostringstream line;
        line << "MATRIX crash " << p.op << " " << p.proc << "#" << p.nth << " "
             << (p.after ? "after" : "before") << " second=" << p.secondAt
             << " allowed=" << nameOf(allowed) << " found=" << nameOf(found)
             << " consistent=" << (consistent ? 1 : 0) << " recovery=" << int(recoverySec) << "s";
        std::cout << line.str() << std::endl;
        if (!env("VOD_MATRIX_TRACE").empty()) std::cout << node.vodOutput();
        if (!consistent) {
            std::ostringstream d;
            d << "inconsistent at " << pointName(p) << (reached ? "" : " (never reached)")
              << (settled ? "" : " (never settled)") << "\n"
              << "calls up to the kill (>> the held one):\n"
              << logText(log, at >= 8 ? at - 8 : 0, at + 3, at) << "expected " << nameOf(allowed)
              << ", found " << nameOf(found) << " " << why << "\n"
              << breaches << stateText();
            std::cout << d.str();
            ADD_FAILURE() << d.str();
        }
        return consistent;
    }

    // Starts vod again, lets its recovery go to its nth changing call and kills
    // it there: the call never arrives.
    void secondCrash(unsigned nth) {
        for (const char* proc : kChangingProcs) fault({"hold", proc, "always"});
        restartVod();
        std::vector<std::string> procs(std::begin(kChangingProcs), std::end(kChangingProcs));
        for (unsigned i = 1; i <= nth; ++i) {
            // Nothing recorded, nothing to recover: the point had killed vod
            // before the records were written or after they were removed.
            std::string held;
            pollUntil(
                [&] {
                    held = waitAnyHeld(procs, 1);
                    return !held.empty() || vodbRecords().empty();
                },
                60, 0);
            if (held.empty()) break;  // recovery made fewer changes
            if (i < nth) {
                // Let this one go on, and only this one.
                fault({"clear", held});
                fault({"hold", held, "always"});
                continue;
            }
            break;
        }
        killVod();
        for (const char* proc : kChangingProcs) release(proc, /*drop=*/true);
        sim({"fault", "clear"});
    }
};

// Prints the operation's calls for the matrix script: "MATRIX call PROC NTH DBLADE".
TEST_F(CrashMatrix, DISABLED_Record) {
    const OpKind* kind = findKind(env("VOD_MATRIX_OP"));
    ASSERT_NE(kind, nullptr) << "VOD_MATRIX_OP names no operation kind";
    std::vector<Call> log = recordRun(*kind);
    for (const Call& c : log) {
        if (kind->noisy.count(c.proc) && c.nth > 1) continue;
        std::cout << "MATRIX call " << c.proc << " " << c.nth << " " << c.dblade
                  << (kind->noisy.count(c.proc) ? " noisy" : "") << std::endl;
    }
}

// One point named by VOD_MATRIX_OP, VOD_MATRIX_PROC, VOD_MATRIX_NTH,
// VOD_MATRIX_WHEN (before|after) and VOD_MATRIX_SECOND (0: one crash);
// VOD_MATRIX_TRACE=1 prints vod's trace after the verdict.
TEST_F(CrashMatrix, DISABLED_Point) {
    CrashPoint p{env("VOD_MATRIX_OP"), env("VOD_MATRIX_PROC"),
                 static_cast<unsigned>(std::atoi(env("VOD_MATRIX_NTH").c_str())),
                 env("VOD_MATRIX_WHEN") == "after",
                 static_cast<unsigned>(std::atoi(env("VOD_MATRIX_SECOND").c_str()))};
    ASSERT_NE(findKind(p.op), nullptr) << "VOD_MATRIX_OP names no operation kind";
    ASSERT_GT(p.nth, 0u);
    runPoint(p);
}

// ---- one fault case

// The nth call of proc fails: its answer never comes, before ("drop") or
// after ("lose-reply") the work; its program refuses the connection
// ("refuse", the next connection to it, at proc's D-blade); or it answers
// status.
struct FaultCase {
    std::string op;
    std::string proc;
    unsigned nth = 1;
    std::string kind;  // drop, lose-reply, refuse, status
    unsigned status = 0;
    unsigned dblade = 0;  // where proc's call went, for refuse
};

std::string caseName(const FaultCase& c) {
    return c.op + " " + c.proc + "#" + std::to_string(c.nth) + " " + c.kind +
           (c.kind == "status" ? " " + std::to_string(c.status) : "");
}

// An error triple as the client heard it.
struct Heard {
    int rc, func;
    unsigned funcrc;
    bool operator<(const Heard& o) const {
        return std::tie(rc, func, funcrc) < std::tie(o.rc, o.func, o.funcrc);
    }
};

class FaultMatrix : public MatrixTest {
  protected:
    // Every error triple a client of the operation can see: the start's
    // answer, then the progress reports until the operation has ended.
    std::set<Heard> heard;

    void listen(const std::string& op) {
        if (clientAnswered && clientOut.func != 0)
            heard.insert({clientOut.rc, clientOut.func, clientOut.funcrc});
        if (op.rfind("copy", 0) == 0 && clientVid != 0) {
            VoVidLidIn in{};
            in.vidSrc = src;
            lpBytes("lp1a", in.lidSrc);
            in.vidSink = clientVid;
            lpBytes("lp2a", in.lidSink);
            VoCopyPgrsOut out{};
            if (vocopypgrs_1(&in, &out, vo()) == RPC_SUCCESS && out.func != 0)
                heard.insert({out.rc, out.func, out.funcrc});
        } else if (op.rfind("move", 0) == 0) {
            VoIn in{};
            in.vidSrc = src;
            lpBytes("lp1a", in.lidSrc);
            VoMovePgrsOut out{};
            if (vomovepgrs_1(&in, &out, vo()) == RPC_SUCCESS && out.func != 0)
                heard.insert({out.rc, out.func, out.funcrc});
        } else if (op.rfind("mirror", 0) == 0) {
            VoIn in{};
            in.vidSrc = src;
            lpBytes("lp1a", in.lidSrc);
            VoMirrorPgrsOut out{};
            if (vomirrorpgrs_1(&in, &out, vo()) == RPC_SUCCESS) {
                if (out.func != 0) heard.insert({out.rc, out.func, out.funcrc});
                for (u_int i = 0; i < out.sinks.sinks_len; ++i)
                    if (out.sinks.sinks_val[i].completionCode != 0)
                        heard.insert({0, 0, out.sinks.sinks_val[i].completionCode});
            }
            xdr_free(xdrProc(xdr_VoMirrorPgrsOut), reinterpret_cast<char*>(&out));
        }
    }

    // Whether a triple names the failed procedure with the code it failed
    // with. A refused connection may be the one made for another call of the
    // program: any transport failure or client that could not be made tells it.
    bool namesTheFailure(const FaultCase& c, const Heard& h) {
        for (const AlsoTold& a : kAlsoTold)
            if (c.proc == a.proc && h.funcrc == a.funcrc) return true;
        // A mirror destination's completion code is the failed call's own
        // function code, heard here as (0, 0, code).
        if (c.kind == "refuse")
            return h.func >= 10000 || (h.func == 0 && h.funcrc >= 10000) ||
                   h.func == voErrVodClntTcpCreate || h.funcrc == VOD_ERR_NO_VLDB_CLIENT ||
                   h.funcrc == VOD_ERR_NO_DBLADE_CLIENT;
        auto f = kProcFunc.find(c.proc);
        if (f == kProcFunc.end()) return false;
        const bool rpcForm = h.func == f->second + 10000;
        const bool statusForm = h.func == f->second;
        if (c.kind == "status") return statusForm && h.funcrc == c.status;
        // A transport failure: time-out, or the connection refused; vod may
        // also fail to make the client at all.
        return rpcForm || h.func == voErrVodClntTcpCreate;
    }

    bool runCase(const FaultCase& c) {
        const OpKind* kind = findKind(c.op);
        if (kind == nullptr) {
            ADD_FAILURE() << "no operation kind " << c.op;
            return false;
        }
        killVod();
        startVod({"-d", "-w" + std::to_string(kCallCapSec)});
        destinationsApart = true;
        kind->setup(*this);
        if (HasFatalFailure()) return false;
        sim({"calls", "reset"});
        const std::string skip = std::to_string(c.nth - 1);
        if (c.kind == "refuse") {
            std::vector<std::string> args = {"refuse", programOf(c.proc)};
            if (c.dblade != 0) args.insert(args.end(), {"--dblade", std::to_string(c.dblade)});
            fault(args);
        } else if (c.kind == "status") {
            fault({"status", c.proc, std::to_string(c.status), "--skip", skip});
        } else {
            fault({c.kind, c.proc, "--skip", skip});
        }
        kind->start(*this);
        bool settled = pollUntil(
            [&] {
                if (clientDone) listen(c.op);
                return clientDone && vodbRecords().empty();
            },
            kFaultSettleSec, 1.0);
        settled = settled && waitSettled(kFaultSettleSec);
        listen(c.op);
        joinClient(120);
        const bool alive = node.vodRunning();
        // A refusal is met when its connection came; a call's fault when it was called.
        const bool met = c.kind == "refuse"
                             ? sim({"fault", "list"}).find(" refuse ") == std::string::npos
                             : callCount(c.proc) >= c.nth;
        sim({"fault", "clear"});

        std::string why;
        const Outcome found = kind->judge(*this, &why);
        const std::string breaches = invariantBreaches();
        const Documented* doc = documented(c.proc);
        const bool riddenOut =
            c.kind == "status" && doc != nullptr && doc->riddenOut.count(c.status);
        bool told = false;
        std::string heardText;
        for (const Heard& h : heard) {
            told = told || namesTheFailure(c, h);
            heardText += "(" + std::to_string(h.rc) + "," + std::to_string(h.func) + "," +
                         std::to_string(h.funcrc) + ") ";
        }
        if (c.op == "dump" || c.op == "restore") {
            // voctl names the failure in its own words; it must fail when the
            // operation did not go through.
            told = tool.status != 0;
            heardText = "voctl exit " + std::to_string(tool.status) + ": " + tool.err;
        }
        // Documented: vod lives and settles the cluster; a failure it rides out
        // ends as if nothing failed; any other either ends forward (a step that
        // recovery carried out again) or rolled back with the failure told.
        bool asDocumented = alive && settled && breaches.empty() && found != Outcome::Neither;
        if (riddenOut)
            asDocumented = asDocumented && found == Outcome::Forward;
        else if (found == Outcome::Back && c.op != "dump")
            asDocumented = asDocumented && (told || !met);
        std::cout << "MATRIX fault " << c.op << " " << c.proc << "#" << c.nth << " " << c.kind
                  << (c.kind == "status" ? ":" + std::to_string(c.status) : "")
                  << " met=" << (met ? 1 : 0) << " found=" << nameOf(found)
                  << " told=" << (told ? 1 : 0) << " documented=" << (asDocumented ? 1 : 0)
                  << std::endl;
        if (!asDocumented) {
            std::ostringstream d;
            d << "not as documented: " << caseName(c) << (alive ? "" : " (vod died)")
              << (settled ? "" : " (never settled)") << "\nfound " << nameOf(found) << " " << why
              << "\nthe client heard: " << heardText << "\n"
              << breaches << stateText() << "calls:\n"
              << logText(callLog(), 0, 60, SIZE_MAX);
            std::cout << d.str();
            ADD_FAILURE() << d.str();
        }
        return asDocumented;
    }
};

// One case named by VOD_MATRIX_OP, VOD_MATRIX_PROC, VOD_MATRIX_NTH,
// VOD_MATRIX_FAULT (drop, lose-reply, refuse or status:N) and VOD_MATRIX_DBLADE.
TEST_F(FaultMatrix, DISABLED_Case) {
    FaultCase c{env("VOD_MATRIX_OP"), env("VOD_MATRIX_PROC"),
                static_cast<unsigned>(std::atoi(env("VOD_MATRIX_NTH").c_str())),
                env("VOD_MATRIX_FAULT")};
    if (c.kind.rfind("status:", 0) == 0) {
        c.status = static_cast<unsigned>(std::strtoul(c.kind.c_str() + 7, nullptr, 10));
        c.kind = "status";
    }
    c.dblade = static_cast<unsigned>(std::atoi(env("VOD_MATRIX_DBLADE").c_str()));
    ASSERT_NE(findKind(c.op), nullptr) << "VOD_MATRIX_OP names no operation kind";
    ASSERT_GT(c.nth, 0u);
    runCase(c);
}

// Prints the statuses each procedure documents, for the matrix script:
// "MATRIX documented PROC STATUS...".
TEST(FaultMatrixTable, DISABLED_Documented) {
    for (const Documented& d : kDocumented) {
        std::cout << "MATRIX documented " << d.proc;
        for (unsigned s : d.statuses) std::cout << " " << s;
        std::cout << std::endl;
    }
}

// ---- the slice CI runs: every operation kind, a few points each

std::string testName(std::string s) {
    for (char& ch : s)
        if (!isalnum(static_cast<unsigned char>(ch))) ch = '_';
    return s;
}

class CrashMatrixSlice : public CrashMatrix, public ::testing::WithParamInterface<CrashPoint> {};

void PrintTo(const CrashPoint& p, std::ostream* os) { *os << pointName(p); }

// One point per kind, where its recovery turns, and the regression points of
// what the full matrix found.
const CrashPoint kCrashSlice[] = {
    {"copy-rw", "incrcopymirror", 1, true, 0},
    {"copy-ro", "volcreate", 1, false, 0},
    {"delete", "voldelete", 1, true, 1},
    {"move-remote", "incrcopymove", 1, true, 0},
    {"move-local", "vodb_update_optype_by_opid", 1, true, 0},
    // The op src's clone made, its VLDB record not yet.
    {"mirror-first", "vldb_create_record", 1, false, 0},
    // The local mirror swapped, its attributes and record not yet set.
    {"mirror-refresh", "volsetattr", 2, false, 0},
    {"dump", "tcpvfsdump", 1, false, 0},
    {"restore", "tcpvfsrestore", 1, true, 0},
};

TEST_P(CrashMatrixSlice, RecoveryLeavesTheClusterConsistent) { EXPECT_TRUE(runPoint(GetParam())); }

INSTANTIATE_TEST_SUITE_P(KilledAt, CrashMatrixSlice, ::testing::ValuesIn(kCrashSlice),
                         [](const ::testing::TestParamInfo<CrashPoint>& p) {
                             return testName(pointName(p.param));
                         });

class FaultMatrixSlice : public FaultMatrix, public ::testing::WithParamInterface<FaultCase> {};

void PrintTo(const FaultCase& c, std::ostream* os) { *os << caseName(c); }

// One case per kind: failures told and rolled back, a lost answer, and
// failures vod rides out (a retried status, a stream already concluded).
const FaultCase kFaultSlice[] = {
    {"copy-rw", "volcreate", 1, "status", 17, 0},
    {"copy-rw", "voldelete", 1, "status", 297, 0},
    {"copy-ro", "incrcopyconclude", 1, "status", VIC_EOPNOTFOUND, 0},
    {"delete", "vodb_create2", 1, "drop", 0, 0},
    {"move-remote", "incrcopymove", 1, "status", VIC_EVOLBUSY, 0},
    {"move-local", "vodb_update_optype_by_opid", 1, "status", 145, 0},
    {"mirror-first", "volclone", 1, "status", 5, 0},
    {"mirror-refresh", "incrcopymirror", 1, "status", VIC_EINVAL, 0},
    {"dump", "volgetattr", 1, "status", 16, 0},
    {"restore", "volsetattr", 1, "status", 5, 0},
};

TEST_P(FaultMatrixSlice, TheFailureIsToldAndTheClusterSettles) { EXPECT_TRUE(runCase(GetParam())); }

INSTANTIATE_TEST_SUITE_P(Failing, FaultMatrixSlice, ::testing::ValuesIn(kFaultSlice),
                         [](const ::testing::TestParamInfo<FaultCase>& p) {
                             return testName(caseName(p.param));
                         });

}  // namespace
}  // namespace vodtest
