# shellcheck shell=bash disable=SC2034,SC2153,SC2154
# The tour's steps in the side menu: settings, version history, removal. Sourced by scripts/tour.

# Where the buttons that open the pages lie in the main window, and the parts of the pages.
settings_button=(86 65)
history_button=(-309 65)
report_button=(-120 65)
menu_close_button=(-20 15)
special_box=(215 177)
status_line=(10 218 500 26) # x y width height
second_version=(75 130)
description=(160 80 430 250)

# open_page BUTTON: opens a page of the side menu; it stands centred over the main window.
open_page() {
    local -n button=$1_button
    local x y
    click "$main_window" "${button[@]}"
    if [ -z "$menu" ]; then
        wait_until 10 "the side menu (its page: $1)" dialog
        menu=$(dialog)
    fi
    wait_until 10 "the side menu (its page: $1)" menu_shown
    park_pointer
    settle
    geometry "$main_window"
    x=$((X + WIDTH / 2)) y=$((Y + HEIGHT / 2))
    geometry "$menu"
    about_equal $((X + WIDTH / 2)) $x || fail "the page $1 does not stand in the middle"
    about_equal $((Y + HEIGHT / 2)) $y || fail "the page $1 does not stand at half the height"
}
about_equal() { [ $(($1 - $2)) -le $((2 * scale)) ] && [ $(($2 - $1)) -le $((2 * scale)) ]; }

focus_menu() { xdotool windowfocus --sync "$menu"; }
menu_shown() { windows_named '^Dialog$' | grep -qx "$menu"; }
menu_hidden() { ! menu_shown; }
menu_height() { (geometry "$menu" && echo "$HEIGHT"); }
menu_is_higher_than() { [ "$(menu_height)" -gt "$1" ]; }
menu_height_is() { [ "$(menu_height)" -eq "$1" ]; }

close_menu() {
    click "$menu" "${menu_close_button[@]}"
    wait_until 10 "the side menu to close" menu_hidden
    park_pointer
    settle
}

# setting KEY: its value in config.ini.
setting() { sed -n "s/\r$//;s/^$1=//p" "$folder/config.ini"; }
setting_is() { [ "$(setting "$1")" = "$2" ]; }

simulator_is_gone() { [ ! -e "$folder/simulator" ]; }

step_settings() {
    say "Opening the settings: size and folder of the installed simulator"
    local bytes
    open_page settings
    shot settings
    bytes=$(find "$folder/simulator" -type f -printf '%s\n' |
        awk '{ sum += $1 } END { print sum }')
    setting_is installationSize "$bytes" ||
        fail "config.ini has the size $(setting installationSize), the folder $bytes"
}

step_check_whole() {
    say "Checking the installed files: no errors"
    local height
    height=$(menu_height)
    press_orange "$menu" 1
    wait_until 30 "the result of the check" menu_is_higher_than "$height"
    settle
    shot files-whole
    ! log_says 'checkFiles' || fail "the whole version was called damaged; see $log"
    whole_status=$(look_at "$menu" "${status_line[@]}")
}

step_check_damaged() {
    say "Damaging a file of the simulator and checking again: the damage is reported"
    local file name
    file=$(find "$folder/simulator" -type f ! -path '*/bin/*' -size +100k | sort | head -n 1)
    name=${file#"$folder/simulator/"}
    say "Damaging $name"
    chmod u+w "$file"
    printf 'damaged' | dd of="$file" bs=1 seek=50000 conv=notrunc status=none
    press_orange "$menu" 1
    wait_until 30 "the damage in the log" log_says "checkFiles 1.1.0: $name: other contents"
    wait_until 10 "the log line of the page" \
        log_says '\[checkFiles\] Installed app files is broken'
    park_pointer
    settle
    shot files-damaged
    [ "$(look_at "$menu" "${status_line[@]}")" != "$whole_status" ] ||
        fail "the page shows the same status"
}

# expect_versions SHOWN COUNT: config.ini and the opened list agree on the special versions.
expect_versions() {
    wait_until 10 "showSpecialVersions=$1 in config.ini" setting_is showSpecialVersions "$1"
    wait_until 10 "$2 versions in config.ini" version_count_is "$2"
    park_pointer
    settle
    open_version_list
    shot "special-versions-$1"
}
version_count_is() { [ "$(setting availableVersions | tr ',' '\n' | grep -c .)" -eq "$1" ]; }

step_special_on() {
    say "Switching special versions on: the list grows"
    click "$menu" "${special_box[@]}"
    expect_versions true 4
    [ "$(version_list_height)" -gt "$short_list" ] || fail "the list has not grown"
    close_version_list
}

step_special_off() {
    say "Switching special versions off by the keyboard: the list shrinks"
    focus_menu
    xdotool key ctrl+s
    expect_versions false 3
    [ "$(version_list_height)" -eq "$short_list" ] || fail "the list has not shrunk"
    close_version_list
    close_menu
}

step_history() {
    say "Opening the version history and choosing another version"
    local newest
    [ "$(sed -n 's/^    "\(.*\)": {\r*$/\1/p' "$folder/descriptions.json" | tr '\n' ' ')" = \
        "1.0.0 1.1.0 1.2.0 " ] || fail "descriptions.json does not hold the three versions"
    open_page history
    shot history
    newest=$(look_at "$menu" "${description[@]}")
    click "$menu" "${second_version[@]}"
    park_pointer
    settle
    shot history-1.1.0
    [ "$(look_at "$menu" "${description[@]}")" != "$newest" ] || fail "the description is the same"
    close_menu
}

# ask_to_remove NAME: opens the settings, presses the button and shows the question.
ask_to_remove() {
    open_page settings
    press_orange "$menu" 2
    wait_until 10 "the question" dialog
    settle
    shot "$1"
}

step_remove_declined() {
    say "Asking to remove the simulator, and answering No: nothing is removed"
    ask_to_remove remove-question
    press_orange "$(dialog)" 2
    wait_until 10 "the question to close" no_dialog
    installed_is 1.1.0 || fail "the simulator was removed"
    [ -d "$folder/simulator" ] || fail "the simulator's files were removed"
    close_menu
}

step_remove() {
    say "Asking again, and answering Yes: the simulator is removed"
    ask_to_remove remove-question-again
    press_orange "$(dialog)" 1
    wait_until 10 "the question to close" no_dialog
    wait_until 30 "the removal in the log" log_says 'removeVersion 1.1.0: removed'
    wait_until 10 "installationSize=0 in config.ini" setting_is installationSize 0
    [ -z "$(installed_version)" ] || fail "installed.json still names $(installed_version)"
    wait_until 30 "the simulator's folder to go" simulator_is_gone
    settle
    shot removed-settings
    close_menu
    shot removed
    [ "$(look_at "$main_window" "${installed_label[@]}")" = "$not_installed_label" ] ||
        fail "the main window does not show what it showed before the first installation"
}
