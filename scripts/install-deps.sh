#!/usr/bin/env bash
# Installs the Debian packages the project builds and tests with, only those
# that are missing. Silent when everything is already there.
set -euo pipefail

packages=(
  g++ cmake make pkg-config
  libopencv-dev libtbb-dev libinih-dev libcli11-dev nlohmann-json3-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang
  python3 python3-dev pybind11-dev python3-numpy python3-pytest python3-tqdm python3-matplotlib
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -eq 0 ]; then
  sudo=()
elif command -v sudo >/dev/null 2>&1; then
  sudo=(sudo)
else
  echo "install-deps: missing ${missing[*]}; run as root or install sudo" >&2
  exit 1
fi

echo "install-deps: installing ${missing[*]}"
# env passes the setting through sudo, which resets the environment.
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive \
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
