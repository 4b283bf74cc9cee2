#!/usr/bin/env bash
# Developer entry points. Each installs what is missing, builds, and does its job.
#   scripts/dev.sh run    a local nats-server (JetStream, TLS, users) and the daemon in the
#                         foreground until Ctrl-C
#   scripts/dev.sh test   the whole test suite under AddressSanitizer + UBSan, then the threaded
#                         tests under ThreadSanitizer, then every fuzz target for 30 s
#   scripts/dev.sh build  the release build only (build/bin/qv-av-control)
#   scripts/dev.sh package  the Debian package build/qv-av-control_<version>_<arch>.deb from the
#                         release build, checked with the Debian tools (also part of `test`)
#   scripts/dev.sh fuzz   only the fuzz targets (QV_FUZZ_SECONDS each, 30 by default)
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
cd "$repo"
jobs=$(nproc 2>/dev/null || echo 2)

deps() { "$repo/scripts/install-deps.sh"; }

build() {  # build <dir> [cmake args...]; QV_TARGETS limits what is built
  local dir=$1; shift
  cmake -S "$repo" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  if [ -n "${QV_TARGETS:-}" ]; then
    # shellcheck disable=SC2086
    cmake --build "$dir" -j"$jobs" --target $QV_TARGETS
  else
    cmake --build "$dir" -j"$jobs"
  fi
}

cmd_build() {
  deps
  build "$repo/build"
}

# The release build of the packaged programs, the .deb made from it, and its check.
package() {
  echo "== Debian package from the release build"
  QV_TARGETS="qv-av-control qv-av-request qv-av-kv-setup" build "$repo/build"
  local deb
  deb=$("$repo/scripts/build-package.sh" "$repo/build")
  "$repo/scripts/check-package.sh" "$deb"
}

cmd_test() {
  deps
  export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}
  export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
  echo "== build with AddressSanitizer and UndefinedBehaviorSanitizer"
  build "$repo/build-asan" -DQV_SANITIZE=address,undefined -DQV_BUILD_BENCH=OFF
  echo "== all tests (ASan+UBSan)"
  ctest --test-dir "$repo/build-asan" -j"$jobs" --output-on-failure --timeout 300 |
    tee "$repo/build-asan/ctest.log"
  echo "== build with ThreadSanitizer"
  build "$repo/build-tsan" -DQV_SANITIZE=thread -DQV_BUILD_BENCH=OFF
  echo "== threaded tests (TSan)"
  TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1:suppressions=$repo/tests/tsan.supp} \
    ctest --test-dir "$repo/build-tsan" -j"$jobs" --output-on-failure --timeout 300 \
      -R '^(ServiceFixture|NatsConnect|KvFixture|ThreadJoin|TraceLog|Semaphore|PQueue|LogDispatcher|LogService|LogArchive|EventService|RegistryWithBroker|Registry|PollerLock|HostileRequests|HostileRegistryEntries|HostileSubscriptionEntries|DaemonMessaging|ScanConfigRequests|ScanConfigDaemon|JsonLogService|ConfigKv|Tenants|Apigw|CloudFill|ComponentConfigurationFlush|HostileConfigDaemon|HostileJsonLogDaemon|NatsMicro|NatsMicroDaemon|BackendConfigChanges|BrokerAuthDurability|RealmsPoller|UpdateThread|UpdateDaemon|CloudDaemon|NatsClusterDaemons|AmqpClient|AmqpSecurity|BackendDaemon|LogDispatcherService|LogDispatcherDaemon|HostileDaemon|WorkerDaemons|ConnectionFacade|Daemon|GatewayTest)\.' |
    tee "$repo/build-tsan/ctest.log"
  package
  fuzz
  # One closing line over the stages (reached only when all of them passed).
  local asan tsan fuzzed
  asan=$(sed -n 's/.*tests failed out of \([0-9]*\).*/\1/p' "$repo/build-asan/ctest.log")
  tsan=$(sed -n 's/.*tests failed out of \([0-9]*\).*/\1/p' "$repo/build-tsan/ctest.log")
  fuzzed=$(ls "$repo"/fuzz/fuzz_*.cpp | wc -l)
  echo "$((${asan:-0} + ${tsan:-0} + fuzzed)) passed, 0 failed"
}

# Every libFuzzer target for QV_FUZZ_SECONDS (30) seconds from an empty corpus; a crash, a leak
# or a broken invariant fails the run.
fuzz() {
  echo "== build the fuzz targets (clang, libFuzzer with ASan+UBSan)"
  local targets
  targets=$(cd "$repo/fuzz" && ls fuzz_*.cpp | sed 's/\.cpp$//' | tr '\n' ' ')
  CC=clang CXX=clang++ QV_TARGETS="$targets" build "$repo/build-fuzz" -DQV_SANITIZE=address,undefined \
    -DQV_BUILD_FUZZ=ON -DQV_BUILD_TESTS=OFF -DQV_BUILD_BENCH=OFF
  local seconds=${QV_FUZZ_SECONDS:-30} failed=0 target
  for target in $targets; do
    echo "== fuzz $target (${seconds} s)"
    rm -rf "$repo/build-fuzz/corpus/$target"
    mkdir -p "$repo/build-fuzz/corpus/$target"
    if ! (cd "$repo/build-fuzz" && "bin/$target" -max_total_time="$seconds" -timeout=10 \
          -rss_limit_mb=4096 -print_final_stats=1 "corpus/$target" >"fuzz-$target.log" 2>&1); then
      echo "$target failed; its output:"
      tail -n 60 "$repo/build-fuzz/fuzz-$target.log"
      failed=1
    else
      grep -E '^(Done|stat::number_of_executed_units)' "$repo/build-fuzz/fuzz-$target.log" || true
    fi
  done
  [ "$failed" -eq 0 ]
}

