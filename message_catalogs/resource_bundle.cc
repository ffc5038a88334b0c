#include "message_catalogs/resource_bundle.h"

// The remaining slots are numbered for other components of the product; the
// daemon never consults those catalogs, so they stay empty here.
const arrayResourceBundle* const resourceBundleTable[RB_SLOT_COUNT] = {
    nullptr,                 // 0
    nullptr,                 // 1
    nullptr,                 // 2
    nullptr,                 // 3
    nullptr,                 // 4
    nullptr,                 // 5
    nullptr,                 // 6
    nullptr,                 // 7
    nullptr,                 // 8
    nullptr,                 // 9
    nullptr,                 // 10
    nullptr,                 // 11
    nullptr,                 // 12
    nullptr,                 // 13
    nullptr,                 // 14
    nullptr,                 // 15
    nullptr,                 // 16
    nullptr,                 // 17
    nullptr,                 // 18
    nullptr,                 // 19
    nullptr,                 // 20
    nullptr,                 // 21
    nullptr,                 // 22
    nullptr,                 // 23
    nullptr,                 // 24
    nullptr,                 // 25
    nullptr,                 // 26
    &dbladeincrcopyCatalog,  // 27
    &vodCatalog,             // 28
    &tarnfsClientCatalog,    // 29
    nullptr,                 // 30
    &vldbClientCatalog,      // 31
    &vodClientCatalog,       // 32
    nullptr,                 // 33
    nullptr,                 // 34
    nullptr,                 // 35
    nullptr,                 // 36
    nullptr,                 // 37
    &rpcCatalog,             // 38
    nullptr,                 // 39
    nullptr,                 // 40
    nullptr,                 // 41
    nullptr,                 // 42
    nullptr,                 // 43
    nullptr,                 // 44
    nullptr,                 // 45
    nullptr,                 // 46
    nullptr,                 // 47
};
