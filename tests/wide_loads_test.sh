#!/usr/bin/env bash
# wide_loads_test.sh OBJDUMP PROGRAM: inspects the compiled code of CopyWide. The code must contain at
# least eight loads of 16 bytes, use only aligned instructions to load vectors, and not call memcpy.
set -euo pipefail

code=$("$1" --disassemble --no-show-raw-insn "$2" | sed -n '/<_Z8CopyWidePhPKhm[^>]*>:/,/^$/p')
fail() {
    printf '%s\nCopyWide: %s\n' "$code" "$1"
    exit 1
}

loads=0
while read -r _ instruction; do
    case $instruction in
        call*mem* | bl*mem*) fail "calls another function: $instruction" ;;
        movdqa*'('*'),%xmm'*) loads=$((loads + 1)) ;;
        mov*'('*'),%xmm'*) fail "a load that need not be aligned: $instruction" ;;
        ldr*[[:space:]]q* | ldur*[[:space:]]q* | ldp*[[:space:]]q*)
            if [[ $instruction =~ \#(-?[0-9]+) ]] && ((BASH_REMATCH[1] % 16)); then
                fail "a load that is not aligned: $instruction"
            fi
            [[ $instruction == ldp* ]] && loads=$((loads + 2)) || loads=$((loads + 1))
            ;;
        ld*[[:space:]][bdhs][0-9]* | ld*[[:space:]]'{'*) fail "a narrower load: $instruction" ;;
    esac
done <<<"$code"
((loads >= 8)) || fail "$loads wide loads, not 8"
