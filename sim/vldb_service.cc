// The VLDB program (VLDB_PROG 3): volume records and the VODB table, over VldbStore.

#include <cstdlib>
#include <cstring>

#include "simservice.h"
#include "vldb_server.h"
#include "vldbstore.h"
#include "volop/vldb_lit.h"

namespace {

char* heapString(const std::string& s) { return strdup(s.c_str()); }

// A VLDB record and a create request carry the same fields, in different wire orders.
template <typename Wire>
VldbRecord fromWire(const Wire& w) {
  VldbRecord r;
  r.vfsid = w.vfsid;
  r.family = w.family ? w.family : "";
  r.name = w.vfsname ? w.vfsname : "";
  r.vserver = w.vserver;
  r.vfstype = w.vfstype;
  r.crSec = w.crtime.sec;
  r.crUsec = w.crtime.usec;
  std::memcpy(r.lp, w.lp_uuid, 16);
  r.isRoot = w.is_root;
  r.dataVer = w.dataVer;
  r.appId = w.appId;
  std::memcpy(r.appData, w.appData, sizeof r.appData);
  r.exportRuleset = w.exportRuleset;
  return r;
}

bool toWire(const VldbRecord& r, Rec* w) {
  w->vfsid = r.vfsid;
  w->family = heapString(r.family);
  w->vfsname = heapString(r.name);
  w->vserver = r.vserver;
  w->vfstype = r.vfstype;
  w->crtime.sec = r.crSec;
  w->crtime.usec = r.crUsec;
  std::memcpy(w->lp_uuid, r.lp, 16);
  w->is_root = r.isRoot;
  w->dataVer = r.dataVer;
  w->appId = r.appId;
  std::memcpy(w->appData, r.appData, sizeof r.appData);
  w->exportRuleset = r.exportRuleset;
  return w->family && w->vfsname;
}

std::vector<VodbRecord> fromWire(const vodbRec* recs, u_int n) {
  std::vector<VodbRecord> out(n);
  for (u_int i = 0; i < n; ++i) {
    out[i].opid = recs[i].opid;
    out[i].optype = recs[i].optype;
    out[i].vfsid = recs[i].vfsid;
    std::memcpy(out[i].lp, recs[i].lp_uuid, 16);
    out[i].role = recs[i].vfsrole;
  }
  return out;
}

bool knownLp(const unsigned char lp[16]) { return SimNode::get().findLp(lp) != nullptr; }

VldbStore& store() { return VldbStore::get(); }

}  // namespace

bool_t new_vfsid_3_svc(void*, new_vfsid_result* res, svc_req*) {
  return simServe("new_vfsid", res, &res->result, [&] {
    unsigned id = 0;
    res->result = static_cast<u_int>(store().newVfsid(&id));
    res->newvfsid = id;
  });
}

bool_t vldb_create_record_3_svc(rec_create_input* in, int* res, svc_req*) {
  return simServe("vldb_create_record", res, res, [&] {
    *res = knownLp(in->lp_uuid) ? store().createRecord(fromWire(*in)) : VLDB_INVALID_LP_UUID;
  });
}

bool_t vldb_delete_record_3_svc(rec_delete_input* in, int* res, svc_req*) {
  return simServe("vldb_delete_record", res, res, [&] { *res = store().deleteRecord(in->vfsid, in->lp_uuid); });
}

bool_t vldb_record_lookup_3_svc(vldb_record_lookup_input* in, vldb_record_lookup_result* res, svc_req*) {
  return simServe("vldb_record_lookup", res, &res->result, [&] {
    std::vector<VldbRecord> found;
    int st = store().lookup(in->input_mask, fromWire(in->r), &found);
    res->result = static_cast<u_int>(st);
    if (st != 0 || found.empty()) return;
    res->r.r_val = static_cast<Rec*>(std::calloc(found.size(), sizeof(Rec)));
    if (!res->r.r_val) {
      res->result = VLDB_MALLOC_ERROR;
      return;
    }
    res->r.r_len = static_cast<u_int>(found.size());
    for (size_t i = 0; i < found.size(); ++i)
      if (!toWire(found[i], &res->r.r_val[i])) res->result = VLDB_MALLOC_ERROR;
    if (res->result != 0) {
      // Nothing half-built goes out; the dispatcher frees what was made.
      for (u_int i = 0; i < res->r.r_len; ++i) {
        std::free(res->r.r_val[i].family);
        std::free(res->r.r_val[i].vfsname);
      }
      std::free(res->r.r_val);
      res->r.r_val = nullptr;
      res->r.r_len = 0;
    }
  });
}

