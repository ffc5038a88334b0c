// Keyless rows: no key lookup can reach them, and the decoder never selects
// this catalog. Kept so the catalog table matches the rest of the product.
#include "message_catalogs/resource_bundle.h"

namespace {

const resourceRow vodRows[] = {
    {"informational", "internal verification failed. Abort volume operation.", "", ""},
    {"informational", "out of memory", "", ""},
    {"informational", "no RPC client to VLDB", "", ""},
    {"informational", "no RPC client to dblade", "", ""},
    {"informational", "mirror locates in the same storage pool as its source", "", ""},
    {"informational", "all mirrors fail to start or conflict with other volume operations", "", ""},
    {"informational", "all mirrors are at the same data version as the source", "", ""},
    {"informational", "volop daemon cannot find this operation", "", ""},
    {"informational", "conflict with other volume operations", "", ""},
};

}  // namespace

const arrayResourceBundle vodCatalog = {
    "vod",
    vodRows,
    sizeof(vodRows) / sizeof(vodRows[0]),
};
