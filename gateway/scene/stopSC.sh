#!/bin/sh
# stopSC.sh: stops what startSC.sh has started before this script was, and waits for its end, for less than a second. To
# be called at any time and as often as one likes.

cd "${0%/*}" && exec ./scene -stop
