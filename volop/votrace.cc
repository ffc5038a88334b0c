#include "votrace.h"

#include <strings.h>
#include <sys/time.h>
#include <syslog.h>

#include <atomic>
#include <cctype>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <mutex>

int isDaemon = 1;
VoTrace* gVoTrace = nullptr;

namespace {

constexpr uint32_t kModBits = 0xFFFFF000u;
constexpr uint32_t kLvlBits = 0x00000FFFu;
constexpr uint32_t kInitialMask = 0x0003F0E0u;

constexpr int kBufSize = 256;
constexpr int kRingLines = 0x100000;  // private-log lines before it wraps to the start
constexpr size_t kPathMax = 4096;

constexpr uint32_t kModuleBit[] = {kModBits, 0x1000, 0x2000, 0x4000, 0x8000, 0x10000, 0x20000};
constexpr const char* kModuleName[] = {"", "VOD", "VLDB", "VOSC", "VOSK", "INCP", "RPC"};
constexpr int kNumModules = sizeof(kModuleBit) / sizeof(kModuleBit[0]);

constexpr uint32_t kLevelBit[] = {kLvlBits, 0x01, 0x02, 0x04, 0x08, 0x10, 0x20, 0x40, 0x80};
// vo_detail and vo_debug share "D" on purpose.
constexpr char kLetter[] = " DD><EAWF";
constexpr int kPriority[] = {LOG_DEBUG, LOG_DEBUG, LOG_DEBUG,  LOG_INFO,   LOG_INFO,
                             LOG_INFO,  LOG_NOTICE, LOG_NOTICE, LOG_WARNING};
constexpr int kNumLevels = sizeof(kLevelBit) / sizeof(kLevelBit[0]);

// tr() runs on the service thread and on every worker. The mask and the depth are atomic so
// the call-site guard needs no lock; each thread formats into its own buffer; emitting a line
// (console or syslog, private log, count file, flush) happens under gEmitLock so lines from
// different threads never interleave. All of this is constant-initialised, so tracing works
// even from static constructors.
std::atomic<uint32_t> gMask{kInitialMask};
std::atomic<int> gDepth{0};
std::atomic<bool> gPrivateOpen{false};  // mirrors "both private files open" for the guard

std::mutex gEmitLock;
// Guarded by gEmitLock.
FILE* logfp = nullptr;
FILE* logCountfp = nullptr;
int logCount = 0;
FILE* gConsole = nullptr;  // null = stdout
char gLogPath[kPathMax] = "/var/log/vod.log";
char gCountPath[kPathMax] = "/var/log/vod.cnt";

thread_local char tBuf[kBufSize];
// A mask of this thread's own (ThreadMask), in force while tHasOwnMask is set.
thread_local bool tHasOwnMask = false;
thread_local uint32_t tOwnMask = 0;

uint32_t effectiveMask() { return tHasOwnMask ? tOwnMask : gMask.load(); }

bool validModule(int m) { return m >= 0 && m < kNumModules; }
bool validLevel(int l) { return l >= 0 && l < kNumLevels; }

bool maskTakes(uint32_t mask, int m, int l) {
    uint32_t bits = kModuleBit[m] | kLevelBit[l];
    return (mask & bits) == bits;
}

// Caller holds gEmitLock.
void closePrivateLocked() {
    if (logfp) {
        fclose(logfp);
        logfp = nullptr;
    }
    if (logCountfp) {
        fclose(logCountfp);
        logCountfp = nullptr;
    }
    gPrivateOpen.store(false);
}

struct Clock {
    struct tm tm;
    int msec;
};

Clock now() {
    Clock c{};
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    time_t secs = tv.tv_sec;
    localtime_r(&secs, &c.tm);
    c.msec = static_cast<int>(tv.tv_usec / 1000);
    return c;
}

// Appends one line to the ring and updates the count file. Returns false on any write, seek
// or flush failure. Caller holds gEmitLock and has checked that both files are open.
bool writePrivateLocked(int depth, int l, int m, const char* text) {
    Clock c = now();
    if (++logCount == kRingLines + 1) {
        if (fseek(logfp, 0, SEEK_SET) != 0) return false;
        logCount = 0;
    }
    for (int i = 0; i < depth; ++i) {
        if (fputc('\t', logfp) == EOF) return false;
    }
    if (fprintf(logfp, "%d %c %s %02d:%02d:%02d.%03d %s", depth, kLetter[l], kModuleName[m],
                c.tm.tm_hour, c.tm.tm_min, c.tm.tm_sec, c.msec, text) < 0)
        return false;
    // Overwritten in place and never truncated: a shorter line leaves the tail of a longer
    // one behind, and readers expect exactly that. The number is one past the line written,
    // except right after a wrap; kept as it is.
    if (fseek(logCountfp, 0, SEEK_SET) != 0) return false;
    if (fprintf(logCountfp, "Most recent log is at line %d, time %02d:%02d:%02d.%03d\n",
                logCount + 1, c.tm.tm_hour, c.tm.tm_min, c.tm.tm_sec, c.msec) < 0)
        return false;
    fflush(nullptr);
    // Errors are sticky, so this also catches a write that failed only when flushed.
    return !ferror(logfp) && !ferror(logCountfp);
}

}  // namespace

