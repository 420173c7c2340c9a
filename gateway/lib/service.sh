# What every shell service of the gateway needs; to be read by bash at the start of a service.
#
# shellcheck shell=bash

# The environment is whatever the supervisor was started with, and there is no umask.
export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
umask 022

export bus_address=unix:path=/tmp/var/run/mbusd/mbusd_socket
export run_root=/quorvane/run

# A pipe that is held open at both ends and never written to: waiting for it lets time pass without a process for it,
# which would outlive a service that is killed.
exec {never}<> <(:)

# Lets so many seconds, more than none, pass. Ends the service when it is told to stop, or when nobody holds its bus
# name any more: the bus has gone, then.
pause() {
    read -r -t "$1" -u "$never"
    # Above 128: the time has passed. Below: the end of what is never written to.
    (($? > 128)) || exit 1
}

# Takes the bus name, and holds it until the service ends, by a process that gives it back as soon as the pipe to it is
# closed or the service is killed. To be called once, and not in a subshell.
hold_name() {
    coproc holder { exec "${BASH_SOURCE[0]%/*}/hold-name" "$1"; }
    # The process writes nothing, so waiting for its output lets time pass as well, and tells when it ends.
    exec {never}<&-
    exec {never}<&"${holder[0]}" || exit 1
}

# Tells the watchdog that this service is well, and must be told so again within so many seconds. A service may keep
# several items, each with a deadline of its own. To be called from the loop that does the work: nothing else feeds it.
feed_dog() {
    printf '%s %s\n' "$1" "$2" >&"${holder[1]}" || exit 1
}

# Writes standard input to the file "state" in the service's directory below the run-time root, in one step. The
# directory is made anew each time: a change of the gateway's identity empties the run-time root.
write_state() {
    local directory=$run_root/$1
    mkdir -p "$directory" && cat >"$directory/state.new" && mv "$directory/state.new" "$directory/state"
}

trap 'exit 0' TERM INT
# The process that holds the name has ended.
trap 'exit 1' PIPE
