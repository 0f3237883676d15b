# What the scripts have in common. Sourced, never run: `source "$(dirname "$0")/lib/common.sh"`.
# shellcheck shell=bash
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
cd "$root"
jobs="${SKELDA_JOBS:-$(nproc 2>/dev/null || echo 2)}"

# Debian packages, by what they are needed for.
packages_build=(g++ cmake ninja-build pkg-config libcurl4-openssl-dev libssl-dev libplist-dev
  nlohmann-json3-dev libfmt-dev uuid-dev libgtest-dev libgmock-dev libbenchmark-dev
  libcpp-httplib-dev libcli11-dev python3)
# With SKELDA_FLEET: what is built, and what it runs against.
packages_fleet=(libnats-dev libmicrohttpd-dev libpq-dev)
packages_fleet_run=(nats-server postgresql iproute2 curl jq openssl)
fleet_programs=(skelda-collector skelda-load skelda-fleet skelda-frames skelda-phone skelda-bundle
  MorningRun KeepingMorningRun)
packages_fuzz=(clang libclang-rt-14-dev)
packages_format=(clang-format)
# A browser for the page of the collector, and what drives it: 120 MB to fetch, 420 MB installed.
# Without them its test is skipped.
packages_browser=(chromium chromium-driver python3-selenium)
packages_documents=(doxygen mandoc man-db python3)

say() { printf '%s\n' "$*"; }
die() { printf '%s: %s\n' "$(basename "$0")" "$*" >&2; exit 1; }

# need PACKAGE... : the Debian packages that are missing are installed when we are root; otherwise
# the script ends and says what to install.
need() {
  local missing=() package
  command -v dpkg-query >/dev/null || return 0
  for package in "$@"; do
    [[ "$(dpkg-query -W -f '${db:Status-Abbrev}' "$package" 2>/dev/null)" == ?i* ]] ||
      missing+=("$package")
  done
  ((${#missing[@]})) || return 0
  ((EUID == 0)) || die "please install: apt-get install ${missing[*]}"
  say "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get install -qq -y --no-install-recommends "${missing[@]}" >/dev/null 2>&1 ||
    { apt-get update -qq && apt-get install -qq -y --no-install-recommends "${missing[@]}" >/dev/null; } ||
    die "could not install: ${missing[*]}"
}

# configure PRESET [cmake argument ...] : quiet unless it fails. Through ccache when there is one.
configure() {
  local preset="$1" log
  shift
  if command -v ccache >/dev/null; then
    export CMAKE_CXX_COMPILER_LAUNCHER=ccache CCACHE_BASEDIR="$root" CCACHE_NOHASHDIR=1
  fi
  mkdir -p "build/$preset"
  log="build/$preset/configure.log"
  cmake --preset "$preset" "$@" >"$log" 2>&1 || { cat "$log" >&2; return 1; }
}

# build PRESET [target ...] : quiet unless it fails.
build() {
  local preset="$1" log="build/$1/build.log"
  shift
  ninja --quiet -C "build/$preset" -j "$jobs" "$@" >"$log" 2>&1 || {
    grep -vE '^ +inlined from|^In file included|^ +from ' "$log" | cut -c 1-300 | head -n 60 >&2
    return 1
  }
}
