// The D-blade host cache: D-blade ids resolved to host names through the DLDB.
#ifndef VOLOP_VODLDB_H
#define VOLOP_VODLDB_H

class VoDldb {
public:
    // Called once by the service loop before its first pass.  The table is read
    // lazily, on the first lookup, so a DLDB that is not up yet does not delay
    // the start of the daemon.
    static void initialize();
};

#endif
