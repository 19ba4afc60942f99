#!/usr/bin/env bash
# Installs the build into a prefix of its own, then builds an application of
# the client library there twice, with pkg-config and with find_package, and
# runs both and the installed qxfile against the installed service.
# The README's C++ and Python examples are taken from it and run too.
#   install-test.sh BUILD_DIR CONSUMER_SOURCE_DIR README [PYTHON]
set -euo pipefail
build=$1
consumer=$2
readme=$3
python=${4:-}
work=$(mktemp -d "${TMPDIR:-/tmp}/qx-install-XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null

for file in bin/qxfile libexec/qxfile-service include/qxfile/Client.h \
    include/qxfile/BlockingClient.h include/qxfile/Records.h include/qxfile/Request.h \
    lib/pkgconfig/qxfile-client.pc lib/cmake/qxfile-client/qxfile-clientConfig.cmake \
    lib/systemd/user/qxfile.socket lib/systemd/user/qxfile.service; do
  [[ -e "$prefix/$file" ]] || { echo "not installed: $file"; exit 1; }
done
ls "$prefix"/lib/libqxfile-client.so* >/dev/null
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
g++ -std=c++20 -Wall -Wextra -Werror -o "$work/list-pc" "$consumer/list.cpp" \
  $(pkg-config --cflags --libs qxfile-client) -Wl,-rpath,"$prefix/lib"

example sizes.cpp
g++ -std=c++20 -Wall -Wextra -Werror -o "$work/sizes" "$work/sizes.cpp" \
  $(pkg-config --cflags --libs qxfile-client) -Wl,-rpath,"$prefix/lib"

# CMake's find_package.
cmake -S "$consumer" -B "$work/consumer-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/consumer-build" >/dev/null

# Run them against the installed service, in a socket folder of their own.
mkdir -m 700 "$work/sockets"
export QXFILE_SOCKET_DIR=$work/sockets QXFILE_IDLE_EXIT_MS=200
# No service path is given: the installed library finds the service of its own prefix.
unset QXFILE_SERVICE_PATH
mkdir "$work/folder"
touch "$work/folder/b" "$work/folder/a"
expected=$(printf '%s\n' "$work/folder/a" "$work/folder/b")
for program in "$work/list-pc" "$work/consumer-build/list"; do
  [[ "$("$program" "$work/folder")" == "$expected" ]] || { echo "$program listed wrong"; exit 1; }
done
[[ "$("$work/sizes" "$work/folder" 2>/dev/null)" == "total: 0 bytes" ]] || { echo "sizes totalled wrong"; exit 1; }
printf 'four' >"$work/folder/a"
[[ "$("$work/sizes" "$work/folder/a" "$work/folder" 2>/dev/null)" == "total: 8 bytes" ]] || {
  echo "sizes totalled wrong"; exit 1; }

# The GObject library: a C program with pkg-config, and the README's Python
# example through the installed typelib.
if [[ -n "$python" ]]; then
  for file in lib/girepository-1.0/Qxfile-1.0.typelib share/gir-1.0/Qxfile-1.0.gir \
      include/qxfile-glib/qxfile-glib.h lib/pkgconfig/qxfile-client-glib.pc; do
    [[ -e "$prefix/$file" ]] || { echo "not installed: $file"; exit 1; }
  done
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
