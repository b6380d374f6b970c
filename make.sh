#!/usr/bin/env bash
# `make` for a machine that may not have it yet: installs the missing Debian
# packages (make and the compiler included; as root, or through sudo), then
# runs make with the same arguments.
#   ./make.sh demo    ./make.sh test    ./make.sh bench ...
set -euo pipefail
cd "$(dirname "$0")"
bash scripts/install-deps.sh
exec make "$@"
