# shellcheck shell=bash disable=SC2034,SC2153,SC2154
# A virtual desktop and the hands and eyes of its user: mouse, keyboard, screenshots. Nothing here
# looks inside a program. Sourced after common.sh; sets the trap that ends what it started.

desktop_work=$(mktemp -d)
desktop_processes=()
launcher=    # process id
main_window= # X window id
menu=        # the side menu's, once it has been opened
scale=1
step=0
still_window=root # in which settle waits for the end of all changes

desktop_end() {
    local status=$? process
    [ $status -eq 0 ] || import -silent -window root "$screenshots/failed.png" || true
    for process in $launcher $(simulator_processes) "${desktop_processes[@]}"; do
        kill -CONT "$process" 2>/dev/null || true
        kill "$process" 2>/dev/null || true
    done
    wait 2>/dev/null || true
    rm -rf "$desktop_work"
    exit "$status"
}

# desktop_start SCALE: display, background, window manager.
desktop_start() {
    scale=$1
    trap desktop_end EXIT
    trap 'exit 130' INT TERM
    Xvfb -displayfd 3 -screen 0 "$((1280 * scale))x$((800 * scale))x24" -nolisten tcp \
        3>"$desktop_work/display" 2>"$desktop_work/xvfb.log" &
    desktop_processes=($!)
    wait_until 20 "the virtual display" test -s "$desktop_work/display"
    DISPLAY=:$(cat "$desktop_work/display")
    export DISPLAY
    # No desktop's own file dialog: the same one everywhere.
    unset WAYLAND_DISPLAY XDG_CURRENT_DESKTOP DESKTOP_SESSION KDE_FULL_SESSION QT_QPA_PLATFORMTHEME
    export QT_QPA_PLATFORM=${desktop_platform:-xcb} QT_SCALE_FACTOR=$scale LC_ALL=C.UTF-8
    export XDG_RUNTIME_DIR=$desktop_work/runtime
    mkdir -m 700 "$XDG_RUNTIME_DIR"
    # Its own word that it is ready: a window that is mapped earlier may never be shown.
    openbox --startup "touch $desktop_work/ready" >"$desktop_work/openbox.log" 2>&1 &
    desktop_processes+=($!)
    wait_until 20 "the window manager" test -e "$desktop_work/ready"
    # A background to tell the dark windows from; its absence is no failure.
    display -size 64x64 -window root "xc:#30363d" 2>/dev/null || true
}

# launcher_start FOLDER: from a directory of its own, because the folder must run from anywhere.
launcher_start() {
    log=$1/current.log
    menu=
    log_mark
    park_pointer
    (cd / && exec "${runner[@]}" "$1/varnel-launcher$suffix") 2>"$desktop_work/launcher.log" &
    launcher=$!
    wait_until 30 "the launcher's window" launcher_shown_or_gone
    launcher_gone && fail "the launcher ended at once: $(cat "$desktop_work/launcher.log")"
    main_window=$(window_named '^Varnel Simulator$')
    settle
}

launcher_gone() { ! kill -0 "$launcher" 2>/dev/null; }
launcher_shown_or_gone() { window_named '^Varnel Simulator$' || launcher_gone; }
windows_named() { xdotool search --onlyvisible --name "$1" 2>/dev/null; }
window_named() { windows_named "$1" | tail -n 1 | grep .; }
dialog() { windows_named '^Dialog$' | grep -vx "${menu:-none}" | tail -n 1 | grep .; }
no_dialog() { ! dialog; }
simulator_processes() { [ -z "${log:-}" ] || pgrep -f "^${log%/*}/.*/sample-simulator" || true; }

log_mark() {
    log_start=1
    [ ! -f "$log" ] || log_start=$(($(wc -c <"$log") + 1))
}
log_says() { tail -c "+$log_start" "$log" 2>/dev/null | grep -qE -- "$1"; }

# The picture of the desktop (or of $still_window) stands still: what was pressed has been drawn.
settle() {
    local before='' now
    for _ in {1..40}; do
        now=$(import -silent -window "$still_window" ppm:- | cksum)
        [ "$now" != "$before" ] || return 0
        before=$now
    done
    return 0 # something moves by itself, as it may
}

# shot NAME: the desktop as it is, numbered.
shot() {
    step=$((step + 1))
    import -silent -window root "$screenshots/$(printf %02d $step)-$1.png"
}

# geometry WINDOW: sets X Y WIDTH HEIGHT in device pixels.
geometry() { eval "$(xdotool getwindowgeometry --shell "$1" | grep -E '^(X|Y|WIDTH|HEIGHT)=')"; }

# area_of X Y WIDTH HEIGHT: of the window whose geometry was asked for last, in units of its layout
# (negative places count from the far edge), as the image processor wants it.
area_of() {
    local x=$(($1 * scale)) y=$(($2 * scale))
    [ $x -ge 0 ] || x=$((WIDTH + x))
    [ $y -ge 0 ] || y=$((HEIGHT + y))
    echo "$(($3 * scale))x$(($4 * scale))+$x+$y"
}

# look_at WINDOW X Y WIDTH HEIGHT: a text that is equal for equal pictures of the area.
look_at() {
    geometry "$1"
    import -silent -window "$1" ppm:- |
        picture - -crop "$(area_of "${@:2}")" +repage -format '%#' info:
}

# click WINDOW X Y: in units of the window's layout; negative ones count from the far edge.
click() {
    geometry "$1"
    local x=$(($2 * scale)) y=$(($3 * scale))
    [ $x -ge 0 ] || x=$((WIDTH + x))
    [ $y -ge 0 ] || y=$((HEIGHT + y))
    xdotool mousemove $((X + x)) $((Y + y)) click 1
}

# Puts the pointer where nothing reacts to it, so that no button is lit.
park_pointer() { xdotool mousemove $((1280 * scale - 2)) $((800 * scale - 2)); }

# orange_buttons WINDOW: centres in window pixels of the filled orange buttons, from left to right.
orange_buttons() {
    import -silent -window "$1" "$desktop_work/buttons.png"
    picture "$desktop_work/buttons.png" -fuzz 2% -fill black +opaque '#FF6D1B' \
        -fill white -opaque '#FF6D1B' -fuzz 0 \
        -define connected-components:verbose=true -define connected-components:area-threshold=200 \
        -connected-components 4 null: |
        awk -v least=$((50 * scale)) -v flat=$((16 * scale)) '
            /gray\(255\)|255,255,255/ {
                split($2, box, /[x+]/)
                if (box[1] >= least && box[2] >= flat && $4 > 0.5 * box[1] * box[2])
                    print int(box[3] + box[1] / 2), int(box[4] + box[2] / 2)
            }' | sort -n
}

# press_orange WINDOW INDEX: clicks the INDEX-th filled orange button (1 is the leftmost).
press_orange() {
    park_pointer
    settle
    local centre
    centre=$(orange_buttons "$1" | sed -n "$2p")
    [ -n "$centre" ] || fail "there is no orange button number $2 in the window"
    geometry "$1"
    xdotool mousemove $((X + ${centre% *})) $((Y + ${centre#* })) click 1
    park_pointer
}
