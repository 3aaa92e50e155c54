# Installs the Debian packages that building and testing tvd needs, only
# those missing. Sourced by scripts/test, scripts/demo, scripts/bench,
# scripts/fuzz and scripts/package-deb.

TVD_DEB_PACKAGES=(
  cmake ninja-build g++ pkg-config python3 binutils
  libexpat1-dev libssl-dev libsystemd-dev systemtap-sdt-dev nlohmann-json3-dev
  libsqlite3-dev libjemalloc-dev libgtest-dev libgmock-dev libbenchmark-dev
  groff-base zsh
  systemd dpkg-dev
)
# The fuzz targets: clang 14 and its runtime libraries (libFuzzer, ASan, UBSan).
TVD_FUZZ_PACKAGES=(clang-14 libclang-rt-14-dev)

# With no arguments the packages above; otherwise the packages named.
tvd_ensure_deps() {
  local missing=()
  local p
  local wanted=("$@")
  [ ${#wanted[@]} -gt 0 ] || wanted=("${TVD_DEB_PACKAGES[@]}")
  for p in "${wanted[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
      missing+=("$p")
    fi
  done
  if [ ${#missing[@]} -eq 0 ]; then
    return 0
  fi
  echo "installing: ${missing[*]}"
  local sudo=()
  if [ "$(id -u)" -ne 0 ]; then
    if command -v sudo >/dev/null; then
      sudo=(sudo)
    else
      echo "error: packages missing (${missing[*]}) and not root; install them and retry" >&2
      return 1
    fi
  fi
  export DEBIAN_FRONTEND=noninteractive
  "${sudo[@]}" apt-get update -qq
  "${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
}
