#!/usr/bin/env bash
# Builds the Debian package twice from the last commit, in two folders, and shows that both are the same, that Debian's
# checks find nothing, what it is made of, and that the installed files do the demo in a fresh system. Installs what is
# missing. Prints a table at the end; exit status 0 only if all of it is so.
#
# usage: package.sh [--tree]
#   --tree   build the working tree as it is, in place of the last commit
# What comes out lies in build-package, or in the folder that ORVEL_PACKAGE_BUILD names.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=${ORVEL_PACKAGE_BUILD:-$root/build-package}
first=$out/first/orvel
second=$out/second-build/in-a-longer/path/orvel
table=$out/table.md
tree=
case ${1:-} in
  "") ;;
  --tree) tree=1 ;;
  *) echo "usage: package.sh [--tree]" >&2; exit 2 ;;
esac

step() { printf '\n\033[1m== %s\033[0m\n' "$*"; }
fail() { echo "package.sh: $*" >&2; exit 1; }
row() { printf '| %s | %s |\n' "$1" "$2" >>"$table"; }

copy_sources() {  # copy_sources FOLDER
  mkdir -p "$1"
  if [[ -n $tree ]]; then
    git -C "$root" ls-files -z --cached --others --exclude-standard |
      tar -C "$root" --create --null --files-from=- --ignore-failed-read | tar -C "$1" --extract
  else
    git -C "$root" archive HEAD | tar -C "$1" --extract
  fi
  cp -R "$1/packaging/debian" "$1/debian"
}

build() {  # build FOLDER [NAME=VALUE...]: the package lies beside the folder
  (cd "$1" && env "${@:2}" dpkg-buildpackage --build=binary --no-sign --jobs="$(nproc)")
}

check_version() {
  local ours debians
  ours=$(sed -n 's/^project(orvel VERSION \([0-9.]*\).*/\1/p' "$first/CMakeLists.txt")
  debians=$(cd "$first" && dpkg-parsechangelog --show-field Version)
  [[ $ours == "$debians" ]] || fail "debian/changelog says $debians, CMakeLists.txt $ours"
}

build_twice() {
  rm -rf "$out/first" "$out/second-build"
  copy_sources "$first"
  copy_sources "$second"
  check_version
  SOURCE_DATE_EPOCH=$(git -C "$root" log -1 --format=%ct)
  export SOURCE_DATE_EPOCH
  build "$first"
  build "$second" TZ=Pacific/Kiritimati LC_ALL=C.UTF-8
}

compare() {
  local one other
  for one in "$out"/first/*.deb; do
    other=${second%/*}/${one##*/}
    cmp "$one" "$other" || fail "${one##*/} depends on the folder that it was built in"
    cp "$one" "$out"
    row "${one##*/}, the same from two folders" "sha256 $(sha256sum <"$one" | cut -d' ' -f1)"
  done
  row "its size, and installed" "$(stat -c %s "$deb") bytes, $(dpkg-deb --field "$deb" Installed-Size) KiB"
}

write_bill() {
  local said
  "$root/scripts/sbom.py" write "$deb" "$bill"
  said=$("$root/scripts/sbom.py" check "$deb" "$bill")
  row "bill of materials, ${bill##*/}" "$said"
}

as_root() { if [[ $(id -u) -eq 0 ]]; then "$@"; else sudo "$@"; fi; }

"$root/scripts/install-deps.sh"
"$root/scripts/install-deps.sh" --group package
mkdir -p "$out"
rm -f "$out"/*.deb "$out"/*.json "$table"
row check result
row --- ---

step "two builds"
build_twice
deb=$(echo "$out"/first/orvel_*.deb)
bill=$out/$(basename "$deb" .deb).spdx.json

step "compared"
compare

step "lintian"
lintian --fail-on error,warning "$out"/first/*.changes
row "lintian" "no error, no warning"

step "bill of materials"
write_bill

step "in a fresh Debian system"
as_root "$root/scripts/try-package.sh" "$deb" "$first" "$out"

step "all of it is so"
cat "$table"
