// Control commands over the node's layout, the VLDB and the VODB.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "simcontrol.h"
#include "simnode.h"
#include "vldbstore.h"
#include "volstore.h"

void simRegisterNodeCommands();

namespace {

const char* kStateNames[] = {"created", "formatting", "busy", "waiting", "online"};

std::string stateName(int s) {
  return s >= 0 && s < 5 ? kStateNames[s] : std::to_string(s);
}

bool parseState(const std::string& t, int* out) {
  for (int i = 0; i < 5; ++i)
    if (t == kStateNames[i]) return *out = i, true;
  if (t.empty() || t.size() > 3 || !std::all_of(t.begin(), t.end(), ::isdigit)) return false;
  *out = std::stoi(t);
  return *out <= 255;
}

bool parseU64(const std::string& t, uint64_t max, uint64_t* out) {
  if (t.empty() || t.size() > 20 || !std::all_of(t.begin(), t.end(), ::isdigit)) return false;
  errno = 0;
  unsigned long long v = std::strtoull(t.c_str(), nullptr, 10);
  if (errno || v > max) return false;
  *out = v;
  return true;
}

// A VFS id in decimal or, as mirror ids read best, in hex with 0x (0x40000064).
bool parseVfsid(const std::string& t, unsigned* out) {
  uint64_t v;
  bool hex = t.size() > 2 && t.size() <= 10 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X') &&
             std::all_of(t.begin() + 2, t.end(), ::isxdigit);
  if (hex)
    v = std::strtoull(t.c_str() + 2, nullptr, 16);
  else if (!parseU64(t, 0xFFFFFFFFu, &v))
    return false;
  *out = static_cast<unsigned>(v);
  return true;
}

std::string jsonString(const std::string& s) {
  std::string o = "\"";
  for (unsigned char c : s) {
    if (c == '"' || c == '\\') o += '\\', o += static_cast<char>(c);
    else if (c < 0x20) {
      char b[8];
      std::snprintf(b, sizeof b, "\\u%04x", c);
      o += b;
    } else o += static_cast<char>(c);
  }
  return o + "\"";
}

// Splits off a "--json" word; the rest are the command's own.
bool takeJson(std::vector<std::string>* a) {
  auto it = std::find(a->begin(), a->end(), "--json");
  if (it == a->end()) return false;
  a->erase(it);
  return true;
}

std::string fail(bool* ok, const std::string& why) {
  *ok = false;
  return why;
}

const char* kTypeNames[] = {"undef", "rw", "ro", "clone"};
std::string typeName(unsigned t) { return t < 4 ? kTypeNames[t] : std::to_string(t); }
bool parseType(const std::string& t, unsigned* out) {
  for (unsigned i = 0; i < 4; ++i)
    if (t == kTypeNames[i]) return *out = i, true;
  uint64_t v;
  if (!parseU64(t, 255, &v)) return false;
  *out = static_cast<unsigned>(v);
  return true;
}

// --- layout ---

std::string lpsCommand(std::vector<std::string> a, bool* ok) {
  bool json = takeJson(&a);
  if (!a.empty()) return fail(ok, "usage: lps [--json]");
  SimNode& node = SimNode::get();
  std::lock_guard<std::mutex> g(node.lock());
  std::ostringstream o;
  if (json) o << "[";
  else o << "NAME         LPID                              DBLADE STATE       BLOCKS     USED       RESERVED\n";
  bool first = true;
  for (const SimLp& lp : node.lps) {
    uint64_t used = simBlocksUsedOnLp(lp.uuid), reserved = simBlocksReservedOnLp(lp.uuid);
    if (json) {
      o << (first ? "" : ",") << "{\"name\":" << jsonString(lp.name) << ",\"lpid\":\"" << simLpIdHex(lp.uuid)
        << "\",\"dblade\":" << lp.did << ",\"state\":" << lp.state << ",\"stateName\":\"" << stateName(lp.state)
        << "\",\"blockSize\":" << lp.blockSize << ",\"sizeBlocks\":" << lp.sizeBlocks << ",\"usedBlocks\":" << used
        << ",\"reservedBlocks\":" << reserved << "}";
    } else {
      char line[256];
      std::snprintf(line, sizeof line, "%-12s %s  %-6u %-11s %-10llu %-10llu %llu\n", lp.name.c_str(),
                    simLpIdHex(lp.uuid).c_str(), lp.did, stateName(lp.state).c_str(),
                    static_cast<unsigned long long>(lp.sizeBlocks), static_cast<unsigned long long>(used),
                    static_cast<unsigned long long>(reserved));
      o << line;
    }
    first = false;
  }
  if (json) o << "]\n";
  return o.str();
}

std::string dbladesCommand(std::vector<std::string> a, bool* ok) {
  bool json = takeJson(&a);
  if (!a.empty()) return fail(ok, "usage: dblades [--json]");
  SimNode& node = SimNode::get();
  std::lock_guard<std::mutex> g(node.lock());
  std::ostringstream o;
  if (json) o << "[";
  bool first = true;
  for (const SimDblade& d : node.dblades) {
    if (json)
      o << (first ? "" : ",") << "{\"did\":" << d.did << ",\"host\":" << jsonString(d.host)
        << ",\"addr\":" << jsonString(simAddrText(d.addr)) << "}";
    else
      o << d.did << " " << d.host << " " << simAddrText(d.addr) << "\n";
    first = false;
  }
  if (json) o << "]\n";
  return o.str();
}

std::string vserversCommand(std::vector<std::string> a, bool* ok) {
  bool json = takeJson(&a);
  if (!a.empty()) return fail(ok, "usage: vservers [--json]");
  SimNode& node = SimNode::get();
  std::lock_guard<std::mutex> g(node.lock());
  std::ostringstream o;
  if (json) o << "[";
  bool first = true;
  for (const SimVserver& v : node.vservers) {
    if (json) o << (first ? "" : ",") << "{\"id\":" << v.id << ",\"name\":" << jsonString(v.name) << "}";
    else o << v.id << " " << v.name << "\n";
    first = false;
  }
  if (json) o << "]\n";
  return o.str();
}

std::string lpCreateCommand(std::vector<std::string> a, bool* ok) {
  const char* use = "usage: lp-create NAME DBLADE SIZE_MB [LPID]";
  uint64_t did, mb;
  if (a.size() < 3 || a.size() > 4 || a[0].empty()) return fail(ok, use);
  if (!parseU64(a[1], 65535, &did) || !parseU64(a[2], 1u << 30, &mb) || mb == 0) return fail(ok, use);
  SimNode& node = SimNode::get();
  std::lock_guard<std::mutex> g(node.lock());
  if (!node.findDblade(static_cast<uint16_t>(did))) return fail(ok, "no D-blade " + a[1]);
  if (node.findLpByName(a[0])) return fail(ok, "an LP named " + a[0] + " exists");
  SimLp lp{};
  lp.name = a[0];
  lp.did = static_cast<uint16_t>(did);
  lp.state = 4;
  lp.blockSize = 4096;
  lp.sizeBlocks = mb * (1024 * 1024 / lp.blockSize);
  if (a.size() == 4) {
    if (!simParseLpId(a[3], lp.uuid)) return fail(ok, "bad LP id " + a[3] + " (32 hex digits)");
  } else {
    // D-blade byte, CC, then a running number: readable, and apart from the layout's ids.
    for (unsigned n = 1;; ++n) {
      std::memset(lp.uuid, 0, 16);
      lp.uuid[0] = static_cast<unsigned char>(did);
      lp.uuid[1] = 0xCC;
      lp.uuid[14] = static_cast<unsigned char>(n >> 8);
      lp.uuid[15] = static_cast<unsigned char>(n);
      if (!node.findLp(lp.uuid)) break;
    }
  }
  if (node.findLp(lp.uuid)) return fail(ok, "LP id " + simLpIdHex(lp.uuid) + " exists");
  if (!VldbStore::get().storeLp(lp)) return fail(ok, "cannot store the LP");
  node.lps.push_back(lp);
  return simLpIdHex(lp.uuid) + "\n";
}

std::string lpStateCommand(std::vector<std::string> a, bool* ok) {
  int state;
  if (a.size() != 2 || !parseState(a[1], &state))
    return fail(ok, "usage: lp-state LP STATE   (STATE: created formatting busy waiting online, or a number)");
  SimNode& node = SimNode::get();
  std::lock_guard<std::mutex> g(node.lock());
  SimLp* lp = node.findLpByNameOrId(a[0]);
  if (!lp) return fail(ok, "no LP " + a[0]);
  SimLp changed = *lp;
  changed.state = state;
  if (!VldbStore::get().storeLp(changed)) return fail(ok, "cannot store the LP");
  lp->state = state;
  return "";
}

// --- VLDB ---

std::string lpLabel(const unsigned char lp[16]) {
  const SimLp* found = SimNode::get().findLp(lp);
  return found ? found->name : "?";
}

std::string vldbCommand(std::vector<std::string> a, bool* ok) {
  bool json = takeJson(&a);
  if (a.size() > 1) return fail(ok, "usage: vldb [VFSID|NAME] [--json]");
  SimNode& node = SimNode::get();
  std::lock_guard<std::mutex> g(node.lock());
  VldbRecord key;
  unsigned mask = 1;  // every record
  if (a.size() == 1 && parseVfsid(a[0], &key.vfsid)) mask = 4;
  else if (a.size() == 1) key.name = a[0], mask = 2;
  std::vector<VldbRecord> recs;
  int st = VldbStore::get().lookup(mask, key, &recs);
  if (st != 0 && st != 119) return fail(ok, "VLDB lookup failed with status " + std::to_string(st));
  std::ostringstream o;
  if (json) o << "[";
  else o << "VFSID      LP    LPID                              TYPE  DATAVER    VSERVER ROOT NAME (FAMILY)\n";
  bool first = true;
  for (const VldbRecord& r : recs) {
    if (json) {
      o << (first ? "" : ",") << "{\"vfsid\":" << r.vfsid << ",\"name\":" << jsonString(r.name)
        << ",\"family\":" << jsonString(r.family) << ",\"lpid\":\"" << simLpIdHex(r.lp) << "\",\"lp\":"
        << jsonString(lpLabel(r.lp)) << ",\"type\":" << r.vfstype << ",\"typeName\":\"" << typeName(r.vfstype)
        << "\",\"vserver\":" << r.vserver << ",\"isRoot\":" << r.isRoot << ",\"dataVer\":" << r.dataVer
        << ",\"appId\":" << r.appId << ",\"exportRuleset\":" << r.exportRuleset << ",\"crtime\":" << r.crSec
        << "}";
    } else {
      char line[512];
      std::snprintf(line, sizeof line, "%-10u %-5s %s  %-5s %-10llu %-7u %-4u %s (%s)\n", r.vfsid,
                    lpLabel(r.lp).c_str(), simLpIdHex(r.lp).c_str(), typeName(r.vfstype).c_str(),
                    static_cast<unsigned long long>(r.dataVer), r.vserver, r.isRoot, r.name.c_str(),
                    r.family.c_str());
      o << line;
    }
    first = false;
  }
  if (json) o << "]\n";
  return o.str();
}

bool parseVfsidLp(const std::vector<std::string>& a, unsigned* vfsid, unsigned char lp[16], std::string* why) {
  if (!parseVfsid(a[0], vfsid)) return *why = "bad VFS id " + a[0], false;
  const SimLp* found = SimNode::get().findLpByNameOrId(a[1]);
  if (found) std::memcpy(lp, found->uuid, 16);
  else if (!simParseLpId(a[1], lp)) return *why = "no LP " + a[1], false;
  return true;
}

// Sets one field of a record from text; false for an unknown field or a bad value.
bool setField(VldbRecord* r, unsigned* mask, const std::string& field, const std::string& value) {
  uint64_t v;
  if (field == "name") return r->name = value, *mask |= 2, true;
  if (field == "family") return r->family = value, *mask |= 131072, true;
  if (field == "type") return *mask |= 32, parseType(value, &r->vfstype);
  if (field == "lp") {
    const SimLp* lp = SimNode::get().findLpByNameOrId(value);
    if (!lp) return false;
    std::memcpy(r->lp, lp->uuid, 16);
    return *mask |= 16, true;
  }
  if (field == "vfsid") return *mask |= 4, parseVfsid(value, &r->vfsid);
  bool ok = parseU64(value, field == "dataver" ? UINT64_MAX : 0xFFFFFFFFu, &v);
  if (!ok) return false;
  if (field == "dataver") return r->dataVer = v, *mask |= 32768, true;
  if (field == "vserver") return r->vserver = static_cast<unsigned>(v), *mask |= 8, true;
  if (field == "root") return r->isRoot = static_cast<unsigned>(v), *mask |= 65536, true;
  if (field == "appid") return r->appId = static_cast<unsigned>(v), *mask |= 262144, true;
  if (field == "ruleset" && v <= 65535) return r->exportRuleset = static_cast<unsigned short>(v), *mask |= 1048576, true;
  return false;
}

const char* kFields = "FIELD: name family type(rw|ro|clone) lp dataver vfsid vserver root appid ruleset";

std::string vldbAddCommand(std::vector<std::string> a, bool* ok) {
  std::string use = std::string("usage: vldb-add VFSID LP NAME [FIELD VALUE]...   ") + kFields;
  if (a.size() < 3 || a.size() % 2 == 0) return fail(ok, use);
  SimNode& node = SimNode::get();
  std::lock_guard<std::mutex> g(node.lock());
  VldbRecord r;
  std::string why;
  if (!parseVfsidLp(a, &r.vfsid, r.lp, &why)) return fail(ok, why);
  if (!node.findLp(r.lp)) return fail(ok, "no LP " + a[1]);
  r.name = a[2];
  r.vfstype = 1;
  r.crSec = static_cast<unsigned>(time(nullptr));
  unsigned mask = 0;
  for (size_t i = 3; i + 1 < a.size(); i += 2)
    if (a[i] == "lp" || a[i] == "vfsid" || !setField(&r, &mask, a[i], a[i + 1]))
      return fail(ok, "bad field " + a[i] + " " + a[i + 1] + "; " + use);
  int st = VldbStore::get().createRecord(r);
  return st ? fail(ok, "VLDB status " + std::to_string(st)) : "";
}

std::string vldbSetCommand(std::vector<std::string> a, bool* ok) {
  std::string use = std::string("usage: vldb-set VFSID LP FIELD VALUE [FIELD VALUE]...   ") + kFields;
  if (a.size() < 4 || a.size() % 2 != 0) return fail(ok, use);
  SimNode& node = SimNode::get();
  std::lock_guard<std::mutex> g(node.lock());
  unsigned vfsid, mask = 0;
  unsigned char lp[16];
  std::string why;
  if (!parseVfsidLp(a, &vfsid, lp, &why)) return fail(ok, why);
  VldbRecord r;
  for (size_t i = 2; i + 1 < a.size(); i += 2)
    if (!setField(&r, &mask, a[i], a[i + 1])) return fail(ok, "bad field " + a[i] + " " + a[i + 1] + "; " + use);
  int st = VldbStore::get().modify(mask, vfsid, lp, r);
  return st ? fail(ok, "VLDB status " + std::to_string(st)) : "";
}

std::string vldbDeleteCommand(std::vector<std::string> a, bool* ok) {
  if (a.size() != 2) return fail(ok, "usage: vldb-delete VFSID LP");
  std::lock_guard<std::mutex> g(SimNode::get().lock());
  unsigned vfsid;
  unsigned char lp[16];
  std::string why;
  if (!parseVfsidLp(a, &vfsid, lp, &why)) return fail(ok, why);
  int st = VldbStore::get().deleteRecord(vfsid, lp);
  return st ? fail(ok, "VLDB status " + std::to_string(st)) : "";
}

// --- VODB ---

const char* kOpTypes[] = {"null", "copy", "mirror", "move", "finalmove", "del", "vfsdump", "vfsrestore"};
const char* kRoles[] = {"null", "src", "sink", "opsrc", "opsink", "temp"};

std::string vodbCommand(std::vector<std::string> a, bool* ok) {
  bool json = takeJson(&a);
  if (!a.empty()) return fail(ok, "usage: vodb [--json]");
  std::lock_guard<std::mutex> g(SimNode::get().lock());
  uint64_t lastCreate, lastDelete, ignored;
  std::vector<VodbRecord> recs;
  VldbStore::get().vodbLastIds(&lastCreate, &lastDelete);
  if (int st = VldbStore::get().vodbLookup(&ignored, &ignored, &recs)) return fail(ok, "VODB status " + std::to_string(st));
  std::ostringstream o;
  if (json) o << "{\"lastCreateOpid\":" << lastCreate << ",\"lastDeleteOpid\":" << lastDelete << ",\"records\":[";
  else o << "last created opid " << lastCreate << ", last deleted opid " << lastDelete << "\n"
         << "OPID       OPTYPE      VFSID      LP    LPID                              ROLE\n";
  bool first = true;
  for (const VodbRecord& r : recs) {
    std::string type = r.optype >= 0 && r.optype < 8 ? kOpTypes[r.optype] : std::to_string(r.optype);
    std::string role = r.role >= 0 && r.role < 6 ? kRoles[r.role] : std::to_string(r.role);
    if (json) {
      o << (first ? "" : ",") << "{\"opid\":" << r.opid << ",\"optype\":" << r.optype << ",\"optypeName\":\""
        << type << "\",\"vfsid\":" << r.vfsid << ",\"lpid\":\"" << simLpIdHex(r.lp) << "\",\"lp\":"
        << jsonString(lpLabel(r.lp)) << ",\"role\":" << r.role << ",\"roleName\":\"" << role << "\"}";
    } else {
      char line[256];
      std::snprintf(line, sizeof line, "%-10llu %-11s %-10u %-5s %s  %s\n", static_cast<unsigned long long>(r.opid),
                    type.c_str(), r.vfsid, lpLabel(r.lp).c_str(), simLpIdHex(r.lp).c_str(), role.c_str());
      o << line;
    }
    first = false;
  }
  if (json) o << "]}\n";
  return o.str();
}

bool parseEnumWord(const std::string& t, const char* const* names, int n, int* out) {
  for (int i = 0; i < n; ++i)
    if (t == names[i]) return *out = i, true;
  uint64_t v;
  if (!parseU64(t, 0x7FFFFFFF, &v)) return false;
  *out = static_cast<int>(v);
  return true;
}

std::string vodbAddCommand(std::vector<std::string> a, bool* ok) {
  const char* use = "usage: vodb-add OPID OPTYPE VFSID LP ROLE   (OPID 0: a new operation; OPTYPE copy mirror move "
                    "finalmove del vfsdump vfsrestore; ROLE src sink opsrc opsink temp)";
  if (a.size() != 5) return fail(ok, use);
  std::lock_guard<std::mutex> g(SimNode::get().lock());
  uint64_t opid;
  VodbRecord r;
  std::string why;
  std::vector<std::string> idLp{a[2], a[3]};
  if (!parseU64(a[0], UINT64_MAX, &opid) || !parseEnumWord(a[1], kOpTypes, 8, &r.optype) ||
      !parseEnumWord(a[4], kRoles, 6, &r.role))
    return fail(ok, use);
  if (!parseVfsidLp(idLp, &r.vfsid, r.lp, &why)) return fail(ok, why);
  int st;
  if (opid == 0) {
    st = VldbStore::get().vodbCreate2(0, {r}, &opid);
  } else {
    st = VldbStore::get().vodbCreate(opid, false, {r});
  }
  return st ? fail(ok, "VODB status " + std::to_string(st)) : std::to_string(opid) + "\n";
}

std::string vodbDeleteCommand(std::vector<std::string> a, bool* ok) {
  uint64_t opid;
  if (a.size() != 1 || !parseU64(a[0], UINT64_MAX, &opid)) return fail(ok, "usage: vodb-delete OPID");
  std::lock_guard<std::mutex> g(SimNode::get().lock());
  int st = VldbStore::get().vodbDeleteByOpid(opid);
  return st ? fail(ok, "VODB status " + std::to_string(st)) : "";
}

}  // namespace

