#!/usr/bin/env bash
# Builds an update package of this build's daemon: a zip archive with bin/ (the daemon and its
# tools) and an install.sh that copies bin/ into the new version directory. The package is named
# as the update server hands it out, or, with --manual, as an operator drops it into the
# component directory (<base>/qv-av-control) to update a running daemon by hand.
#
#   scripts/make-update-package.sh [--manual] [--version YYYYMMDDNNN] [--bin-dir DIR]
#                                  [--out DIR] [--extra FILE]...
#
# --version  the package's version (11 characters; default today's date and 001; a manual
#            package always carries today's date, as the daemon looks for exactly that name)
# --bin-dir  where the programs are (default build/bin)
# --out      where the package goes (default the current directory)
# --extra    a further file for bin/ (may be repeated)
# The last line printed is the package's path; the one before it its MD5 digest.
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
package_name="qv-av-control_nats-bin-linux-glibc2.28.amd64"
manual=0
version=""
bin_dir="$repo/build/bin"
out_dir=$(pwd)
extras=()
while [ $# -gt 0 ]; do
  case "$1" in
    --manual) manual=1 ;;
    --version) version=$2; shift ;;
    --bin-dir) bin_dir=$2; shift ;;
    --out) out_dir=$2; shift ;;
    --extra) extras+=("$2"); shift ;;
    *) echo "make-update-package.sh: unknown argument $1" >&2; exit 2 ;;
  esac
  shift
done

if [ "$manual" -eq 1 ] || [ -z "$version" ]; then
  version="$(date +%Y%m%d)001"
fi
if [ "${#version}" -ne 11 ]; then
  echo "make-update-package.sh: the version must be 11 characters: $version" >&2
  exit 2
fi
if [ ! -x "$bin_dir/qv-av-control" ]; then
  echo "make-update-package.sh: no daemon in $bin_dir (build it first)" >&2
  exit 1
fi
command -v zip >/dev/null || { echo "make-update-package.sh: zip is needed" >&2; exit 1; }

if [ "$manual" -eq 1 ]; then
  file="${package_name}_nats__${version}_manual.zip"
else
  file="${package_name}_nats__${version}.zip"
fi
mkdir -p "$out_dir"
out_dir=$(cd "$out_dir" && pwd)
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
mkdir "$stage/bin"
for program in qv-av-control qv-av-request qv-av-kv-setup; do
  if [ -x "$bin_dir/$program" ]; then
    cp -p "$bin_dir/$program" "$stage/bin/"
  fi
done
for extra in "${extras[@]}"; do
  cp -p "$extra" "$stage/bin/"
done
cat >"$stage/install.sh" <<'SCRIPT'
#!/bin/sh
# install.sh <unpacked package> <base directory> <bin directory of the new version>
set -eu
src=$1
target=$3
[ -d "$src/bin" ] || { echo "install.sh: no bin/ in $src" >&2; exit 1; }
mkdir -p "$target"
cp -R "$src/bin/." "$target/"
SCRIPT
chmod 0755 "$stage/install.sh"
rm -f "$out_dir/$file"
(cd "$stage" && zip -q -r -X "$out_dir/$file" install.sh bin)
md5sum "$out_dir/$file" | cut -d' ' -f1
echo "$out_dir/$file"
