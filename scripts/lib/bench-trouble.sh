# Benchmarks of what goes wrong or is slow between the launcher and its repository. Sourced by
# scripts/bench, after bench-updates.sh.

# bench_resume: the process is killed when so much has been fetched; then it installs again.
bench_resume() {
    local percent before had requests sent root pack
    make_release
    start_server
    pack=$(stat -c %s "$data/repository/packs/"*)
    for percent in 10 50 90; do
        new_root "$address" "$data/repository.pub"
        had=$("$bin/bench_library" install "$root" 1.0.0 $percent)
        counted release
        before=$sent
        "$bin/bench_library" install "$root" 1.0.0 >"$work/output"
        counted release
        note "resume$percent" ours "$(mebibytes "$((sent - before - (pack - had)))")"
        note "resume$percent" rival 32
        row "resume$percent" 1 M "cut at $percent %, fetched twice / 32 MiB"
    done
}

# bench_repair: one byte of one small file is wrong.
bench_repair() {
    local file before requests sent root
    make_release
    start_server
    new_root "$address" "$data/repository.pub"
    "$bin/bench_library" install "$root" 1.0.0 >"$work/output"
    file=$(find "$root" -name object1234.dat)
    printf '\377' | dd of="$file" bs=1 seek=100 conv=notrunc status=none
    counted release
    before=$sent
    "$bin/bench_library" install "$root" 1.0.0 >"$work/output"
    "$bin/bench_library" check "$root" 1.0.0 >"$work/output"
    counted release
    note repair ours "$(mebibytes "$((sent - before))")"
    note repair rival "$(mebibytes "$(((16 << 20) + $(stat -c %s "$data/repository/manifests/"*.json |
        sort -n | tail -n 1)))")"
    row repair 1 M "repair of a file, bytes / a frame and a manifest"
}

make_tiny() {
    tiny=$data/tiny
    [ "$tiny/published" -nt "$build/bin/vl-publish" ] && return
    rm -rf "$tiny"
    "$bin/bench_maketree" tiny "$tiny/release"
    publish "$tiny/release" "$tiny/repository" 0/0.dat
    (cd "$tiny/release" && find . -type f -print0 | sort -z | xargs -0 b2sum) >"$tiny/b2sums"
    touch "$tiny/published"
}

# bench_tiny: 20,000 files, and the same with 50 ms before each answer.
bench_tiny() {
    local tiny folder root address slow
    make_tiny
    serve slow "$tiny/repository" 50
    slow=$address
    serve tiny "$tiny/repository"
    for _ in {1..5}; do
        new_folder
        sync
        timed tiny rival download_unpack_check "$address/packs/$(ls "$tiny/repository/packs")" \
            "$tiny/b2sums"
        new_root "$address" "$tiny/repository.pub"
        timed tiny ours "$bin/bench_library" install "$root" 1.0.0
        note delayed rival "$(tail -n 1 "$work/tiny.wall.ours")"
        new_root "$slow" "$tiny/repository.pub"
        timed slow ours "$bin/bench_library" install "$root" 1.0.0
        note delayed ours "$(tail -n 1 "$work/slow.wall.ours")"
    done
    row tiny.wall 1.05 s "install 20,000 files, wall / curl, tar, b2sum, sync"
    row delayed - s "the same, 50 ms per request / none"
}
