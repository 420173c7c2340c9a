#!/bin/bash
# modem-watch: tells whether the gateway has a way out, by its default route.
#
# A plain shell service that can be told to crash: SIGUSR1 ends it as a fault would.

# shellcheck source=gateway/lib/service.sh
. "${0%/*}/../lib/service.sh"

trap 'kill -ABRT $$' USR1

while :; do
    # The default route is the one whose destination is zero.
    if awk 'NR > 1 && $2 == "00000000" { found = 1 } END { exit !found }' /proc/net/route; then
        echo online
    else
        echo offline
    fi | write_state modem-watch
    pause 5
done
