// Numbers on the command line: decimal, or hex after "0x". No sign, no octal
// (a leading 0 is plain decimal), nothing after the digits.
#ifndef VOCTL_NUMBER_H
#define VOCTL_NUMBER_H

#include <cstdint>
#include <limits>
#include <optional>
#include <string_view>

namespace voctl {

// Returns the value, or nothing when text is not a number that fits in T.
template <typename T>
std::optional<T> parseUnsigned(std::string_view text) {
    static_assert(std::numeric_limits<T>::is_integer && !std::numeric_limits<T>::is_signed);
    unsigned base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text.remove_prefix(2);
    }
    if (text.empty()) return std::nullopt;
    T value = 0;
    for (char c : text) {
        unsigned d;
        if (c >= '0' && c <= '9') d = c - '0';
        else if (base == 16 && c >= 'a' && c <= 'f') d = c - 'a' + 10;
        else if (base == 16 && c >= 'A' && c <= 'F') d = c - 'A' + 10;
        else return std::nullopt;
        if (value > (std::numeric_limits<T>::max() - d) / base) return std::nullopt;
        value = static_cast<T>(value * base + d);
    }
    return value;
}

inline std::optional<uint32_t> parseU32(std::string_view text) { return parseUnsigned<uint32_t>(text); }
inline std::optional<uint64_t> parseU64(std::string_view text) { return parseUnsigned<uint64_t>(text); }

}  // namespace voctl

#endif  // VOCTL_NUMBER_H
