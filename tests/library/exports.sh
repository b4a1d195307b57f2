#!/usr/bin/env bash
# The functions that the header declares, the map file lists, the library exports and the C program
# calls are the same: exports.sh COMPILER HEADER MAP LIBRARY C_PROGRAM
set -euo pipefail

names() { grep -oE '\b(Stat|StatUtils)_[A-Za-z0-9]+\b' | sort -u; }
declared=$("$1" -E -P "$2" | tr '\n' ' ' | grep -oE '\w+ *\(' | names)

status=0
check() {
  if ! diff --label "declared" --label "$1" <(echo "$declared") <(names); then status=1; fi
}
check "listed in the map" <"$3"
check "called from C" < <(grep -oE 'Stat\w+\(' "$5")
# Everything that the library defines counts here, whatever it is called.
check "exported" < <(nm -D --defined-only "$4" | awk '{print "Stat_" $3}' | sed 's/^Stat_Stat/Stat/')
[[ $(wc -l <<<"$declared") -ge 30 ]] || { echo "too few functions declared"; status=1; }
exit $status
