# shellcheck shell=bash disable=SC2034,SC2154
# What differs when the tour looks at a launcher that runs under Wine. Sourced by scripts/tour.

folder=$demo/"Папка с пробелом"
export WINEQT_SCALE_FACTOR=${1:-1} # Wine keeps QT_... from its programs

simulator_processes() { pgrep -f "^[A-Z]:${folder//\//.}.*sample-simulator" || true; }
focus_menu() { click "$menu" 200 14; } # its window manager is Windows
file_name() { printf 'Z:%s' "${1//\//\\}"; }
