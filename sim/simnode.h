// The simulated node's layout (D-blades, LPs, virtual servers) and the one lock over all
// simulated state.  Every service function and every control command that touches state
// holds SimNode::lock() while it does; fault holds and delays are served without it.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

struct SimLp {
  unsigned char uuid[16];
  std::string name;
  int state;                 // DBladeLPStatus, 4 = online
  uint16_t did;              // owning D-blade
  unsigned blockSize;
  uint64_t sizeBlocks;       // capacity; used blocks come from the volume store
};

// A dotted IPv4 address (host order in).
std::string simAddrText(uint32_t addr);

struct SimDblade {
  uint16_t did;
  std::string host;   // as the DLDB answers it: a name or a dotted IPv4 address
  uint32_t addr = 0;  // what host resolves to, host order; its programs listen there
};

struct SimVserver {
  unsigned id;
  std::string name;
};

// An LP id as 32 upper-case hex digits, the form every listing prints.
std::string simLpIdHex(const unsigned char uuid[16]);
// Parses 32 hex digits (an optional "0x" and '-' separators are allowed) into out.
bool simParseLpId(const std::string& text, unsigned char out[16]);

// The D-blade whose address the calling thread's connection came in on; 0 on threads
// that serve no D-blade program (the node's own programs, control commands, streams).
// Set once by the thread that serves a connection, before its first call.
uint16_t simServingDblade();
void simSetServingDblade(uint16_t did);

class SimNode {
 public:
  static SimNode& get();

  // The big lock: every service function and control command holds it while touching state.
  std::mutex& lock();
  // Where the simulator keeps its databases and volumes (option --dir).
  const std::string& dataDir() const;
  // The node's name (coordinator/DLDB).
  std::string nodeName() const;

  std::vector<SimDblade> dblades;
  std::vector<SimLp> lps;
  std::vector<SimVserver> vservers;

  // Lookups over the layout; the caller holds lock().  Null when there is none.  The
  // pointer is good only while the lock is held: lp-create may add LPs.
  SimLp* findLp(const unsigned char uuid[16]);
  SimLp* findLpByName(const std::string& name);
  const SimDblade* findDblade(uint16_t did) const;
  // True when the LP exists and belongs to D-blade did.  The caller holds lock().
  bool dbladeServesLp(uint16_t did, const unsigned char uuid[16]);

  // Set once by main before any service thread runs.
  void setDataDir(const std::string& dir);
  void setNodeName(const std::string& name);

  // Loads the layout: the file at configPath when it is not empty, else the built-in
  // default (node1; D-blade 1 on 127.0.0.1 and D-blade 2 on 127.0.0.2; LPs lp1a, lp1b on
  // D-blade 1 and lp2a, lp2b on D-blade 2, 1 GiB each in 4 KiB blocks, online; virtual
  // servers vs1 and vs2).  Each D-blade's host must resolve to an IPv4 address of its
  // own.  False with *err set when the file cannot be read or has a bad line.
  bool loadLayout(const std::string& configPath, std::string* err);

  // Resolves an LP given by name or by 32 hex digits; null when there is none.  The
  // caller holds lock().
  SimLp* findLpByNameOrId(const std::string& text);

 private:
  SimNode() = default;
  std::mutex lock_;
  std::string dataDir_;
  std::string nodeName_ = "node1";
};
