#!/usr/bin/env bash
# exported_names.sh LIBRARY SOURCES: the names that leave the object are those of the list, no fewer and no more, every
# one of them is declared in a public header, and the object goes by its versioned name.
set -euo pipefail
export LC_ALL=C
listed=$(sed -e 's/#.*//' -e '/local:/d' -e 's/global://' "$2/libvu/libvu.map" | tr -d '{}' | tr ';' '\n' | tr -d ' \t' | grep . | sort)
exported=$(nm -D --defined-only "$1" | awk '{print $3}' | grep -v '^__asan\|^__ubsan\|^__odr_asan' | sort)
diff <(echo "$listed") <(echo "$exported") || { echo "exported names (right) are not those of libvu.map (left)"; exit 1; }
declared=$(find "$2/libvu" -name '*.h' ! -name '*_private.h' -exec cat {} +)
for name in $listed; do
  grep -q "\b$name\b" <<<"$declared" || { echo "$name stands in no public header"; exit 1; }
done
readelf -d "$1" | grep -q 'SONAME.*\[libvu\.so\.1\]' || { echo "wrong SONAME"; exit 1; }
needed=$(readelf -d "$1" | sed -n 's/.*NEEDED.*\[\(.*\)\]/\1/p' | grep -v 'libc\.\|libm\.\|libgcc_s\|libstdc++\|lib\(a\|ub\)san' | sort | tr '\n' ' ')
[ "$needed" = "libev.so.4 libgmp.so.10 libisal.so.2 libyajl.so.2 libz.so.1 " ] || { echo "depends on: $needed"; exit 1; }
