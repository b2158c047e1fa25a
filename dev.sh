#!/usr/bin/env bash
# Murmora's one entry point: deps, build, test.
set -euo pipefail
cd "$(dirname "$0")"

PACKAGES=(
  build-essential cmake ninja-build pkg-config
  qt6-base-dev qt6-base-dev-tools qt6-httpserver-dev qt6-websockets-dev
  qt6-sensors-dev qt6-tools-dev qt6-l10n-tools
  libplist-dev libplist-utils libisal-dev libdeflate-dev libpng-dev libicu-dev libbenchmark-dev libssl-dev
  libboost-dev libsqlite3-dev libpq-dev libcurl4-openssl-dev postgresql-15 libsodium-dev
  openssl ca-certificates xvfb xauth fonts-dejavu-core fonts-liberation strace
  chromium doxygen
)

preset=${PRESET:-dev}
# CI builds treat warnings as errors.
[ -n "${CI:-}" ] && export MURMORA_WERROR=ON

deps() {
  local missing=()
  for p in "${PACKAGES[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'ok installed' || missing+=("$p")
  done
  # Debian's nodejs and npm only where there is no node: a newer node brings its own npm, which Debian's conflicts with.
  command -v node >/dev/null 2>&1 || missing+=(nodejs npm)
  if [ ${#missing[@]} -gt 0 ]; then
    echo "Installing: ${missing[*]}"
    local sudo=()
    [ "$(id -u)" -ne 0 ] && sudo=(sudo)
    export DEBIAN_FRONTEND=noninteractive
    "${sudo[@]}" apt-get update -q
    "${sudo[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
  fi
  # The browser tests' packages, from the committed lock file.
  if [ ! -d tests/web/node_modules ] || [ tests/web/package-lock.json -nt tests/web/node_modules ]; then
    npm ci --prefix tests/web --no-audit --no-fund
    touch tests/web/node_modules
  fi
}

configure() {
  if [ ! -f "build/$preset/build.ninja" ]; then
    cmake --preset "$preset"
  fi
}

build() {
  configure
  cmake --build --preset "$preset"
}

docs() {
  configure
  cmake --build --preset "$preset" --target docs
}

run_tests() {
  export QT_QPA_PLATFORM=offscreen
  ctest --preset "$preset" "$@"
}

SERVER_DATA=build/server-data
DEMO_DATA=build/demo-data
DEMO_ORIGIN=https://127.0.0.1:8444

# The key of the application "demo" in the data directory $1, made on first use.
app_key() {
  local binary="build/$preset/server/murmora-server"
  local key
  key=$("$binary" apps list --data "$1" | awk -F'\t' '$1 == "demo" { print $2 }')
  [ -n "$key" ] || key=$("$binary" apps add demo --data "$1" | tail -1)
  echo "$key"
}

server() {
  configure
  cmake --build --preset "$preset" --target murmora-server
  local key
  key=$(app_key "$SERVER_DATA")
  echo "Base URL:        https://127.0.0.1:8443/feedback/api/v1"
  echo "Application key: $key"
  echo "CA certificate:  $SERVER_DATA/tls/ca.pem (made on the first start)"
  echo "Dashboard:       https://127.0.0.1:8443/ (add a member: build/$preset/server/murmora-server users add NAME --admin --data $SERVER_DATA)"
  exec "build/$preset/server/murmora-server" --data "$SERVER_DATA" "$@"
}

# The demo sends to its own murmora-server (SQLite in build/demo-data), started for the
# demo's length; --local keeps everything in the app's local archive instead.
demo() {
  configure
  local binary="build/$preset/examples/demo/murmora-demo"
  local tour_dir="build/$preset/tour"
  local answer=()
  if [ "${1:-}" = "--local" ]; then
    shift
    cmake --build --preset "$preset" --target murmora-demo
  else
    [ "${1:-}" = "--server" ] && shift
    cmake --build --preset "$preset" --target murmora-demo murmora-server
    local server="build/$preset/server/murmora-server"
    mkdir -p "$DEMO_DATA"
    local key password
    key=$(app_key "$DEMO_DATA")
    if [ ! -s "$DEMO_DATA/demo-password" ]; then
      head -c 12 /dev/urandom | base64 | tr -d '/+=' >"$DEMO_DATA/demo-password"
      "$server" users add demo --admin --data "$DEMO_DATA" <"$DEMO_DATA/demo-password" >/dev/null
    fi
    password=$(cat "$DEMO_DATA/demo-password")
    if ! (exec 3<>/dev/tcp/127.0.0.1/8444) 2>/dev/null; then
      "$server" --data "$DEMO_DATA" --listen 127.0.0.1:8444 >"$DEMO_DATA/server.out" 2>"$DEMO_DATA/server.log" &
      DEMO_SERVER_PID=$!
      trap 'kill "$DEMO_SERVER_PID" 2>/dev/null; wait "$DEMO_SERVER_PID" 2>/dev/null' EXIT
      for _ in $(seq 100); do grep -q "listening" "$DEMO_DATA/server.out" 2>/dev/null && break; sleep 0.1; done
    fi
    echo "Dashboard: $DEMO_ORIGIN/  (name: demo, password: $password; its certificate authority is $DEMO_DATA/tls/ca.pem)"
    set -- --service "$DEMO_ORIGIN/feedback/api/v1" --key "$key" --uid "demo-device" --ca "$DEMO_DATA/tls/ca.pem" "$@"
    # Without a display the team answers from the dashboard, in headless Chromium, and the tour shows the answer.
    if [ -x /usr/bin/chromium ] && [ -d tests/web/node_modules ]; then
      answer=(--tour-answer "node tests/web/dashboard-tour.mjs --origin $DEMO_ORIGIN --name demo --password $password --out $tour_dir --reply 'Thanks for telling us! Fixed in version 2.1.'")
    fi
  fi
  if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ]; then
    echo "No display: running the scripted tour offscreen at phone size."
    "$binary" --tour --tour-dir "$tour_dir" "${answer[@]}" "$@"
  else
    "$binary" "$@"
  fi
}

# Benchmarks in the release build; each figure against its baseline, then one table.
bench() {
  [ -f build/release/build.ninja ] || cmake --preset release
  cmake --build --preset release --target murmora-bench
  QT_QPA_PLATFORM=${QT_QPA_PLATFORM:-offscreen} build/release/bench/murmora-bench "$@"
}

# murmora-server under load, each figure beside nginx or the disk in the same run; it starts
# its own servers (nginx, PostgreSQL, murmora-server) on 127.0.0.1 and stops them.
bench_service() {
  [ -f build/release/build.ninja ] || cmake --preset release
  cmake --build --preset release --target murmora-server murmora-service-bench
  QT_QPA_PLATFORM=${QT_QPA_PLATFORM:-offscreen} build/release/bench/murmora-service-bench "$@"
}

# libFuzzer targets (clang, preset "fuzz"): SECONDS each (default 600), all or the named ones.
fuzz() {
  local seconds=${1:-600}
  [ $# -gt 0 ] && shift
  [ -f build/fuzz/build.ninja ] || cmake --preset fuzz
  local targets=("$@")
  [ ${#targets[@]} -gt 0 ] || targets=($(cd fuzz/corpus && ls))
  cmake --build --preset fuzz --target "${targets[@]/#/fuzz_}"
  fuzz/run.sh build/fuzz "$seconds" "${targets[@]}"
}

usage() {
  cat <<USAGE
usage: ./dev.sh COMMAND
  deps     install the Debian packages Murmora needs (apt-get, when missing)
  build    configure and build (PRESET=dev|asan|tsan|release, default dev)
  test     deps, build, then run every test headless
  demo     deps, build, then run the demo (without a display: its scripted tour,
           pictures in build/dev/tour); demo options: --local, --service URL --key K --uid U [--ca FILE],
           or --server: against the service of ./dev.sh server (started for the demo when not running)
  server   build and run murmora-server with its data in build/server-data (SQLite), making the
           application "demo" on first run; prints its base URL, key and CA certificate
  bench    deps, then build and run the benchmarks (release preset) and print the table;
           options go to Google Benchmark (e.g. --benchmark_filter=encode), --smoke for one quick pass
  bench service [--store sqlite|postgres|both] [--smoke] [--server-threads N] [--keep] ...
           murmora-server on 1,000,000 threads: listing against nginx (wrk), ingest against
           write+fsync, start-up; installs wrk and nginx-light; about 4 minutes
  docs     the API documentation with Doxygen, in build/dev/docs (fails on an undocumented
           member of the stable API)
  fuzz     [SECONDS] [TARGET...]: build the libFuzzer targets (clang) and run each
           for SECONDS (600); new crash inputs land in fuzz/crashes
USAGE
}

cmd=${1:-}
[ $# -gt 0 ] && shift
case "$cmd" in
  deps) deps ;;
  build) deps; build ;;
  test) deps; build; run_tests "$@" ;;
  demo) deps; demo "$@" ;;
  server) deps; server "$@" ;;
  docs) deps; docs ;;
  bench)
    if [ "${1:-}" = service ]; then
      shift
      PACKAGES+=(wrk nginx-light)
      deps
      bench_service "$@"
    else
      deps
      bench "$@"
    fi
    ;;
  fuzz) PACKAGES+=(clang libclang-rt-14-dev); deps; fuzz "$@" ;;
  *) usage; exit 2 ;;
esac
