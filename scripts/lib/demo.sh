# shellcheck shell=bash disable=SC2154
# Builds the program, publishes the sample releases below build/demo and receives reports there.
# Sourced after common.sh.
# VARNEL_BUILD_DIR and VARNEL_DEMO_DIR name other folders, for a program that is built already;
# VARNEL_SYSTEM=windows: its programs run under Wine.

build=${VARNEL_BUILD_DIR:-$project/build/release}
demo=${VARNEL_DEMO_DIR:-$project/build/demo}
releases=$demo/releases
reports=$demo/reports
secret_key=$demo/keys/demo.key
public_key=$demo/keys/demo.pub
runner=() # what runs a program, where it does not run by itself
suffix=   # of programs

# program NAME ARGUMENT...: runs a program of the build.
program() { "${runner[@]}" "$build/bin/$1$suffix" "${@:2}"; }
complete_release() { :; } # adds to a release's folder what its program loads
install_program() { cmake --install "$build" --prefix "$1"; }
[ "${VARNEL_SYSTEM:-}" != windows ] || source "$project/packaging/windows/demo.sh"

build_program() {
    say "Building"
    (cd "$project" && cmake --preset release -DBUILD_TESTING=OFF -DVARNEL_BUG_REPORT=ON \
        >"$project/build/configure.log") ||
        fail "configuring; see build/configure.log"
    (cd "$project" && cmake --build --preset release --target \
        varnel-launcher vl vl-publish report-collector sample-simulator make-sample-release)
}

# published VERSION
published() {
    program vl-publish list "$releases" 2>/dev/null | grep -qE "(^|[[:space:]])$1([[:space:]]|\$)"
}

# publish VERSION REVISION DATE [NAME]: adds one sample release unless it is there.
publish() {
    local version=$1 revision=$2 date=$3 name=${4:-}
    published "$version" && return
    releases_changed=yes
    say "Publishing the sample simulator $version"
    program make-sample-release "$demo/staging/$version" "$version" --revision "$revision" \
        --simulator "$build/bin/sample-simulator$suffix"
    complete_release "$demo/staging/$version"
    program vl-publish add "$releases" "$version" "$demo/staging/$version" \
        --exec "default_exec=bin/sample-simulator$suffix" --settings settings.ini \
        --secret-key "$secret_key" --date "$date" \
        --changelog "$project/tools/sample-simulator/changelogs/$version.json" \
        ${name:+--name "$name"}
    rm -rf "$demo/staging"
}

publish_releases() {
    if [ ! -f "$secret_key" ] || [ ! -f "$public_key" ]; then
        rm -rf "$releases" "$demo/keys" # signed by a key that is lost
        mkdir -p "$demo/keys"
        program vl-publish keygen --secret-key "$secret_key" --public-key "$public_key"
    fi
    mkdir -p "$releases"
    local releases_changed=
    publish 1.0.0 0 2026-03-02
    publish 1.1.0 1 2026-06-15
    publish 1.2.0 2 2026-10-05
    publish 9.0.0-training 3 2026-10-20 "Учебная"
    [ -n "$releases_changed" ] || return 0
    program vl-publish verify "$releases" --public-key "$public_key" >"$demo/verify.log" ||
        fail "the sample repository does not verify; see ${demo#"$project/"}/verify.log"
}

# install_launcher FOLDER BYTES_PER_SECOND: a portable folder that uses the sample repository. The
# limit lets a person see the progress.
install_launcher() {
    local folder=$1
    say "Installing the launcher into ${folder#"$project/"}"
    mkdir -p "$folder"
    cat >"$folder/vl.json" <<JSON
{
  "repository": "$(realpath --relative-to="$folder" "$releases")",
  "publicKeys": ["$(sed -n 2p "$public_key")"],
  "maxBytesPerSecond": $2
}
JSON
    install_program "$folder" >"$demo/install.log" 2>&1 ||
        fail "installing; see ${demo#"$project/"}/install.log"
}

collector_log=$demo/report-collector.log
collector_listens() { grep -q ' Listening on ' "$collector_log"; }
collector_listens_or_gone() { collector_listens || ! kill -0 "$collector"; }

# Receives the launcher's reports; sets `collector`, the id of a process that the caller ends. Fails
# where another program has taken the port.
start_collector() {
    "${runner[@]}" "$build/bin/report-collector$suffix" --folder "$reports" >"$collector_log" 2>&1 &
    collector=$!
    wait_until 10 "the report collector" collector_listens_or_gone
    collector_listens
}