VoTrace::VoTrace() {
    gMask.store(kInitialMask);
    gDepth.store(0);
    closePrivateLogFiles();
}

VoTrace::~VoTrace() { closePrivateLogFiles(); }

void VoTrace::tr(Module m, Level l, const char* fmt, ...) {
    if (!validModule(m) || !validLevel(l) || fmt == nullptr) return;

    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(tBuf, kBufSize, fmt, ap);
    va_end(ap);
    // Exactly kBufSize (a text cut by one character) is deliberately not reported.
    if (n == -1 || n > kBufSize) snprintf(tBuf, kBufSize, "trace buffer overflow: %d\n", n);

    int depth = gDepth.load();
    bool toOutput = maskTakes(effectiveMask(), m, l);
    if (!toOutput && !gPrivateOpen.load()) return;

    std::lock_guard<std::mutex> lock(gEmitLock);
    if (toOutput) {
        if (isDaemon) {
            syslog(kPriority[l], "%d %c %s %s", depth, kLetter[l], kModuleName[m], tBuf);
        } else {
            Clock c = now();
            FILE* out = gConsole ? gConsole : stdout;
            fprintf(out, "%d %c %s %02d:%02d:%02d.%03d %s", depth, kLetter[l], kModuleName[m],
                    c.tm.tm_hour, c.tm.tm_min, c.tm.tm_sec, c.msec, tBuf);
            // Foreground runs are watched live, often through a pipe or a file.
            fflush(out);
        }
    }

    // The private log ignores the mask but never takes vo_all_lvl or vo_detail.
    if (!logfp || !logCountfp || l < vo_debug) return;
    if (l == vo_warn || l == vo_fatal) {
        for (int i = 0; i < kBufSize && tBuf[i]; ++i)
            tBuf[i] = static_cast<char>(toupper(static_cast<unsigned char>(tBuf[i])));
    } else if (m == vo_rpc) {
        return;  // RPC chatter below warning would flood the ring
    }
    // On failure tracing carries on to syslog or the console only.
    if (!writePrivateLocked(depth, l, m, tBuf)) closePrivateLocked();
}

unsigned VoTrace::getMask() { return gMask.load(); }

void VoTrace::setModMask(unsigned long m) {
    uint32_t cur = gMask.load();
    while (!gMask.compare_exchange_weak(cur, (static_cast<uint32_t>(m) & kModBits) |
                                                 (cur & kLvlBits))) {
    }
}

void VoTrace::setLvlMask(unsigned long m) {
    uint32_t cur = gMask.load();
    while (!gMask.compare_exchange_weak(cur, (static_cast<uint32_t>(m) & kLvlBits) |
                                                 (cur & kModBits))) {
    }
}

