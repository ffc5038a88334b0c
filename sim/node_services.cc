// The node's small programs: the DLDB (D-blade hosts, LP and virtual-server names), the
// coordinator (node name and addresses) and the D-blades' LP management.

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "coord.h"
#include "dblade_lpm.h"
#include "dldb_server.h"
#include "simservice.h"
#include "volstore.h"

namespace {

// Statuses of the coordinator and of LP management for a name or id they do not know.
constexpr u_int kCoordNoSuchEntry = 2;
constexpr int kLpmNoSuchLp = 2;

template <typename T>
T* allocArray(size_t n) {
  return static_cast<T*>(std::calloc(n ? n : 1, sizeof(T)));
}

// The node's addresses: loopback first, then each D-blade's in layout order, then every
// other IPv4 address of this machine.  The caller holds SimNode::lock().
std::vector<u_int> nodeAddresses() {
  std::vector<u_int> out{INADDR_LOOPBACK};
  auto add = [&out](u_int ip) {
    if (std::find(out.begin(), out.end(), ip) == out.end()) out.push_back(ip);
  };
  for (const SimDblade& d : SimNode::get().dblades) add(d.addr);
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return out;
  for (ifaddrs* a = list; a; a = a->ifa_next) {
    if (!a->ifa_addr || a->ifa_addr->sa_family != AF_INET || !(a->ifa_flags & IFF_UP)) continue;
    add(ntohl(reinterpret_cast<sockaddr_in*>(a->ifa_addr)->sin_addr.s_addr));
  }
  freeifaddrs(list);
  return out;
}

}  // namespace

void simPrepareResult(LPGetAttrsOut* res) { res->attr.name = strdup(""); }
void simPrepareResult(admin_attr_nodeInfo_t* res) { res->nodeName = strdup(""); }

// --- DLDB ---

bool_t iterate_1_svc(void*, DldbIterateRes* res, svc_req*) {
  return simServe("iterate", res, &res->status, [&] {
    const auto& dblades = SimNode::get().dblades;
    res->rec.rec_val = allocArray<DldbRec>(dblades.size());
    if (!res->rec.rec_val) {
      res->status = DLDB_STATUS_NODE_UNHEALTHY;
      return;
    }
    res->rec.rec_len = static_cast<u_int>(dblades.size());
    for (size_t i = 0; i < dblades.size(); ++i) {
      res->rec.rec_val[i].did = dblades[i].did;
      res->rec.rec_val[i].host.port = 0;
      res->rec.rec_val[i].host.name = strdup(dblades[i].host.c_str());
    }
  });
}

bool_t getlidbylpname_1_svc(dldb_name_t* name, DldbGetLidRes* res, svc_req*) {
  return simServe("getlidbylpname", res, &res->status, [&] {
    const SimLp* lp = *name ? SimNode::get().findLpByName(*name) : nullptr;
    if (!lp) {
      res->status = DLDB_STATUS_NOT_FOUND;
      return;
    }
    std::memcpy(res->lid, lp->uuid, 16);
  });
}

bool_t getvserveridbyname_1_svc(dldb_name_t* name, DldbGetVserverIdRes* res, svc_req*) {
  return simServe("getvserveridbyname", res, &res->status, [&] {
    res->status = DLDB_STATUS_NOT_FOUND;
    for (const SimVserver& vs : SimNode::get().vservers) {
      if (*name && vs.name == *name) {
        res->status = DLDB_STATUS_OK;
        res->id = vs.id;
      }
    }
  });
}

int dldb_prog_1_freeresult(SVCXPRT* x, xdrproc_t f, caddr_t r) { return simFreeResult(x, f, r); }

// --- Coordinator ---

bool_t admin_2_getnode_1_svc(admin_2_getnode_1_argument* in, admin_attr_nodeInfo_t* res, svc_req*) {
  return simServe("admin_2_getnode", res, &res->status, [&] {
    res->dbladeId = in->dbladeId;
    if (in->dbladeId > 0xFFFF || !SimNode::get().findDblade(static_cast<uint16_t>(in->dbladeId))) {
      res->status = kCoordNoSuchEntry;
      return;
    }
    std::free(res->nodeName);
    res->nodeName = strdup(SimNode::get().nodeName().c_str());
  });
}

