#!/bin/bash
# Installs what building, running and testing need, and nothing that is there already.
set -euo pipefail

readonly -a BUILD=(g++ cmake ninja-build libsodium-dev libsqlite3-dev libcli11-dev libfmt-dev
  nlohmann-json3-dev libssl-dev zlib1g-dev python3)
readonly -a WINDOWS=(g++-mingw-w64-x86-64-posix libz-mingw-w64-dev wine64)
readonly -a TEST=(googletest python3-pytest python3-pytest-timeout python3-pytest-xdist
  clang clang-format clang-tidy libclang-rt-14-dev libbenchmark-dev libsimdjson-dev rapidjson-dev
  curl jq haproxy locales netbase systemd chromium lnav minisign btrfs-progs)
readonly -a MODELS=(spin)
readonly -a COVERAGE=(gcovr)
readonly -a BENCH=(python3-matplotlib)
readonly -a PROXY=(nginx openssl)
readonly -a MUTATION=(python3-clang)
readonly -a RELEASE=(scdoc groff-base man-db lintian zsh logrotate dpkg-dev wixl msitools minisign
  mmdebstrap buildah podman runc catatonit)
# Debian starts these as soon as their package is installed, and with the system.
readonly -A UNITS=([nginx]=nginx.service [haproxy]=haproxy.service [logrotate]=logrotate.timer
  [man-db]=man-db.timer
  [podman]="podman.socket podman.service podman-restart.service podman-auto-update.service \
podman-auto-update.timer")
readonly NODE_MINIMUM=18

tests="$(dirname "$(readlink -f "$0")")/../tests"
readonly tests

usage() {
  cat <<EOF
usage: scripts/setup.sh GROUP...

Installs the Debian packages of the groups that are missing; says so before it does. Without root
it prints the one command that installs them, and ends with exit code 1.

  build    compilers and libraries for the Linux server and the sample engine
  windows  the cross compiler and Wine
  proxy    the TLS proxy of ./run http; none of the system's services is started
  test     what ./test needs beside these, Node.js (any from version $NODE_MINIMUM on) included, and
           the packages that tests/interop/package-lock.json pins
  mutation what tests/mutation/run needs beside these
  models   the model checker of tests/models; test includes it
  coverage what writes the report of ./test --coverage
  release  what ./release and the rings release-* need, the validators that
           tests/release/package-lock.json pins included
  bench    what the plots of bench/ are drawn with, and Node.js for bench/run peers and growth,
           which install their peers themselves
  index    Debian's package index, which the sample data is made from
EOF
}

refuse() {
  echo "setup.sh: $1" >&2
  exit 2
}

# Node.js of any origin will do.
node_is_there() {
  local version
  command -v npm >/dev/null || return 1
  version=$(node --version 2>/dev/null) || return 1
  version=${version#v}
  ((${version%%.*} >= NODE_MINIMUM))
}

index_is_there() {
  compgen -G '/var/lib/apt/lists/*_Packages*' >/dev/null
}

# Prints those of the given packages that are not installed, each once, in one call that takes
# milliseconds.
missing_of() {
  local package
  local -A known=()
  while read -r package; do
    known[$package]=1
  done < <(dpkg-query --show --showformat='${db:Status-Status} ${Package}\n' "$@" 2>/dev/null |
    sed -n 's/^installed //p')
  for package in "$@"; do
    [[ -n ${known[$package]-} ]] || echo "$package"
    known[$package]=1
  done
}

run_as_root() {
  if ((EUID != 0)); then
    echo "As root, run:" >&2
    echo "  $1" >&2
    exit 1
  fi
  DEBIAN_FRONTEND=noninteractive bash -c "$1" >&2
}

# The command that installs the packages and starts none of their units, now or later.
installation_of() {
  local command="apt-get update && apt-get install -y --no-install-recommends $*" package
  local -a units stopped=()
  for package in "$@"; do
    read -ra units <<<"${UNITS[$package]-}"
    stopped+=("${units[@]}")
  done
  if ((${#stopped[@]} > 0)) && command -v systemctl >/dev/null; then
    command="systemctl mask ${stopped[*]} && $command && systemctl unmask ${stopped[*]}"
    command+=" && systemctl disable ${stopped[*]}"
  fi
  echo "$command"
}

install_packages() {
  local -a missing
  mapfile -t missing < <(missing_of "$@")
  ((${#missing[@]} > 0)) || return 0
  echo "Debian packages to install: ${missing[*]}" >&2
  run_as_root "$(installation_of "${missing[@]}")"
}

fetch_index() {
  ! index_is_there || return 0
  echo "Debian's package index is missing; it is fetched for the sample data." >&2
  run_as_root 'apt-get update'
}

# Those of one folder of tests/.
install_node_packages() {
  local pinned=$tests/$1/package-lock.json
  local installed=$tests/$1/node_modules/.package-lock.json
  [[ ! $installed -nt $pinned ]] || return 0
  echo "Node.js packages to install in tests/$1: those that package-lock.json pins" >&2
  (cd "$tests/$1" && npm ci --no-audit --no-fund --loglevel=error) >&2
}

main() {
  local group index='' test='' release='' bench=''
  local -a packages=()
  (($# > 0)) || refuse 'which group? try --help'
  for group in "$@"; do
    case $group in
      --help)
        usage
        return
        ;;
      build) packages+=("${BUILD[@]}") ;;
      windows) packages+=("${WINDOWS[@]}") ;;
      proxy) packages+=("${PROXY[@]}") ;;
      mutation) packages+=("${MUTATION[@]}") ;;
      release)
        packages+=("${RELEASE[@]}")
        release=1
        ;;
      test)
        packages+=("${TEST[@]}" "${PROXY[@]}" "${MODELS[@]}")
        test=1
        ;;
      models) packages+=("${MODELS[@]}") ;;
      coverage) packages+=("${COVERAGE[@]}") ;;
      bench)
        packages+=("${BENCH[@]}")
        bench=1
        ;;
      index) index=1 ;;
      *) refuse "unknown group $group; try --help" ;;
    esac
  done
  [[ -z $test$release$bench ]] || node_is_there || packages+=(nodejs npm)
  ((${#packages[@]} == 0)) || install_packages "${packages[@]}"
  [[ -z $index ]] || fetch_index
  [[ -z $test ]] || install_node_packages interop
  [[ -z $release ]] || install_node_packages release
}

main "$@"
