#!/usr/bin/env bash
# Installs every build, test and benchmark dependency from Debian packages.
# Idempotent and non-interactive; run as root (or through sudo).
set -euo pipefail
PKGS=(build-essential cmake libboost-dev libgtest-dev libgmock-dev googletest
      libbenchmark-dev libcli11-dev nlohmann-json3-dev libpugixml-dev libxml2-utils)
missing=()
for p in "${PKGS[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
