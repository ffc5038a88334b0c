#include "voctl/lp_names.h"

#include "dblade_lpm.h"
#include "dldb_server.h"
#include "voctl/client.h"
#include "voctl/output.h"

namespace voctl {

std::vector<NamedLp> listLps(const std::string& host, unsigned timeoutSec, std::string* why) {
    std::vector<NamedLp> out;
    std::string err;
    ServiceClient dldb = connectService(host, DLDB_PROG, DLDB_VERS, timeoutSec, &err);
    if (!dldb) {
        *why = "DLDB: " + trimTrailing(err);
        return out;
    }
    XdrResult<DldbIterateRes> dblades(xdr_DldbIterateRes);
    if (iterate_1(nullptr, dblades.get(), dldb.get()) != RPC_SUCCESS) {
        *why = "DLDB: " + trimTrailing(clnt_sperror(dldb.get(), host.c_str()));
        return out;
    }
    if (dblades->status != DLDB_STATUS_OK) {
        *why = "DLDB: status " + std::to_string(dblades->status) + " listing the D-blades";
        return out;
    }
    for (u_int i = 0; i < dblades->rec.rec_len; ++i) {
        const DldbRec& d = dblades->rec.rec_val[i];
        if (d.host.name == nullptr) continue;
        const std::string where = "D-blade " + std::to_string(d.did);
        ServiceClient lpm =
            connectService(d.host.name, DBLADE_LPM_PROG, DBLADE_LPM_VERS, timeoutSec, &err);
        XdrResult<LPGetAllOut> lps(xdr_LPGetAllOut);
        u_int all = 0;
        if (!lpm) {
            *why = where + ": " + trimTrailing(err);
        } else if (lp_list_all_1(&all, lps.get(), lpm.get()) != RPC_SUCCESS) {
            *why = where + ": " + trimTrailing(clnt_sperror(lpm.get(), d.host.name));
        } else if (lps->status != 0) {
            *why = where + ": LP management answered status " + std::to_string(lps->status);
        } else {
            for (u_int j = 0; j < lps->entries.entries_len; ++j) {
                const LPGetAllEntry& e = lps->entries.entries_val[j];
                if (e.name != nullptr)
                    out.push_back({lpIdOf(e.uuid), e.name, static_cast<unsigned>(d.did)});
            }
        }
    }
    return out;
}

std::map<LpId, std::string> lpNames(const std::string& host, unsigned timeoutSec,
                                    std::string* why) {
    std::map<LpId, std::string> names;
    for (const NamedLp& l : listLps(host, timeoutSec, why)) names[l.lp] = l.name;
    return names;
}

}  // namespace voctl
