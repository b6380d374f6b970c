#!/usr/bin/env bash
# Builds Debian's oneTBB source package (the version the system's libtbb12
# comes from) with ThreadSanitizer, for `make test-tsan` only. The checker
# must see TBB's own hand-over of work between threads (task spawning,
# reference counts, the wait on a loop's end); the system's libtbb is not
# instrumented, so with it every loop reports races that are not there.
#   scripts/tsan-tbb.sh PREFIX
# Installs into PREFIX (lib/ and lib/cmake/TBB); does nothing when PREFIX
# already holds this build. Needs network access to the Debian mirror.
set -euo pipefail
prefix=${1:?usage: tsan-tbb.sh PREFIX}
mirror=${MIRROR:-http://deb.debian.org/debian}
version=2021.8.0
debian_rev=2+deb12u1
orig=onetbb_${version}.orig.tar.xz
orig_sha=7e9111b8bb59c8800bf6d0b06afe7b0891937443d2dae1ee1101c8e2ede6a7ef
deb=onetbb_${version}-${debian_rev}.debian.tar.xz
deb_sha=b83a270205b38cdf66972fa1467c3e29493b88b92ecacf4f3672e87d67199df5

mkdir -p "$prefix"
prefix=$(cd "$prefix" && pwd)
stamp=$prefix/.onetbb-${version}-${debian_rev}-tsan
[ -f "$stamp" ] && exit 0
work=$prefix/src
rm -rf "$work"
mkdir -p "$work"
cd "$work"
for file in "$orig:$orig_sha" "$deb:$deb_sha"; do
  name=${file%%:*}
  curl -fsSL --retry 3 -o "$name" "$mirror/pool/main/o/onetbb/$name"
  echo "${file##*:}  $name" | sha256sum -c --quiet - ||
    { echo "tsan-tbb: $name does not match the checksum of the Debian source package" >&2; exit 1; }
done
mkdir source
tar -xf "$orig" -C source --strip-components=1
tar -xf "$deb" -C source
cd source
if [ -f debian/patches/series ]; then
  grep -v -E '^\s*(#|$)' debian/patches/series | while read -r patch _; do
    patch -p1 --quiet <"debian/patches/$patch"
  done
fi
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTBB_SANITIZE=thread \
  -DTBB_TEST=OFF -DTBB_EXAMPLES=OFF -DTBBMALLOC_BUILD=OFF -DTBB_STRICT=OFF \
  -DTBB_DISABLE_HWLOC_AUTOMATIC_SEARCH=ON -DCMAKE_INSTALL_PREFIX="$prefix" \
  -DCMAKE_INSTALL_LIBDIR=lib -DCMAKE_CXX_FLAGS=-Wno-tsan >/dev/null
cmake --build build -j "${JOBS:-$(nproc)}" >/dev/null
cmake --install build >/dev/null
rm -rf "$work"
touch "$stamp"
