#!/bin/bash
# display: keeps the line for the gateway's display, with the temperature that the sensor service tells.
#
# A shell service with a bus name and a keep-alive, that asks another one over the bus. A reply is waited for two
# seconds at most, so that the keep-alive is fed in time, and the service ends in time when it is told to.
#
# It can be told to fail: SIGUSR1 ends it as a fault would, after SIGUSR2 it goes on but feeds no more.
#
# usage: display.sh BUS_NAME, the name being that of the sensor service

# shellcheck source=gateway/lib/service.sh
. "${0%/*}/../lib/service.sh"

sensors=${1:-iot.gateway.sensors}

temperature() {
    dbus-send --bus="$bus_address" --print-reply=literal --reply-timeout=2000 \
        --dest="$sensors" "/${sensors//.//}" "$sensors.read" 2>/dev/null
}

trap 'kill -ABRT $$' USR1
silent=no
trap 'silent=yes' USR2

hold_name iot.gateway.display

while :; do
    [ "$silent" = yes ] || feed_dog main 20
    # The reply reads "   double 20.5".
    value=$(temperature | awk '$1 == "double" { printf "%.1f C", $2 }')
    echo "temperature ${value:-unknown}" | write_state display
    pause 5
done
