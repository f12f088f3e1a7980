#!/usr/bin/env bash
# Installs what the build and the tests need and is missing (Debian 12).
set -euo pipefail
needed=(cmake g++ make libgtest-dev pkg-config binutils)
missing=()
for package in "${needed[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo=sudo
  $sudo apt-get update -q
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q "${missing[@]}"
fi
