# shellcheck shell=bash disable=SC2034,SC2154
# Shared by the scripts that build for Windows and test there. Sourced after scripts/lib/common.sh.

export VARNEL_WINDOWS_SDK=${VARNEL_WINDOWS_SDK:-${XDG_CACHE_HOME:-$HOME/.cache}/varnel-windows-sdk}
VARNEL_WINDOWS_SDK=$(realpath -m "$VARNEL_WINDOWS_SDK")
sdk=$VARNEL_WINDOWS_SDK
toolchain=$project/cmake/windows-toolchain.cmake
windows_target=x86_64-w64-mingw32
windows_version=$(sed -n 's/^project(.* VERSION \([0-9.]*\).*/\1/p' "$project/CMakeLists.txt")
windows_name=varnel-launcher-$windows_version-windows # of what is given to users
windows_build=${VARNEL_WINDOWS_BUILD:-$project/build/windows}

# Where the libraries lie that programs load: the SDK's and the compiler's own.
dll_folders() {
    echo "$sdk/bin"
    dirname "$("$windows_target-g++-posix" -print-file-name=libstdc++-6.dll)"
    dirname "$("$windows_target-g++-posix" -print-file-name=libwinpthread-1.dll)"
}

# copy_imports FOLDER: brings what the programs, libraries and plugins in the folder load, and what
# that loads. Fails when a library is neither ours nor one that the compiler knows Windows to have.
copy_imports() {
    local folder=$1 name file found again=yes system
    system=$(dirname "$("$windows_target-g++-posix" -print-file-name=libkernel32.a)")
    local -a folders
    mapfile -t folders < <(dll_folders)
    while [ -n "$again" ]; do
        again=
        while read -r name; do
            case ${name,,} in api-ms-win-*) continue ;; esac # Windows' own name for a part of itself
            [ -z "$(find "$folder" -maxdepth 1 -iname "$name")" ] || continue
            found=$(find "${folders[@]}" -maxdepth 1 -iname "$name" | head -n 1)
            if [ -n "$found" ]; then
                cp "$found" "$folder/"
                again=yes
            elif [ -z "$(find "$system" -maxdepth 1 -iname "lib${name%.*}.a")" ]; then
                fail "where does $name come from? It is loaded by what lies in $folder"
            fi
        done < <(find "$folder" -name '*.dll' -print0 -o -name '*.exe' -print0 |
            xargs -0 "$windows_target-objdump" -p | sed -n 's/^[[:space:]]*DLL Name: //p' | sort -fu)
    done
}

# assemble_portable FOLDER: installs what build/windows holds, with all that it needs to run.
assemble_portable() {
    local folder=$1 licence
    cmake --install "$windows_build" --prefix "$folder" --component portable --strip >"$windows_build/install.log" ||
        fail "installing; see $windows_build/install.log"
    install -Dt "$folder/platforms" "$sdk/plugins/platforms/qwindows.dll"
    install -Dt "$folder/styles" "$sdk"/plugins/styles/*.dll
    install -Dt "$folder/tls" "$sdk/plugins/tls/qschannelbackend.dll"
    copy_imports "$folder"
    find "$folder" -name '*.dll' -exec "$windows_target-strip" --strip-unneeded {} +
    cp "$sdk"/licences/*.txt "$folder/licences/"
    # The texts that those refer to.
    grep -oh '/usr/share/common-licenses/[A-Za-z0-9.-]*[A-Za-z0-9]' "$folder"/licences/*.txt | sort -u |
        while read -r licence; do
            [ ! -f "$licence" ] || cp -L "$licence" "$folder/licences/${licence##*/}.txt"
        done
}

# list_for_installer FOLDER: what the installer writes, and what the uninstaller therefore removes:
# these files and the folders that have become empty by that, nothing else.
list_for_installer() {
    local folder=$1 path
    echo '!macro InstallFiles'
    (cd "$folder" && find . -type f ! -name vl.json -printf '%h\t%f\n') | LC_ALL=C sort |
        while IFS=$'\t' read -r path file; do
            path=${path#.}
            echo "  SetOutPath \"\$INSTDIR${path//\//\\}\""
            echo "  File \"\${PORTABLE}$path/$file\""
        done
    printf '!macroend\n!macro RemoveFiles\n'
    (cd "$folder" && find . -type f ! -name vl.json -printf '%P\n') | LC_ALL=C sort |
        while read -r path; do echo "  Delete \"\$INSTDIR\\${path//\//\\}\""; done
    (cd "$folder" && find . -mindepth 1 -depth -type d -printf '%P\n') |
        while read -r path; do echo "  RMDir \"\$INSTDIR\\${path//\//\\}\""; done
    echo '!macroend'
}

wine64=/usr/lib/wine/wine64 # Debian has no link to it where there is no 32-bit one

wine_environment() {
    export WINEPREFIX=${VARNEL_WINE:-$project/build/wine} WINEARCH=win64 WINEDEBUG=-all
    # No menu entries of the user's desktop, no questions about components that nothing here needs.
    export WINEDLLOVERRIDES='winemenubuilder.exe=d;mscoree=d;mshtml=d'
}

# Where a program that still lies in the build folder finds its libraries; one that is given to users
# has them beside itself.
wine_library_path() {
    local folder
    WINEPATH="Z:${windows_build//\//\\}\\bin"
    while read -r folder; do WINEPATH+=";Z:${folder//\//\\}"; done < <(dll_folders)
    export WINEPATH
}

# Makes the Windows of the tests; ends it with the script.
wine_start() {
    (
        wine_environment
        unset DISPLAY
        "$wine64" wineboot --init
        "$wine64" reg add 'HKCU\Software\Wine' /v Version /d win10 /f # Debian's Wine says 7
        # Wine makes links to the user's own folders.
        for link in "$WINEPREFIX"/drive_c/users/*/*; do
            [ ! -L "$link" ] || { rm "$link" && mkdir "$link"; }
        done
    ) >/dev/null 2>&1 || fail "Wine could not make its Windows in ${VARNEL_WINE:-$project/build/wine}"
    trap wine_end EXIT
}
wine_end() { (wine_environment && "${wine64%/*}/wineserver64" --kill) || true; }
