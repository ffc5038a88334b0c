#include "copy_fixture.h"

#include <chrono>
#include <cstring>
#include <sstream>
#include <thread>

#include "util/xdrproc.h"
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

// One "key=value ... name=REST" line of vol-list.
DbladeVolume parseVolumeLine(const std::string& line) {
    DbladeVolume v;
    size_t namePos = line.find(" name=");
    std::string head = line.substr(0, namePos);
    if (namePos != std::string::npos) v.name = line.substr(namePos + 6);
    std::istringstream in(head);
    std::string field;
    while (in >> field) {
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

template <typename Res, typename Arg>
Res callVo(CLIENT* c, clnt_stat (*stub)(Arg*, Res*, CLIENT*), Arg* arg, xdrproc_t filter,
           const char* what) {
    Res res;
    std::memset(&res, 0, sizeof res);
    if (c == nullptr) {
        ADD_FAILURE() << what << ": no client to vod";
        return res;
    }
    clnt_stat st = stub(arg, &res, c);
    EXPECT_EQ(st, RPC_SUCCESS) << what << ": " << clnt_sperrno(st);
    Res copy = res;
    // Only records without heap parts come through here; free anyway for form.
    xdr_free(filter, reinterpret_cast<char*>(&res));
    return copy;
}

}  // namespace

std::string lpHexOf(const u_char lp[16]) {
    voctl::LpId id;
    std::copy(lp, lp + 16, id.begin());
    return voctl::formatLpId(id).substr(2);
}

bool isStreamingWithProgress(const VoCopyPgrsOut& r) {
    return voctl::classifyCopyReport(r) == voctl::CopyPhase::Streaming && r.src.vnodesProcessed > 0;
}

bool isRollingBack(const VoCopyPgrsOut& r) { return r.rc == voErrRollBackOp; }

void CopyNodeTest::SetUp() {
    NodeTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_TRUE(node.startSim()) << "the simulator did not start";
    ASSERT_TRUE(node.startVod({"-d"}));
    nlohmann::json lps = nlohmann::json::parse(sim({"lps", "--json"}));
    for (const auto& lp : lps)
        _lps.push_back({lp["name"].get<std::string>(), lp["lpid"].get<std::string>()});
    ASSERT_GE(_lps.size(), 4u) << "the default layout has four LPs";
}

std::string CopyNodeTest::sim(const std::vector<std::string>& args) {
    Node::Result r = node.simctl(args);
    EXPECT_EQ(r.status, 0) << "vodsimctl " << joined(args) << ": " << r.err;
    return r.out;
}

nlohmann::json CopyNodeTest::vldb() { return nlohmann::json::parse(sim({"vldb", "--json"})); }

nlohmann::json CopyNodeTest::vodbRecords() {
    return nlohmann::json::parse(sim({"vodb", "--json"}))["records"];
}

std::vector<DbladeVolume> CopyNodeTest::volumes() {
    std::vector<DbladeVolume> out;
    std::istringstream in(sim({"vol-list"}));
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("lp=", 0) == 0) out.push_back(parseVolumeLine(line));
    return out;
}

std::string CopyNodeTest::checksum(uint32_t vfsid, const std::string& lp) {
    return trimmed(sim({"vol-checksum", std::to_string(vfsid), lp}));
}

uint64_t CopyNodeTest::callCount(const std::string& proc) {
    return std::stoull(trimmed(sim({"calls", proc})));
}

nlohmann::json CopyNodeTest::vldbRecord(uint32_t vfsid, const std::string& lp) {
    for (const auto& r : vldb())
        if (r["vfsid"] == vfsid && r["lp"] == lp) return r;
    return nullptr;
}

void CopyNodeTest::hold(const std::string& proc, unsigned count) {
    sim({"fault", "hold", proc, std::to_string(count)});
}

bool CopyNodeTest::waitHeld(const std::string& proc, unsigned timeoutSec) {
    return node.simctl({"fault", "wait-held", proc, std::to_string(timeoutSec)}).status == 0;
}

std::string CopyNodeTest::waitAnyHeld(const std::vector<std::string>& procs, double timeoutSec) {
    std::string found;
    pollUntil(
        [&] {
            std::istringstream in(node.simctl({"fault", "list"}).out);
            std::string name, word;
            while (in >> name >> word) {
                std::string rest;
                std::getline(in, rest);
                if (word != "held") continue;
                for (const auto& p : procs)
                    if (p == name) found = name;
            }
            return !found.empty();
        },
        timeoutSec, kPollStepSec);
    return found;
}

void CopyNodeTest::release(const std::string& proc, bool drop) {
    std::vector<std::string> args = {"fault", "release", proc, "all"};
    if (drop) args.push_back("drop");
    node.simctl(args);  // "no call is held" is no failure here
}

bool CopyNodeTest::advanceTo(const std::string& proc) {
    hold(proc);
    std::string list = node.simctl({"fault", "list"}).out;
    std::istringstream in(list);
    std::string name, word;
    while (in >> name >> word) {
        std::string rest;
        std::getline(in, rest);
        if (word == "held" && name != proc) release(name);
    }
    return waitHeld(proc);
}

void CopyNodeTest::speed(unsigned kibps) { sim({"stream-speed", std::to_string(kibps)}); }

