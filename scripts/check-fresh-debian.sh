#!/usr/bin/env bash
# Checks the README's set-up on a bare Debian 12: a minbase chroot made with
# debootstrap (no make, no compiler), a clean clone of this repository's HEAD
# copied in, then the README's two commands:
#   1. as root on the fresh system (everything gets installed with apt-get);
#   2. as a normal user with sudo, after make has been removed again, so that
#      the user's first command has to install it through sudo.
# Run as root on a Debian machine with debootstrap and git, from anywhere:
#   scripts/check-fresh-debian.sh [WORK_FOLDER]
# Needs network access to the Debian mirror (MIRROR, default deb.debian.org)
# and takes a while: the packages, a full build and the test suite, twice.
# Everything is logged to WORK_FOLDER/check.log; the chroot is removed at the
# end unless KEEP=1.
set -euo pipefail

repo=${CHECK_FRESH_REPO:-$(cd "$(dirname "$0")/.." && pwd)}
# bash reads a script as it runs: run from a private copy, so that editing the
# repository's copy during the long run cannot change what is executed.
if [ -z "${CHECK_FRESH_REPO:-}" ]; then
  copy=$(mktemp /tmp/check-fresh-debian-XXXXXX.sh)
  cp "$0" "$copy"
  CHECK_FRESH_REPO=$repo exec bash "$copy" "$@"
fi
mirror=${MIRROR:-http://deb.debian.org/debian}
if [ "$(id -u)" -ne 0 ]; then
  echo "check-fresh-debian: run as root (debootstrap and chroot need it)" >&2
  exit 1
fi
for tool in debootstrap git; do
  command -v "$tool" >/dev/null || { echo "check-fresh-debian: $tool is missing" >&2; exit 1; }
done
work=${1:-$(mktemp -d /var/tmp/clubtracker-fresh-XXXXXX)}
mkdir -p "$work"
work=$(cd "$work" && pwd)
root=$work/chroot
log=$work/check.log
: >"$log"

cleanup() {
  for dir in dev sys proc; do
    mountpoint -q "$root/$dir" 2>/dev/null && umount -R -l "$root/$dir"
  done
  if [ "${KEEP:-0}" != 1 ]; then rm -rf "$root"; fi
}
trap cleanup EXIT

# Step lines go to the terminal and the log; everything else to the log only.
exec 3>&1 >>"$log" 2>&1
step() {
  local line="=== $(date -u '+%F %T') $*"
  echo "$line"
  echo "$line" >&3
}
fail() { step "FAILED: $*"; tail -n 40 "$log" >&3; exit 1; }

# A command inside the chroot with a clean environment, as root or as `builder`.
as_root() {
  chroot "$root" /usr/bin/env -i HOME=/root LANG=C.UTF-8 \
    PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin /bin/bash -c "$1"
}
as_user() {
  chroot "$root" /usr/sbin/runuser -u builder -- /usr/bin/env -i HOME=/home/builder \
    LANG=C.UTF-8 PATH=/usr/local/bin:/usr/bin:/bin /bin/bash -c "$1"
}

step "debootstrap: Debian 12 (bookworm) minbase into $root from $mirror"
debootstrap --variant=minbase bookworm "$root" "$mirror" || fail "debootstrap"
cp /etc/resolv.conf "$root/etc/resolv.conf"
mount -t proc proc "$root/proc"
mount --rbind /sys "$root/sys" && mount --make-rslave "$root/sys"
mount --rbind /dev "$root/dev" && mount --make-rslave "$root/dev"
as_root 'for t in make g++ cc cmake; do command -v $t || echo "$t: not installed"; done'

step "clean clone of $(git -C "$repo" rev-parse --short HEAD) into /opt/clubtracker"
git clone --quiet --no-local "$repo" "$root/opt/clubtracker" || fail "git clone"

step "as root: ./make.sh demo"
as_root 'cd /opt/clubtracker && time ./make.sh demo' || fail "root: ./make.sh demo"
step "as root: ./make.sh test"
as_root 'cd /opt/clubtracker && time ./make.sh test' || fail "root: ./make.sh test"

step "as a normal user with sudo (make removed again): ./make.sh demo"
as_root 'apt-get install -y -qq --no-install-recommends sudo && apt-get purge -y -qq make &&
         useradd -m builder && echo "builder ALL=(ALL) NOPASSWD: ALL" >/etc/sudoers.d/builder &&
         chown -R builder: /opt/clubtracker' || fail "user set-up"
as_user 'cd /opt/clubtracker && time ./make.sh demo' || fail "user: ./make.sh demo"
step "as a normal user with sudo: ./make.sh test"
as_user 'cd /opt/clubtracker && time ./make.sh test' || fail "user: ./make.sh test"

step "PASSED: the README's two commands work on a bare Debian 12, as root and with sudo"
