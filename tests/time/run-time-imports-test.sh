#!/bin/sh
# The libraries and tools keep time without time_t: their timers and time-outs
# are GLib's and GDBus's (GLib's monotonic clock, in 64-bit microseconds) and
# the times they print come from g_get_real_time (64-bit). So none of them
# imports a C library function that takes or returns a time_t, a struct
# timespec or a struct timeval, whose 32-bit forms on 32-bit ARM end in
# January 2038 (bookworm's armhf builds with a 32-bit time_t). The 64-bit forms
# a build with _TIME_BITS=64 would import (__clock_gettime64 and the like) are
# allowed. readelf of the build machine reads any architecture's files.
# Usage: run-time-imports-test.sh FILE...
set -eu
# The C library's functions of time_t, struct timespec and struct timeval.
timed='time stime difftime mktime timegm timelocal gmtime gmtime_r localtime localtime_r ctime ctime_r
  clock_gettime clock_settime clock_getres clock_nanosleep nanosleep gettimeofday settimeofday adjtime
  select pselect ppoll sem_timedwait sem_clockwait pthread_cond_timedwait pthread_cond_clockwait
  pthread_mutex_timedlock pthread_mutex_clocklock pthread_rwlock_timedrdlock pthread_rwlock_timedwrlock
  pthread_timedjoin_np mq_timedsend mq_timedreceive timer_settime timer_gettime timerfd_settime
  timerfd_gettime utime utimes futimes lutimes futimens utimensat sigtimedwait recvmmsg aio_suspend
  sched_rr_get_interval io_getevents'
failed=0
for file in "$@"; do
  imports=$(readelf --dyn-syms -W "$file" | awk '$7 == "UND" { sub(/@.*/, "", $8); print $8 }' | sort -u)
  [ -n "$imports" ] || { echo "FAIL: no imports read from $file" >&2; failed=1; continue; }
  found=
  for name in $timed; do
    if printf '%s\n' "$imports" | grep -qx "$name"; then found="$found $name"; fi
  done
  if [ -n "$found" ]; then
    echo "FAIL: $file imports time_t functions:$found" >&2
    failed=1
  else
    echo "$(basename "$file"): $(printf '%s\n' "$imports" | wc -l) imports, none of time_t"
  fi
done
[ "$failed" -eq 0 ] && echo "time imports ok"
exit "$failed"
