#!/usr/bin/env bash
# Installs what building, the demo and the tests need, from Debian's packages.
#
# usage: install-deps.sh [--check] [--group NAME]
#   --check        only say what is missing; exit status 1 if anything is
#   --group NAME   what another script needs besides: package (scripts/package.sh), cross (scripts/cross.sh)
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config
  libcurl4-openssl-dev libssl-dev zlib1g-dev libcjson-dev libcli11-dev
  python3 openssl
  libgtest-dev libgmock-dev libbenchmark-dev python3-pytest python3-pytest-xdist
  clang clang-format clang-tidy
  iproute2 util-linux procps
  squid tinyproxy-bin stunnel4 dante-server microsocks nftables
  graphviz spin valgrind binutils
  zsh mandoc shellcheck socat tshark python3-jsonschema
  chromium chromium-driver busybox
)

declare -A groups=(
  [package]="debhelper dpkg-dev lintian debootstrap"
  [cross]="g++-arm-linux-gnueabihf g++-i686-linux-gnu g++-mipsel-linux-gnu g++-s390x-linux-gnu qemu-user musl-tools"
)

usage() { echo "usage: install-deps.sh [--check] [--group NAME], NAME is one of: ${!groups[*]}" >&2; exit 2; }
check=
while [[ $# -gt 0 ]]; do
  case $1 in
    --check) check=1 ;;
    --group) [[ -v groups[${2:-none}] ]] || usage; read -ra packages <<<"${groups[$2]}"; shift ;;
    *) usage ;;
  esac
  shift
done

# What brings a service along (init script, systemd unit). The tests run these programs by themselves, with their own
# configuration; as a service none of them may run on this machine on our account, neither now nor after a restart.
declare -A services=(
  [squid]="squid squid.service" [stunnel4]="stunnel4 stunnel.target" [dante-server]="danted danted.service"
)
policy=/usr/sbin/policy-rc.d  # asked by every package that is about to start its service

missing=()
for package in "${packages[@]}"; do
  status=$(dpkg-query -W -f '${db:Status-Abbrev}' "$package" 2>/dev/null || true)
  [[ $status == ii* ]] || missing+=("$package")
done
if [[ ${#missing[@]} -eq 0 ]]; then
  exit 0
fi
if [[ -n $check ]]; then
  echo "missing packages: ${missing[*]}" >&2
  exit 1
fi

as_root=()
if [[ $(id -u) -ne 0 ]]; then
  if ! command -v sudo >/dev/null; then
    echo "Please install these packages as root, then try again: ${missing[*]}" >&2
    exit 1
  fi
  as_root=(sudo)
fi
if ! command -v apt-get >/dev/null; then
  echo "This system has no apt-get. Please install the equivalents of: ${missing[*]}" >&2
  exit 1
fi

forbid_starts() {  # a machine that has a policy keeps it
  [[ ! -e $policy ]] || return 0
  trap '"${as_root[@]}" rm -f "$policy"' EXIT
  printf '#!/bin/sh\nexit 101\n' | "${as_root[@]}" install -m 755 /dev/stdin "$policy"
}

keep_new_services_off() {
  local package script unit
  for package in "${missing[@]}"; do
    read -r script unit <<<"${services[$package]:-}"
    [[ -n $script ]] || continue
    ! command -v systemctl >/dev/null || "${as_root[@]}" systemctl --quiet disable "$unit" 2>/dev/null || true
    ! command -v update-rc.d >/dev/null || "${as_root[@]}" update-rc.d "$script" disable 2>/dev/null || true
  done
}

echo "installing: ${missing[*]}"
forbid_starts
"${as_root[@]}" apt-get update -qq
if ! "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
    "${missing[@]}" >/dev/null; then
  echo "apt-get could not install all of: ${missing[*]}" >&2
  exit 1
fi
keep_new_services_off
