// LP ids on the command line: 32 hex digits, optionally after "0x", byte 0
// first, the way the daemon's traces print them after "LP=0x".
//
// Header-only so that the unit tests can use it without linking the tool.
#ifndef VOCTL_LPID_H
#define VOCTL_LPID_H

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace voctl {

using LpId = std::array<uint8_t, 16>;

namespace detail {
inline int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}
}  // namespace detail

// Returns the LP id, or nothing when text is not exactly 32 hex digits
// (either case) with an optional "0x"/"0X" in front.
inline std::optional<LpId> parseLpId(std::string_view text) {
    if (text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
        text.remove_prefix(2);
    if (text.size() != 32) return std::nullopt;
    LpId id{};
    for (size_t i = 0; i < id.size(); ++i) {
        int hi = detail::hexValue(text[2 * i]);
        int lo = detail::hexValue(text[2 * i + 1]);
        if (hi < 0 || lo < 0) return std::nullopt;
        id[i] = static_cast<uint8_t>(hi << 4 | lo);
    }
    return id;
}

// The LP id in a protocol record's 16-byte field.
inline LpId lpIdOf(const uint8_t* bytes) {
    LpId id;
    std::copy(bytes, bytes + id.size(), id.begin());
    return id;
}

// "0x" and 32 upper-case hex digits: what parseLpId reads back.
inline std::string formatLpId(const LpId& id) {
    static const char kDigits[] = "0123456789ABCDEF";
    std::string s = "0x";
    for (uint8_t b : id) {
        s += kDigits[b >> 4];
        s += kDigits[b & 0xF];
    }
    return s;
}

// The all-zero LP id stands for every LP.
inline bool isLidZero(const LpId& id) {
    for (uint8_t b : id)
        if (b != 0) return false;
    return true;
}

}  // namespace voctl

#endif  // VOCTL_LPID_H
