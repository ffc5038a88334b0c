#include "vodoptions.h"

#include <cctype>
#include <cstdlib>

void parseVodOptions(int argc, char* const* argv, VodOptions* opts) {
    for (int i = 1; i < argc; i++) {
        const char* a = argv[i];
        if (a[0] != '-') continue;
        const char* num = &a[2];
        // A digit right after the letter makes a number.  A minus sign before
        // the digit does too, so that "-t-3" reaches the refusal of thread counts
        // below 1 instead of silently keeping the default.
        bool hasNum = a[1] != '\0' &&
                      (isdigit(static_cast<unsigned char>(num[0])) ||
                       (num[0] == '-' && isdigit(static_cast<unsigned char>(num[1]))));
        int n = hasNum ? atoi(num) : 0;
        switch (a[1]) {
            case 'd':
                opts->isDaemon = 0;
                opts->tracePreset = hasNum ? n : 4;
                break;
            case 'h':
                if (hasNum) opts->holdOffSec = n;
                break;
            case 'k':
                opts->keepSrc = hasNum ? n : 1;
                break;
            case 't':
                if (hasNum) opts->numOfThreads = n;
                break;
            case 'x':
                opts->callsToServe = hasNum ? n : 1;
                break;
            default:
                break;  // unknown letters are ignored without a message
        }
    }
}