uint32_t CopyNodeTest::makeVolume(const std::string& name, const std::string& lp, unsigned files,
                                  unsigned fileSize) {
    CreateVfsIn in{};
    std::string vserver = "vs1";
    in.vfsName = const_cast<char*>(name.c_str());
    in.storagePoolName = const_cast<char*>(lp.c_str());
    in.virtualServerName = const_cast<char*>(vserver.c_str());
    CreateVfsOut out = callVo(vo(), createvfs_1, &in, xdrProc(xdr_CreateVfsOut), "createvfs");
    EXPECT_EQ(out.code, 0u) << "createvfs " << name << " on " << lp;
    if (out.code == 0 && files > 0)
        sim({"vol-fill", std::to_string(out.vfsId), lp, "--files", std::to_string(files), "--size",
             std::to_string(fileSize)});
    return out.code == 0 ? out.vfsId : 0;
}

void CopyNodeTest::setReadOnly(uint32_t vfsid, const std::string& lp) {
    VoIn in{};
    in.vidSrc = vfsid;
    lpBytes(lp, in.lidSrc);
    VoOut out = callVo(vo(), vosetro_1, &in, xdrProc(xdr_VoOut), "vosetro");
    EXPECT_EQ(out.rc, voErrRcSuccess) << "vosetro func=" << out.func << " funcrc=" << out.funcrc;
}

CLIENT* CopyNodeTest::vo() {
    if (_vo == nullptr) _vo = node.client(30);
    return _vo;
}

VoVidOut CopyNodeTest::startCopy(uint32_t srcVid, const std::string& srcLp,
                                 const std::string& sinkLp, const std::string& name) {
    VoLidVnameIn in{};
    in.vidSrc = srcVid;
    lpBytes(srcLp, in.lidSrc);
    lpBytes(sinkLp, in.lidSink);
    in.vnameSink = const_cast<char*>(name.c_str());
    return callVo(vo(), vocopy_1, &in, xdrProc(xdr_VoVidOut), "vocopy");
}

CopyKey CopyNodeTest::copyOf(uint32_t srcVid, const std::string& srcLp, const std::string& sinkLp,
                             const std::string& name) {
    VoVidOut out = startCopy(srcVid, srcLp, sinkLp, name);
    EXPECT_EQ(out.rc, voErrRcSuccess)
        << "vocopy refused: func=" << out.func << " funcrc=" << out.funcrc;
    EXPECT_NE(out.vid, 0u);
    return {srcVid, srcLp, out.rc == voErrRcSuccess ? out.vid : 0, sinkLp};
}

VoVidLidIn CopyNodeTest::wire(const CopyKey& key) {
    VoVidLidIn in{};
    in.vidSrc = key.srcVid;
    lpBytes(key.srcLp, in.lidSrc);
    in.vidSink = key.sinkVid;
    lpBytes(key.sinkLp, in.lidSink);
    return in;
}

VoCopyPgrsOut CopyNodeTest::progress(const CopyKey& key) {
    VoVidLidIn in = wire(key);
    return callVo(vo(), vocopypgrs_1, &in, xdrProc(xdr_VoCopyPgrsOut), "vocopypgrs");
}

VoOut CopyNodeTest::control(clnt_stat (*stub)(VoVidLidIn*, VoOut*, CLIENT*), const CopyKey& key,
                            const char* what) {
    VoVidLidIn in = wire(key);
    return callVo(vo(), stub, &in, xdrProc(xdr_VoOut), what);
}

VoOut CopyNodeTest::cancel(const CopyKey& key) {
    return control(vocopycancel_1, key, "vocopycancel");
}
VoOut CopyNodeTest::pause(const CopyKey& key) { return control(vocopypause_1, key, "vocopypause"); }
VoOut CopyNodeTest::resume(const CopyKey& key) {
    return control(vocopyresume_1, key, "vocopyresume");
}

bool CopyNodeTest::waitForReport(const CopyKey& key, bool (*pred)(const VoCopyPgrsOut&),
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

VoCopyPgrsOut CopyNodeTest::waitForEnd(const CopyKey& key, double timeoutSec,
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

void CopyNodeTest::restartVod() {
    _vo = nullptr;
    ASSERT_TRUE(node.restartVod()) << "vod did not come back";
}

void CopyNodeTest::killVod() {
    _vo = nullptr;
    node.killVod(SIGKILL);
}

bool CopyNodeTest::waitVodbEmpty(double timeoutSec) {
    return pollUntil([&] { return vodbRecords().empty(); }, timeoutSec, 0.2);
}

std::set<VolumeId> CopyNodeTest::volumeIds() {
    std::set<VolumeId> ids;
    for (const auto& v : volumes()) ids.insert({v.lp, v.vfsid});
    return ids;
}

void CopyNodeTest::expectSettled(const std::set<VolumeId>& expected) {
    EXPECT_TRUE(vodbRecords().empty()) << "VODB records left:\n" << sim({"vodb"});
    std::set<VolumeId> onDblades;
    for (const auto& v : volumes()) {
        EXPECT_FALSE(v.hidden) << "a hidden (half-written) volume is left: " << v.vfsid << " on "
                               << v.lp;
        onDblades.insert({v.lp, v.vfsid});
    }
    EXPECT_EQ(onDblades, expected) << "D-blade volumes:\n" << sim({"vol-list"});
    std::set<VolumeId> inVldb;
    for (const auto& r : vldb())
        inVldb.insert({r["lp"].get<std::string>(), r["vfsid"].get<uint32_t>()});
    EXPECT_EQ(inVldb, onDblades) << "the VLDB and the D-blades disagree:\n"
                                 << sim({"vldb"}) << sim({"vol-list"});
}

void CopyNodeTest::lpBytes(const std::string& lp, u_char out[16]) {
    for (const auto& [name, hex] : _lps) {
        if (name != lp) continue;
        auto id = voctl::parseLpId(hex);
        ASSERT_TRUE(id.has_value()) << hex;
        std::copy(id->begin(), id->end(), out);
        return;
    }
    ADD_FAILURE() << "no LP named " << lp;
}

}  // namespace vodtest
