// VoTrace: the daemon's one trace facility.
//
// A message has a module and a level; one process-wide mask word decides whether it goes to
// syslog (daemon) or to the console (foreground). Independently of the mask, a private ring
// log and its count file can be switched on at run time.
//
// Every member is static and safe to call from any thread: lines are emitted whole under one
// internal lock, the mask and the depth are atomic, and the message buffer is per thread.
#ifndef VOLOP_VOTRACE_H
#define VOLOP_VOTRACE_H

#include <cstdio>

// 1 unless vod runs in the foreground. Set by main before any other thread exists.
extern int isDaemon;

class VoTrace {
public:
    // The value indexes the module tables; bit = 0x1000 << (value - 1), 0 = all module bits.
    enum Module { vo_all_mod = 0, vo_vod, vo_vldb, vo_srcvol, vo_sinkvol, vo_incrcopy, vo_rpc };
    // The value indexes the level tables; bit = 1 << (value - 1), 0 = all level bits.
    enum Level {
        vo_all_lvl = 0,
        vo_detail,
        vo_debug,
        vo_entry,
        vo_exit,
        vo_event,
        vo_audit,
        vo_warn,
        vo_fatal
    };

    // Mask 0x0003F0E0 (every module; audit, warn, fatal), depth 0, private files closed.
    VoTrace();
    // Closes the private files.
    ~VoTrace();

    // Formats one message and emits it: to syslog or the console when the mask takes it, and
    // to the private log when that is open (levels vo_debug and up; vo_rpc only from vo_warn).
    // Callers should go through VO_TR, which tests wants() before evaluating any argument.
    static void tr(Module m, Level l, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

    // Bits 12-31: modules; bits 0-11: levels.
    static unsigned getMask();
    static void setModMask(unsigned long m);  // replaces bits 12-31 only
    static void setLvlMask(unsigned long m);  // replaces bits 0-11 only
    static void setMask(unsigned long m);     // replaces the whole word

    // Opens the private log (truncated, line count reset) and its count file; a file that is
    // already open is left as it is.
    static void openPrivateLogFiles();
    static void closePrivateLogFiles();
    // True when both private files are open.
    static bool enabledPrivateLog();

    // The call-site guard: enabledPrivateLog() or both the module and level bits in the mask.
    static bool wants(Module m, Level l);

    // For the guard's lifetime, lines traced by this thread are judged by mask instead of the
    // process-wide word, which stays as it is: a worker that must trace a dump in full cannot
    // race vosettracemask, or lose what it set, by rewriting the shared mask.
    class ThreadMask {
    public:
        explicit ThreadMask(unsigned mask);
        ~ThreadMask();
        ThreadMask(const ThreadMask&) = delete;
        ThreadMask& operator=(const ThreadMask&) = delete;

    private:
        bool _had;
        unsigned _was;
    };

    // Raises the nesting depth shown in every line for the guard's lifetime.
    class Depth {
    public:
        Depth();
        ~Depth();
        Depth(const Depth&) = delete;
        Depth& operator=(const Depth&) = delete;
    };
    static int depth();

    // For tests and tools: where the private files live (null = /var/log/vod.log and
    // /var/log/vod.cnt); takes effect at the next openPrivateLogFiles().
    static void setPrivateLogPaths(const char* logPath, const char* countPath);
    // Where foreground output goes (null = stdout).
    static void setConsoleStream(FILE* f);
};

// Set by main.
extern VoTrace* gVoTrace;

// Applies trace preset n (0..4; anything else, negative included, = everything) through
// setModMask and setLvlMask.
void voApplyTracePreset(int preset);

// The whole mask word that preset n sets: what voApplyTracePreset leaves in force.
unsigned voTracePresetMask(int preset);

// The mask bit of a module ("VLDB", as traces print it) or a level ("audit", as the
// Level enumerators read without "vo_") named in any case; 0 for any other name.
unsigned voTraceBitOfName(const char* name);
// True when bit (from voTraceBitOfName) is a module bit rather than a level bit.
bool voTraceIsModuleBit(unsigned bit);

// The one call-site pattern: the mask is tested first, so the arguments are not evaluated
// when nothing would be written; the message is prefixed with the function name and line.
#define VO_TR(mod, lvl, fmt, ...)                                                        \
    do {                                                                                 \
        if (VoTrace::wants(VoTrace::mod, VoTrace::lvl))                                  \
            VoTrace::tr(VoTrace::mod, VoTrace::lvl, "%s %d " fmt, __func__, __LINE__,    \
                        ##__VA_ARGS__);                                                  \
    } while (0)

// Where a shared helper writes trace lines from: the calling step's name and line, so that
// they read as the step's own.
struct VoTraceSite {
    const char* fn;
    int line;
};
#define VO_SITE (VoTraceSite{__func__, __LINE__})

// VO_TR from a helper on behalf of the step at site; mod and lvl are VoTrace values.
#define VO_TR_AT(site, mod, lvl, fmt, ...)                                               \
    do {                                                                                 \
        if (VoTrace::wants(mod, lvl))                                                    \
            VoTrace::tr(mod, lvl, "%s %d " fmt, (site).fn, (site).line, ##__VA_ARGS__);  \
    } while (0)

// Same guard without the "function line " prefix, for the few fixed start-up messages.
#define VO_TR_RAW(mod, lvl, fmt, ...)                                                    \
    do {                                                                                 \
        if (VoTrace::wants(VoTrace::mod, VoTrace::lvl))                                  \
            VoTrace::tr(VoTrace::mod, VoTrace::lvl, fmt, ##__VA_ARGS__);                 \
    } while (0)

#endif  // VOLOP_VOTRACE_H
