#!/usr/bin/env bash
# Installs the Debian packages that building and testing Ostrand needs
# (chromium runs the browser viewer's test, headless).
# Idempotent: packages already present are left alone, and apt is not touched
# at all when nothing is missing.
set -euo pipefail

packages=(
  build-essential cmake pkg-config git
  libboost-dev libboost-thread-dev libboost-filesystem-dev libboost-system-dev
  libjsoncpp-dev libcpp-httplib-dev nlohmann-json3-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libdw-dev libelf-dev libcapstone-dev libopencsd-dev
  binutils-arm-none-eabi
  # The simulated targets run their programs under QEMU.
  qemu-system-arm
  # Only testdata/firmware/rebuild.sh needs the cross compiler; the tests
  # read the committed ELF files.
  gcc-arm-none-eabi
  nodejs npm
  chromium
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

# Node and npm may come from outside Debian on a developer machine; if the
# commands exist, the packages are not needed.
if command -v node >/dev/null && command -v npm >/dev/null; then
  filtered=()
  for p in "${missing[@]}"; do
    [[ "$p" == nodejs || "$p" == npm ]] || filtered+=("$p")
  done
  missing=("${filtered[@]}")
fi

if ((${#missing[@]})); then
  echo "install-deps: installing ${missing[*]}" >&2
  if [[ $(id -u) -ne 0 ]]; then
    echo "install-deps: must run as root to install packages (or install them yourself)" >&2
    exit 2
  fi
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
