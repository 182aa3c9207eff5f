#!/usr/bin/env bash
# The main job in one command: installs what is missing, builds vkq, starts the
# reference server on free loopback ports and takes a short tour through the vkq
# client: KXP exchanges (library defaults; a mask key and protocol version), JSON GET
# and POST, a download interrupted with SIGINT and resumed by a second run, and one that
# rides out a server that refuses once and drops the connection every MiB, each checked
# byte for byte against the original by its SHA-256.
#
# Prints one line per step; exits 0 only if every step worked. The servers are stopped
# and the temporary files removed on every exit, also after a failure.
set -euo pipefail
cd "$(dirname "$0")/.."

work=$(mktemp -d)
server_pids=()
cleanup() {
  local pid
  for pid in "${server_pids[@]}"; do kill -INT "$pid" 2>/dev/null || true; done
  for pid in "${server_pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT

ok() {
  printf 'ok  %-30s %s\n' "$1" "$2"
}

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

echo "== installing what is missing, building vkq"
scripts/install-deps.sh
if ! { cmake --preset default && cmake --build build --target vkq_cli -j"$(nproc)"; } >"$work/build.log" 2>&1; then
  tail -n 40 "$work/build.log" >&2
  fail "build"
fi
vkq=build/bin/vkq

# The client's temporary folder (where resume data lives) belongs to this run; a cache
# folder of the user's would come first.
export TMPDIR="$work/tmp"
unset XDG_CACHE_HOME
mkdir -p "$TMPDIR" "$work/root"

# start_server NAME ARGS...: runs `vkq serve` and sets $url to its address.
start_server() {
  local name=$1 line=""
  shift
  "$vkq" serve --port 0 "$@" >"$work/$name.out" 2>"$work/$name.log" &
  server_pids+=($!)
  for _ in $(seq 100); do
    line=$(grep -m1 '^listening on ' "$work/$name.out" 2>/dev/null || true)
    [ -n "$line" ] && break
    sleep 0.1
  done
  [ -n "$line" ] || fail "vkq serve $* did not start: $(cat "$work/$name.log")"
  url=${line#listening on }
}

echo "== tour"
head -c $((8 << 20)) /dev/urandom >"$work/root/big.bin"
start_server plain --root "$work/root" --rate-limit $((2 << 20))
plain=$url
start_server keyed --xor-key 0x5A --version 3 --package-name com.vkq.demo
keyed=$url
start_server flaky --root "$work/root" --fail-first 1 --drop-every $((1 << 20))
flaky=$url
echo "servers:  $plain (library defaults, 8 MiB file at 2 MiB/s)"
echo "          $keyed (key 0x5A, version 3, package com.vkq.demo)"
echo "          $flaky (503 first, then every answer cut after 1 MiB)"

answer=$("$vkq" kxp "$plain/kxp/echo" --data "hello, kxp") || fail "kxp with the defaults"
[ "$answer" = "hello, kxp" ] || fail "kxp echoed '$answer'"
ok "kxp, library defaults" "sent 'hello, kxp', echoed '$answer'"

answer=$("$vkq" kxp "$keyed/kxp/echo" --data "masked and versioned" --xor-key 0x5A --version 3 \
  --package-name com.vkq.demo) || fail "kxp with key and version"
[ "$answer" = "masked and versioned" ] || fail "keyed kxp echoed '$answer'"
ok "kxp, key 0x5A, version 3" "sent 'masked and versioned', echoed '$answer'"

status=0
"$vkq" kxp "$keyed/kxp/echo" --data "x" --xor-key 0x5A --version 4 --package-name com.vkq.demo \
  >/dev/null 2>"$work/mismatch.err" || status=$?
[ "$status" -eq 2 ] || fail "a version mismatch gave exit status $status"
ok "kxp, version 4 against 3" "exit status 2, $(sed -n 's/^vkq: the server said: //p' "$work/mismatch.err")"

answer=$("$vkq" json "$plain/json/echo" --arg '{"city":"Oslo","days":3}' | tr -d ' \n') || fail "json GET"
[ "$answer" = '{"city":"Oslo","days":"3"}' ] || fail "json GET echoed $answer"
ok "json GET ?city=Oslo&days=3" "$answer"

answer=$("$vkq" json "$plain/json/echo" --method POST --arg '{"city":"Oslo","days":3}' | tr -d ' \n') ||
  fail "json POST"
[ "$answer" = '{"city":"Oslo","days":3}' ] || fail "json POST echoed $answer"
ok "json POST" "$answer"

target="$work/big.bin"
"$vkq" download "$plain/files/big.bin" "$target" 2>"$work/download1.err" &
client=$!
for _ in $(seq 100); do
  grep -q 'sending bytes 0-' "$work/plain.log" && break
  sleep 0.1
done
sleep 1.5
kill -INT "$client"
status=0
wait "$client" || status=$?
[ "$status" -eq 130 ] || fail "the interrupted download gave exit status $status: $(cat "$work/download1.err")"
ok "download, SIGINT after 1.5 s" "exit status 130, resume data kept"

"$vkq" download "$plain/files/big.bin" "$target" 2>"$work/download2.err" ||
  fail "the resumed download: $(cat "$work/download2.err")"
# The server logs an answer once it has been sent, which may be just after the client is done.
range=""
for _ in $(seq 50); do
  range=$(grep -o 'Range: bytes=[0-9]*-' "$work/plain.log" | tail -n 1 || true)
  [ -n "$range" ] && break
  sleep 0.1
done
[ -n "$range" ] || fail "the second download did not resume: $(cat "$work/plain.log")"
from=${range#Range: bytes=}
from=${from%-}
original=$(sha256sum <"$work/root/big.bin" | cut -c1-64)
copy=$(sha256sum <"$target" | cut -c1-64)
[ "$original" = "$copy" ] || fail "the downloaded file differs from the original"
ok "download, second run" "resumed at byte $from of $((8 << 20)), SHA-256 ${copy:0:16}... matches"

"$vkq" download "$flaky/files/big.bin" "$work/flaky.bin" --retries 10 --metrics 2>"$work/flaky.err" ||
  fail "the download over the dropping server: $(cat "$work/flaky.err")"
[ "$(sha256sum <"$work/flaky.bin" | cut -c1-64)" = "$original" ] || fail "the retried download differs"
retries=$(grep -o '"retries":[0-9]*' "$work/flaky.err" | cut -d: -f2)
ok "download, dropped every MiB" "one run, $retries retries, SHA-256 matches"
echo "== all steps passed"