cmd_run() {
  deps
  QV_TARGETS="qv-av-control qv-av-kv-setup qv-av-request" build "$repo/build"
  local run=${QV_RUN_DIR:-$repo/.run}
  local port=${QV_NATS_PORT:-4222}
  mkdir -p "$run/certs" "$run/nats-store"
  if [ ! -f "$run/certs/ca.pem" ]; then
    echo "== generating a CA and a server certificate for localhost in $run/certs"
    (cd "$run/certs" &&
      openssl req -x509 -newkey rsa:2048 -nodes -keyout ca-key.pem -out ca.pem -days 3650 \
        -subj "/CN=qv-av local CA" 2>/dev/null &&
      openssl req -newkey rsa:2048 -nodes -keyout server-key.pem -out server.csr \
        -subj "/CN=localhost" 2>/dev/null &&
      printf 'subjectAltName=DNS:localhost,IP:127.0.0.1\nextendedKeyUsage=serverAuth\n' >san.ext &&
      openssl x509 -req -in server.csr -CA ca.pem -CAkey ca-key.pem -CAcreateserial \
        -out server.pem -days 3650 -extfile san.ext 2>/dev/null)
  fi
  [ -f "$run/control.password" ] || openssl rand -hex 16 >"$run/control.password"
  local password; password=$(cat "$run/control.password")
  cat >"$run/nats.conf" <<CONF
listen: 127.0.0.1:$port
jetstream { store_dir: "$run/nats-store" }
tls { cert_file: "$run/certs/server.pem", key_file: "$run/certs/server-key.pem", timeout: 5 }
authorization { users = [ { user: "control@local", password: "$password" } ] }
CONF
  mkdir -p "$run/basedir"
  cp -rn "$repo/examples/basedir/." "$run/basedir/"
  sed -e "s#@BASEDIR@#$run/basedir#g" -e "s#@NATS_URL@#tls://localhost:$port#g" \
      -e "s#@CA_FILE@#$run/certs/ca.pem#g" -e "s#@PASSWORD@#$password#g" \
      "$repo/examples/qv-av-control.ini.in" >"$run/qv-av-control.ini"
  chmod 600 "$run/qv-av-control.ini"  # it holds the broker password

  echo "== starting nats-server on tls://localhost:$port (log: $run/nats.log)"
  setsid nats-server -c "$run/nats.conf" -l "$run/nats.log" &
  local nats_pid=$!
  local tries=0
  until (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; do
    tries=$((tries + 1))
    if [ "$tries" -gt 100 ] || ! kill -0 "$nats_pid" 2>/dev/null; then
      echo "nats-server did not start; see $run/nats.log" >&2
      kill "$nats_pid" 2>/dev/null || true
      exit 1
    fi
    sleep 0.1
  done
  if [ -x "$repo/build/bin/qv-av-kv-setup" ]; then
    "$repo/build/bin/qv-av-kv-setup" --url "tls://localhost:$port" --user control@local \
      --password "$password" --ca-file "$run/certs/ca.pem" || true
  fi

  echo "== starting qv-av-control (config: $run/qv-av-control.ini); Ctrl-C stops it"
  setsid "$repo/build/bin/qv-av-control" --console-mode --basedir "$run/basedir" \
    --config-file "$run/qv-av-control.ini" &
  local daemon_pid=$!
  local stopped=0
  stop_all() {
    trap - INT TERM
    [ "$stopped" -eq 0 ] || return 0
    stopped=1
    echo "== stopping qv-av-control"
    kill -TERM "$daemon_pid" 2>/dev/null || true
    wait "$daemon_pid" 2>/dev/null || true
    echo "== stopping nats-server"
    kill -TERM "$nats_pid" 2>/dev/null || true
    wait "$nats_pid" 2>/dev/null || true
  }
  trap stop_all INT TERM
  local rc=0
  wait "$daemon_pid" || rc=$?
  # Stopped by Ctrl-C: the interrupted wait's status says nothing about the daemon.
  [ "$stopped" -eq 0 ] || rc=0
  stop_all
  return "$rc"
}

case "${1:-}" in
  run) cmd_run ;;
  test) cmd_test ;;
  build) cmd_build ;;
  package) deps; package ;;
  fuzz) deps; fuzz ;;
  *) echo "usage: scripts/dev.sh run|test|build|package|fuzz" >&2; exit 2 ;;
esac
