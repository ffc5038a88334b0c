// The argument decoder of every VOPROG procedure, as the dispatcher runs it.
//
// Input: byte 0 is the procedure number, the rest is the call's argument as
// it comes off the wire. The procedure's row in the dispatcher's table
// decodes it into a zeroed record of the row's size, and xdr_free gives back
// whatever the filter took, whether the record decoded whole or not.
//
// A record that decoded whole must encode again, and decoding that encoding
// must read all of it and give a record that encodes to the same bytes: a
// filter that reads a field it does not write, or the reverse, breaks that.
// (The first encoding need not match the input: a string read as C text ends
// at its first NUL, and a bool reads any non-zero word as true.)
#include <rpc/rpc.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <vector>

#include "fuzz/fuzz_check.h"
#include "volop/vo_dispatch.h"

namespace {

// A zeroed record of the row's argument type, freed through the row's filter.
class Record {
  public:
    explicit Record(const VoProcRow& p) : _p(p), _bytes(p.argSize > 0 ? p.argSize : 1) {}
    ~Record() { xdr_free(_p.xdrArg, ptr()); }
    Record(const Record&) = delete;
    Record& operator=(const Record&) = delete;

    char* ptr() { return _bytes.data(); }

    // True when the bytes decode whole; *used gets how many were read.
    bool decode(const uint8_t* data, size_t len, size_t* used) {
        XDR x;
        xdrmem_create(&x, reinterpret_cast<char*>(const_cast<uint8_t*>(data)),
                      static_cast<u_int>(len), XDR_DECODE);
        const bool ok = _p.xdrArg(&x, ptr());
        *used = xdr_getpos(&x);
        xdr_destroy(&x);
        return ok;
    }

    std::vector<char> encode() {
        std::vector<char> out(xdr_sizeof(_p.xdrArg, ptr()));
        XDR x;
        xdrmem_create(&x, out.data(), static_cast<u_int>(out.size()), XDR_ENCODE);
        FUZZ_CHECK(_p.xdrArg(&x, ptr()));
        FUZZ_CHECK(xdr_getpos(&x) == out.size());
        xdr_destroy(&x);
        return out;
    }

  private:
    const VoProcRow& _p;
    std::vector<char> _bytes;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const VoProcRow* p = voprogRow(data[0]);
    if (p == nullptr) return 0;

    Record first(*p);
    size_t used = 0;
    if (!first.decode(data + 1, size - 1, &used)) return 0;
    FUZZ_CHECK(used <= size - 1);
    const std::vector<char> once = first.encode();

    Record second(*p);
    size_t usedAgain = 0;
    FUZZ_CHECK(
        second.decode(reinterpret_cast<const uint8_t*>(once.data()), once.size(), &usedAgain));
    FUZZ_CHECK(usedAgain == once.size());
    FUZZ_CHECK(second.encode() == once);
    return 0;
}
