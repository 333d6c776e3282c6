#!/usr/bin/env bash
# The README's list of C functions is exactly the library's exports with C
# linkage (plain names) plus the two C++-only operations it names as such.
set -u
readme=$1 library=$2
listed=$(sed -n '/<!-- C functions/,/<!-- end of C functions/p' "$readme" | grep -o '`[A-Za-z0-9_]*`' |
  tr -d '`' | grep -v -x -e TankId -e doGetTankId -e doSprayWithLightLedGetTankId | sort -u)
exported=$(nm -D --defined-only "$library" | awk '{print $3}' | grep -v -e '^_Z' | sort -u)
if diff <(echo "$listed") <(echo "$exported"); then
  echo "README: $(echo "$listed" | wc -l) C names, as exported"
  exit 0
fi
echo "the README's C names differ from the exports (< README only, > exported only)"
exit 1
