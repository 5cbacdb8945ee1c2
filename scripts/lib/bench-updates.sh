# Benchmarks of updates, beside the tools that one would use instead. Sourced by scripts/bench.
# A pair of trees lies in $data/updates/NAME: old, new, and the repository with both as 1.0.0 and
# 1.1.0. What the other tools make of it is kept, because some of them take minutes.

# make_synthetic FOLDER: 1 GiB with scattered edits. Files that stay keep their times, as rsync
# skips those.
make_synthetic() {
    "$bin/bench_maketree" release "$1/old"
    cp -a "$1/old" "$1/new"
    "$bin/bench_maketree" edit "$1/new"
}

# make_debian FOLDER: the newest two releases of a large package that the mirror has.
make_debian() {
    local package=openjdk-17-jre-headless versions side=old version
    versions=$(apt-cache madison $package | awk '{ print $3 }' | sort -uV | tail -n 2)
    [ "$(wc -l <<<"$versions")" = 2 ] || { echo "Only one release of $package to be had." >&2; return 1; }
    for version in $versions; do
        (cd "$1" && apt-get download -qq "$package=$version")
        dpkg-deb -x "$1"/*.deb "$1/$side"
        rm "$1"/*.deb
        find "$1/$side" \( -type l -o -type d -empty \) -delete # releases hold regular files only
        side=new
    done
}

# make_pair NAME: makes or renews $pair.
make_pair() {
    pair=$data/updates/$1
    if [ ! -d "$pair/new" ]; then
        rm -rf "$pair" "$pair.part"
        mkdir -p "$pair.part"
        "make_$1" "$pair.part"
        mv "$pair.part" "$pair"
    fi
    [ "$pair/published" -nt "$build/bin/vl-publish" ] && return
    rm -rf "$pair/repository"* "$pair/base"
    local executable
    executable=$(cd "$pair/old" && find . -type f -size +1M -printf '%P\n' | sort | head -n 1)
    publish "$pair/old" "$pair/repository" "$executable"
    publish_next "$pair/new" "$pair/repository" "$executable"
    touch "$pair/published"
}

# The old version installed from $pair, copied from one that was installed before.
new_root_with_old() {
    if [ ! -d "$pair/base" ]; then
        new_root "$pair/repository" "$pair/repository.pub"
        "$bin/bench_library" install "$root" 1.0.0 >"$work/output"
        mv "$root" "$pair/base"
    fi
    root=$(mktemp -u "$rounds/XXXXXX")
    cp -a "$pair/base" "$root"
    write_config "$root" "$1" "$pair/repository.pub"
    sync
}

mebibytes() { calculate "$1 / 1048576"; }

# Only memory that our own side takes goes into the table's last row.
note_peak() { note peak ours "$(calculate "$(value memory) / 1024")"; }

patch_with_zstd() { zstd -q -19 --patch-from="$1" "$2" -o "$3"; }
patch_with_xdelta3() { xdelta3 -e -9 -f -B "$(($(stat -c %s "$1") + 1048576))" -s "$1" "$2" "$3"; }
# Its memory is 17 times the file; of the larger ones it takes the patches of zstd.
patch_with_bsdiff() {
    if [ "$(stat -c %s "$1")" -gt $((160 << 20)) ]; then
        cp "${3/patches-bsdiff.part/patches-zstd}" "$3"
    else
        bsdiff "$@"
    fi
}

# patch_bytes TOOL: prints how many bytes patches take for all files of $pair that differ; files
# without an older one are compressed by zstd.
patch_bytes() {
    local patches=$pair/patches-$1 name
    if [ ! -d "$patches" ]; then
        rm -rf "$patches.part"
        (cd "$pair/new" && find . -type f -printf '%P\n' | sort) | while read -r name; do
            mkdir -p "$(dirname "$patches.part/$name")"
            if [ ! -f "$pair/old/$name" ]; then
                zstd -q -19 "$pair/new/$name" -o "$patches.part/$name.zst"
            elif ! cmp -s "$pair/old/$name" "$pair/new/$name"; then
                "patch_with_$1" "$pair/old/$name" "$pair/new/$name" "$patches.part/$name.patch" \
                    >&2 </dev/null
            fi
        done
        mv "$patches.part" "$patches"
    fi
    find "$patches" -type f -printf '%s\n' | awk '{ sum += $1 } END { print sum }'
}

# A port of 127.0.0.1 that nobody listens on.
free_port() {
    local port
    for port in {52910..52990}; do
        (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null || { echo "$port"; return; }
    done
    return 1
}

# zsync asks for several ranges at a time, which the tests' server does not know.
zsync_bytes() {
    local folder=$work/zsync port side fetched
    mkdir -p "$folder/client"
    for side in old new; do
        tar --sort=name -C "$pair/$side" -cf "$folder/$side.tar" .
    done
    port=$(free_port)
    (cd "$folder" && zsyncmake -u new.tar new.tar 2>/dev/null)
    printf 'daemon on; pid %s; error_log %s; events {}
        http { access_log off; server { listen 127.0.0.1:%s; root %s; } }' \
        "$folder/pid" "$folder/log" "$port" "$folder" >"$folder/nginx.conf"
    [ "$(id -u)" -ne 0 ] || sed -i '1i user root;' "$folder/nginx.conf"
    nginx -e "$folder/log" -c "$folder/nginx.conf"
    (cd "$folder/client" && env -u http_proxy zsync -i ../old.tar -o out.tar \
        "http://127.0.0.1:$port/new.tar.zsync" >"$folder/said" 2>&1)
    kill "$(cat "$folder/pid")"
    cmp "$folder/new.tar" "$folder/client/out.tar" >&2
    fetched=$(tr '\r' '\n' <"$folder/said" | sed -n 's/.*fetched \([0-9]\{1,\}\).*/\1/p')
    [ -n "$fetched" ] || { cat "$folder/said" >&2; return 1; }
    calculate "$fetched + $(stat -c %s "$folder/new.tar.zsync")"
    rm -rf "$folder"
}

