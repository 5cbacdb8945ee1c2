# Benchmarks of what an installation in place costs. Sourced by scripts/bench, after
# bench-updates.sh. Bytes are those that /proc counts for the process; both sides start from a synced
# disk and end with `sync -f`.

# value NAME: what bench_library has printed under that name.
value() { awk -v name="$1" '$1 == name { print $2 }' "$work/output"; }

# make_versions NAME KIND CHANGE...: a release and the one after it, which CHANGE makes of a copy of
# the first, in $data/NAME, made anew when vl-publish has changed. Sets $versions.
make_versions() {
    local executable
    versions=$data/$1
    [ "$versions/published" -nt "$build/bin/vl-publish" ] && return
    rm -rf "$versions"
    "$bin/bench_maketree" "$2" "$versions/old"
    cp -a "$versions/old" "$versions/new"
    "${@:3}" "$versions/new"
    executable=$(cd "$versions/old" && find . -type f -printf '%P\n' | LC_ALL=C sort | sed -n 1p)
    publish "$versions/old" "$versions/repository" "$executable" >"$work/output"
    publish_next "$versions/new" "$versions/repository" "$executable" >"$work/output"
    touch "$versions/published"
}

# settled_root: a $root with the old version of $versions installed, its times a while ago.
settled_root() {
    new_root "$versions/repository" "$versions/repository.pub"
    "$bin/bench_library" install "$root" 1.0.0 >"$work/output"
    "$bin/bench_library" clean "$root" 1.0.0 >"$work/output"
    sleep 3 # what was modified around the installation's end is read again
    "$bin/bench_library" install "$root" 1.0.0 >"$work/output" # a verification with a later end
    sync
}

rsync_synced() { rsync -a --delete "$versions/new/" "$1/" && sync -f "$1"; }

install_synced() { "$bin/bench_library" install "$root" "$1" && sync -f "$root"; }

# changed_bytes: of the files of $versions that the newer one changes or adds.
changed_bytes() {
    rsync -a --dry-run --stats --no-times --checksum "$versions/new/" "$versions/old/" |
        sed -n 's/,//g; s/^Total transferred file size: \([0-9]*\).*/\1/p'
}

# bench_inplace: 16 MB of changed files in 2 GiB.
bench_inplace() {
    local folder root versions changed fetched
    make_versions large large "$bin/bench_maketree" patch
    changed=$(changed_bytes)
    fetched=$(stat -c %s "$versions/repository/deltas/"* | awk '{ sum += $1 } END { print sum }')
    for _ in {1..3}; do
        new_folder
        cp -a "$versions/old/." "$folder"
        sync
        timed inplace rival rsync_synced "$folder"
        settled_root
        timed inplace ours install_synced 1.1.0
        note inplace.written ours "$(calculate "$(value written) / 1048576")"
        note inplace.asked ours "$(calculate "$(value asked) / 1048576")"
    done
    diff -r "$versions/new" "$root/simulator" >&2 || { echo "The update went wrong." >&2; return 1; }
    note inplace.written rival "$(calculate "($changed + $fetched) / 1048576")"
    note inplace.asked rival "$(calculate "($changed + $fetched) / 1048576 + 64")"
    row inplace.wall 1.5 s "update 16 MB of 2 GiB, wall / rsync -a, sync -f"
    row inplace.written 1.1 M "update 16 MB of 2 GiB, written / changed + fetched"
    row inplace.asked 1 M "update 16 MB of 2 GiB, room asked / changed + fetched + 64"
}

change_one() { echo changed >"$1/5/500.dat"; }

# bench_manyfiles: 100,000 files, one of them changed; then all of them touched.
bench_manyfiles() {
    local folder root versions
    make_versions manyfiles many change_one
    for _ in {1..3}; do
        new_folder
        cp -a "$versions/old/." "$folder"
        sync
        timed many rival rsync_synced "$folder"
        settled_root
        timed many ours install_synced 1.1.0
        find "$root/simulator" -type f -exec touch {} +
        timed touched rival hash_with_b2sum "$root/simulator"
        timed touched ours "$bin/bench_library" install "$root" 1.0.0
    done
    row many.wall 2 s "one of 100,000 files changed, wall / rsync -a, sync -f"
    row touched.wall 1.2 s "100,000 files touched, one changed, wall / b2sum of all"
}

change_all() { find "$1" -type f -exec sh -c 'for file; do echo x >>"$file"; done' sh {} +; }

# bench_switch: 100,000 changed files; the switch alone, and a start after a kill in it.
bench_switch() {
    local root versions
    make_versions switch many change_all
    for _ in {1..3}; do
        settled_root
        timed switch ours "$bin/bench_library" install "$root" 1.1.0
        note switching ours "$(value applying)"
        "$bin/bench_library" clean "$root" 1.1.0 >"$work/output"
        timed start rival "$bin/bench_library" clean "$root" 1.1.0
        "$bin/bench_library" install "$root" 1.0.0 apply >"$work/output"
        [ -f "$root/switch.json" ] || { echo "The kill came too late." >&2; return 1; }
        timed start ours "$bin/bench_library" clean "$root" 1.1.0
    done
    note switching rival 5
    note started ours "$(median "$work/start.wall.ours")"
    note started rival "$(calculate "$(median "$work/start.wall.rival") + 1")"
    row switching 1 s "switching 100,000 changed files / 5 s"
    row started 1 s "a start after a kill in the switch / a start + 1 s"
}

# bench_first: what a first installation needs, and what a second try does again.
bench_first() {
    local root installed percent
    make_release
    start_server
    installed=$(du -sb "$data/release" | cut -f 1)
    new_root "$address" "$data/repository.pub"
    "$bin/bench_library" install "$root" 1.0.0 >"$work/output"
    note first.room ours "$(calculate "$(value room) / 1048576")"
    note first.room rival "$(calculate "$installed / 1048576 + 256")"
    row first.room 1 M "first installation, peak room / installed + 256"
    new_root "$address" "$data/repository.pub"
    "$bin/bench_library" install "$root" 1.0.0 90 >"$work/output"
    sync
    "$bin/bench_library" install "$root" 1.0.0 >"$work/output"
    note again ours "$(calculate "$(value written) / 1048576")"
    note again rival "$(calculate "$installed / 1048576 * 0.15")"
    row again 1 M "cut at 90 %, written again / 15 % of the files"
}
