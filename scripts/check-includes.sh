#!/usr/bin/env bash
# Checks the include rules that keep the layers apart. It fails, naming each offending
# line, when a source file includes a header its folder may not see:
#
#   1. Nothing in Platform/ includes Classes/, Tools/ or Tests/.
#   2. Only Platform/Session/ (and Platform/Transport/ itself) includes Platform/Transport/.
#   3. Classes/Codec/ includes nothing outside itself and Platform/Base/.
#   4. Tools/ includes only public headers.
#   5. A public header includes only public headers.
#
# Private headers are those under Platform/Transport/ and those named *+Private.h; every
# other header under Classes/ and Platform/ is public: an application may include it.
set -euo pipefail
cd "$(dirname "$0")/.."

status=0
fail() {
  echo "forbidden include ($1): $2" >&2
  status=1
}

is_private() {
  [[ $1 == Platform/Transport/* || $1 == *+Private.h ]]
}

# Prints "file:line:header" for every project include in the given files.
includes() {
  grep -HnoE '^#include "[^"]+"' "$@" 2>/dev/null | sed -E 's/#include "([^"]+)"/\1/' || true
}

while IFS=: read -r file line header; do
  where="$file:$line includes $header"
  case $file in
    Platform/*)
      [[ $header == Classes/* || $header == Tools/* || $header == Tests/* ]] && fail 1 "$where"
      if [[ $header == Platform/Transport/* && $file != Platform/Session/* && $file != Platform/Transport/* ]]; then
        fail 2 "$where"
      fi
      ;;
  esac
  if [[ $file == Classes/Codec/* && $header != Classes/Codec/* && $header != Platform/Base/* ]]; then
    fail 3 "$where"
  fi
  if [[ $file == Tools/* ]] && is_private "$header"; then
    fail 4 "$where"
  fi
  if [[ $file == *.h ]] && ! is_private "$file" && is_private "$header" && [[ $file != Tests/* ]]; then
    fail 5 "$where"
  fi
done < <(includes $(git ls-files 'Platform/*' 'Classes/*' 'Tools/*' | grep -E '\.(h|cpp)$'))

[[ $status == 0 ]] && echo "include rules: ok"
exit $status
