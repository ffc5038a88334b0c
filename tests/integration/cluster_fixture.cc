#include "cluster_fixture.h"

#include <cstring>
#include <sstream>

#include "voctl/copy_report.h"
#include "voctl/lpid.h"

namespace vodtest {

namespace {

constexpr double kPollStepSec = 0.05;

std::string joined(const std::vector<std::string>& words) {
    std::string s;
    for (const auto& w : words) s += (s.empty() ? "" : " ") + w;
    return s;
}

std::string trimmed(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
    return s;
}

// One line of vol-list: "lp=.. vfsid=.. type=.. dv=.. hidden=.. name=REST".
DbladeVolume parseVolumeLine(const std::string& line) {
    DbladeVolume v;
    size_t namePos = line.find(" name=");
    if (namePos != std::string::npos) v.name = line.substr(namePos + 6);
    std::istringstream in(line.substr(0, namePos));
    for (std::string field; in >> field;) {
        size_t eq = field.find('=');
        if (eq == std::string::npos) continue;
        std::string k = field.substr(0, eq), val = field.substr(eq + 1);
        if (k == "lp")
            v.lp = val;
        else if (k == "vfsid")
            v.vfsid = static_cast<uint32_t>(std::stoul(val));
        else if (k == "type")
            v.type = val;
        else if (k == "dv")
            v.dv = std::stoull(val);
        else if (k == "hidden")
            v.hidden = val == "1";
    }
    return v;
}

// The names of the calls `fault list` shows held.
std::vector<std::string> heldCalls(const std::string& list) {
    std::vector<std::string> held;
    std::istringstream in(list);
    std::string name, word;
    while (in >> name >> word) {
        std::string rest;
        std::getline(in, rest);
        if (word == "held") held.push_back(name);
    }
    return held;
}

// Calls a stub whose result has no heap parts and returns it.
template <typename Res, typename Arg>
Res callFlat(CLIENT* c, clnt_stat (*stub)(Arg*, Res*, CLIENT*), Arg* arg, const char* what) {
    Res res;
    std::memset(&res, 0, sizeof res);
    if (c == nullptr) {
        ADD_FAILURE() << what << ": no client to vod";
        return res;
    }
    clnt_stat st = stub(arg, &res, c);
    EXPECT_EQ(st, RPC_SUCCESS) << what << ": " << clnt_sperrno(st);
    return res;
}

std::set<VolumeKey> keysOf(const nlohmann::json& records) {
    std::set<VolumeKey> keys;
    for (const auto& r : records)
        keys.insert({r["lp"].get<std::string>(), r["vfsid"].get<uint32_t>()});
    return keys;
}

}  // namespace

bool isStreamingWithProgress(const VoCopyPgrsOut& r) {
    return voctl::classifyCopyReport(r) == voctl::CopyPhase::Streaming && r.src.vnodesProcessed > 0;
}

bool isRollingBack(const VoCopyPgrsOut& r) { return r.rc == voErrRollBackOp; }

void ClusterTest::SetUp() {
    NodeTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_TRUE(node.startSim()) << "the simulator did not start";
    startVod();
    loadLps();
    ASSERT_GE(_lps.size(), 4u) << "the default layout has four LPs";
}

void AdminTest::TearDown() {
    if (!IsSkipped() && node.simRunning()) {
        // Faults first, so that the checks below are answered.
        node.simctl({"fault", "clear"});
        EXPECT_EQ(vodbRecords().size(), expectedVodbRecords) << "VODB: " << vodbRecords().dump();
        expectVldbAgreesWithDblades();
    }
    ClusterTest::TearDown();
}

// ---- the simulator

std::string ClusterTest::sim(const std::vector<std::string>& args) {
    Node::Result r = node.simctl(args);
    EXPECT_EQ(r.status, 0) << "vodsimctl " << joined(args) << ": " << r.err << r.out;
    return r.out;
}

void ClusterTest::fault(const std::vector<std::string>& args) {
    std::vector<std::string> all = {"fault"};
    all.insert(all.end(), args.begin(), args.end());
    sim(all);
}

nlohmann::json ClusterTest::vldb() {
    auto j = nlohmann::json::parse(sim({"vldb", "--json"}), nullptr, false);
    if (j.is_array()) return j;
    ADD_FAILURE() << "vldb --json is no array";
    return nlohmann::json::array();
}

nlohmann::json ClusterTest::vodbRecords() {
    auto j = nlohmann::json::parse(sim({"vodb", "--json"}), nullptr, false);
    if (j.is_object() && j.contains("records")) return j["records"];
    ADD_FAILURE() << "vodb --json has no records";
    return nlohmann::json::array();
}

nlohmann::json ClusterTest::vldbRecord(uint32_t vfsid, const std::string& lp) {
    for (const auto& r : vldb())
        if (r["vfsid"] == vfsid && r["lp"] == lp) return r;
    return nullptr;
}

std::vector<DbladeVolume> ClusterTest::volumes() {
    std::vector<DbladeVolume> rows;
    std::istringstream in(sim({"vol-list"}));
    for (std::string line; std::getline(in, line);)
        if (line.rfind("lp=", 0) == 0) rows.push_back(parseVolumeLine(line));
    return rows;
}

std::set<VolumeKey> ClusterTest::volumeKeys() {
    std::set<VolumeKey> keys;
    for (const DbladeVolume& v : volumes()) keys.insert({v.lp, v.vfsid});
    return keys;
}

std::set<VolumeKey> ClusterTest::vldbKeys() { return keysOf(vldb()); }

std::string ClusterTest::checksum(uint32_t vfsid, const std::string& lp) {
    return trimmed(sim({"vol-checksum", std::to_string(vfsid), lp}));
}

uint64_t ClusterTest::callCount(const std::string& proc, unsigned did) {
    std::vector<std::string> args{"calls", proc};
    if (did != 0) args.insert(args.end(), {"--dblade", std::to_string(did)});
    return std::strtoull(trimmed(sim(args)).c_str(), nullptr, 10);
}

uint64_t ClusterTest::addVodbRecord(uint64_t opid, const std::string& type, uint32_t vfsid,
                                    const std::string& lp, const std::string& role) {
    std::string out =
        sim({"vodb-add", std::to_string(opid), type, std::to_string(vfsid), lp, role});
    return std::strtoull(out.c_str(), nullptr, 10);
}

void ClusterTest::speed(unsigned kibps) { sim({"stream-speed", std::to_string(kibps)}); }

void ClusterTest::loadLps() {
    _lps.clear();
    auto lps = nlohmann::json::parse(sim({"lps", "--json"}), nullptr, false);
    if (!lps.is_array()) return;
    for (const auto& lp : lps)
        _lps.push_back({lp["name"].get<std::string>(), lp["lpid"].get<std::string>()});
}

std::string ClusterTest::lpHex(const std::string& lp) {
    // A test may add LPs after set-up: look once more before giving up.
    for (int pass = 0; pass < 2; ++pass) {
        for (const auto& [name, hex] : _lps)
            if (name == lp) return hex;
        if (pass == 0) loadLps();
    }
    return lp;
}

void ClusterTest::lpBytes(const std::string& lp, u_char out[16]) {
    auto id = voctl::parseLpId(lpHex(lp));
    ASSERT_TRUE(id.has_value()) << "no LP " << lp;
    std::copy(id->begin(), id->end(), out);
}

// ---- fault holds

void ClusterTest::hold(const std::string& proc, unsigned count) {
    fault({"hold", proc, std::to_string(count)});
}

bool ClusterTest::waitHeld(const std::string& proc, unsigned timeoutSec) {
    return node.simctl({"fault", "wait-held", proc, std::to_string(timeoutSec)}).status == 0;
}

std::string ClusterTest::waitAnyHeld(const std::vector<std::string>& procs, double timeoutSec) {
    std::string found;
    pollUntil(
        [&] {
            for (const auto& name : heldCalls(node.simctl({"fault", "list"}).out))
                for (const auto& p : procs)
                    if (p == name) found = name;
            return !found.empty();
        },
        timeoutSec, kPollStepSec);
    return found;
}

bool ClusterTest::release(const std::string& proc, bool drop) {
    std::vector<std::string> args = {"fault", "release", proc, "all"};
    if (drop) args.push_back("drop");
    return node.simctl(args).status == 0;
}

bool ClusterTest::advanceTo(const std::string& proc) {
    hold(proc);
    for (const auto& name : heldCalls(node.simctl({"fault", "list"}).out))
        if (name != proc) release(name);
    return waitHeld(proc);
}

// ---- vod's life

void ClusterTest::startVod(const std::vector<std::string>& args) {
    _vo = nullptr;
    ASSERT_TRUE(node.startVod(args));
}

void ClusterTest::restartVod() {
    _vo = nullptr;
    ASSERT_TRUE(node.restartVod()) << "vod did not come back";
}

void ClusterTest::killVod() {
    _vo = nullptr;
    node.killVod(SIGKILL);
}

CLIENT* ClusterTest::vo() {
    // Administration calls may wait out the D-blade's retries: 10 s each.
    if (_vo == nullptr) _vo = node.client(90);
    return _vo;
}

// ---- administration calls

CreateVfsOut ClusterTest::create(const std::string& name, const std::string& lp,
                                 const std::string& vserver, u_int flags) {
    CreateVfsIn in;
    in.vfsName = const_cast<char*>(name.c_str());
    in.storagePoolName = const_cast<char*>(lp.c_str());
    in.virtualServerName = const_cast<char*>(vserver.c_str());
    in.flags = flags;
    return callFlat(vo(), createvfs_1, &in, "createvfs");
}

uint32_t ClusterTest::makeVolume(const std::string& name, const std::string& lp, unsigned files,
                                 unsigned fileSize) {
    CreateVfsOut out = create(name, lp);
    EXPECT_EQ(out.code, 0u) << "createvfs " << name << " on " << lp;
    if (out.code != 0) return 0;
    EXPECT_NE(out.vfsId, 0u);
    if (files > 0)
        sim({"vol-fill", std::to_string(out.vfsId), lp, "--files", std::to_string(files), "--size",
             std::to_string(fileSize)});
    return out.vfsId;
}

CloneResult ClusterTest::clone(uint32_t vfsid) {
    CloneResult r;
    CloneVfsOut out;
    std::memset(&out, 0, sizeof out);
    u_int arg = vfsid;
    clnt_stat st = clonevfs_1(&arg, &out, vo());
    EXPECT_EQ(st, RPC_SUCCESS) << "clonevfs " << clnt_sperrno(st);
    r.code = out.code;
    r.vfsid = out.cloneVfsId;
    if (out.cloneVfsName != nullptr) r.name = out.cloneVfsName;
    xdr_free(reinterpret_cast<xdrproc_t>(xdr_CloneVfsOut), reinterpret_cast<char*>(&out));
    return r;
}

FindResult ClusterTest::find(const std::string& name) {
    FindResult r;
    FindVfsByNameOut out;
    std::memset(&out, 0, sizeof out);
    vo_string arg = const_cast<char*>(name.c_str());
    clnt_stat st = findvfsbyname_1(&arg, &out, vo());
    EXPECT_EQ(st, RPC_SUCCESS) << "findvfsbyname " << clnt_sperrno(st);
    r.code = out.code;
    r.vfsid = out.vfsId;
    r.modifiable = out.isVfsModifiable;
    r.addrs.assign(out.ipAddrs.ipAddrs_val, out.ipAddrs.ipAddrs_val + out.ipAddrs.ipAddrs_len);
    xdr_free(reinterpret_cast<xdrproc_t>(xdr_FindVfsByNameOut), reinterpret_cast<char*>(&out));
    return r;
}

u_int ClusterTest::deleteByName(const std::string& name) {
    vo_string arg = const_cast<char*>(name.c_str());
    return callFlat(vo(), deletevfsbyname_1, &arg, "deletevfsbyname");
}

u_int ClusterTest::deleteById(uint32_t vfsid) {
    u_int arg = vfsid;
    return callFlat(vo(), deletevfsbyid_1, &arg, "deletevfsbyid");
}

VoOut ClusterTest::voInCall(clnt_stat (*stub)(VoIn*, VoOut*, CLIENT*), uint32_t vfsid,
                            const std::string& lp, const char* what) {
    VoIn in;
    in.vidSrc = vfsid;
    lpBytes(lp, in.lidSrc);
    return callFlat(vo(), stub, &in, what);
}

VoOut ClusterTest::vodelete(uint32_t vfsid, const std::string& lp) {
    return voInCall(vodelete_1, vfsid, lp, "vodelete");
}

VoOut ClusterTest::setRo(uint32_t vfsid, const std::string& lp) {
    return voInCall(vosetro_1, vfsid, lp, "vosetro");
}

VoOut ClusterTest::setRw(uint32_t vfsid, const std::string& lp) {
    return voInCall(vosetrw_1, vfsid, lp, "vosetrw");
}

// ---- copies

VoVidOut ClusterTest::startCopy(uint32_t srcVid, const std::string& srcLp,
                                const std::string& sinkLp, const std::string& name) {
    VoLidVnameIn in{};
    in.vidSrc = srcVid;
    lpBytes(srcLp, in.lidSrc);
    lpBytes(sinkLp, in.lidSink);
    in.vnameSink = const_cast<char*>(name.c_str());
    return callFlat(vo(), vocopy_1, &in, "vocopy");
}

CopyKey ClusterTest::copyOf(uint32_t srcVid, const std::string& srcLp, const std::string& sinkLp,
                            const std::string& name) {
    VoVidOut out = startCopy(srcVid, srcLp, sinkLp, name);
    EXPECT_EQ(out.rc, voErrRcSuccess)
        << "vocopy refused: func=" << out.func << " funcrc=" << out.funcrc;
    EXPECT_NE(out.vid, 0u);
    return {srcVid, srcLp, out.rc == voErrRcSuccess ? out.vid : 0, sinkLp};
}

VoVidLidIn ClusterTest::wire(const CopyKey& key) {
    VoVidLidIn in{};
    in.vidSrc = key.srcVid;
    lpBytes(key.srcLp, in.lidSrc);
    in.vidSink = key.sinkVid;
    lpBytes(key.sinkLp, in.lidSink);
    return in;
}

VoOut ClusterTest::copyControl(clnt_stat (*stub)(VoVidLidIn*, VoOut*, CLIENT*),
                               const CopyKey& key, const char* what) {
    VoVidLidIn in = wire(key);
    return callFlat(vo(), stub, &in, what);
}

VoCopyPgrsOut ClusterTest::progress(const CopyKey& key) {
    VoVidLidIn in = wire(key);
    return callFlat(vo(), vocopypgrs_1, &in, "vocopypgrs");
}

VoOut ClusterTest::cancel(const CopyKey& key) {
    return copyControl(vocopycancel_1, key, "vocopycancel");
}

VoOut ClusterTest::pause(const CopyKey& key) {
    return copyControl(vocopypause_1, key, "vocopypause");
}

VoOut ClusterTest::resume(const CopyKey& key) {
    return copyControl(vocopyresume_1, key, "vocopyresume");
}

void ClusterTest::startSlowCopy(uint32_t srcVid, const std::string& srcLp,
                                const std::string& sinkLp, const std::string& name, CopyKey* key) {
    speed(128);
    *key = copyOf(srcVid, srcLp, sinkLp, name);
    ASSERT_NE(key->sinkVid, 0u);
    VoCopyPgrsOut r{};
    ASSERT_TRUE(waitForReport(*key, isStreamingWithProgress, 30, &r)) << "rc=" << r.rc;
}

bool ClusterTest::waitForReport(const CopyKey& key, bool (*pred)(const VoCopyPgrsOut&),
                                double timeoutSec, VoCopyPgrsOut* last, std::vector<int>* rcs) {
    return pollUntil(
        [&] {
            *last = progress(key);
            if (rcs != nullptr && (rcs->empty() || rcs->back() != last->rc))
                rcs->push_back(last->rc);
            return pred(*last);
        },
        timeoutSec, kPollStepSec);
}

VoCopyPgrsOut ClusterTest::waitForEnd(const CopyKey& key, double timeoutSec,
                                      std::vector<int>* rcs) {
    VoCopyPgrsOut last{};
    bool ended = waitForReport(
        key,
        [](const VoCopyPgrsOut& r) {
            voctl::CopyPhase p = voctl::classifyCopyReport(r);
            return p == voctl::CopyPhase::Final || p == voctl::CopyPhase::Gone;
        },
        timeoutSec, &last, rcs);
    EXPECT_TRUE(ended) << "no final report within " << timeoutSec << " s; last rc=" << last.rc;
    return last;
}

// ---- the state of the cluster

bool ClusterTest::waitVodbCount(size_t n, double timeoutSec) {
    return pollUntil([&] { return vodbRecords().size() == n; }, timeoutSec, 0.2);
}

void ClusterTest::expectVldbAgreesWithDblades() {
    std::set<VolumeKey> onDblades;
    for (const DbladeVolume& v : volumes()) {
        EXPECT_FALSE(v.hidden) << "a hidden (half-written) volume is left: " << v.vfsid << " on "
                               << v.lp;
        onDblades.insert({v.lp, v.vfsid});
    }
    std::set<VolumeKey> inVldb = vldbKeys();
    for (const VolumeKey& k : inVldb)
        EXPECT_TRUE(onDblades.count(k))
            << "VLDB record " << k.second << " on " << k.first << " has no volume";
    for (const VolumeKey& k : onDblades)
        EXPECT_TRUE(inVldb.count(k))
            << "volume " << k.second << " on " << k.first << " has no VLDB record";
}

void ClusterTest::expectSettled(const std::set<VolumeKey>& expected) {
    EXPECT_TRUE(vodbRecords().empty()) << "VODB records left:\n" << sim({"vodb"});
    EXPECT_EQ(volumeKeys(), expected) << "D-blade volumes:\n" << sim({"vol-list"});
    expectVldbAgreesWithDblades();
}

}  // namespace vodtest
