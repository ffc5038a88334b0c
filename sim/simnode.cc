// The simulated node's layout and its built-in default.

#include "simnode.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

namespace {

constexpr unsigned kDefaultBlockSize = 4096;
constexpr uint64_t kDefaultLpBlocks = (1ull << 30) / kDefaultBlockSize;  // 1 GiB
constexpr int kLpOnline = 4;

// Default LP ids read as "D-blade d, LP letter": 01 0A 00.. is lp1a, 02 0B 00.. is lp2b.
SimLp defaultLp(uint16_t did, char letter) {
  SimLp lp{};
  std::memset(lp.uuid, 0, sizeof lp.uuid);
  lp.uuid[0] = static_cast<unsigned char>(did);
  lp.uuid[1] = static_cast<unsigned char>(0x0A + (letter - 'a'));
  lp.name = "lp" + std::to_string(did) + letter;
  lp.state = kLpOnline;
  lp.did = did;
  lp.blockSize = kDefaultBlockSize;
  lp.sizeBlocks = kDefaultLpBlocks;
  return lp;
}

bool parseUnsigned(const std::string& s, uint64_t max, uint64_t* out) {
  if (s.empty() || s.size() > 20) return false;
  uint64_t v = 0;
  for (char c : s) {
    if (!std::isdigit(static_cast<unsigned char>(c))) return false;
    uint64_t d = static_cast<uint64_t>(c - '0');
    if (v > (max - d) / 10) return false;
    v = v * 10 + d;
  }
  *out = v;
  return true;
}

thread_local uint16_t tServingDblade = 0;

// The host's IPv4 address (host order), through the resolver, so that a name in the
// node's hosts file works as well as a dotted address.
bool resolveIpv4(const std::string& host, uint32_t* out) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* res = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &res) != 0 || !res) return false;
  *out = ntohl(reinterpret_cast<sockaddr_in*>(res->ai_addr)->sin_addr.s_addr);
  freeaddrinfo(res);
  return true;
}

}  // namespace

std::string simAddrText(uint32_t addr) {
  in_addr a{htonl(addr)};
  char buf[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &a, buf, sizeof buf);
  return buf;
}

uint16_t simServingDblade() { return tServingDblade; }
void simSetServingDblade(uint16_t did) { tServingDblade = did; }

std::string simLpIdHex(const unsigned char uuid[16]) {
  char buf[33];
  for (int i = 0; i < 16; ++i) std::snprintf(buf + 2 * i, 3, "%02X", uuid[i]);
  return std::string(buf, 32);
}

bool simParseLpId(const std::string& text, unsigned char out[16]) {
  std::string hex;
  size_t start = (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) ? 2 : 0;
  for (size_t i = start; i < text.size(); ++i) {
    char c = text[i];
    if (c == '-') continue;
    if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
    hex += c;
  }
  if (hex.size() != 32) return false;
  for (int i = 0; i < 16; ++i) out[i] = static_cast<unsigned char>(std::stoul(hex.substr(2 * i, 2), nullptr, 16));
  return true;
}

SimNode& SimNode::get() {
  static SimNode node;
  return node;
}

std::mutex& SimNode::lock() { return lock_; }
const std::string& SimNode::dataDir() const { return dataDir_; }
std::string SimNode::nodeName() const { return nodeName_; }
void SimNode::setDataDir(const std::string& dir) { dataDir_ = dir; }
void SimNode::setNodeName(const std::string& name) { nodeName_ = name; }

SimLp* SimNode::findLp(const unsigned char uuid[16]) {
  for (SimLp& lp : lps)
    if (std::memcmp(lp.uuid, uuid, 16) == 0) return &lp;
  return nullptr;
}

SimLp* SimNode::findLpByName(const std::string& name) {
  for (SimLp& lp : lps)
    if (lp.name == name) return &lp;
  return nullptr;
}

SimLp* SimNode::findLpByNameOrId(const std::string& text) {
  if (SimLp* lp = findLpByName(text)) return lp;
  unsigned char id[16];
  return simParseLpId(text, id) ? findLp(id) : nullptr;
}

const SimDblade* SimNode::findDblade(uint16_t did) const {
  for (const SimDblade& d : dblades)
    if (d.did == did) return &d;
  return nullptr;
}

bool SimNode::dbladeServesLp(uint16_t did, const unsigned char uuid[16]) {
  const SimLp* lp = findLp(uuid);
  return lp && lp->did == did;
}

