// voctl's reading of the numbers and LP ids given on its command line.
//
// Input: the text of one argument. A number read as 32 bits reads the same as
// 64 bits, and one that only fits 64 bits is above the 32-bit range; a value
// read prints back, in decimal and in hex, to text that reads as the same
// value. An LP id read prints back to text that reads as the same id, which
// is the text itself with "0x" in front and upper-case digits.
#include <stdint.h>
#include <stdio.h>

#include <cctype>
#include <string>
#include <string_view>

#include "fuzz/fuzz_check.h"
#include "voctl/lpid.h"
#include "voctl/number.h"

namespace {

void numbers(std::string_view text) {
    const auto n32 = voctl::parseU32(text);
    const auto n64 = voctl::parseU64(text);
    if (n32) FUZZ_CHECK(n64 && *n64 == *n32);
    if (n64 && !n32) FUZZ_CHECK(*n64 > UINT32_MAX);
    if (!n64) return;
    char hex[32];
    snprintf(hex, sizeof hex, "0x%llx", static_cast<unsigned long long>(*n64));
    FUZZ_CHECK(voctl::parseU64(std::to_string(*n64)) == n64);
    FUZZ_CHECK(voctl::parseU64(hex) == n64);
}

void lpId(std::string_view text) {
    const auto id = voctl::parseLpId(text);
    if (!id) return;
    const std::string printed = voctl::formatLpId(*id);
    FUZZ_CHECK(voctl::parseLpId(printed) == id);
    std::string upper(text.substr(text.size() - 32));
    for (char& c : upper) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    FUZZ_CHECK(printed == "0x" + upper);
    FUZZ_CHECK(voctl::isLidZero(*id) == (printed == "0x" + std::string(32, '0')));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    numbers(text);
    lpId(text);
    return 0;
}
