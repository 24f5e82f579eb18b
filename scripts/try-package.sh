#!/usr/bin/env bash
# Installs a package in a Debian system of its own, in a folder, checks what it has installed there, runs the demo from
# the installed files, and removes the package again. Needs root.
#
# usage: try-package.sh PACKAGE SOURCES OUT
#   PACKAGE   the .deb file
#   SOURCES   the folder with lab and demo
#   OUT       the folder that keeps the bare system for the next run, and whose table.md gets lines with the results
set -euo pipefail
deb=$1
sources=$2
out=$3
system=$out/system
# shellcheck source=/dev/null
. /etc/os-release  # VERSION_CODENAME, PRETTY_NAME
base=$out/base-$VERSION_CODENAME.tar
most_exposed=55               # of the unit, in tenths, as systemd-analyze counts
most_exposed_with_drop_in=25

# The mounts lie in a name space of this script's own: however it ends, they and all its processes are gone.
if [[ -z ${ORVEL_OWN_MOUNTS:-} ]]; then
  ORVEL_OWN_MOUNTS=1 exec unshare --mount --pid --fork --kill-child "$0" "$@"
fi

step() { printf '\n-- %s\n' "$*"; }
fail() { echo "try-package.sh: $*" >&2; exit 1; }
row() { printf '| %s | %s |\n' "$1" "$2" >>"$out/table.md"; }
inside() { env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root DEBIAN_FRONTEND=noninteractive chroot "$system" "$@"; }

archives() {  # this machine's own Debian archives: "ADDRESS RELEASE COMPONENT" a line
  apt-get indextargets --format "\$(REPO_URI) \$(RELEASE) \$(COMPONENT)" 'Created-By: Packages' 'Origin: Debian'
}

make_base() {
  local address proxy=
  [[ -n $(archives) ]] || apt-get update -qq
  address=$(archives | awk -v release="$VERSION_CODENAME" '$2 == release { print $1; exit }')
  eval "$(apt-config shell proxy Acquire::http::Proxy)"
  # systemd for its checks of the unit, the others for the lab.
  http_proxy=$proxy debootstrap --variant=minbase --include=systemd,python3,openssl \
    "$VERSION_CODENAME" "$system" "$address"
  tar -C "$system" --create --file "$base.new" --one-file-system .
  mv "$base.new" "$base"
}

enter_system() {
  rm -rf "$system"
  mkdir -p "$system"
  if [[ -e $base ]]; then tar -C "$system" --extract --file "$base"; else make_base; fi
  archives | sed 's/^/deb /' >"$system/etc/apt/sources.list"
  apt-config dump Acquire::http Acquire::https >"$system/etc/apt/apt.conf.d/as-outside"
  cp /etc/resolv.conf /etc/hosts "$system/etc/"
  mount -t proc proc "$system/proc"
  mount --rbind /dev "$system/dev"
  mkdir -p "$system/srv/orvel"
  mount --bind "$sources" "$system/srv/orvel"
  mount -o remount,bind,ro "$system/srv/orvel"
}

# No systemd runs in there. The package's scripts shall think so, and talk to this.
put_systemctl_stand_in() {
  mkdir -p "$system/run/systemd/system"
  rm "$system/bin/systemctl"
  install -m 755 /dev/stdin "$system/bin/systemctl" <<'SH'
#!/bin/sh
echo "$*" >>/srv/systemctl-calls
case $* in
  *is-enabled*) echo disabled ;;
  *is-active*) [ -e /srv/service-runs ] ;;
esac
SH
}

service_was_told() { grep -qE -- "(^| )$1 orvel.service" "$system/srv/systemctl-calls"; }

install_package() {
  cp "$deb" "$system/srv/orvel.deb"
  inside apt-get update -qq
  inside apt-get install -y -qq --no-install-recommends /srv/orvel.deb >/dev/null
  row "installed by apt" "in a fresh $PRETTY_NAME"
}

check_files() {
  local conffiles
  conffiles=$(inside dpkg-query -W -f "\${Conffiles}" orvel | awk '{ print $1 }' | sort | paste -sd' ')
  [[ $conffiles == "/etc/default/orvel /etc/orvel/profile /etc/orvel/settings /etc/orvel/usi.conf" ]] ||
    fail "the configuration files are $conffiles"
  [[ $(inside stat -c '%a %U' /etc/orvel/settings) == "600 root" ]] || fail "others can read the settings"
  [[ ! -e $system/etc/systemd/system/multi-user.target.wants/orvel.service ]] || fail "the service is enabled already"
  ! service_was_told start || fail "the service is started already"
  inside orvel --version
  inside orvelctl --version
  row "configuration files" "$conffiles"
}

verify() {  # it has words for what it only ignores, too
  local said
  said=$(inside systemd-analyze verify --man=no orvel.service 2>&1) || fail "the unit: $said"
  [[ -z $said ]] || fail "the unit: $said"
}

exposure() {  # exposure MOST: of the unit as it is now, at most MOST tenths
  local said
  said=$(inside systemd-analyze security --offline=true --threshold="$1" orvel.service) || fail "too much: $said"
  echo "$said" >&2
  sed -n 's/.*level for orvel.service: \([0-9.]*\).*/\1 of 10/p' <<<"$said"
}

check_unit() {
  local drop_ins=$system/etc/systemd/system/orvel.service.d found
  verify
  found=$(exposure $most_exposed)
  row "exposure of the unit, as systemd-analyze security counts" "$found"
  mkdir -p "$drop_ins"
  cp "$system/usr/share/doc/orvel/examples/no-programs.conf" "$drop_ins"
  verify
  found=$(exposure $most_exposed_with_drop_in)
  row "the same with the drop-in for devices without handler programs" "$found"
  rm -r "$drop_ins"
  row "systemd-analyze verify, with and without it" "nothing to say"
}

install_again() {  # as an upgrade: the administrator's settings stay, and the agent that runs is a new one
  inside usi set q_handler_alarm /usr/local/bin/on-alarm
  touch "$system/srv/service-runs"
  inside dpkg --install /srv/orvel.deb >/dev/null
  [[ $(inside usi get q_handler_alarm) == /usr/local/bin/on-alarm ]] || fail "the settings were lost"
  [[ $(inside stat -c '%a %U' /etc/orvel/settings) == "600 root" ]] || fail "others can read the settings now"
  service_was_told restart || fail "the service was not restarted"
  row "installed once more" "settings and their mode are kept, a running service is restarted"
}

run_demo() {
  inside env ORVEL_BIN=/usr/bin/orvel PYTHONDONTWRITEBYTECODE=1 /srv/orvel/scripts/demo.sh | tee "$out/demo.log"
  row "the demo from the installed files" "$(tail -n 1 "$out/demo.log")"
}

purge() {
  local left
  inside dpkg --purge orvel >/dev/null
  service_was_told stop || fail "the service was not stopped"
  left=$(find "$system"/{etc,usr,var/lib/systemd,run} -path '*orvel*' -print)
  [[ -z $left ]] || fail "left over: $left"
  row "purged" "a running service is stopped, nothing is left"
}

step "the system"
enter_system
put_systemctl_stand_in
step "the package"
install_package
check_files
install_again
step "the unit"
check_unit
step "the demo"
run_demo
step "removed"
purge
