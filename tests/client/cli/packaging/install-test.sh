#!/usr/bin/env bash
# Installs the build into a prefix of its own, then builds the README's C++
# example against the client library there twice, with pkg-config and with
# find_package, and runs both, the README's Python example and the installed
# qxfile against the installed service.
#   install-test.sh BUILD_DIR CONSUMER_SOURCE_DIR README [PYTHON]
set -euo pipefail
build=$1
consumer=$2
readme=$3
python=${4:-}
work=$(mktemp -d "${TMPDIR:-/tmp}/qx-install-XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

# What is installed is used below: a file missing fails the step that uses it.
cmake --install "$build" --prefix "$prefix" >/dev/null

grep -qx "ExecStart=$prefix/libexec/qxfile-service" "$prefix/lib/systemd/user/qxfile.service" || {
  echo "qxfile.service does not start the installed service"; exit 1; }
grep -qx 'ListenStream=%t/qxfile/service.sock' "$prefix/lib/systemd/user/qxfile.socket"
if command -v systemd-analyze >/dev/null; then
  (cd "$prefix/lib/systemd/user" && systemd-analyze verify ./qxfile.socket ./qxfile.service)
fi

# The public headers include the standard library and one another, nothing else.
foreign=$(grep -rhE '^\s*#\s*include' "$prefix/include/qxfile" | grep -vE '<[a-z_]+>|"qxfile/[A-Za-z]+\.h"' || true)
[[ -z "$foreign" ]] || { echo "installed headers include more than the standard library:"; echo "$foreign"; exit 1; }

# The fenced block after "<!-- example: NAME -->" in the README.
example() {
  awk -v marker="<!-- example: $1 -->" '
    $0 == marker { found = 1; next }
    found && /^```/ { if (inside) exit; inside = 1; next }
    inside { print }' "$readme" >"$work/$1"
  [[ -s "$work/$1" ]] || { echo "no example $1 in the README"; exit 1; }
}

# pkg-config, as the README shows it.
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
example sizes.cpp
g++ -std=c++20 -Wall -Wextra -Werror -o "$work/sizes" "$work/sizes.cpp" \
  $(pkg-config --cflags --libs qxfile-client) -Wl,-rpath,"$prefix/lib"

# CMake's find_package.
cmake -S "$consumer" -B "$work/consumer-build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DQX_EXAMPLE="$work/sizes.cpp" >/dev/null
cmake --build "$work/consumer-build" >/dev/null

# Run them against the installed service, in a socket folder of their own.
mkdir -m 700 "$work/sockets"
export QXFILE_SOCKET_DIR=$work/sockets QXFILE_IDLE_EXIT_MS=200
# No service path is given: the installed library finds the service of its own prefix.
unset QXFILE_SERVICE_PATH
mkdir "$work/folder"
touch "$work/folder/b" "$work/folder/a"
expected=$(printf '%s\n' "$work/folder/a" "$work/folder/b")
for program in "$work/sizes" "$work/consumer-build/example"; do
  [[ "$("$program" "$work/folder" 2>/dev/null)" == "total: 0 bytes" ]] || { echo "$program totalled wrong"; exit 1; }
done
printf 'four' >"$work/folder/a"
[[ "$("$work/sizes" "$work/folder/a" "$work/folder" 2>/dev/null)" == "total: 8 bytes" ]] || {
  echo "sizes totalled wrong"; exit 1; }

# The GObject library: a C program with pkg-config, and the README's Python
# example through the installed typelib.
if [[ -n "$python" ]]; then
  [[ -e "$prefix/share/gir-1.0/Qxfile-1.0.gir" ]] || { echo "not installed: the .gir"; exit 1; }
  printf '#include <qxfile-glib/qxfile-glib.h>\nint main(void) {\n  QxfileClient *client = qxfile_client_new();\n  g_object_unref(client);\n  return 0;\n}\n' >"$work/client.c"
  gcc -Wall -Wextra -Werror -o "$work/client-c" "$work/client.c" \
    $(pkg-config --cflags --libs qxfile-client-glib) -Wl,-rpath,"$prefix/lib"
  "$work/client-c"
  example list.py
  listed=$(GI_TYPELIB_PATH=$prefix/lib/girepository-1.0 LD_LIBRARY_PATH=$prefix/lib \
    "$python" "$work/list.py" "$work/folder")
  [[ "$listed" == "$expected" ]] || { echo "the Python example listed wrong: $listed"; exit 1; }
fi

# The installed command finds its library without help.
# (Outputs are taken whole before grep -q looks at them: grep stopping early
# would end the writer with SIGPIPE, which pipefail counts as a failure.)
listing=$(env -u LD_LIBRARY_PATH "$prefix/bin/qxfile" ls "$work/folder" --json)
grep -q "\"$work/folder/b\"" <<<"$listing" || { echo "the installed qxfile listed wrong"; exit 1; }
libraries=$(ldd "$prefix/bin/qxfile")
grep -q "$prefix/bin/../lib/libqxfile-client.so" <<<"$libraries" || {
  echo "qxfile does not use the installed library"; exit 1; }

# Let the service leave before its folder goes.
for _ in $(seq 100); do
  pgrep -f "^$prefix/libexec/qxfile-service" >/dev/null || break
  sleep 0.1
done
echo "installed and used from $prefix"
