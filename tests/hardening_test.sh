#!/usr/bin/env bash
# hardening_test.sh BIN LIB: checks the hardening of the programs and libraries in our packages.
set -euo pipefail

failed=0
require() {  # FILE PROPERTY PATTERN READELF'S OPTIONS
    grep -qE -- "$3" <<<"$(readelf "${@:4}" "$1")" && return
    echo "${1##*/}: no $2"
    failed=1
}

for file in "$1"/{guilinkd,guilink-core,guilink-viewer} "$2"/libambaipc.so; do
    # Skip a missing file, unless it is guilinkd: a build may lack the devkit, or use the vendor's
    # libambaipc.so.
    [[ -f $file || $file == */guilinkd ]] || continue
    echo "looking at ${file##*/}"
    require "$file" "position independence" 'Type: +DYN' --file-header
    require "$file" "relocations that are read-only" GNU_RELRO --program-headers --wide
    require "$file" "binding at the start" 'FLAGS.*NOW' --dynamic --wide
    require "$file" "stack without execution" 'GNU_STACK .* RW +0x' --program-headers --wide
    require "$file" "stack protector" '__stack_chk_fail@' --dyn-syms --wide
    [[ $file == *.so ]] || require "$file" "PIE" 'FLAGS_1.*PIE' --dynamic --wide
    require "$file" "fortified calls" '__[a-z]+_chk@' --dyn-syms --wide
done
exit $failed