void VoTrace::setMask(unsigned long m) { gMask.store(static_cast<uint32_t>(m)); }

void VoTrace::openPrivateLogFiles() {
    std::lock_guard<std::mutex> lock(gEmitLock);
    if (!logfp) {
        logfp = fopen(gLogPath, "w");
        logCount = 0;
    }
    if (logfp && !logCountfp) logCountfp = fopen(gCountPath, "w");
    gPrivateOpen.store(logfp && logCountfp);
}

void VoTrace::closePrivateLogFiles() {
    std::lock_guard<std::mutex> lock(gEmitLock);
    closePrivateLocked();
}

bool VoTrace::enabledPrivateLog() { return gPrivateOpen.load(); }

bool VoTrace::wants(Module m, Level l) {
    if (gPrivateOpen.load()) return true;
    return validModule(m) && validLevel(l) && maskTakes(effectiveMask(), m, l);
}

VoTrace::ThreadMask::ThreadMask(unsigned mask) : _had(tHasOwnMask), _was(tOwnMask) {
    tHasOwnMask = true;
    tOwnMask = mask;
}

VoTrace::ThreadMask::~ThreadMask() {
    tHasOwnMask = _had;
    tOwnMask = _was;
}

VoTrace::Depth::Depth() { ++gDepth; }
VoTrace::Depth::~Depth() { --gDepth; }
int VoTrace::depth() { return gDepth.load(); }

void VoTrace::setPrivateLogPaths(const char* logPath, const char* countPath) {
    std::lock_guard<std::mutex> lock(gEmitLock);
    snprintf(gLogPath, sizeof gLogPath, "%s", logPath ? logPath : "/var/log/vod.log");
    snprintf(gCountPath, sizeof gCountPath, "%s", countPath ? countPath : "/var/log/vod.cnt");
}

void VoTrace::setConsoleStream(FILE* f) {
    std::lock_guard<std::mutex> lock(gEmitLock);
    gConsole = f;
}

namespace {

struct PresetMasks {
    unsigned long mod, lvl;
};

PresetMasks presetMasks(int preset) {
    unsigned long mod = 0xFFFFFFFFul;
    unsigned long lvl = 0xFFFFFFFFul;
    switch (preset) {
        case 0:
            mod = 0x00001000;
            lvl = 0x000000C0;
            break;
        case 1:
            mod = 0xFFFDFFFF;
            lvl = 0x000000C0;
            break;
        case 2:
            mod = 0xFFFDFFFF;
            lvl = 0x000000E0;
            break;
        case 3:
            mod = 0xFFFDFFFF;
            lvl = 0xFFFFFFFE;
            break;
        case 4:
            mod = 0xFFFFFFFF;
            lvl = 0xFFFFFFFE;
            break;
        default:  // above 4 and negative: everything
            break;
    }
    return {mod, lvl};
}

constexpr const char* kLevelName[] = {"",      "detail", "debug", "entry", "exit",
                                      "event", "audit",  "warn",  "fatal"};
static_assert(sizeof(kLevelName) / sizeof(kLevelName[0]) == kNumLevels, "one name per level");

}  // namespace

void voApplyTracePreset(int preset) {
    const PresetMasks p = presetMasks(preset);
    VoTrace::setModMask(p.mod);
    VoTrace::setLvlMask(p.lvl);
}

unsigned voTracePresetMask(int preset) {
    const PresetMasks p = presetMasks(preset);
    return static_cast<uint32_t>((p.mod & kModBits) | (p.lvl & kLvlBits));
}

unsigned voTraceBitOfName(const char* name) {
    if (name == nullptr || *name == '\0') return 0;
    for (int m = 1; m < kNumModules; ++m)
        if (strcasecmp(name, kModuleName[m]) == 0) return kModuleBit[m];
    for (int l = 1; l < kNumLevels; ++l)
        if (strcasecmp(name, kLevelName[l]) == 0) return kLevelBit[l];
    return 0;
}

bool voTraceIsModuleBit(unsigned bit) { return (bit & kModBits) != 0; }
