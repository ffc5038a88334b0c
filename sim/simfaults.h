// Fault injection per procedure.  Every service function of every program asks simFault()
// first, before it takes SimNode::lock(), and fills its whole result record before it
// looks at the verdict (the dispatcher frees the result even when no reply is sent).
//
// Faults are set with the control command "fault" (see sim/README.md): a status N times,
// a delay, a dropped call, a lost reply, a hold until released, and refused connections
// per program; a fault on a D-blade's procedure or program may name one D-blade
// ("--dblade N"), which then meets it alone.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

// Drop: nothing is done and no reply is sent.  LoseReply: the call is carried out, then
// no reply is sent.
enum class SimFaultKind { None, Status, Drop, LoseReply };

struct SimFaultVerdict {
  SimFaultKind kind;
  unsigned status;
  bool holdReply = false;  // None only: the reply waits in simReplyGate() until released
};

// proc: the procedure's stub name without version, e.g. "vldb_record_lookup", "volcreate",
// "incrcopymirror".  The calling thread's D-blade (simServingDblade()) picks the rules
// that name one.  Delays and holds are served inside this call (it blocks the caller
// without holding SimNode::lock()); then the call goes on (None), answers `status` in its
// first result field with every other field empty (Status), sends no reply (Drop), or is
// carried out and sends no reply (LoseReply).  Also counts the call, in all and for its
// D-blade, and logs it in order (control command "calls"; steps named "proc.step" are
// counted, not logged).  opid names the stream a call is about (0: none), for the rules
// aimed at one stream ("--opid N").
SimFaultVerdict simFault(const char* proc, uint64_t opid = 0);

// Once the call has been carried out, without SimNode::lock(): whether its reply goes
// out.  False for Drop and LoseReply; for a reply held by "fault hold-reply" it waits
// until "fault release" (true) or "fault release ... drop" (false).
bool simReplyGate(const char* proc, const SimFaultVerdict& v);

// A fault point met between the steps of work done under SimNode::lock() (lk holds it):
// simFault(point) with the lock let go meanwhile, so that a hold or delay there stops only
// this caller.  lk holds the lock again on return.
SimFaultVerdict simFaultPoint(const char* point, std::unique_lock<std::mutex>& lk);

// Refused connections are decided per program, named as its protocol file: "vldb",
// "dldb", "coord", "dblade_lpm", "dblade_vol", "dblade_incrcopy", and for the D-blade
// programs per D-blade (did; 0 for the node's programs).  True when the connection just
// accepted must be reset unanswered; counts one attempt down.
bool simRefuseConnection(const std::string& program, uint16_t did);

// With on, every call is written to stderr as it arrives ("vodsim: call PROC").
void simTraceCalls(bool on);

// Registers the "fault" and "calls" control commands.
void simFaultsRegisterCommands();
