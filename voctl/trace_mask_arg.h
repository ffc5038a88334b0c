// The argument of voctl trace-mask: a mask word, or module and level names
// that make one, so that an administrator need not remember the bits.
#ifndef VOCTL_TRACE_MASK_ARG_H
#define VOCTL_TRACE_MASK_ARG_H

#include <cstdint>
#include <optional>
#include <string>

#include "voctl/number.h"
#include "votrace.h"

namespace voctl {

// What a list without modules selects: every module bit, as the presets do.
constexpr uint32_t kAllModules = 0xFFFFF000u;
// What a list without levels selects: the lines an operator acts on.
constexpr uint32_t kDefaultLevels = 0x000000E0u;  // audit, warn, fatal

// A number (decimal or 0x hex) is the mask word itself. Otherwise text is a
// comma-separated list of module names (VOD, VLDB, VOSC, VOSK, INCP, RPC) and
// level names (detail ... fatal), in any case; a list that names no module
// means every module, one that names no level means kDefaultLevels. Returns
// nothing, with the offending word in *why, when a word is neither.
inline std::optional<uint32_t> parseTraceMaskArg(const std::string& text, std::string* why) {
    if (auto n = parseU32(text)) return n;
    uint32_t modules = 0, levels = 0;
    size_t start = 0;
    while (start <= text.size()) {
        size_t comma = text.find(',', start);
        if (comma == std::string::npos) comma = text.size();
        const std::string word = text.substr(start, comma - start);
        const unsigned bit = voTraceBitOfName(word.c_str());
        if (bit == 0) {
            *why =
                word.empty() ? "an empty name" : "'" + word + "' is neither a module nor a level";
            return std::nullopt;
        }
        (voTraceIsModuleBit(bit) ? modules : levels) |= bit;
        start = comma + 1;
    }
    return (modules ? modules : kAllModules) | (levels ? levels : kDefaultLevels);
}

}  // namespace voctl

#endif  // VOCTL_TRACE_MASK_ARG_H
