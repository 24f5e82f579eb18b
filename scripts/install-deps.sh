#!/usr/bin/env bash
# Installs what building, the demo and the tests need, from Debian's packages.
#
# usage: install-deps.sh [--check]
#   --check   only say what is missing; exit status 1 if anything is
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config
  libcurl4-openssl-dev libssl-dev zlib1g-dev libcjson-dev
  python3 openssl
  libgtest-dev libgmock-dev python3-pytest python3-pytest-xdist
  clang clang-format clang-tidy
  iproute2 util-linux procps
)

missing=()
for package in "${packages[@]}"; do
  status=$(dpkg-query -W -f '${db:Status-Abbrev}' "$package" 2>/dev/null || true)
  [[ $status == ii* ]] || missing+=("$package")
done
if [[ ${#missing[@]} -eq 0 ]]; then
  exit 0
fi
if [[ ${1:-} == --check ]]; then
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

echo "installing: ${missing[*]}"
"${as_root[@]}" apt-get update -qq
if ! "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
    "${missing[@]}" >/dev/null; then
  echo "apt-get could not install all of: ${missing[*]}" >&2
  exit 1
fi
