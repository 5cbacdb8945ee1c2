# shellcheck shell=bash disable=SC2034,SC2154
# The tour's steps in the main window: installing, updating, starting, closing. Sourced by
# scripts/tour.

# Where the parts of the main window lie, in units of its layout (negative: from the far edge).
installed_label=(24 -40 400 28) # x y width height
versions_box=(120 -72)
help_button=(-165 21)
close_button=(-28 21)

installed_version() {
    sed -n 's/^ "version": "\(.*\)".*/\1/p' "$folder/installed.json" 2>/dev/null
}
installed_is() { [ "$(installed_version)" = "$1" ]; }

# Half of the new files of 1.1.0 have been built.
half_is_staged() {
    [ "$(find "$folder/simulator.vl" -type f -printf '%s\n' 2>/dev/null |
        awk '{ sum += $1 } END { print sum + 0 }')" -gt 6000000 ]
}
# bytes_to_fetch VERSION: of its last installation since the launcher was started, by the log.
bytes_to_fetch() {
    tail -c "+$log_start" "$log" |
        sed -n "s/.*installVersion $1: plan: .*, \([0-9]*\) bytes to fetch.*/\1/p" | tail -n 1
}

version_list() { # the opened list's window
    xdotool search --onlyvisible --pid "$launcher" 2>/dev/null |
        grep -vx -e "$main_window" -e "${menu:-none}" | tail -n 1 | grep .
}
no_version_list() { ! version_list; }
version_list_height() { (geometry "$(version_list)" && echo "$HEIGHT"); }

open_version_list() {
    click "$main_window" "${versions_box[@]}"
    wait_until 10 "the list of versions" version_list
    settle
}

close_version_list() {
    xdotool key Escape
    wait_until 10 "the list of versions to close" no_version_list
}

# choose_version INDEX: by keyboard in the opened list; 0 is the newest.
choose_version() {
    local key
    open_version_list
    xdotool key Home
    for ((key = 0; key < $1; ++key)); do xdotool key Down; done
    settle
    xdotool key Return
    settle
}

press_run() { press_orange "$main_window" 1; }

# expect_installed VERSION: the good end of an installation.
expect_installed() {
    wait_until 60 "the message that $1 is installed" dialog
    settle
    shot "installed-$1"
    installed_is "$1" || fail "installed.json names '$(installed_version)', not $1; see $log"
    press_orange "$(dialog)" 1
    wait_until 10 "the message to close" no_dialog
}

open_simulator() {
    press_run
    wait_until 30 "the simulator's window" window_named "^Учебный симулятор $1\$"
    simulator_window=$(window_named "^Учебный симулятор $1\$")
}

end_simulator() {
    xdotool windowfocus --sync "$simulator_window" key Escape
    wait_until 10 "the simulator to end" sh -c "! xdotool search --name '^Учебный симулятор'"
}

start_simulator() {
    open_simulator "$1"
    settle
    shot "simulator-$1"
    end_simulator
}

launcher_in_front() { [ "$(xdotool getactivewindow)" = "$main_window" ]; }

step_first_start() {
    say "First start: nothing is installed yet"
    launcher_start "$folder"
    [ -z "$(installed_version)" ] || fail "something is installed already"
    shot first-start
    not_installed_label=$(look_at "$main_window" "${installed_label[@]}")
}

step_version_list() {
    say "Opening the list of versions"
    open_version_list
    shot version-list
    short_list=$(version_list_height)
    close_version_list
}

step_install_first() {
    say "Choosing 1.0.0 and installing it"
    choose_version 2
    press_run
    watch_installation 1.0.0
    expect_installed 1.0.0
}

step_start_first() {
    say "Starting the installed simulator"
    start_simulator 1.0.0
}

step_update_in_flight() {
    say "Updating to 1.1.0 while the simulator flies: the switch waits for its end"
    open_simulator 1.0.0
    xdotool windowmove "$simulator_window" 0 0 windowactivate "$main_window"
    wait_until 10 "the launcher in front of the simulator" launcher_in_front
    still_window=$main_window # the simulator's picture never stands still
    choose_version 1
    press_run
    wait_until 60 "the installation to wait for the simulator" \
        log_says 'installVersion 1\.1\.0: waiting for bin/sample-simulator'
    settle
    shot update-in-flight
    [ "$(shown_stage)" = applying ] || fail "the bar does not tell that changes are applied"
    installed_is 1.0.0 || fail "another version was installed below the running simulator"
    no_dialog || fail "the installation did not wait"
    end_simulator
    still_window=root
    expect_installed 1.1.0
}

step_update() {
    say "Updating to 1.2.0"
    choose_version 0
    press_run
    watch_installation 1.2.0
    expect_installed 1.2.0
}

step_help() {
    say "Asking for help, and declining to open the browser"
    click "$main_window" "${help_button[@]}"
    wait_until 10 "the question" dialog
    settle
    shot help-question
    press_orange "$(dialog)" 2
    wait_until 10 "the question to close" no_dialog
}

step_close_while_installing() {
    say "Closing the window while 1.1.0 is being installed"
    choose_version 1
    press_run
    wait_until 30 "half of the new files" half_is_staged
    halted_shot interrupted
    step_close
    installed_is 1.2.0 || fail "the old version is no longer the installed one"
}

step_resume() {
    say "Starting again: 1.2.0 is still installed; the installation of 1.1.0 goes on"
    local first again
    first=$(bytes_to_fetch 1.1.0)
    launcher_start "$folder"
    shot restarted
    choose_version 1
    press_run
    halted_shot resumed
    wait_until 300 "the installation to end" installation_ended
    again=$(bytes_to_fetch 1.1.0)
    # Files that are staged already are not fetched again.
    [ "$again" -lt $((first - 6000000)) ] ||
        fail "$again of $first bytes were fetched after the interruption"
    expect_installed 1.1.0
    start_simulator 1.1.0
}

step_close() {
    say "Closing the launcher"
    local status=0
    click "$main_window" "${close_button[@]}"
    wait_until 10 "the launcher to end" launcher_gone
    wait "$launcher" || status=$?
    launcher=
    [ $status -eq 0 ] || fail "the launcher ended with $status"
}
