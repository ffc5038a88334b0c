// Fault injection: rules per procedure, held calls, refused connections, call counts.
//
// All of it is guarded by its own mutex (gMu), never by SimNode::lock(): a held or delayed
// call waits here while the rest of the node goes on.

#include "simfaults.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <condition_variable>
#include <cstring>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include "simcontrol.h"
#include "simnode.h"

namespace {

// Every procedure the node serves, with its program.
struct ProcName {
  const char* proc;
  const char* program;
};
constexpr ProcName kProcs[] = {
    {"new_vfsid", "vldb"},
    {"vldb_create_record", "vldb"},
    {"vldb_delete_record", "vldb"},
    {"vldb_record_lookup", "vldb"},
    {"vldb_modify_dataver", "vldb"},
    {"vldb_vfs_move", "vldb"},
    {"vodb_opid_lookup", "vldb"},
    {"vodb_create", "vldb"},
    {"vodb_delete_by_opid", "vldb"},
    {"vodb_lookup", "vldb"},
    {"vodb_update_optype_by_opid", "vldb"},
    {"vldb_lp_convert", "vldb"},
    {"vldb_record_modify", "vldb"},
    {"vodb_create2", "vldb"},
    {"volcreate", "dblade_vol"},
    {"voldelete", "dblade_vol"},
    {"volclone", "dblade_vol"},
    {"volgetattr", "dblade_vol"},
    {"volsetattr", "dblade_vol"},
    {"volswapvolid", "dblade_vol"},
    // Not procedures: met before each renumbering of an id swap, in the order they run.
    {"volswapvolid.step1", "dblade_vol"},
    {"volswapvolid.step2", "dblade_vol"},
    {"volswapvolid.step3", "dblade_vol"},
    {"incrcopymirror", "dblade_incrcopy"},
    {"incrcopymove", "dblade_incrcopy"},
    // Not procedures: the steps of a final move's thread, in the order they run.
    {"incrcopymove.stop", "dblade_incrcopy"},
    {"incrcopymove.stream", "dblade_incrcopy"},
    {"incrcopymove.swap", "dblade_incrcopy"},
    {"incrcopymove.vldb", "dblade_incrcopy"},
    {"incrcopymove.notify", "dblade_incrcopy"},
    {"incrcopyprogress", "dblade_incrcopy"},
    {"incrcopypause", "dblade_incrcopy"},
    {"incrcopyresume", "dblade_incrcopy"},
    {"incrcopyconclude", "dblade_incrcopy"},
    {"incrcopycancel", "dblade_incrcopy"},
    {"tcpvfsdump", "dblade_incrcopy"},
    {"tcpvfsrestore", "dblade_incrcopy"},
    // Not procedures: points inside a dump's and a restore's thread, in the order they run.
    {"tcpvfsdump.stream", "dblade_incrcopy"},
    {"tcpvfsrestore.stream", "dblade_incrcopy"},
    {"tcpvfsrestore.apply", "dblade_incrcopy"},
    {"lp_get_attrs_by_uuid", "dblade_lpm"},
    {"lp_list_all", "dblade_lpm"},
    {"iterate", "dldb"},
    {"getlidbylpname", "dldb"},
    {"getvserveridbyname", "dldb"},
    {"admin_2_listallips", "coord"},
    {"admin_2_getnode", "coord"},
};

bool knownProc(const std::string& p) {
  return std::any_of(std::begin(kProcs), std::end(kProcs), [&](const ProcName& n) { return p == n.proc; });
}

bool knownProgram(const std::string& p) {
  return std::any_of(std::begin(kProcs), std::end(kProcs), [&](const ProcName& n) { return p == n.program; });
}

// A D-blade's program, or a procedure of one: what a fault may aim at one D-blade of.
bool ofDblade(const std::string& procOrProgram) {
  for (const ProcName& n : kProcs)
    if (procOrProgram == n.proc || procOrProgram == n.program)
      return std::string(n.program).compare(0, 7, "dblade_") == 0;
  return false;
}

constexpr long kAlways = -1;

struct Rule {
  enum Kind { Delay, Hold, Status, Drop, LoseReply, HoldReply } kind;
  unsigned value;          // status, or delay in ms
  long left;               // calls still to hit, or kAlways
  uint16_t did;            // the one D-blade whose calls it hits; 0: every caller
  uint64_t opid;           // the one stream whose calls it hits; 0: every call
  unsigned long skip = 0;  // calls it lets by before it hits the first
};

struct HeldCall {
  bool released = false;
  bool drop = false;
};

struct ProcState {
  std::vector<Rule> rules;
  std::deque<HeldCall*> held;  // oldest first
  uint64_t calls = 0;
  std::map<uint16_t, uint64_t> callsByDblade;  // calls that came in at a D-blade's address
};

// One procedure call as it came in, for "calls --log".
struct LoggedCall {
  uint64_t seq;
  std::string proc;
  uint16_t did;  // the D-blade whose address it came in at; 0: a node program
};
// Far more than any test's operation makes; the oldest go first beyond it.
constexpr size_t kCallLogMax = 100000;

std::mutex gMu;
std::condition_variable gCv;  // a call became held or was released
std::map<std::string, ProcState> gProcs;
std::deque<LoggedCall> gCallLog;
uint64_t gCallSeq = 0;
// (program, D-blade or 0 for all) -> attempts still to refuse, or kAlways
std::map<std::pair<std::string, uint16_t>, long> gRefuse;
std::atomic<bool> gTraceCalls{false};

// Takes the first live rule of one of the kinds that hits a call of D-blade did about
// stream opid, counting it down; false when none.
bool takeRule(ProcState& ps, std::initializer_list<Rule::Kind> kinds, uint16_t did, uint64_t opid,
              Rule* out) {
  for (auto it = ps.rules.begin(); it != ps.rules.end(); ++it) {
    if (std::find(kinds.begin(), kinds.end(), it->kind) == kinds.end()) continue;
    if (it->did != 0 && it->did != did) continue;
    if (it->opid != 0 && it->opid != opid) continue;
    if (it->skip > 0) {
      --it->skip;
      continue;
    }
    *out = *it;
    if (it->left != kAlways && --it->left == 0) ps.rules.erase(it);
    return true;
  }
  return false;
}

const char* kindName(Rule::Kind k) {
  switch (k) {
    case Rule::Delay: return "delay";
    case Rule::Hold: return "hold";
    case Rule::Status: return "status";
    case Rule::Drop: return "drop";
    case Rule::LoseReply: return "lose-reply";
    case Rule::HoldReply: return "hold-reply";
  }
  return "?";
}

bool parseNumber(const std::string& s, unsigned long max, unsigned long* out) {
  if (s.empty() || s.size() > 10 || !std::all_of(s.begin(), s.end(), ::isdigit)) return false;
  *out = std::stoul(s);
  return *out <= max;
}

// COUNT is a positive number or "always"; absent means once.
bool parseCount(const std::vector<std::string>& a, size_t i, long* out) {
  if (a.size() <= i) {
    *out = 1;
    return true;
  }
  if (a.size() > i + 1) return false;
  if (a[i] == "always") {
    *out = kAlways;
    return true;
  }
  unsigned long n;
  if (!parseNumber(a[i], 1000000, &n) || n == 0) return false;
  *out = static_cast<long>(n);
  return true;
}

std::string countText(long left) { return left == kAlways ? "always" : std::to_string(left) + "x"; }

std::string dbladeText(uint16_t did) { return did ? " dblade " + std::to_string(did) : ""; }

// Takes "--dblade N" out of the words, wherever it stands; *did stays 0 without it.
// False with *why set when N is not a D-blade of the layout.
bool takeDbladeOption(std::vector<std::string>* a, uint16_t* did, std::string* why) {
  auto it = std::find(a->begin(), a->end(), "--dblade");
  if (it == a->end()) return true;
  unsigned long n = 0;
  if (it + 1 == a->end() || !parseNumber(*(it + 1), 65535, &n) || n == 0) {
    *why = "--dblade takes a D-blade id";
    return false;
  }
  {
    std::lock_guard<std::mutex> g(SimNode::get().lock());
    if (!SimNode::get().findDblade(static_cast<uint16_t>(n))) {
      *why = "no D-blade " + *(it + 1);
      return false;
    }
  }
  *did = static_cast<uint16_t>(n);
  a->erase(it, it + 2);
  return true;
}

// The procedures that name one stream, which a fault may aim at with --opid.
bool namesStream(const std::string& proc) {
  return proc == "incrcopyprogress" || proc == "incrcopypause" || proc == "incrcopyresume" ||
         proc == "incrcopyconclude" || proc == "incrcopycancel";
}

// Takes "--opid N" out of the words, wherever it stands; *opid stays 0 without it.
bool takeOpidOption(std::vector<std::string>* a, uint64_t* opid, std::string* why) {
  auto it = std::find(a->begin(), a->end(), "--opid");
  if (it == a->end()) return true;
  const std::string n = it + 1 == a->end() ? "" : *(it + 1);
  if (n.empty() || n.size() > 19 || !std::all_of(n.begin(), n.end(), ::isdigit) ||
      std::stoull(n) == 0) {
    *why = "--opid takes a stream's operation id";
    return false;
  }
  *opid = std::stoull(n);
  a->erase(it, it + 2);
  return true;
}

// Takes "--skip N" out of the words, wherever it stands; *skip stays 0 without it.
bool takeSkipOption(std::vector<std::string>* a, unsigned long* skip, std::string* why) {
  auto it = std::find(a->begin(), a->end(), "--skip");
  if (it == a->end()) return true;
  if (it + 1 == a->end() || !parseNumber(*(it + 1), 1000000, skip)) {
    *why = "--skip takes a number of calls";
    return false;
  }
  a->erase(it, it + 2);
  return true;
}

const char* kFaultUsage =
    "fault status PROC N [COUNT|always]    answer status N\n"
    "fault drop PROC [COUNT|always]        do nothing, send no reply (the caller times out)\n"
    "fault lose-reply PROC [COUNT|always]  carry the call out, then send no reply\n"
    "fault delay PROC MS [COUNT|always]    answer MS milliseconds late\n"
    "fault hold PROC [COUNT|always]        block the call until released\n"
    "fault hold-reply PROC [COUNT|always]  carry the call out, then hold its reply until\n"
    "                                      released (release ... drop: no reply)\n"
    "fault wait-held PROC [SECONDS]        wait until a call of PROC is held (default 30 s)\n"
    "fault release PROC [all] [drop]       let the oldest (or every) held call go on; with\n"
    "                                      drop it does nothing and sends no reply\n"
    "fault refuse PROGRAM [COUNT|always]   reset connections to vldb, dldb, coord,\n"
    "                                      dblade_lpm, dblade_vol or dblade_incrcopy\n"
    "fault clear [PROC|PROGRAM]            remove faults (held calls go on)\n"
    "fault list                            faults set and calls held\n"
    "PROC may also be a step inside a call or stream: incrcopymove.stop, .stream, .swap,\n"
    "  .vldb, .notify (a final move), volswapvolid.step1, .step2, .step3 (an id swap).\n"
    "COUNT (default 1) is the number of calls or connection attempts hit.  status, drop,\n"
    "lose-reply, delay, hold, hold-reply and refuse of a D-blade's procedure or program\n"
    "take --dblade ID: only calls to that D-blade's address meet the fault.  status, drop,\n"
    "lose-reply, delay and hold of incrcopyprogress, incrcopypause, incrcopyresume,\n"
    "incrcopyconclude and incrcopycancel take --opid OPID: only calls about that stream meet\n"
    "it.  A fault of a procedure takes --skip N: it lets the first N calls it would hit go by\n"
    "(the N+1st call of PROC is held by \"fault hold PROC --skip N\").";

std::string listFaults() {
  std::ostringstream o;
  for (auto& [name, ps] : gProcs) {
    for (const Rule& r : ps.rules) {
      o << name << " " << kindName(r.kind);
      if (r.kind == Rule::Status) o << " " << r.value;
      if (r.kind == Rule::Delay) o << " " << r.value << "ms";
      o << " " << countText(r.left) << dbladeText(r.did);
      if (r.opid) o << " opid " << r.opid;
      if (r.skip) o << " skip " << r.skip;
      o << "\n";
    }
    if (!ps.held.empty()) o << name << " held " << ps.held.size() << "\n";
  }
  for (auto& [key, left] : gRefuse)
    o << key.first << " refuse " << countText(left) << dbladeText(key.second) << "\n";
  return o.str();
}

// Lets held calls of ps go on; n = 0 releases all.  Caller holds gMu.
size_t releaseHeld(ProcState& ps, size_t n, bool drop) {
  size_t done = 0;
  while (!ps.held.empty() && (n == 0 || done < n)) {
    ps.held.front()->released = true;
    ps.held.front()->drop = drop;
    ps.held.pop_front();
    ++done;
  }
  gCv.notify_all();
  return done;
}

std::string faultCommand(std::vector<std::string> a, bool* ok) {
  auto fail = [&](const std::string& why) {
    *ok = false;
    return why;
  };
  if (a.empty()) return fail(kFaultUsage);
  uint16_t did = 0;
  unsigned long skip = 0;
  std::string why;
  if (!takeDbladeOption(&a, &did, &why) || !takeSkipOption(&a, &skip, &why)) return fail(why);
  uint64_t opid = 0;
  if (!takeOpidOption(&a, &opid, &why)) return fail(why);
  if (a.empty()) return fail(kFaultUsage);
  const std::string verb = a[0];
  const bool perCall = verb == "status" || verb == "drop" || verb == "lose-reply" ||
                       verb == "delay" || verb == "hold" || verb == "hold-reply";
  const bool aimable = perCall || verb == "refuse";
  if (did && (!aimable || a.size() < 2 || !ofDblade(a[1])))
    return fail("--dblade goes with status, drop, lose-reply, delay, hold, hold-reply or "
                "refuse of a D-blade's procedure or program");
  if (opid && (!aimable || verb == "refuse" || a.size() < 2 || !namesStream(a[1])))
    return fail("--opid goes with status, drop, lose-reply, delay or hold of a procedure that "
                "names a stream");
  if (skip && !perCall) return fail("--skip goes with a fault of a procedure");
  if (verb == "list") {
    std::lock_guard<std::mutex> g(gMu);
    return listFaults();
  }
  if (verb == "clear") {
    if (a.size() > 2) return fail(kFaultUsage);
    std::lock_guard<std::mutex> g(gMu);
    if (a.size() == 1) {
      for (auto& [name, ps] : gProcs) {
        ps.rules.clear();
        releaseHeld(ps, 0, false);
      }
      gRefuse.clear();
      return "";
    }
    const std::string& what = a[1];
    if (!knownProc(what) && !knownProgram(what)) return fail("unknown procedure or program " + what);
    if (knownProgram(what))
      for (auto it = gRefuse.begin(); it != gRefuse.end();)
        it = it->first.first == what ? gRefuse.erase(it) : std::next(it);
    auto it = gProcs.find(what);
    if (it != gProcs.end()) {
      it->second.rules.clear();
      releaseHeld(it->second, 0, false);
    }
    return "";
  }
  if (verb == "refuse") {
    long count;
    if (a.size() < 2 || !parseCount(a, 2, &count)) return fail(kFaultUsage);
    if (!knownProgram(a[1])) return fail("unknown program " + a[1]);
    std::lock_guard<std::mutex> g(gMu);
    gRefuse[{a[1], did}] = count;
    return "";
  }
  if (a.size() < 2) return fail(kFaultUsage);
  const std::string& proc = a[1];
  if (!knownProc(proc)) return fail("unknown procedure " + proc);

  if (verb == "wait-held") {
    unsigned long secs = 30;
    if (a.size() > 3 || (a.size() == 3 && !parseNumber(a[2], 3600, &secs))) return fail(kFaultUsage);
    std::unique_lock<std::mutex> lk(gMu);
    ProcState& ps = gProcs[proc];
    if (!gCv.wait_for(lk, std::chrono::seconds(secs), [&] { return !ps.held.empty(); }))
      return fail("no call of " + proc + " was held within " + std::to_string(secs) + " s");
    return std::to_string(ps.held.size()) + " held";
  }
  if (verb == "release") {
    bool all = false, drop = false;
    for (size_t i = 2; i < a.size(); ++i) {
      if (a[i] == "all") all = true;
      else if (a[i] == "drop") drop = true;
      else return fail(kFaultUsage);
    }
    std::lock_guard<std::mutex> g(gMu);
    size_t n = releaseHeld(gProcs[proc], all ? 0 : 1, drop);
    if (n == 0) return fail("no call of " + proc + " is held");
    return std::to_string(n) + " released";
  }

  Rule r{Rule::Drop, 0, 1, did, opid, skip};
  size_t countAt = 2;
  unsigned long v = 0;
  if (verb == "status" || verb == "delay") {
    if (a.size() < 3 || !parseNumber(a[2], 0xFFFFFFFFul, &v)) return fail(kFaultUsage);
    r.kind = verb == "status" ? Rule::Status : Rule::Delay;
    r.value = static_cast<unsigned>(v);
    countAt = 3;
  } else if (verb == "drop") {
    r.kind = Rule::Drop;
  } else if (verb == "lose-reply") {
    r.kind = Rule::LoseReply;
  } else if (verb == "hold") {
    r.kind = Rule::Hold;
  } else if (verb == "hold-reply") {
    r.kind = Rule::HoldReply;
  } else {
    return fail(kFaultUsage);
  }
  if (!parseCount(a, countAt, &r.left)) return fail(kFaultUsage);
  std::lock_guard<std::mutex> g(gMu);
  gProcs[proc].rules.push_back(r);
  return "";
}

const char* kCallsUsage =
    "calls [PROC] [--dblade ID]            calls served per procedure since the start (or\n"
    "                                      reset), in all or at one D-blade's address\n"
    "calls --log                           every procedure call since the start (or reset)\n"
    "                                      in the order they came in: SEQ PROC DBLADE (0:\n"
    "                                      a program of the node, not of a D-blade)\n"
    "calls reset                           count from zero again, and empty the log";

std::string callsCommand(std::vector<std::string> a, bool* ok) {
  auto fail = [&](const std::string& why) {
    *ok = false;
    return why;
  };
  uint16_t did = 0;
  std::string why;
  if (!takeDbladeOption(&a, &did, &why)) return fail(why);
  // Calls of one D-blade, or all calls.
  auto count = [did](ProcState& ps) { return did ? ps.callsByDblade[did] : ps.calls; };
  std::lock_guard<std::mutex> g(gMu);
  if (a.size() == 1 && a[0] == "reset" && !did) {
    for (auto& [name, ps] : gProcs) {
      ps.calls = 0;
      ps.callsByDblade.clear();
    }
    gCallLog.clear();
    gCallSeq = 0;
    return "";
  }
  if (a.size() == 1 && a[0] == "--log" && !did) {
    std::ostringstream o;
    for (const LoggedCall& c : gCallLog) o << c.seq << " " << c.proc << " " << c.did << "\n";
    return o.str();
  }
  if (a.size() == 1) {
    if (!knownProc(a[0])) return fail("unknown procedure " + a[0]);
    return std::to_string(count(gProcs[a[0]]));
  }
  if (!a.empty()) return fail(kCallsUsage);
  std::ostringstream o;
  for (auto& [name, ps] : gProcs)
    if (uint64_t n = count(ps)) o << name << " " << n << "\n";
  return o.str();
}

}  // namespace

