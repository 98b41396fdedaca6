#!/usr/bin/env bash
# Installs a build into a temporary prefix, then uses that prefix alone as another project would:
# builds consumer.cpp once through the CMake package and once through pkg-config and runs both,
# loads the GStreamer plugin from there, then installs the Python client there, imports it from
# there and calls the installed broker host with it. Usage: check-install.sh BUILD_DIR. Guards
# against an install that is incomplete or that still leans on the source or build tree.
set -euo pipefail
build=$(cd "$1" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
work=$(realpath "$(mktemp -d)")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null

cmake -S "$here" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null
"$work/cmake/consumer"

pc() { PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name libvideoinput.pc)") pkg-config "$@" libvideoinput; }
# shellcheck disable=SC2046  # the flags are meant to split
g++ -std=c++17 -o "$work/consumer-pc" "$here/consumer.cpp" $(pc --cflags) \
  -DVI_MODULE="\"$(pc --variable=module)\"" -DVI_PREFERENCES_DIR="\"$(pc --variable=preferencesdir)\"" \
  $(pc --libs) -ldl -Wl,-rpath,"$(pc --variable=libdir)"
"$work/consumer-pc"

# The installed GStreamer plugin loads from the prefix's plugin folder, with our libraries.
plugin=$(find "$prefix" -name libgstoxvideo.so)
inspected=$(GST_PLUGIN_PATH=$(dirname "$plugin") GST_REGISTRY=$work/gst-registry.bin \
  gst-inspect-1.0 oxvideosrc)
grep -q "Filename  *$plugin" <<<"$inspected"

# pip builds inside the folder it is given: a copy keeps the source tree clean.
cp -r "$here/../../python" "$work/python"
/usr/bin/python3 -m pip install --quiet --no-index --no-build-isolation --root-user-action=ignore \
  --prefix "$prefix" "$work/python"
site=$(dirname "$(dirname "$(find "$prefix" -path '*/oxclient/__init__.py')")")
cd "$work"
PYTHONPATH=$site /usr/bin/python3 - "$prefix" <<'EOF'
import subprocess, sys
import oxclient
prefix = sys.argv[1]
assert oxclient.__file__.startswith(prefix), oxclient.__file__
# The installed broker host, started from anywhere, takes its installed preferences and module.
defaults = subprocess.run([prefix + "/bin/oxbroker", "--help"], capture_output=True, text=True)
assert prefix + "/share/libvideoinput/preferences)" in defaults.stdout, defaults.stdout
broker = subprocess.Popen([prefix + "/bin/oxbroker", "--port", "0"], stdout=subprocess.PIPE,
                          text=True, cwd="/")
try:
    url = broker.stdout.readline().split("listening on ")[1].strip()
    host, port = url[len("tcp://"):].rsplit(":", 1)
    with oxclient.OXProxy("OXVideoDevice", host, int(port), timeout_ms=5000) as device:
        assert device.getFrameRate(0) > 0
finally:
    broker.terminate()
assert broker.wait(timeout=10) == 0
print("check-install: python client from %s called the installed oxbroker" % prefix)
EOF