void simRegisterNodeCommands() {
  simRegisterCommand("lps", "lps [--json]                          LPs: id, D-blade, state, size, used", lpsCommand);
  simRegisterCommand("dblades", "dblades [--json]                      D-blades, their hosts and addresses", dbladesCommand);
  simRegisterCommand("vservers", "vservers [--json]                     virtual servers", vserversCommand);
  simRegisterCommand("lp-create", "lp-create NAME DBLADE SIZE_MB [LPID]  add an LP (prints its id)", lpCreateCommand);
  simRegisterCommand("lp-state", "lp-state LP STATE                     created|formatting|busy|waiting|online|N",
                     lpStateCommand);
  simRegisterCommand("vldb", "vldb [VFSID|NAME] [--json]            VLDB records", vldbCommand);
  simRegisterCommand("vldb-add", "vldb-add VFSID LP NAME [FIELD VALUE]... add a VLDB record (read-write unless type)",
                     vldbAddCommand);
  simRegisterCommand("vldb-set", "vldb-set VFSID LP FIELD VALUE...      change a VLDB record", vldbSetCommand);
  simRegisterCommand("vldb-delete", "vldb-delete VFSID LP                  remove a VLDB record", vldbDeleteCommand);
  simRegisterCommand("vodb", "vodb [--json]                         VODB records and last created/deleted ids",
                     vodbCommand);
  simRegisterCommand("vodb-add", "vodb-add OPID OPTYPE VFSID LP ROLE    add a VODB record (OPID 0: new; prints it)",
                     vodbAddCommand);
  simRegisterCommand("vodb-delete", "vodb-delete OPID                      remove an operation's VODB records",
                     vodbDeleteCommand);
}