bool_t vldb_modify_dataver_3_svc(vldb_modify_dataVer_input* in, int* res, svc_req*) {
  return simServe("vldb_modify_dataver", res, res,
                  [&] { *res = store().modifyDataVer(in->vfsid, in->lp_uuid, in->dataVer); });
}

bool_t vldb_vfs_move_3_svc(vldb_vfs_move_input* in, int* res, svc_req*) {
  return simServe("vldb_vfs_move", res, res, [&] {
    *res = knownLp(in->newlp) ? store().vfsMove(in->vfsid, in->oldlp, in->newlp) : VLDB_INVALID_LP_UUID;
  });
}

bool_t vldb_record_modify_3_svc(vldb_record_modify_input* in, int* res, svc_req*) {
  return simServe("vldb_record_modify", res, res, [&] {
    constexpr unsigned kLpKey = 16;
    if ((in->input_mask & kLpKey) && !knownLp(in->newrec.lp_uuid)) {
      *res = VLDB_INVALID_LP_UUID;
      return;
    }
    *res = store().modify(in->input_mask, in->vfsid, in->lp_uuid, fromWire(in->newrec));
  });
}

bool_t vldb_lp_convert_3_svc(u_char* lp, vldb_lp_convert_result* res, svc_req*) {
  return simServe("vldb_lp_convert", res, &res->result, [&] {
    const SimLp* found = SimNode::get().findLp(lp);
    if (!found) {
      res->result = VLDB_INVALID_LP_UUID;
      return;
    }
    res->dblade_id = found->did;
  });
}

bool_t vodb_create2_3_svc(vodb_create2_input* in, vodb_create2_result* res, svc_req*) {
  return simServe("vodb_create2", res, &res->result, [&] {
    uint64_t opid = 0;
    res->result = store().vodbCreate2(in->new_create_opid, fromWire(in->rec.rec_val, in->rec.rec_len), &opid);
    res->out_create_opid = opid;
  });
}

bool_t vodb_create_3_svc(vodb_create_input* in, int* res, svc_req*) {
  return simServe("vodb_create", res, res, [&] {
    *res = store().vodbCreate(in->new_create_opid, in->check_opids != 0, fromWire(in->rec.rec_val, in->rec.rec_len));
  });
}

bool_t vodb_delete_by_opid_3_svc(u_quad_t* opid, int* res, svc_req*) {
  return simServe("vodb_delete_by_opid", res, res, [&] { *res = store().vodbDeleteByOpid(*opid); });
}

bool_t vodb_update_optype_by_opid_3_svc(vodb_update_optype_input* in, int* res, svc_req*) {
  return simServe("vodb_update_optype_by_opid", res, res,
                  [&] { *res = store().vodbUpdateOptype(in->opid, in->optype); });
}

bool_t vodb_opid_lookup_3_svc(void*, vodb_opid_lookup_result* res, svc_req*) {
  return simServe("vodb_opid_lookup", res, &res->result, [&] {
    uint64_t c = 0, d = 0;
    res->result = store().vodbOpidLookup(&c, &d);
    res->last_create_opid = c;
    res->last_delete_opid = d;
  });
}

bool_t vodb_lookup_3_svc(void*, vodb_lookup_result* res, svc_req*) {
  return simServe("vodb_lookup", res, &res->result, [&] {
    uint64_t c = 0, d = 0;
    std::vector<VodbRecord> recs;
    res->result = store().vodbLookup(&c, &d, &recs);
    res->last_create_opid = c;
    res->last_delete_opid = d;
    if (res->result != 0 || recs.empty()) return;
    res->rec.rec_val = static_cast<vodbRec*>(std::calloc(recs.size(), sizeof(vodbRec)));
    if (!res->rec.rec_val) {
      res->result = VLDB_MALLOC_ERROR;
      return;
    }
    res->rec.rec_len = static_cast<u_int>(recs.size());
    for (size_t i = 0; i < recs.size(); ++i) {
      vodbRec& w = res->rec.rec_val[i];
      w.opid = recs[i].opid;
      w.optype = recs[i].optype;
      w.vfsid = recs[i].vfsid;
      std::memcpy(w.lp_uuid, recs[i].lp, 16);
      w.vfsrole = recs[i].role;
    }
  });
}

int vldb_prog_3_freeresult(SVCXPRT* x, xdrproc_t f, caddr_t r) { return simFreeResult(x, f, r); }
