#!/bin/sh
# Reporter for the tests of the crash handler: says on standard error what it was started with, and
# takes the part that its own name names. One that stays ends after the launcher.
sessions=$(tr '\0' '\n' <"/proc/$$/environ" | grep '^ZK_SESSION_ID=' | paste -sd ' ')
[ -e "/proc/$$/fd/$1" ] && channel=open
echo "reporter: $sessions; $# arguments; channel ${channel:-closed}; prompt $3" >&2
stay() { exec tail --pid="$PPID" -f /dev/null; }
case ${0##*/} in
servingReporter) printf '\001' >"/proc/$$/fd/$2" && stay ;;
refusingReporter) printf '\000' >"/proc/$$/fd/$2" && stay ;;
puzzlingReporter) printf 1 >"/proc/$$/fd/$2" && stay ;;
# Interrupts the launcher's wait once.
silentReporter) kill -USR1 "$PPID" && stay ;;
esac
