#!/usr/bin/env bash
# The shared library exports exactly the public interface: the plain C
# functions and data, and the nimbara:: classes and functions. A missing name
# or a stray one fails, with the difference.
set -u
library=$1
expected=$2
actual=$(nm -D --defined-only "$library" | awk '{print $3}' | c++filt | sort)
if diff <(sort "$expected") <(echo "$actual") >/tmp/nimbara-symbols.diff; then
  echo "symbols: $(echo "$actual" | wc -l) exported, as expected"
  exit 0
fi
echo "the exported symbols differ from $expected (< missing, > stray):"
cat /tmp/nimbara-symbols.diff
exit 1
