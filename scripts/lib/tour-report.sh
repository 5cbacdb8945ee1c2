# shellcheck shell=bash disable=SC2154
# The tour's report: written, sent with attachments, and looked at where it arrived. Sourced by
# scripts/tour.

# Where the parts of the report page lie in the side menu.
subject_field=(200 120)
body_field=(200 200)

subject="Лента курса прыгает после проверки файлов"
body="Установил версию 1.1.0, проверил файлы, запустил симулятор и развернулся на север: \
лента курса прыгнула на 180 градусов. Повторяется каждый раз. Снимки приложены."

# write_text TEXT: types it, with the English and the Russian keyboard layout in turns.
write_text() {
    local rest=$1 layout english='^[ -~]+' russian='^[^A-Za-z]+'
    while [ -n "$rest" ]; do
        layout=us
        [[ $rest =~ $english ]] || { layout=ru && [[ $rest =~ $russian ]]; }
        setxkbmap -layout $layout
        xdotool type --delay 20 -- "${BASH_REMATCH[0]}"
        rest=${rest#"${BASH_REMATCH[0]}"}
    done
    settle
}

# write_into X Y TEXT: into a field of the side menu.
write_into() {
    click "$menu" "$1" "$2"
    settle
    write_text "$3"
}

file_chooser() { window_named '^Выберите файл'; }
file_chooser_is_active() { [ "$(xdotool getactivewindow)" = "$(file_chooser)" ]; }
no_file_chooser() { ! file_chooser; }
report_stored() { grep -q ' Stored ' "$collector_log"; }

file_name() { printf %s "$1"; } # as the file dialog wants it

attach() {
    local height
    height=$(menu_height)
    press_orange "$menu" 1
    wait_until 10 "the file dialog" file_chooser_is_active
    settle
    write_text "\"$(file_name "$1")\" \"$(file_name "$2")\""
    shot report-files
    xdotool key Return
    wait_until 10 "the file dialog to close" no_file_chooser
    wait_until 10 "the number of the attached files" menu_is_higher_than "$height"
}

expect_report() {
    local arrived file
    arrived=$(find "$reports" -mindepth 1 -maxdepth 1 -type d)
    grep -qF "\"subject\": \"$subject\"" "$arrived/report.json" || fail "another subject arrived"
    grep -qF "\"body\": \"$body\"" "$arrived/report.json" || fail "another description arrived"
    for file; do
        cmp "$file" "$arrived/${file##*/}" || fail "another ${file##*/} arrived"
    done
    say "What arrived:"
    (cd "$arrived/.." && ls -l "${arrived##*/}")
    show_report "$arrived" "${1##*/}"
}

# show_report FOLDER PICTURE: draws what lies in the folder, and the picture among it.
show_report() {
    local text
    text=$(cd "$1/.." && ls -sh1 "${1##*/}" &&
        sed 's/\(.\{60\}[^ ]*\) /\1\n        /g' "$1/report.json")
    step=$((step + 1))
    picture -background '#141414' -fill '#F5F5F5' -pointsize $((14 * scale)) -family Roboto \
        -size $((600 * scale))x$((520 * scale)) 'xc:#141414' \
        -annotate +$((16 * scale))+$((30 * scale)) "${text//\\/\\\\}" \
        \( "$1/$2" -resize $((640 * scale)) \) +append -depth 8 \
        "$screenshots/$(printf %02d $step)-report-arrived.png"
}

step_report() {
    say "Sending a report with two pictures to the report collector"
    local damage flight=$desktop_work/Полёт\ 1.png height
    damage=$(find "$screenshots" -name '*-files-damaged.png')
    cp "$screenshots"/*-simulator-1.1.0.png "$flight"
    start_collector || fail "no report can be received: $(tail -n 1 "$collector_log")"
    desktop_processes+=("$collector")

    open_page report
    shot report
    height=$(menu_height)
    write_into "${subject_field[@]}" "$subject"
    write_into "${body_field[@]}" "$body"
    attach "$damage" "$flight"
    park_pointer
    settle
    shot report-filled
    press_orange "$menu" 2
    wait_until 30 "the message that the report was sent" dialog
    settle
    shot report-sent
    press_orange "$(dialog)" 1
    wait_until 10 "the message to close" no_dialog
    wait_until 30 "the report to arrive" report_stored
    expect_report "$damage" "$flight"
    # A sent report empties the form.
    wait_until 10 "the form to be emptied" menu_height_is "$height"
    close_menu
}