casync_bytes() {
    local folder=$work/casync requests sent address
    mkdir -p "$folder"
    casync make --store="$folder/store.castr" "$folder/new.caidx" "$pair/new" >&2
    serve casync "$folder"
    casync extract --store="$address/store.castr" --seed="$pair/old" "$address/new.caidx" \
        "$folder/out" >&2
    counted casync
    diff -r --no-dereference "$pair/new" "$folder/out" >&2
    chmod -R u+w "$folder"
    rm -rf "$folder"
    echo "$sent"
}

# rival_bytes TOOL: how many bytes it needs for the update of $pair; kept for the next run.
rival_bytes() {
    local kept=$pair/bytes-$1 bytes
    if [ ! -s "$kept" ]; then
        case $1 in
        zsync) bytes=$(zsync_bytes) ;;
        casync) bytes=$(casync_bytes) ;;
        *) bytes=$(patch_bytes "$1") ;;
        esac
        echo "$bytes" >"$kept"
    fi
    cat "$kept"
}

start_rsync() {
    rsync_port=$(free_port)
    printf 'use chroot = no\n[new]\npath = %s\n' "$pair/new" >"$work/rsyncd.conf"
    [ "$(id -u)" -ne 0 ] || sed -i '1i uid = root\ngid = root' "$work/rsyncd.conf"
    rsync --daemon --no-detach --address=127.0.0.1 --port="$rsync_port" \
        --config="$work/rsyncd.conf" &
    rsync_daemon=$!
    until (exec 3<>"/dev/tcp/127.0.0.1/$rsync_port") 2>/dev/null; do sleep 0.1; done
}

