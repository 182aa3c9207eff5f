#!/usr/bin/env bash
# Installs a built tree into a scratch prefix and builds the application in
# Tools/examples/consumer/ against it, as a user of the installed library would: once
# through find_package (the shared object, then the archive) and once through
# pkg-config. Each build then runs one KXP and one JSON exchange with the installed
# `vkq serve`. Also checks that the installed headers compile on their own, that no
# private header was installed and that the manual page names every option.
#
#   scripts/consumer-test.sh [BUILD_DIR]     (default: build)
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(realpath "${1:-build}")
work=$build/consumer
prefix=$work/prefix
server_pid=""
cleanup() {
  if [ -n "$server_pid" ]; then kill -INT "$server_pid" 2>/dev/null || true; wait "$server_pid" 2>/dev/null || true; fi
}
trap cleanup EXIT
fail() {
  echo "FAILED: $*" >&2
  exit 1
}
# quietly LOG COMMAND...: runs the command, shows its output only when it fails.
quietly() {
  local log=$1
  shift
  "$@" >"$log" 2>&1 || { tail -n 40 "$log" >&2; fail "$*"; }
}

echo "== consumer: install into a scratch prefix"
rm -rf "$work"
mkdir -p "$work"
quietly "$work/install.log" cmake --install "$build" --prefix "$prefix"

private=$(find "$prefix/include" -path '*/Platform/Transport*' -o -name '*+Private.h')
[ -z "$private" ] || fail "private headers installed: $private"
# Every installed header, included together: none may include a header that is not installed.
find "$prefix/include/vkqvesk" -name '*.h' -printf '#include "%P"\n' >"$work/all-headers.cpp"
quietly "$work/headers.log" c++ -std=c++20 -fsyntax-only -I"$prefix/include/vkqvesk" "$work/all-headers.cpp"

# The manual page is written by hand: it must name every option the tool's help lists.
for option in $("$prefix/bin/vkq" --help | grep -o -- '--[a-z][a-z-]*' | sort -u); do
  grep -qF -- "${option//-/\\-}" "$prefix/share/man/man1/vkq.1" || fail "vkq(1) does not name $option"
done

"$prefix/bin/vkq" serve --port 0 >"$work/serve.out" 2>"$work/serve.log" &
server_pid=$!
url=""
for _ in $(seq 100); do
  url=$(sed -n 's/^listening on //p' "$work/serve.out")
  [ -n "$url" ] && break
  sleep 0.1
done
[ -n "$url" ] || fail "vkq serve did not start: $(cat "$work/serve.log")"

# consumer NAME CMAKE_ARGS...: configures, builds and runs the consumer.
consumer() {
  local name=$1 dir=$work/$1
  shift
  echo "== consumer: $name"
  quietly "$dir.log" cmake -S Tools/examples/consumer -B "$dir" "$@"
  quietly "$dir.log" cmake --build "$dir"
  "$dir/vkq_consumer" "$url" >"$dir.out" 2>&1 || { cat "$dir.out" >&2; fail "$name: the consumer failed"; }
  grep -qx 'kxp: from a consumer' "$dir.out" && grep -qx 'json: {"n":1}' "$dir.out" ||
    fail "$name: unexpected answers: $(cat "$dir.out")"
}
consumer find_package -DVKQ_CONSUMER_USE=find_package -DCMAKE_PREFIX_PATH="$prefix"
consumer find_package-static -DVKQ_CONSUMER_USE=find_package -DVKQ_CONSUMER_TARGET=VKQVesk::vkq_static \
  -DCMAKE_PREFIX_PATH="$prefix"
PKG_CONFIG_PATH=$prefix/lib/pkgconfig consumer pkg-config -DVKQ_CONSUMER_USE=pkg-config
echo "== consumer: all builds ran"
