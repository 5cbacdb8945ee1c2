# shellcheck shell=bash disable=SC2154
# The tour's eyes for what passes quickly: the launcher is halted while it is looked at. Sourced by
# scripts/tour.

stage_text=(24 -169 300 20) # in the main window, in units of its layout

installation_ended() { dialog || launcher_gone; }

# halted_shot NAME: a picture that takes the launcher no time.
halted_shot() {
    kill -STOP "$launcher"
    shot "$1"
    kill -CONT "$launcher"
}

# stage_of WIDTH: the stage of an installation that is told by a text of that width.
stage_of() {
    case $(($1 / scale)) in
        18[4-9] | 19[0-6]) echo downloading ;; # "Скачивание новых файлов"
        13[89] | 14[0-9]) echo unpacking ;;    # "Распаковка архивов"
        16[3-9] | 17[0-5]) echo applying ;;    # "Применение изменений"
    esac
}

shown_stage() { # the one that the main window tells right now
    geometry "$main_window"
    stage_of "$(import -silent -window "$main_window" ppm:- |
        picture - -crop "$(area_of "${stage_text[@]}")" +repage -fuzz 20% -trim -format '%w' info: \
            2>/dev/null)"
}

# Watches an installation frame by frame: the launcher is halted for every picture, like a slow
# machine, so that short stages are seen too. Keeps one frame of each stage.
watch_installation() {
    local frames=$desktop_work/frames count=0 ended= deadline=$((SECONDS + 300))
    rm -rf "$frames"
    mkdir "$frames"
    until [ -n "$ended" ]; do
        [ $SECONDS -lt $deadline ] || fail "the installation of $1 does not end"
        kill -STOP "$launcher"
        import -silent -window "$main_window" -depth 8 -quality 11 \
            "$frames/$(printf %04d $count).png"
        ! installation_ended >/dev/null || ended=yes
        count=$((count + 1))
        kill -CONT "$launcher"
        sleep 0.005 # lets the launcher work between two frames
    done
    dialog >/dev/null || fail "the launcher ended during the installation"

    geometry "$main_window"
    local files=("$frames"/*) area name frame=0 width
    area=$(area_of "${stage_text[@]}")
    local -A seen=([downloading]='' [unpacking]='' [applying]='')
    # A frame without a text has nothing to trim, which is worth a warning there but not here.
    while read -r width; do
        name=$(stage_of "$width")
        [ -z "$name" ] || seen[$name]+="$frame "
        frame=$((frame + 1))
    done < <(picture "${files[@]/%/[$area]}" -fuzz 20% -trim -format '%w\n' info: 2>/dev/null)
    local -a stage
    for name in downloading unpacking applying; do
        read -ra stage <<<"${seen[$name]}"
        if [ ${#stage[@]} -eq 0 ]; then
            [ $name != downloading ] || fail "the download was not seen"
            say "The stage of $name went by between two pictures"
            continue
        fi
        step=$((step + 1))
        picture "${files[${stage[${#stage[@]} / 2]}]}" \
            "$screenshots/$(printf %02d $step)-$1-$name.png"
    done
}
