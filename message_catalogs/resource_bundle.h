// Message catalogs compiled into the daemon, and the table that finds them by number.
//
// Every catalog is a static, read-only array built by the compiler (constant
// initialisation), so it is complete before main runs and safe to read from any
// thread without a lock.
#ifndef MESSAGE_CATALOGS_RESOURCE_BUNDLE_H
#define MESSAGE_CATALOGS_RESOURCE_BUNDLE_H

// One row: severity ("error", "warning", "notice", "informational"), message
// text, a cell no catalog uses (kept so rows keep their four-cell layout), key.
typedef const char* resourceRow[4];

enum resourceCell {
    RB_SEVERITY = 0,
    RB_MESSAGE = 1,
    RB_UNUSED = 2,
    RB_KEY = 3,
};

struct arrayResourceBundle {
    const char* name_;
    const resourceRow* resource_table_;
    unsigned table_size_;
};

// Catalog numbers. Only these slots are filled; the others belong to other
// components of the product and stay null here.
enum resourceBundleSlot {
    RB_SLOT_DBLADEINCRCOPY = 27,
    RB_SLOT_VOD = 28,
    RB_SLOT_TARNFSCLIENT = 29,
    RB_SLOT_VLDBCLIENT = 31,
    RB_SLOT_VODCLIENT = 32,
    RB_SLOT_RPC = 38,
    RB_SLOT_COUNT = 48,
};

// Indexed by catalog number; an empty slot is null.
extern const arrayResourceBundle* const resourceBundleTable[RB_SLOT_COUNT];

extern const arrayResourceBundle dbladeincrcopyCatalog;
extern const arrayResourceBundle vodCatalog;
extern const arrayResourceBundle tarnfsClientCatalog;
extern const arrayResourceBundle vldbClientCatalog;
extern const arrayResourceBundle vodClientCatalog;
extern const arrayResourceBundle rpcCatalog;

#endif  // MESSAGE_CATALOGS_RESOURCE_BUNDLE_H
