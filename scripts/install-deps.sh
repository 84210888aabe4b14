#!/usr/bin/env bash
# Installs, from Debian's archive, whatever the build, tests, demo and
# benchmarks need and this machine lacks. Idempotent: installs nothing when
# everything is present. Needs root (or sudo) only when something is missing.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
mapfile -t wanted < <(grep -vE '^\s*(#|$)' "$here/packages.txt" | awk '{print $1}')
# --with-bench, --with-aarch64: the lists packages-bench.txt, packages-aarch64.txt too.
for option in "$@"; do
  case "$option" in
    --with-*)
      mapfile -t -O "${#wanted[@]}" wanted < <(grep -vE '^\s*(#|$)' "$here/packages-${option#--with-}.txt" | awk '{print $1}')
      ;;
  esac
done
missing=()
for p in "${wanted[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ "${#missing[@]}" -eq 0 ]; then
  echo "install-deps: everything needed is installed"
  exit 0
fi
echo "install-deps: installing ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