// The file has one entry per line; '#' starts a comment:
//   node NAME
//   dblade ID HOST
//   lp NAME DBLADE SIZE_MB [LPID [STATE]]
//   vserver ID NAME
// An lp line without LPID gets D-blade byte, running index byte (0A, 0B, ...), zeros,
// like the default LPs.  STATE is a DBladeLPStatus number (4, online, by default).
bool SimNode::loadLayout(const std::string& configPath, std::string* err) {
  dblades.clear();
  lps.clear();
  vservers.clear();
  if (configPath.empty()) {
    nodeName_ = "node1";
    dblades = {{1, "127.0.0.1", 0x7F000001}, {2, "127.0.0.2", 0x7F000002}};
    lps = {defaultLp(1, 'a'), defaultLp(1, 'b'), defaultLp(2, 'a'), defaultLp(2, 'b')};
    vservers = {{1, "vs1"}, {2, "vs2"}};
    return true;
  }
  std::ifstream in(configPath);
  if (!in) {
    *err = "cannot read " + configPath;
    return false;
  }
  std::string line;
  int lineNo = 0;
  unsigned lpIndex = 0;
  auto bad = [&](const std::string& why) {
    *err = configPath + ":" + std::to_string(lineNo) + ": " + why;
    return false;
  };
  while (std::getline(in, line)) {
    ++lineNo;
    size_t hash = line.find('#');
    if (hash != std::string::npos) line.resize(hash);
    std::istringstream words(line);
    std::vector<std::string> w;
    for (std::string x; words >> x;) w.push_back(x);
    if (w.empty()) continue;
    uint64_t n = 0, m = 0;
    if (w[0] == "node" && w.size() == 2) {
      nodeName_ = w[1];
    } else if (w[0] == "dblade" && w.size() == 3) {
      if (!parseUnsigned(w[1], 65535, &n) || n == 0) return bad("bad D-blade id " + w[1]);
      if (findDblade(static_cast<uint16_t>(n))) return bad("D-blade " + w[1] + " listed twice");
      // Calls are told apart by the address they arrive at, so no two D-blades share one.
      uint32_t addr = 0;
      if (!resolveIpv4(w[2], &addr))
        return bad("host " + w[2] + " of D-blade " + w[1] + " has no IPv4 address");
      for (const SimDblade& d : dblades)
        if (d.addr == addr)
          return bad("D-blade " + w[1] + " has the address of D-blade " + std::to_string(d.did));
      dblades.push_back({static_cast<uint16_t>(n), w[2], addr});
    } else if (w[0] == "lp" && w.size() >= 4 && w.size() <= 6) {
      if (!parseUnsigned(w[2], 65535, &n) || !findDblade(static_cast<uint16_t>(n)))
        return bad("unknown D-blade " + w[2] + " (list it before its LPs)");
      if (!parseUnsigned(w[3], 1u << 30, &m) || m == 0) return bad("bad size " + w[3]);
      if (findLpByName(w[1])) return bad("LP " + w[1] + " listed twice");
      SimLp lp{};
      lp.name = w[1];
      lp.did = static_cast<uint16_t>(n);
      lp.blockSize = kDefaultBlockSize;
      lp.sizeBlocks = m * (1024 * 1024 / kDefaultBlockSize);
      lp.state = kLpOnline;
      ++lpIndex;
      if (w.size() >= 5) {
        if (!simParseLpId(w[4], lp.uuid)) return bad("bad LP id " + w[4]);
      } else {
        std::memset(lp.uuid, 0, sizeof lp.uuid);
        lp.uuid[0] = static_cast<unsigned char>(lp.did);
        lp.uuid[1] = static_cast<unsigned char>(0x0A + lpIndex - 1);
      }
      if (findLp(lp.uuid)) return bad("LP id " + simLpIdHex(lp.uuid) + " listed twice");
      if (w.size() == 6) {
        if (!parseUnsigned(w[5], 255, &m)) return bad("bad LP state " + w[5]);
        lp.state = static_cast<int>(m);
      }
      lps.push_back(lp);
    } else if (w[0] == "vserver" && w.size() == 3) {
      if (!parseUnsigned(w[1], 0xFFFFFFFFu, &n)) return bad("bad virtual server id " + w[1]);
      vservers.push_back({static_cast<unsigned>(n), w[2]});
    } else {
      return bad("cannot parse '" + line + "'");
    }
  }
  if (dblades.empty()) return bad("no D-blade");
  return true;
}