bool_t admin_2_listallips_1_svc(admin_node_name_t* name, admin_list_ips_t* res, svc_req*) {
  return simServe("admin_2_listallips", res, &res->status, [&] {
    if (!*name || SimNode::get().nodeName() != *name) {
      res->status = kCoordNoSuchEntry;
      return;
    }
    std::vector<u_int> ips = nodeAddresses();
    res->ips.ips_val = allocArray<u_int>(ips.size());
    if (!res->ips.ips_val) {
      res->status = kCoordNoSuchEntry;
      return;
    }
    res->ips.ips_len = static_cast<u_int>(ips.size());
    std::memcpy(res->ips.ips_val, ips.data(), ips.size() * sizeof(u_int));
  });
}

int coord_prog_1_freeresult(SVCXPRT* x, xdrproc_t f, caddr_t r) { return simFreeResult(x, f, r); }

// --- LP management ---

// The LPs of the D-blade asked, as one machine would list its own; vod asks its local
// D-blade which operations are its to resurrect.  The argument (a selector vod always
// sends as 0) is not used.
bool_t lp_list_all_1_svc(u_int*, LPGetAllOut* res, svc_req*) {
  return simServe("lp_list_all", res, &res->status, [&] {
    std::vector<SimLp> lps;
    for (const SimLp& lp : SimNode::get().lps)
      if (lp.did == simServingDblade()) lps.push_back(lp);
    res->entries.entries_val = allocArray<LPGetAllEntry>(lps.size());
    if (!res->entries.entries_val) {
      res->status = kLpmNoSuchLp;
      return;
    }
    res->entries.entries_len = static_cast<u_int>(lps.size());
    for (size_t i = 0; i < lps.size(); ++i) {
      LPGetAllEntry& e = res->entries.entries_val[i];
      std::memcpy(e.uuid, lps[i].uuid, 16);
      e.state = static_cast<DBladeLPStatus>(lps[i].state);
      e.name = strdup(lps[i].name.c_str());
    }
  });
}

bool_t lp_get_attrs_by_uuid_1_svc(u_char* uuid, LPGetAttrsOut* res, svc_req*) {
  return simServe("lp_get_attrs_by_uuid", res, &res->status, [&] {
    // Another D-blade's LP is as unknown here as one that does not exist.
    const SimLp* lp = SimNode::get().findLp(uuid);
    if (!lp || lp->did != simServingDblade()) {
      res->status = kLpmNoSuchLp;
      return;
    }
    LPAttributes& a = res->attr;
    std::free(a.name);
    a.name = strdup(lp->name.c_str());
    a.status = static_cast<u_int>(lp->state);
    a.diskLayout.diskLayout_val = allocArray<LPDiskExtent>(1);
    if (a.diskLayout.diskLayout_val) {
      // One extent on a disk numbered after the D-blade.
      a.diskLayout.diskLayout_len = 1;
      a.diskLayout.diskLayout_val[0] = {lp->did, 0, lp->sizeBlocks};
    }
    std::memcpy(a.uuid, lp->uuid, 16);
    a.primaryDBladeId = lp->did;
    a.blockSize = lp->blockSize;
    a.groupSizeInBlocks = 1;
    a.sizeInBlocks = lp->sizeBlocks;
    uint64_t used = simBlocksUsedOnLp(lp->uuid);
    uint64_t reserved = simBlocksReservedOnLp(lp->uuid);
    a.spaceAvailableInBlocks = used < lp->sizeBlocks ? lp->sizeBlocks - used : 0;
    a.unreservedSpaceAvailableInBlocks =
        reserved < a.spaceAvailableInBlocks ? a.spaceAvailableInBlocks - reserved : 0;
  });
}

int dblade_lpm_prog_1_freeresult(SVCXPRT* x, xdrproc_t f, caddr_t r) { return simFreeResult(x, f, r); }
