#!/usr/bin/env bash
# Builds the Debian package qv-av-control_<version>_<arch>.deb from a release build.
#   scripts/build-package.sh [BUILD_DIR]     (default: build; the package is written there)
# The binaries are stripped and installed on their system paths, the configuration goes to
# /etc/qv-av-control as a conffile, the installation tree to /var/lib/qv-av-control and the
# unit to /lib/systemd/system. Depends comes from dpkg-shlibdeps over the installed binaries.
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$repo/build}" && pwd)
umask 022

version=$(sed -n 's/^project(qv-av-control VERSION \([0-9.]*\).*/\1/p' "$repo/CMakeLists.txt")
arch=$(dpkg --print-architecture)
[ -n "$version" ] || { echo "build-package.sh: no project version in CMakeLists.txt" >&2; exit 1; }

# A sanitizer build would drag its runtime libraries into Depends.
if grep -q '^QV_SANITIZE:STRING=.\+' "$build/CMakeCache.txt" 2>/dev/null; then
  echo "build-package.sh: $build is a sanitizer build; package a release build" >&2
  exit 1
fi
for bin in qv-av-control qv-av-request qv-av-kv-setup; do
  [ -x "$build/bin/$bin" ] || { echo "build-package.sh: $build/bin/$bin is missing" >&2; exit 1; }
done

root="$build/package-root"
rm -rf "$root"
mkdir -p "$root/DEBIAN" "$root/usr/sbin" "$root/usr/bin" "$root/etc/qv-av-control" \
  "$root/lib/systemd/system" "$root/usr/share/doc/qv-av-control" \
  "$root/var/lib/qv-av-control/qv-av-control" "$root/var/lib/qv-av-control/run" \
  "$root/var/log/qv-av-control"

install_bin() {  # install_bin <name> <dir>: stripped the way Debian's own packages are
  strip --remove-section=.comment --remove-section=.note -o "$root/$2/$1" "$build/bin/$1"
  chmod 0755 "$root/$2/$1"
}
install_bin qv-av-control usr/sbin
install_bin qv-av-request usr/bin
install_bin qv-av-kv-setup usr/bin

# The postinst gives the file to group qv-av once the account exists.
install -m 0640 "$repo/packaging/qv-av-control.ini" "$root/etc/qv-av-control/qv-av-control.ini"
install -m 0644 "$repo/packaging/qv-av-control.service" "$root/lib/systemd/system/"
cp -r "$repo/examples/basedir/config" "$root/var/lib/qv-av-control/"
find "$root/var/lib/qv-av-control/config" -type d -exec chmod 0755 {} +
find "$root/var/lib/qv-av-control/config" -type f -exec chmod 0644 {} +

for page in "$repo"/packaging/man/*.[18]; do
  section=${page##*.}
  mkdir -p "$root/usr/share/man/man$section"
  gzip -9n <"$page" >"$root/usr/share/man/man$section/$(basename "$page").gz"
  chmod 0644 "$root/usr/share/man/man$section/$(basename "$page").gz"
done

doc="$root/usr/share/doc/qv-av-control"
install -m 0644 "$repo/packaging/debian/copyright" "$doc/copyright"
install -m 0644 "$repo/README.md" "$doc/README.md"
# The date of the last commit, so that the same tree gives the same changelog.
date=$(git -C "$repo" log -1 --format=%cD 2>/dev/null || date -R)
maintainer=$(sed -n 's/^Maintainer: //p' "$repo/packaging/debian/control.in")
printf '%s\n' "qv-av-control ($version) unstable; urgency=medium" "" \
  "  * Release $version." "" " -- $maintainer  $date" | gzip -9n >"$doc/changelog.gz"
chmod 0644 "$doc/changelog.gz"

# dpkg-shlibdeps wants to run in a source tree: a minimal one beside the package root.
shlib_dir="$build/package-shlibdeps"
rm -rf "$shlib_dir"
mkdir -p "$shlib_dir/debian"
printf 'Source: qv-av-control\n\nPackage: qv-av-control\nArchitecture: any\n' \
  >"$shlib_dir/debian/control"
depends=$(cd "$shlib_dir" && dpkg-shlibdeps -O -e"$root/usr/sbin/qv-av-control" \
  -e"$root/usr/bin/qv-av-request" -e"$root/usr/bin/qv-av-kv-setup" |
  sed -n 's/^shlibs:Depends=//p')
rm -rf "$shlib_dir"
[ -n "$depends" ] || { echo "build-package.sh: dpkg-shlibdeps found no dependencies" >&2; exit 1; }

size=$(du -sk --exclude=DEBIAN "$root" | cut -f1)
sed -e "s/@VERSION@/$version/" -e "s/@ARCH@/$arch/" -e "s/@SIZE@/$size/" \
  -e "s/@DEPENDS@/$depends/" "$repo/packaging/debian/control.in" >"$root/DEBIAN/control"
echo /etc/qv-av-control/qv-av-control.ini >"$root/DEBIAN/conffiles"
for script in postinst prerm postrm; do
  install -m 0755 "$repo/packaging/debian/$script" "$root/DEBIAN/$script"
done
(cd "$root" && find . -path ./DEBIAN -prune -o -type f -printf '%P\0' | sort -z |
  xargs -0 md5sum >DEBIAN/md5sums)
chmod 0644 "$root/DEBIAN/control" "$root/DEBIAN/conffiles" "$root/DEBIAN/md5sums"

deb="$build/qv-av-control_${version}_${arch}.deb"
dpkg-deb --root-owner-group -Zxz --build "$root" "$deb" >/dev/null
echo "$deb"
