#!/bin/sh
# startSC.sh: the scene service as a script, for a catalogue that starts it as one. It takes the program's arguments, is
# there as long as the program is, and ends with its status.
#
# The number lets the program see that it belongs to this script, and end with it.

cd "${0%/*}" || exit 1
./scene "-script=$$" "$@" &
wait $!
