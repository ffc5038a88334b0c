// Command-line options of vod.
//
// The daemon takes single-letter options only.  A letter takes a number when the
// character right after it is a decimal digit (-t20, never -t 20; -h-5 is -h
// alone); -t alone also reads a negative count, only so that it is refused.  A
// word that does not begin with '-' and any unknown letter are ignored without
// a message; a later occurrence overrides an earlier one.
#ifndef VOLOP_VODOPTIONS_H
#define VOLOP_VODOPTIONS_H

struct VodOptions {
    int tracePreset = 1;     // -d[N]: trace preset
    int isDaemon = 1;        // -d: run in the foreground instead
    int holdOffSec = 0;      // -h[N]: delay of the first resurrection pass
    int keepSrc = 0;         // -k[N]: moves keep their source volume
    int numOfThreads = 10;   // -t[N]: worker threads; must be > 0
    int callsToServe = 0;    // -x[N]: loop passes before svc_run returns; 0 = for ever
    int callTimeoutCap = 0;  // -wN: no remote call waits longer than N s; 0 = no cap
};

// Parses argv[1..argc-1] into *opts, which holds the defaults on entry.
void parseVodOptions(int argc, char* const* argv, VodOptions* opts);

#endif
