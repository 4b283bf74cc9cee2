#!/usr/bin/env bash
# Installs the Debian 12 packages that the build, the tests, the package, the local run and the
# load chart need.
# Run as root; does nothing when everything is there already.
set -euo pipefail

PACKAGES=(
  build-essential g++ cmake pkg-config git clang-format
  libjson-c-dev libnats-dev libqpid-proton-cpp12-dev libqpid-proton11-dev
  libcurl4-openssl-dev libssl-dev libsodium-dev libarchive-dev libczmq-dev uuid-dev
  libjemalloc-dev googletest libgtest-dev libbenchmark-dev
  nats-server openssl python3 ca-certificates gnuplot-nox zip
  clang libclang-rt-14-dev
  dpkg-dev lintian systemd
)

# The services framework's JavaScript client for the discovery test, at the exact versions of
# tests/support/node/package-lock.json and installed there only (its node_modules is not
# tracked). Optional: without node and npm that one test is skipped.
node_dir="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)/tests/support/node"
if command -v npm >/dev/null 2>&1 &&
  [ ! -f "$node_dir/node_modules/@nats-io/services/package.json" ]; then
  echo "Installing the services client into $node_dir/node_modules"
  (cd "$node_dir" && npm ci --no-audit --no-fund --loglevel=error) ||
    echo "install-deps.sh: npm ci failed; the JavaScript discovery test will be skipped" >&2
fi

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ "${#missing[@]}" -eq 0 ]; then
  exit 0
fi
echo "Installing: ${missing[*]}"
if [ "$(id -u)" -ne 0 ]; then
  echo "install-deps.sh: root is needed to install packages" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
