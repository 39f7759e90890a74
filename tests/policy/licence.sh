#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# licence.sh TREE: every source says in its first lines under which licence it stands, and that is the tree's; for what
# the kernel runs it is one that the kernel takes.
set -euo pipefail
cd "$1"
grep -q 'Apache License' LICENSE
missing=$(find .ci module platform host tests bench fuzz scripts samples docs cmake debian ./*.sh CMakeLists.txt -type f \
    \( -name '*.h' -o -name '*.c' -o -name '*.cpp' -o -name '*.py' -o -name '*.sh' -o -name '*.awk' -o -name '*.cmake' \
    -o -name '*.map' -o -name CMakeLists.txt -o -path debian/rules -o -path .ci/run \) -exec awk '
        FNR == 1 { if (NR > 1 && !found) print last; found = 0; last = FILENAME }
        FNR <= 3 && /SPDX-License-Identifier: Apache-2.0/ { found = 1 }
        FNR <= 15 && /SPDX-License-Identifier: MIT OR GPL-2.0-only/ { found = found || FILENAME ~ /^platform\/chip\/kernel\// }
        END { if (!found) print last }' {} + | sort)
[ -z "$missing" ] || { printf 'no "SPDX-License-Identifier: Apache-2.0":\n%s\n' "$missing" >&2; exit 1; }
