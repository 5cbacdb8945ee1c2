# shellcheck shell=bash disable=SC2034
# Shared by the scripts: where the project is, and how they speak. Sourced, not run.

project=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)

say() { printf '%s\n' "== $*"; }

fail() {
    printf '%s\n' "FAILED: $*" >&2
    exit 1
}

# wait_until SECONDS WHAT COMMAND...: asks COMMAND again and again until it succeeds; fails with
# WHAT when the time is over.
wait_until() {
    local deadline=$((SECONDS + $1)) what=$2
    shift 2
    until "$@" >/dev/null 2>&1; do
        [ "$SECONDS" -lt "$deadline" ] || fail "waited in vain for: $what"
        sleep 0.1
    done
}

picture() { # the image processor under the name that this machine knows
    if command -v magick >/dev/null; then magick "$@"; else convert "$@"; fi
}
