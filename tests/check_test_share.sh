#!/bin/bash
# The tests stay lean: tests/ holds at most 35% of the lines of src/, include/
# and sim/ (wc -l over .cpp .hpp .h .c, blank and comment lines included).
set -eu
top=$1
count() { find "$@" -type f \( -name '*.cpp' -o -name '*.hpp' -o -name '*.h' -o -name '*.c' \) -print0 |
          xargs -0 cat | wc -l; }
tests=$(count "$top/tests")
code=$(count "$top/src" "$top/include" "$top/sim")
echo "tests/: $tests lines; src/, include/, sim/: $code lines; limit $((code * 35 / 100))"
[ $((tests * 100)) -le $((code * 35)) ]
