# Installs the Debian packages that building and testing tvd needs, only
# those missing. Sourced by scripts/test, scripts/demo, scripts/bench and
# scripts/package-deb.

TVD_DEB_PACKAGES=(
  cmake ninja-build g++ pkg-config python3 binutils
  libexpat1-dev libssl-dev libsystemd-dev systemtap-sdt-dev nlohmann-json3-dev
  libsqlite3-dev libgtest-dev libgmock-dev libbenchmark-dev
  systemd dpkg-dev
)

tvd_ensure_deps() {
  local missing=()
  local p
  for p in "${TVD_DEB_PACKAGES[@]}"; do
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
