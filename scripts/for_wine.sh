#!/bin/sh
# Runs a command, and what it starts, without address randomization where the system allows that.
# Wine needs one page at a fixed address: where chance has put something else there, a program does
# not start.
setarch --addr-no-randomize true 2>/dev/null && exec setarch --addr-no-randomize "$@"
exec "$@"