void simTraceCalls(bool on) { gTraceCalls = on; }

SimFaultVerdict simFault(const char* proc, uint64_t opid) {
  if (gTraceCalls) std::fprintf(stderr, "vodsim: call %s\n", proc);
  const uint16_t did = simServingDblade();
  std::unique_lock<std::mutex> lk(gMu);
  ProcState& ps = gProcs[proc];
  ++ps.calls;
  if (did) ++ps.callsByDblade[did];
  // The steps inside a call or stream ("incrcopymove.swap") are no calls of their own.
  if (std::strchr(proc, '.') == nullptr) {
    gCallLog.push_back({++gCallSeq, proc, did});
    if (gCallLog.size() > kCallLogMax) gCallLog.pop_front();
  }
  Rule r{};
  if (takeRule(ps, {Rule::Delay}, did, opid, &r)) {
    lk.unlock();
    std::this_thread::sleep_for(std::chrono::milliseconds(r.value));
    lk.lock();
  }
  if (takeRule(ps, {Rule::Hold}, did, opid, &r)) {
    HeldCall me;
    ps.held.push_back(&me);
    gCv.notify_all();
    gCv.wait(lk, [&] { return me.released; });
    if (me.drop) return {SimFaultKind::Drop, 0};
  }
  SimFaultVerdict v{SimFaultKind::None, 0};
  if (takeRule(ps, {Rule::Status, Rule::Drop, Rule::LoseReply}, did, opid, &r)) {
    switch (r.kind) {
      case Rule::Status: v = {SimFaultKind::Status, r.value}; break;
      case Rule::LoseReply: v = {SimFaultKind::LoseReply, 0}; break;
      default: v = {SimFaultKind::Drop, 0}; break;
    }
  }
  // Only a call that is carried out and answered has a reply to hold.
  if (v.kind == SimFaultKind::None && takeRule(ps, {Rule::HoldReply}, did, opid, &r))
    v.holdReply = true;
  return v;
}

