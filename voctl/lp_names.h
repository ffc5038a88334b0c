// The node's LPs by name, as its D-blades list them: what voctl ops, voctl lps
// and voctl top show instead of 32 hex digits, and what shell completion offers.
#ifndef VOCTL_LP_NAMES_H
#define VOCTL_LP_NAMES_H

#include <map>
#include <string>
#include <vector>

#include "voctl/lpid.h"

namespace voctl {

struct NamedLp {
    LpId lp{};
    std::string name;
    unsigned dblade = 0;
};

// Every LP of the node at host: its DLDB gives each D-blade's host, and each
// D-blade lists its own LPs, in the DLDB's order of the D-blades. A D-blade
// that cannot be asked leaves its LPs out, and *why says so (the last such
// failure); *why stays as it is when every D-blade answered.
std::vector<NamedLp> listLps(const std::string& host, unsigned timeoutSec, std::string* why);

// The same as a map from LP id to name.
std::map<LpId, std::string> lpNames(const std::string& host, unsigned timeoutSec, std::string* why);

}  // namespace voctl

#endif  // VOCTL_LP_NAMES_H
