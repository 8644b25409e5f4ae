#!/bin/sh
# Installs, through apt, everything the build and the tests need. Idempotent:
# when every package is already present it only checks and returns.
set -eu

PACKAGES="cmake ninja-build g++-mingw-w64-x86-64-posix mingw-w64-x86-64-dev wine wine64 libfmt-dev googletest
    libz-mingw-w64-dev openssl osslsigncode"

missing=""
for p in $PACKAGES; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing="$missing $p"
    fi
done

if [ -z "$missing" ]; then
    exit 0
fi

echo "bootstrap: installing:$missing" >&2
SUDO=""
if [ "$(id -u)" != "0" ]; then
    SUDO="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
# shellcheck disable=SC2086
$SUDO apt-get install -y -qq --no-install-recommends $missing >/dev/null