bool simReplyGate(const char* proc, const SimFaultVerdict& v) {
  if (v.kind == SimFaultKind::LoseReply || v.kind == SimFaultKind::Drop) return false;
  if (!v.holdReply) return true;
  std::unique_lock<std::mutex> lk(gMu);
  ProcState& ps = gProcs[proc];
  HeldCall me;
  ps.held.push_back(&me);
  gCv.notify_all();
  gCv.wait(lk, [&] { return me.released; });
  return !me.drop;
}

SimFaultVerdict simFaultPoint(const char* point, std::unique_lock<std::mutex>& lk) {
  lk.unlock();
  SimFaultVerdict v = simFault(point);
  lk.lock();
  return v;
}

bool simRefuseConnection(const std::string& program, uint16_t did) {
  std::lock_guard<std::mutex> g(gMu);
  // A refusal aimed at this D-blade first, then one for every D-blade.
  auto it = gRefuse.find({program, did});
  if (it == gRefuse.end()) it = gRefuse.find({program, 0});
  if (it == gRefuse.end()) return false;
  if (it->second != kAlways && --it->second == 0) gRefuse.erase(it);
  return true;
}

void simFaultsRegisterCommands() {
  simRegisterCommand("fault", kFaultUsage, faultCommand);
  simRegisterCommand("calls", kCallsUsage, callsCommand);
}
