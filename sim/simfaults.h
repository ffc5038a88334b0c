// Fault injection per procedure.  Every service function of every program asks simFault()
// first, before it takes SimNode::lock(), and fills its whole result record before it
// looks at the verdict (the dispatcher frees the result even when no reply is sent).
//
// Faults are set with the control command "fault" (see sim/README.md): a status N times,
// a delay, a dropped reply, a hold until released, and refused connections per program.
#pragma once

#include <string>

enum class SimFaultKind { None, Status, Drop };

struct SimFaultVerdict {
  SimFaultKind kind;
  unsigned status;
};

// proc: the procedure's stub name without version, e.g. "vldb_record_lookup", "volcreate",
// "incrcopymirror".  Delays and holds are served inside this call (it blocks the caller
// without holding SimNode::lock()); then the call goes on (None), answers `status` in its
// first result field with every other field empty (Status), or sends no reply (Drop).
// Also counts the call (control command "calls").
SimFaultVerdict simFault(const char* proc);

// Refused connections are decided per program, named as its protocol file: "vldb",
// "dldb", "coord", "dblade_lpm", "dblade_vol", "dblade_incrcopy".  True when the
// connection just accepted must be reset unanswered; counts one attempt down.
bool simRefuseConnection(const std::string& program);

// With on, every call is written to stderr as it arrives ("vodsim: call PROC").
void simTraceCalls(bool on);

// Registers the "fault" and "calls" control commands.
void simFaultsRegisterCommands();
