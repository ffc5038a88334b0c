#include "vodoptions.h"

#include <cctype>
#include <cstdlib>

void parseVodOptions(int argc, char* const* argv, VodOptions* opts) {
    for (int i = 1; i < argc; i++) {
        const char* a = argv[i];
        if (a[0] != '-') continue;
        const char* num = &a[2];
        // Only a digit right after the letter makes a number: "-h-5" and
        // "-x-1" are the letters alone, never a hold-off or pass count that
        // wraps to 4 billion once svc_run takes it unsigned.
        //
        // -t is the one exception: a thread count is refused when it is not
        // above 0, and "-t-3" must reach that refusal rather than quietly run
        // with the default. So for -t a minus sign followed by a digit is read
        // as a negative number; it can only ever lead to the refusal.
        const bool digitFollows = a[1] != '\0' && isdigit(static_cast<unsigned char>(num[0]));
        const bool negativeThreads =
            a[1] == 't' && num[0] == '-' && isdigit(static_cast<unsigned char>(num[1]));
        const bool hasNum = digitFollows || negativeThreads;
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
            case 'w':
                if (hasNum) opts->callTimeoutCap = n;
                break;
            default:
                break;  // unknown letters are ignored without a message
        }
    }
}