# bench_pair NAME TITLE: bytes and times of the update.
bench_pair() {
    local name=$1 title=$2 before tool bytes requests sent folder root pair address
    make_pair "$name"
    start_rsync
    serve "$name" "$pair/repository"
    for _ in {1..3}; do
        new_folder
        cp -a "$pair/old/." "$folder"
        sync
        timed "$name" rival rsync -a --delete --stats "rsync://127.0.0.1:$rsync_port/new/" \
            "$folder/"
        cp "$work/output" "$work/rsync"
        timed "$name.sync" rival sync -f "$folder" # what ours does before it says so
        note "$name.durable" rival \
            "$(calculate "$(tail -qn 1 "$work/$name"{,.sync}.wall.rival | paste -sd+)")"
        note "$name.rsync" rival "$(mebibytes \
            "$(sed -n 's/,//g; s/^Total bytes received: //p' "$work/rsync")")"
        new_root_with_old "$address"
        counted "$name"
        before=$sent
        timed "$name" ours "$bin/bench_library" install "$root" 1.1.0
        note_peak
        counted "$name"
        note "$name.bytes" ours "$(mebibytes "$((sent - before))")"
    done
    diff -r "$pair/new" "$root/simulator" >&2 || { echo "The update went wrong." >&2; return 1; }
    kill "$rsync_daemon"

    for tool in zstd xdelta3 bsdiff zsync casync; do
        bytes=$(rival_bytes "$tool")
        note "$name.$tool" rival "$(mebibytes "$bytes")"
    done
    for tool in zstd xdelta3 zsync casync rsync bsdiff; do
        cp "$work/$name.bytes.ours" "$work/$name.$tool.ours"
    done
    row "$name.zstd" 1.05 M "$title, bytes / zstd -19 --patch-from"
    for tool in xdelta3 zsync casync rsync; do
        row "$name.$tool" 1 M "$title, bytes / $tool"
    done
    row "$name.bsdiff" - M "$title, bytes / bsdiff"
    row "$name.wall" 1 s "$title, wall / rsync -a"
    cp "$work/$name.wall.ours" "$work/$name.durable.ours"
    row "$name.durable" - s "$title, wall / rsync -a, sync -f"
}

# What one would do with the patches of zstd: apply them beside the old files, check, write through.
apply_patches() {
    local old=$pair/old new=$folder name
    (cd "$pair/new" && find . -type f -printf '%P\n') | while read -r name; do
        mkdir -p "$(dirname "$new/$name")"
        if [ -f "$pair/patches-zstd/$name.patch" ]; then
            zstd -d -q --long=31 --patch-from="$old/$name" "$pair/patches-zstd/$name.patch" \
                -o "$new/$name"
        elif [ -f "$pair/patches-zstd/$name.zst" ]; then
            zstd -d -q "$pair/patches-zstd/$name.zst" -o "$new/$name"
        else
            cp "$old/$name" "$new/$name"
        fi
    done
    (cd "$new" && b2sum --quiet -c "$pair/b2sums" && sync -f .)
}

# bench_apply: from a repository on the same disk.
bench_apply() {
    local folder root pair
    make_pair synthetic
    (cd "$pair/new" && find . -type f -print0 | sort -z | xargs -0 b2sum) >"$pair/b2sums"
    rival_bytes zstd >"$work/output"
    for _ in {1..3}; do
        new_folder
        sync
        timed apply rival apply_patches
        new_root_with_old "$pair/repository"
        timed apply ours "$bin/bench_library" install "$root" 1.1.0
        note_peak
    done
    row apply.wall - s "update 1 GiB from disk / zstd -d, cp, b2sum, sync"
}

bench_updates() {
    bench_pair synthetic "update 1 GiB"
    bench_pair debian "update a JDK"
    bench_apply
    note peak rival 160
    sort -g "$work/peak.ours" | tail -n 1 >"$work/peak.most"
    mv "$work/peak.most" "$work/peak.ours"
    row peak 1 M "updates, peak memory / 160 MiB"
}
