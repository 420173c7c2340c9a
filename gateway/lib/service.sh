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

# Lets so many seconds pass, or ends the service when it is told to stop.
pause() {
    read -r -t "$1" -u "$never" || :
}

# Writes standard input to the file "state" in the service's directory below the run-time root, in one step. The
# directory is made anew each time: a change of the gateway's identity empties the run-time root.
write_state() {
    local directory=$run_root/$1
    mkdir -p "$directory" && cat >"$directory/state.new" && mv "$directory/state.new" "$directory/state"
}

trap 'exit 0' TERM INT
