#!/bin/sh
# Just enough of OpenWrt's rc.common and procd to run the smsgwd init script
# in a sandbox: sh rc-common-stub.sh INITSCRIPT ACTION. The instance runs in
# the background and stop sends it SIGTERM, as procd does. UCI options come
# from SMSGW_UCI_<option>; the instance is noted in SMSGW_STUB_STATE.
# PROG, ARCHIVE_TOOL and SERVICE_LIB are taken from SMSGW_STUB_<name>.
state=$SMSGW_STUB_STATE
config_load() { :; }
config_get() { eval "$1=\${SMSGW_UCI_$3:-\$4}"; }
config_get_bool() { config_get "$@"; }
config_list_foreach() { for v in $(eval "echo \${SMSGW_UCI_$2:-}"); do "$3" "$v"; done; }
procd_open_instance() { :; }
procd_set_param() { case $1 in command | env) : >"$state/$1" && procd_append_param "$@" ;; esac; }
procd_append_param() {
    p=$1
    shift
    case $p in command | env) printf '%s\n' "$@" >>"$state/$p" ;; esac
}
procd_close_instance() {
    set --
    while IFS= read -r a; do set -- "$@" "$a"; done <"$state/env"
    while IFS= read -r a; do set -- "$@" "$a"; done <"$state/command"
    env "$@" &
    echo $! >"$state/pid"
}

# shellcheck source=/dev/null
. "$1"
# shellcheck disable=SC2034 # read by the init script
PROG=$SMSGW_STUB_PROG ARCHIVE_TOOL=$SMSGW_STUB_ARCHIVE_TOOL SERVICE_LIB=$SMSGW_STUB_SERVICE_LIB
start() { start_service && service_started; }
stop() {
    kill -TERM "$(cat "$state/pid")" 2>/dev/null
    service_stopped
}
case $2 in
    start | stop | save) "$2" ;;
    restart) stop && start ;;
    reload) reload_service ;;
esac
