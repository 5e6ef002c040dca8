# Debian packages that the project needs, in the groups in which they are needed. Sourced, not run.
#
#   need_packages GROUP…    installs what is missing (root, or sudo), and nothing when all is there

packages_build="g++ cmake ninja-build pkg-config python3-minimal ccache lld gettext
  libxml2-dev libutfcpp-dev libcurl4-openssl-dev libsqlite3-dev libicu-dev nlohmann-json3-dev libxxhash-dev
  liburiparser-dev libcli11-dev ca-certificates"
packages_demo="ffmpeg nginx-light"
packages_fuzz="clang libclang-rt-dev"
packages_benchmarks="curl aria2 iproute2"
packages_players="ffmpeg nginx-light openssl mpv chromium"
packages_players_npm="npm"
packages_check="libgtest-dev libgmock-dev clang clang-format clang-tidy openssl procps git"

need_packages() {
  local wanted="" missing="" group package
  for group in "$@"; do
    local name="packages_$group"
    wanted="$wanted ${!name}"
  done
  for package in $wanted; do
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing="$missing $package"
  done
  [ -n "$missing" ] || return 0

  local as_root=()
  if [ "$(id -u)" != 0 ]; then
    command -v sudo >/dev/null || {
      echo "tolvane: these packages are missing and installing them needs root or sudo:$missing" >&2
      return 1
    }
    as_root=(sudo)
  fi
  echo "tolvane: installing$missing" >&2

  # nginx serves loopback for the demo and the tests and is started by them; the package's own service stays off.
  local policy=/usr/sbin/policy-rc.d policy_is_ours=no status=0
  if [ ! -e "$policy" ]; then
    printf '#!/bin/sh\nexit 101\n' | "${as_root[@]}" tee "$policy" >/dev/null
    "${as_root[@]}" chmod +x "$policy"
    policy_is_ours=yes
  fi
  "${as_root[@]}" apt-get update -qq >&2 || status=$?
  # shellcheck disable=SC2086
  [ "$status" != 0 ] || "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -qq --no-install-recommends $missing >&2 || status=$?
  [ "$policy_is_ours" = no ] || "${as_root[@]}" rm -f "$policy"
  return "$status"
}
