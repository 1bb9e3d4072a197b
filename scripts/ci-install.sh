#!/usr/bin/env bash
# Installs the build into a staging tree as a Debian package would
# (--prefix /usr, DESTDIR) and checks the service files there: systemd
# accepts the units, every path under the prefix that a unit or init
# script names exists in the tree, and the manual pages are there and clean.
#   scripts/ci-install.sh            # uses build/ (scripts/test.sh's), builds it if needed
set -euo pipefail
cd "$(dirname "$0")/.."

BUILD_DIR="${BUILD_DIR:-build}"
PREFIX=/usr
if [ ! -f "$BUILD_DIR/CMakeCache.txt" ]; then
  cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo
fi
cmake --build "$BUILD_DIR" -j2 >/dev/null
STAGE="$(mktemp -d)"
trap 'rm -rf "$STAGE"' EXIT
DESTDIR="$STAGE" cmake --install "$BUILD_DIR" --prefix "$PREFIX" >/dev/null

units=("$STAGE$PREFIX"/lib/systemd/system/*.service)
scripts=("$STAGE$PREFIX"/share/routemgr/openwrt/init.d/*)
[ "${#units[@]}" -eq 3 ] && [ "${#scripts[@]}" -eq 3 ] || {
  echo "expected 3 units and 3 init scripts, got: ${units[*]} ${scripts[*]}" >&2
  exit 1
}

fail=0
# Every path under the prefix (programs, documentation, examples). Paths in
# /etc are the administrator's files, read when they exist.
for f in "${units[@]}" "${scripts[@]}"; do
  paths=$(grep -o "$PREFIX/[A-Za-z0-9_./+-]*" "$f" | sed 's/[.]$//' | sort -u || true)
  for p in $paths; do
    if [ ! -e "$STAGE$p" ]; then
      echo "${f#"$STAGE"}: $p is not in the installed tree" >&2
      fail=1
    fi
  done
done

# The manual pages: installed, and groff has nothing to say about them.
for page in man8/routemgr.8 man8/halproxy.8 man8/datamgr.8 man1/routectl.1 man1/datactl.1; do
  f="$STAGE$PREFIX/share/man/$page"
  if [ ! -f "$f" ]; then
    echo "not installed: $PREFIX/share/man/$page" >&2
    fail=1
  elif [ -n "$(LC_ALL=C.UTF-8 groff -man -ww -z -Tutf8 "$f" 2>&1)" ]; then
    LC_ALL=C.UTF-8 groff -man -ww -z -Tutf8 "$f" >&2
    fail=1
  fi
done

# What the system the package goes onto provides: its own units (the
# targets ours hang off) and kill(1) for ExecReload=.
mkdir -p "$STAGE/usr/bin" "$STAGE/etc/systemd/system"
cp /usr/lib/systemd/system/*.target "$STAGE$PREFIX/lib/systemd/system/"
cp /usr/bin/kill "$STAGE/usr/bin/kill"
ln -s usr/bin "$STAGE/bin"
echo "systemd-analyze verify --root $STAGE: ${units[*]#"$STAGE"}"
if ! systemd-analyze verify --root="$STAGE" --man=no "${units[@]#"$STAGE"}" >"$STAGE/verify.log" 2>&1 \
   || [ -s "$STAGE/verify.log" ]; then
  cat "$STAGE/verify.log" >&2
  fail=1
fi
[ "$fail" -eq 0 ] && echo "service files verified; every path they name under $PREFIX is installed; manual pages clean"
exit "$fail"
