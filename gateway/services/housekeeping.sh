#!/bin/bash
# housekeeping: notes how full the run-time directory and how busy the machine is.
#
# Not monitored in the catalogue ("monitor": 0): when it ends, it stays away until the next start of the gateway.

# shellcheck source=gateway/lib/service.sh
. "${0%/*}/../lib/service.sh"

while :; do
    {
        read -r load _ </proc/loadavg && echo "load $load"
        df --output=pcent "$run_root" | awk 'NR == 2 { print "used " $1 }'
    } | write_state housekeeping
    pause 30
done
