#!/usr/bin/env bash
# wide_loads_test.sh OBJDUMP PROGRAM: inspects the code that the compiler has made of CopyWide. Loads of
# vectors must be aligned ones, eight of them in a row, and nothing may be left to memcpy.
set -euo pipefail

code=$("$1" --disassemble --no-show-raw-insn "$2" |
    sed -n '/<_Z8CopyWidePhPKhm[^>]*>:/,/^$/p' | grep -oP '^ +[0-9a-f]+:\s+\K.*')

fail() {
    printf 'CopyWide: %s\n%s\n' "$1" "$code"
    exit 1
}

case $code in
    *%xmm*) wide='^movdqa +[^,]*\(.*,%xmm|^movaps +[^,]*\(.*,%xmm' narrow='^mov(dqu|ups|q|lps|hps) +[^%]*\(.*,%xmm' ;;
    *) wide='^ld[pr]\s+q' narrow='^ld(ur?\s+[qd]|r\s+d|p\s+d|1|2|3|4)' ;;
esac
grep -qE 'call|^bl\s.*mem' <<<"$code" && fail "it calls another function"
grep -qE "$narrow" <<<"$code" && fail "a load of a vector is not an aligned one"
# ldp loads two.
loads=$(grep -oE "$wide|^ldp\s+q" <<<"$code" | awk '{ sum += /^ldp/ ? 2 : 1 } END { print sum + 0 }')
((loads >= 8)) || fail "$loads loads of vectors, not 8"
