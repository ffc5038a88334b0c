#include "admin_fixture.h"

#include <cstring>
#include <sstream>

#include "voctl/lpid.h"

namespace vodtest {

namespace {

std::string joined(const std::vector<std::string>& words) {
    std::string s;
    for (const auto& w : words) s += (s.empty() ? "" : " ") + w;
    return s;
}

// One line of vol-list: "lp=.. vfsid=.. type=.. ... hidden=.. busy=.. name=REST".
SimVolumeRow parseVolumeLine(const std::string& line) {
    SimVolumeRow v;
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
        else if (k == "hidden")
            v.hidden = val == "1";
    }
    return v;
}

// Calls a stub whose result has no heap parts and returns a copy of it.
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

}  // namespace

void AdminTest::SetUp() {
    NodeTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_TRUE(node.startSim());
    startVod();
}

void AdminTest::TearDown() {
    if (!IsSkipped() && node.simRunning()) {
        // Faults first, so that the checks below are answered.
        node.simctl({"fault", "clear"});
        EXPECT_EQ(vodbRecords().size(), expectedVodbRecords) << "VODB: " << vodbRecords().dump();
        expectVldbAgreesWithDblades();
    }
    NodeTest::TearDown();
}

// ---- the simulator

std::string AdminTest::sim(const std::vector<std::string>& args) {
    Node::Result r = node.simctl(args);
    EXPECT_EQ(r.status, 0) << "vodsimctl " << joined(args) << ": " << r.err << r.out;
    return r.out;
}

nlohmann::json AdminTest::vldb() {
    auto j = nlohmann::json::parse(sim({"vldb", "--json"}), nullptr, false);
    return j.is_array() ? j : nlohmann::json::array();
}

nlohmann::json AdminTest::vodbRecords() {
    auto j = nlohmann::json::parse(sim({"vodb", "--json"}), nullptr, false);
    return j.is_object() && j.contains("records") ? j["records"] : nlohmann::json::array();
}

std::vector<SimVolumeRow> AdminTest::volumes() {
    std::vector<SimVolumeRow> rows;
    std::istringstream in(sim({"vol-list"}));
    for (std::string line; std::getline(in, line);)
        if (!line.empty()) rows.push_back(parseVolumeLine(line));
    return rows;
}

std::set<VolumeKey> AdminTest::volumeKeys() {
    std::set<VolumeKey> keys;
    for (const SimVolumeRow& v : volumes()) keys.insert({v.lp, v.vfsid});
    return keys;
}

std::set<VolumeKey> AdminTest::vldbKeys() {
    std::set<VolumeKey> keys;
    for (const auto& r : vldb())
        keys.insert({r["lp"].get<std::string>(), r["vfsid"].get<uint32_t>()});
    return keys;
}

uint64_t AdminTest::addVodbRecord(uint64_t opid, const std::string& type, uint32_t vfsid,
                                  const std::string& lp, const std::string& role) {
    std::string out =
        sim({"vodb-add", std::to_string(opid), type, std::to_string(vfsid), lp, role});
    return std::strtoull(out.c_str(), nullptr, 10);
}

void AdminTest::fault(const std::vector<std::string>& args) {
    std::vector<std::string> all = {"fault"};
    all.insert(all.end(), args.begin(), args.end());
    sim(all);
}

uint64_t AdminTest::callCount(const std::string& proc) {
    return std::strtoull(sim({"calls", proc}).c_str(), nullptr, 10);
}

std::string AdminTest::lpHex(const std::string& lp) {
    auto lps = nlohmann::json::parse(sim({"lps", "--json"}), nullptr, false);
    if (lps.is_array())
        for (const auto& l : lps)
            if (l["name"] == lp) return l["lpid"].get<std::string>();
    return lp;  // already hex, or unknown to the layout
}

void AdminTest::lpBytes(const std::string& lp, u_char out[16]) {
    auto id = voctl::parseLpId(lpHex(lp));
    ASSERT_TRUE(id.has_value()) << "no LP " << lp;
    std::copy(id->begin(), id->end(), out);
}

// ---- vod

void AdminTest::startVod() {
    _vo = nullptr;
    ASSERT_TRUE(node.startVod({"-d"}));
}

void AdminTest::restartVod() {
    _vo = nullptr;
    ASSERT_TRUE(node.restartVod());
}

CLIENT* AdminTest::vo() {
    // Administration calls may wait for the D-blade's retries: 10 s each.
    if (_vo == nullptr) _vo = node.client(90);
    return _vo;
}

CreateVfsOut AdminTest::create(const std::string& name, const std::string& lp,
                               const std::string& vserver, u_int flags) {
    CreateVfsIn in;
    in.vfsName = const_cast<char*>(name.c_str());
    in.storagePoolName = const_cast<char*>(lp.c_str());
    in.virtualServerName = const_cast<char*>(vserver.c_str());
    in.flags = flags;
    return callFlat(vo(), createvfs_1, &in, "createvfs");
}

uint32_t AdminTest::makeVolume(const std::string& name, const std::string& lp) {
    CreateVfsOut out = create(name, lp);
    EXPECT_EQ(out.code, 0u) << "createvfs " << name << " on " << lp;
    EXPECT_NE(out.vfsId, 0u);
    return out.vfsId;
}

CloneResult AdminTest::clone(uint32_t vfsid) {
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

FindResult AdminTest::find(const std::string& name) {
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

u_int AdminTest::deleteByName(const std::string& name) {
    vo_string arg = const_cast<char*>(name.c_str());
    return callFlat(vo(), deletevfsbyname_1, &arg, "deletevfsbyname");
}

u_int AdminTest::deleteById(uint32_t vfsid) {
    u_int arg = vfsid;
    return callFlat(vo(), deletevfsbyid_1, &arg, "deletevfsbyid");
}

VoOut AdminTest::voInCall(clnt_stat (*stub)(VoIn*, VoOut*, CLIENT*), uint32_t vfsid,
                          const std::string& lp, const char* what) {
    VoIn in;
    in.vidSrc = vfsid;
    lpBytes(lp, in.lidSrc);
    return callFlat(vo(), stub, &in, what);
}

VoOut AdminTest::vodelete(uint32_t vfsid, const std::string& lp) {
    return voInCall(vodelete_1, vfsid, lp, "vodelete");
}

VoOut AdminTest::setRo(uint32_t vfsid, const std::string& lp) {
    return voInCall(vosetro_1, vfsid, lp, "vosetro");
}

VoOut AdminTest::setRw(uint32_t vfsid, const std::string& lp) {
    return voInCall(vosetrw_1, vfsid, lp, "vosetrw");
}

// ---- the state of the cluster

bool AdminTest::waitVodbCount(size_t n, double timeoutSec) {
    return pollUntil([&] { return vodbRecords().size() == n; }, timeoutSec, 0.2);
}

void AdminTest::expectVldbAgreesWithDblades() {
    std::set<VolumeKey> onDblades;
    for (const SimVolumeRow& v : volumes()) {
        EXPECT_FALSE(v.hidden) << "hidden volume " << v.vfsid << " on " << v.lp;
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

}  // namespace vodtest
