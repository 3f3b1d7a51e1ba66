#!/bin/sh
# The web entry starts this for /ormel/log/dump. The program makes and sends the archive of the
# logs; this removes the archive however the program ends. The gate runs one at a time: a second one
# would lose its archive to the first.
exec 3<&0 # a background command would read from /dev/null
/usr/sbin/ormel.cgi <&3 3<&- &
program=$!
exec <&- 3<&-
trap 'kill -TERM "$program" 2>/dev/null' HUP INT TERM
trap 'rm -f /tmp/ormel_dump_log.tar.gz' EXIT
wait "$program"
status=$?
# A signal interrupts the wait before the program has ended.
while kill -0 "$program" 2>/dev/null; do
  wait "$program"
  status=$?
done
exit "$status"
