#!/bin/sh
# The Debian package's wrapper: what it copies, keeps and runs. Takes the wrapper's path.
set -eu
wrapper=$1
work=$(mktemp -d)
trap 'chmod -R u+w "$work"; rm -rf "$work"' EXIT
export VARNEL_PACKAGE_FOLDER="$work/package" XDG_DATA_HOME="$work/дом с пробелом"
copy=$XDG_DATA_HOME/varnel-launcher

fail() { echo "FAILED: $1" >&2; exit 1; }
# runs WHERE: the launcher of that folder started and was given its arguments.
runs() { [ "$(sh "$wrapper" a 'b c' 2>"$work/said")" = "$1/varnel-launcher a|b c" ] || fail "$2"; }

mkdir -p "$VARNEL_PACKAGE_FOLDER/licences"
cd "$VARNEL_PACKAGE_FOLDER"
printf '#!/bin/sh\necho "$0 $1|$2"\n' >varnel-launcher
chmod +x varnel-launcher
echo first >vl.json
echo old >licences/old.txt
runs "$copy" "a first start makes the copy"
[ "$(cat "$copy/licences/old.txt")" = old ] || fail "folders are copied"

mkdir "$copy/simulator"
echo flight >"$copy/simulator/recording"
rm licences/old.txt
echo new >licences/new.txt
echo second >vl.json
runs "$copy" "an update starts"
[ "$(cat "$copy/licences/new.txt")" = new ] || fail "new files come"
[ ! -e "$copy/licences/old.txt" ] || fail "files that the package no longer has go"
[ -f "$copy/simulator/recording" ] || fail "what the launcher and the user made stays"
[ "$(cat "$copy/vl.json")" = second ] || fail "vl.json follows the package"

echo mine >"$copy/vl.json"
echo third >vl.json
echo damaged >"$copy/varnel-launcher"
runs "$copy" "a damaged copy is repaired"
[ "$(cat "$copy/vl.json")" = mine ] || fail "an edited vl.json stays"

echo newer >library
mkdir zone
echo newer >zone/file
: >"$copy/zone" # no folder can be made here
runs "$copy" "after a failed update the version before starts"
[ ! -e "$copy/library" ] || fail "a failed update mixes no versions"

rm -r "$XDG_DATA_HOME"
: >"$XDG_DATA_HOME" # no folder can be made here
runs "$VARNEL_PACKAGE_FOLDER" "without a copy the package's own program starts"
grep -q "could not be brought up to date" "$work/said" || fail "it is said that there is no copy"
