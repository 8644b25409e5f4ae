#!/bin/sh
# One entry point for people and CI.
#   scripts/run.sh demo [qxinspect arguments]   build qxinspect (and the certificate fixtures
#                                               its example names), then run it under Wine
#                                               (default: check with the example rule set)
#   scripts/run.sh test                         build, then run every test under Wine
#   scripts/run.sh bench [qxbench arguments]    build, then run the benchmarks under Wine
# The build tree is build/ (override with QX_BUILD_DIR).
set -eu

ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${QX_BUILD_DIR:-$ROOT/build}
what=${1:-test}
[ $# -gt 0 ] && shift

"$ROOT/scripts/bootstrap.sh"

cmake --preset default -S "$ROOT" -B "$BUILD" >/dev/null
# The demo builds only what it runs: the runner, the tool and the fixtures
# whose certificate the example's signer rule names; no test program.
targets=""
[ "$what" = demo ] && targets="--target qxrun qxinspect qxcert_fixtures"
# shellcheck disable=SC2086
cmake --build "$BUILD" --parallel "$(nproc)" $targets

case "$what" in
    demo)
        if [ $# -eq 0 ]; then
            # The example rule set against a system program (the prefix's Z: drive is /).
            rules="Z:$(printf '%s' "$BUILD/bin/examples/rules.txt" | tr / '\\')"
            set -- check --rules "$rules" --cmdline 'C:\windows\system32\notepad.exe win.ini'
        fi
        "$BUILD/qx-wine" start
        status=0
        "$BUILD/qx-wine" run "$BUILD/bin/qxinspect.exe" "$@" || status=$?
        "$BUILD/qx-wine" stop
        exit $status
        ;;
    test)
        cd "$BUILD"
        exec ctest --output-on-failure --timeout 600
        ;;
    bench)
        "$BUILD/qx-wine" start
        status=0
        "$BUILD/qx-wine" run "$BUILD/bin/qxbench.exe" "$@" || status=$?
        "$BUILD/qx-wine" stop
        exit $status
        ;;
    *)
        echo "usage: scripts/run.sh demo|test|bench [arguments]" >&2
        exit 2
        ;;
esac
