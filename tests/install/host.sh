#!/usr/bin/env bash
# Installs a build into a temporary DESTDIR, builds examples/host against the
# installed client library through pkg-config and through find_package
# (shared and static), runs each against the installed tvd on a temporary
# socket, then once more with the daemon gone, which must fail cleanly.
# Usage: host.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$(cd "$1" && pwd) src=$(cd "$2" && pwd)
work=$(mktemp -d /tmp/tvd-install-XXXXXX)
pid=
cleanup() {
  if [ -n "$pid" ]; then kill -TERM "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

DESTDIR=$work/stage cmake --install "$build" >/dev/null
prefix=$work/stage$(sed -n 's/^CMAKE_INSTALL_PREFIX:PATH=//p' "$build/CMakeCache.txt")
pc=$(find "$prefix" -name tarvik.pc)
libdir=$(realpath "$(PKG_CONFIG_PATH=${pc%/*} pkg-config --variable=libdir tarvik)")
soname=$(readelf -d "$libdir/libtarvik.so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ "$soname" = libtarvik.so.0 ] || fail "soname is '$soname'"
[ -f "$libdir/libtarvik.a" ] || fail "no static library in $libdir"

# pkg-config, as a host's own build would use it.
mkdir -p "$work/pc"
# shellcheck disable=SC2046
g++ -std=c++20 -O1 $(PKG_CONFIG_PATH=${pc%/*} pkg-config --cflags tarvik) -o "$work/pc/tarvik-host" \
  "$src/examples/host/host.cpp" $(PKG_CONFIG_PATH=${pc%/*} pkg-config --libs tarvik) -Wl,-rpath,"$libdir"
# find_package(Tarvik), shared and static.
cmake -S "$src/examples/host" -B "$work/cmake" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null
hosts=("$work/pc/tarvik-host" "$work/cmake/tarvik-host" "$work/cmake/tarvik-host-static")
# (grep -q on a pipe would stop reading early and, with pipefail, fail it.)
loads=$(ldd "$work/cmake/tarvik-host" | grep libtarvik || true)
[[ $loads == *"libtarvik.so.0 => $libdir/"* ]] || fail "shared host does not load $libdir/libtarvik.so.0: $loads"

examples=$src/examples/platform
cat > "$work/tvd.conf" <<CONF
socket_dir = $work/run/vyn
runtime_dir = $work/run/tvd
application_roots = $examples/Applications
system_volume_root = $examples/System
system_plugins_dir = $examples/System/Library/PlugIns
sdk_dir = $examples/System/Library/ExtensionSDKs
types_dir = $examples/System/Library/Types
registry_database = $work/registry.sqlite
containers_root = $work/containers
preferences_dir = $work/preferences
global_annotations = $work/Tarvik-Annotations
privacy_grants = $work/privacy-grants.vlist
entitlements_dir = $work/entitlements.d
CONF
export TVD_CONFIG=$work/tvd.conf
socket=$work/run/vyn/com.veltra.tarvik.tvd
"$prefix/sbin/tvd" 2>"$work/tvd.log" &
pid=$!
for _ in $(seq 1 200); do [ -S "$socket" ] && break; sleep 0.05; done
[ -S "$socket" ] || { cat "$work/tvd.log"; fail "installed tvd did not start"; }

for host in "${hosts[@]}"; do
  out=$("$host" "$socket") || fail "$host: exit $? against a running tvd"
  grep -q "plug-ins offered for com.veltra.share-services" <<<"$out" || fail "$host printed: $out"
done
echo "$out"

kill -TERM "$pid"; wait "$pid" || fail "tvd exited with $?"
pid=
for host in "${hosts[@]}"; do
  status=0
  out=$("$host" "$socket" 2>&1) || status=$?
  [ "$status" -eq 69 ] && grep -q "cannot reach tvd" <<<"$out" || fail "$host without tvd: exit $status: $out"
done
echo "installed library: pkg-config and find_package hosts connect, and fail cleanly without tvd"
