# Shared by scripts/demo, scripts/test and bench/run: install what the build
# needs, then configure and build incrementally.
set -euo pipefail

ZV_ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
ZV_PACKAGES=(g++ cmake ninja-build pkg-config python3
  libcurl4-openssl-dev libsimdjson-dev libfmt-dev libcli11-dev libcpp-httplib-dev
  nlohmann-json3-dev libsqlite3-dev libssl-dev libnghttp2-dev libgtest-dev libgmock-dev
  libbenchmark-dev mono-devel)

# zv_install_packages [EXTRA...]: apt-get installs whatever is missing.
zv_install_packages() {
  local missing=()
  for p in "${ZV_PACKAGES[@]}" "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "== installing: ${missing[*]}"
  local sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
}

# zv_build BUILD_DIR [CMAKE_ARGS...]: configure once, then build incrementally.
zv_build() {
  local dir="$1"; shift
  if [ ! -f "$dir/build.ninja" ]; then
    local launcher=()
    # A developer machine with ccache rebuilds faster; CI machines start without it.
    command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
    cmake -S "$ZV_ROOT" -B "$dir" -G Ninja "${launcher[@]}" "$@"
  fi
  cmake --build "$dir" -j "$(nproc)"
}
