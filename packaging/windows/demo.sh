# shellcheck shell=bash disable=SC2034,SC2154
# The demonstration and its tour as they run under Wine: what differs from scripts/lib/demo.sh and
# scripts/lib/desktop.sh. Sourced by the former.
source "$project/packaging/windows/lib.sh"

build=$windows_build
runner=("$project/packaging/windows/wine")
suffix=.exe
desktop_platform=windows

complete_release() {
    local platforms=$1/bin/platforms
    install -Dt "$platforms" "$sdk/plugins/platforms/qwindows.dll"
    copy_imports "$1/bin"
    find "$1/bin" -name '*.dll' -exec "$windows_target-strip" --strip-unneeded {} +
}

# The zip, as a user unpacks it; with the launcher whose report button is enabled.
install_program() {
    rm -rf "$demo/unpacked"
    unzip -q -o "$windows_build/$windows_name.zip" -d "$demo/unpacked" -x '*/vl.json' &&
        cp -r "$demo/unpacked/$windows_name/." "$1" &&
        cp "$build/bin/varnel-launcher.exe" "$1" &&
        rm -r "$demo/unpacked"
}
