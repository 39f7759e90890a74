#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# size.sh LIBRARY BYTES: the library's text and data together stay under BYTES.
set -euo pipefail
used=$(size "$1" | awk 'NR == 2 { print $1 + $2 }')
echo "text and data: $used of $2 bytes"
[ "$used" -lt "$2" ]
