#!/bin/sh
# render.sh SCDOC GROFF SOURCE.scd OUT: OUT (roff) and OUT.gz from one scdoc
# page. Any groff warning fails, so a page that man would show garbled never
# ships. gzip -n: no name or time stamp, so the package is reproducible.
set -eu
scdoc=$1 groff=$2 src=$3 out=$4
"$scdoc" <"$src" >"$out.tmp"
warnings=$(LC_ALL=C.UTF-8 MANWIDTH=80 "$groff" -man -Tutf8 -ww -z "$out.tmp" 2>&1 >/dev/null)
if [ -n "$warnings" ]; then
    echo "$src: groff warnings:" >&2
    echo "$warnings" >&2
    rm -f "$out.tmp"
    exit 1
fi
mv "$out.tmp" "$out"
gzip -9n <"$out" >"$out.gz"
