#!/usr/bin/env bash
# Checks a built qv-av-control .deb with the real Debian tools:
#   scripts/check-package.sh PACKAGE.deb
# the control fields (Depends from the linked libraries), the paths and modes of the contents,
# the conffile, the shipped configuration and unit (the unit verified by systemd-analyze against
# the unpacked tree), the maintainer scripts' syntax, and lintian, which must report no error.
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
deb=$(realpath "$1")
failed=0
fail() {
  echo "check-package: $*" >&2
  failed=1
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# --- control fields
field() { dpkg-deb -f "$deb" "$1"; }
version=$(sed -n 's/^project(qv-av-control VERSION \([0-9.]*\).*/\1/p' "$repo/CMakeLists.txt")
[ "$(field Package)" = qv-av-control ] || fail "Package is '$(field Package)'"
[ "$(field Version)" = "$version" ] || fail "Version is '$(field Version)', not $version"
[ "$(field Architecture)" = "$(dpkg --print-architecture)" ] ||
  fail "Architecture is '$(field Architecture)'"
depends=$(field Depends)
for lib in libc6 libstdc++6 libnats libjson-c libcurl libjemalloc adduser; do
  [[ "$depends" == *"$lib"* ]] || fail "Depends lacks $lib: $depends"
done
# Sanitizer runtimes belong to test builds only.
[[ "$depends" != *libasan* && "$depends" != *libtsan* && "$depends" != *libubsan* ]] ||
  fail "Depends names a sanitizer runtime: $depends"

# --- contents: "mode path" of every entry that matters
dpkg-deb -c "$deb" | awk '{ print $1, $2, $6 }' >"$work/contents"
expect() {  # expect MODE PATH
  grep -qxF -- "$1 root/root ./$2" "$work/contents" || fail "no $2 with mode $1 owned by root"
}
expect -rwxr-xr-x usr/sbin/qv-av-control
expect -rwxr-xr-x usr/bin/qv-av-request
expect -rwxr-xr-x usr/bin/qv-av-kv-setup
expect -rw-r----- etc/qv-av-control/qv-av-control.ini
expect -rw-r--r-- lib/systemd/system/qv-av-control.service
expect -rw-r--r-- var/lib/qv-av-control/config/vsa/scan.default.default
expect -rw-r--r-- var/lib/qv-av-control/config/mime/mimetype_to_extensions_mappings.default.default
expect -rw-r--r-- var/lib/qv-av-control/config/mime/mimetype-translations.default.default
expect -rw-r--r-- var/lib/qv-av-control/config/activecontent/activecontent.default.default
for dir in var/lib/qv-av-control/run/ var/lib/qv-av-control/qv-av-control/ var/log/qv-av-control/; do
  expect drwxr-xr-x "$dir"
done
expect -rw-r--r-- usr/share/doc/qv-av-control/copyright
expect -rw-r--r-- usr/share/man/man8/qv-av-control.8.gz
expect -rw-r--r-- usr/share/man/man1/qv-av-request.1.gz
expect -rw-r--r-- usr/share/man/man1/qv-av-kv-setup.1.gz

dpkg-deb -x "$deb" "$work/root"
dpkg-deb -e "$deb" "$work/DEBIAN"
[ "$(cat "$work/DEBIAN/conffiles")" = /etc/qv-av-control/qv-av-control.ini ] ||
  fail "conffiles is not the configuration file alone"
for script in postinst prerm postrm; do
  sh -n "$work/DEBIAN/$script" || fail "$script does not parse"
done
cmp -s "$work/root/etc/qv-av-control/qv-av-control.ini" "$repo/packaging/qv-av-control.ini" ||
  fail "the shipped configuration differs from packaging/qv-av-control.ini"
grep -qx 'UPDATE_BINARY=0' "$work/root/etc/qv-av-control/qv-av-control.ini" ||
  fail "self-update is not off in the shipped configuration"
# Every library the binaries need resolves on this machine (what Depends pulls in elsewhere).
for bin in usr/sbin/qv-av-control usr/bin/qv-av-request usr/bin/qv-av-kv-setup; do
  ! ldd "$work/root/$bin" | grep -q 'not found' || fail "$bin needs a library that is missing"
done

# --- the unit, verified in the unpacked tree (its ExecStart must exist there). systemd-analyze
# needs the targets and slices the unit's default dependencies name; a problem it only warns
# about still exits 0, so any output fails the check.
mkdir -p "$work/root/lib/systemd/system"
cp -n /lib/systemd/system/*.target /lib/systemd/system/*.slice "$work/root/lib/systemd/system/"
if ! out=$(systemd-analyze verify --root="$work/root" qv-av-control.service 2>&1) ||
  [ -n "$out" ]; then
  fail "systemd-analyze verify: $out"
fi

# --- lintian: errors fail; the warnings are listed
lintian_rc=0
lintian --fail-on error --tag-display-limit 0 "$deb" >"$work/lintian" 2>&1 || lintian_rc=$?
cat "$work/lintian"
[ "$lintian_rc" -eq 0 ] || fail "lintian reports errors (or failed, status $lintian_rc)"

if [ "$failed" -ne 0 ]; then
  echo "check-package: $deb FAILED" >&2
  exit 1
fi
echo "check-package: $deb is fine"
