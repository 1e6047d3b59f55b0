# shellcheck shell=sh disable=SC3043,SC2034,SC2154
# (local is in every shell an init script meets; the caller sets root and
# archive_tool and uses smsgw_launch.)
#
# Steps shared by the smsgwd init scripts (SysV and procd), sourced by them.
# Before sourcing, the caller sets:
#   root          the daemon's --root without its trailing slash ("" for /)
#   archive_tool  create_address_book_tar
# and exports SMSGW_ARCHIVE_DIR for the archive tool and the daemon's own
# call of it. The daemon's standard output and error go to
# ROOT/var/run/smsgwd.log (emptied at each start), its pid to
# ROOT/var/run/smsgwd.pid.

smsgw_log=$root/var/run/smsgwd.log
smsgw_pidfile=$root/var/run/smsgwd.pid

# Run as: sh -c "$smsgw_launch" PIDFILE LOG PROGRAM ARGS...; the shell
# notes its pid and becomes the program, which so keeps that pid.
# shellcheck disable=SC2016 # expanded by that shell
smsgw_launch='echo $$ >"$0"; log=$1; shift; exec "$@" </dev/null >>"$log" 2>&1'

# The directories and rule lists the daemon expects; /var is often a tmpfs
# that starts empty at every boot.
smsgw_prepare_root() {
    local d f
    for d in var/run var/config var/Jobs var/Outbox var/Inbox var/AddressBook var/tmp tmp; do
        mkdir -p "$root/$d" || return 1
    done
    for f in trigger_broadcast preconf_sms trigger_ctrl authenticate_list; do
        [ -e "$root/var/config/$f" ] || : >"$root/var/config/$f"
    done
    [ -e "$root/var/config/international_dialing" ] ||
        printf 'int-dialing=disable\nmax-digits=0\n' >"$root/var/config/international_dialing"
}

# The pid of this root's daemon while it runs; nothing (status 1) otherwise.
smsgw_pid() {
    local pid
    pid=$(cat "$smsgw_pidfile" 2>/dev/null) || return 1
    [ -n "$pid" ] || return 1
    # A process that ended, or another one that got its pid, does not name
    # this root among its arguments (an ended one has none).
    tr '\0' '\n' 2>/dev/null <"/proc/$pid/cmdline" | grep -qxF -- "${root:-/}" || return 1
    echo "$pid"
}

smsgw_archive() {
    SMSGW_ROOT=${root:-/} "$archive_tool"
}

# Before the start: what the daemon will restore as var/AddressBook.tar. A
# save still in var/AddressBook is the newest, so it is archived; otherwise
# an archive already in var stays; otherwise the copy from flash is put there.
smsgw_restore_book() {
    local flash="$SMSGW_ARCHIVE_DIR/AddressBook.tar" tmp
    tmp=$(smsgw_archive 2>&1)
    case $? in
        0) return 0 ;;
        1) echo "$tmp" >&2 ;;
    esac
    [ -e "$root/var/AddressBook.tar" ] && return 0
    [ -f "$flash" ] || return 0
    tmp=$(mktemp "$root/var/.AddressBook.tar.XXXXXX") || return 1
    if ! cp "$flash" "$tmp" || ! mv -f "$tmp" "$root/var/AddressBook.tar"; then
        rm -f "$tmp"
        echo "smsgwd: cannot put $flash back as $root/var/AddressBook.tar" >&2
        return 1
    fi
}

smsgw_new_log() {
    : >"$smsgw_log"
    rm -f "$smsgw_pidfile"
}

# Whether the deadline $1 (from smsgw_deadline) has passed. Seconds of
# date(1), so a sleep that cannot nap for a fraction of a second does not
# stretch the wait.
smsgw_deadline() { echo $(($(date +%s) + $1)); }
smsgw_passed() { [ "$(date +%s)" -ge "$1" ]; }
smsgw_nap() { sleep 0.1 2>/dev/null || sleep 1; }

smsgw_failed() {
    echo "smsgwd: $1; its last messages ($smsgw_log):" >&2
    tail -n 5 "$smsgw_log" >&2
    return 1
}

# After the start: waits up to $1 seconds for the daemon's start-up notice
# (0: does not wait). It probes every serial port for a modem first (3 s
# each).
smsgw_wait_started() {
    local end
    [ "$1" -gt 0 ] || return 0
    end=$(smsgw_deadline "$1")
    while ! grep -q ' started: root ' "$smsgw_log" 2>/dev/null; do
        if grep -q -e 'not started: ' -e '^Open Failed' "$smsgw_log" 2>/dev/null ||
            { [ -s "$smsgw_pidfile" ] && ! smsgw_pid >/dev/null; }; then
            smsgw_failed "it ended during start-up"
            return 1
        fi
        if smsgw_passed "$end"; then
            smsgw_failed "no start-up notice within $1 s"
            return 1
        fi
        smsgw_nap
    done
}

# SIGTERM makes the daemon save the address book, stop its children and
# end. After $1 seconds it is killed (unsaved changes are lost then). What
# it saved goes into the archives.
smsgw_stop() {
    local pid end txrx
    if pid=$(smsgw_pid); then
        kill -TERM "$pid" 2>/dev/null
        end=$(smsgw_deadline "$1")
        while smsgw_pid >/dev/null && ! smsgw_passed "$end"; do
            smsgw_nap
        done
        if smsgw_pid >/dev/null; then
            echo "smsgwd: did not end within $1 s; killed, unsaved changes are lost" >&2
            kill -KILL "$pid" 2>/dev/null
        fi
    fi
    rm -f "$smsgw_pidfile"
    # A killed daemon leaves its transceiver behind.
    txrx=$(cat "$root/var/run/txrx_pid_file" 2>/dev/null)
    [ -n "$txrx" ] && tr '\0' '\n' 2>/dev/null <"/proc/$txrx/cmdline" |
        head -n 1 | grep -qxF -- "$root/bin/txrx" && kill "$txrx" 2>/dev/null
    smsgw_archive
    [ $? -ne 1 ]  # 3: nothing was saved since the start, the archives stay
}

# SIGUSR1 makes the daemon save the address book; it notes "after
# strcpy,parse" in var/run/save_flg_file when done. Then into the archives.
smsgw_save() {
    local pid marks end
    pid=$(smsgw_pid) || {
        echo "smsgwd is not running" >&2
        return 1
    }
    marks=$(smsgw_save_marks)
    kill -USR1 "$pid"
    end=$(smsgw_deadline 10)
    while [ "$(smsgw_save_marks)" = "$marks" ]; do
        if smsgw_passed "$end"; then
            echo "smsgwd: no save within 10 s" >&2
            return 1
        fi
        smsgw_nap
    done
    smsgw_archive
}

# How many saves the daemon has finished. The daemon writes its first line
# to the file as a save begins, so a missing file must count as 0 too:
# otherwise the file appearing would pass for the save being done.
smsgw_save_marks() {
    local n
    n=$(grep -c '^after strcpy,parse$' "$root/var/run/save_flg_file" 2>/dev/null)
    echo "${n:-0}"
}
