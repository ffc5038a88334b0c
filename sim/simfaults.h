// Fault injection per procedure.  Every service function of every program asks simFault()
// first, before it takes SimNode::lock().
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
SimFaultVerdict simFault(const char* proc);

// Refused connections are decided per program (the name is the program's rpcgen prefix,
// e.g. "vldb_prog"); true when the next connection to it must be closed unanswered.
// Counts one attempt down.
bool simRefuseConnection(const std::string& program);

// Registers the "fault" control command.
void simFaultsRegisterCommands();
