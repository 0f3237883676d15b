# The libraries of another processor, below build/sysroot, for what is built for it and run under an
# emulator. Sourced after common.sh. Foreign packages cannot be installed beside native ones of
# another version; unpacked into a folder of their own, they can be built and run against.
# shellcheck shell=bash

packages_sysroot=(libc6-dev libstdc++6 libcurl4-openssl-dev libssl-dev libplist-dev
  nlohmann-json3-dev libfmt-dev uuid-dev libgtest-dev libgmock-dev libcpp-httplib-dev libcli11-dev)
declare -A packages_cross=(
  [arm64]="g++-aarch64-linux-gnu qemu-user" [armhf]="g++-arm-linux-gnueabihf qemu-user")
declare -A emulators=([arm64]=qemu-aarch64 [armhf]=qemu-arm)

# emulator_of ARCH : the command that runs its programs, as the toolchain files have it.
emulator_of() { printf '%s -L %s -E SKELDA_EMULATED=1' "${emulators[$1]}" "$root/build/sysroot/$1"; }

# foreign_sources FOLDER : the registry's lines of this machine, of Debian alone, as apt reads them.
foreign_sources() {
  local key=/usr/share/keyrings/debian-archive-keyring.gpg
  apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' \
    'Identifier: Packages' 'Origin: Debian' | sort -u |
    sed "s|^|deb [signed-by=$key] |" >"$1/all.list"
  # Where the index of the security suite is out of step, the main one suffices.
  grep -v -- '-security ' "$1/all.list" >"$1/main.list"
}

# foreign_apt ARCH FOLDER LIST argument... : apt with a state of its own, that knows of no package.
foreign_apt() {
  local arch="$1" state="$2" list="$3"
  shift 3
  apt-get -q -y -o "APT::Architecture=$arch" -o "APT::Architectures=$arch" \
    -o APT::Sandbox::User=root -o APT::Install-Recommends=false -o Acquire::Languages=none \
    -o Acquire::Retries=2 -o APT::Update::Error-Mode=any \
    -o "Dir::State=$state" -o "Dir::State::status=$state/status" -o "Dir::Cache=$state/cache" \
    -o "Dir::Etc::sourcelist=$list" -o Dir::Etc::sourceparts=- "$@"
}

# fetch_packages ARCH STATE : the packages and all that they need lie in STATE/cache/archives.
fetch_packages() {
  local arch="$1" state="$2" list
  mkdir -p "$state"/{lists,cache/archives}/partial
  : >"$state/status"
  foreign_sources "$state"
  for list in "$state/all.list" "$state/main.list"; do
    [[ -s "$list" ]] || continue
    say "-- the registry's packages for $arch, $(basename "$list")"
    rm -rf "$state/lists"
    mkdir -p "$state/lists/partial"
    if foreign_apt "$arch" "$state" "$list" update &&
      foreign_apt "$arch" "$state" "$list" install --download-only "${packages_sysroot[@]}"; then
      return 0
    fi
  done
  return 1
}

# make_sysroot ARCH : build/sysroot/ARCH is there. The status is 1, and $why_no_sysroot says why,
# where the registry cannot give the packages just now.
make_sysroot() {
  local arch="$1" base="$root/build/sysroot" stamp package log
  local made="$base/$arch" state="$base/apt-$arch"
  stamp="$made/.packages"
  log="$base/$arch.log"
  [[ "$(cat "$stamp" 2>/dev/null)" == "${packages_sysroot[*]}" ]] && return 0
  mkdir -p "$base"
  if ! fetch_packages "$arch" "$state" >"$log" 2>&1; then
    why_no_sysroot="no packages for $arch: $(grep -E '^(E|Err):?' "$log" | tail -n 1 |
      sed -E 's|[a-z]+://[^ ]*/||g')"
    return 1
  fi
  rm -rf "$made"
  mkdir -p "$made"
  for package in "$state"/cache/archives/*.deb; do dpkg -x "$package" "$made"; done
  printf '%s' "${packages_sysroot[*]}" >"$stamp"
}

# need_cross ARCH : compiler, emulator and sysroot; the status as of make_sysroot.
need_cross() {
  # shellcheck disable=SC2086
  need ${packages_cross[$1]} ca-certificates
  make_sysroot "$1"
}
