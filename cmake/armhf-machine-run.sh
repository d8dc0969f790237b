#!/usr/bin/env bash
# Runs one armhf program in the emulated ARM machine that
# scripts/armhf-machine.sh booted (its spool directory in
# ZANTREL_ARMHF_MACHINE): armhf-machine-run.sh PROGRAM [ARGS...].
# cmake/armhf-run.sh hands programs here while such a machine is up.
#
# The program runs in this directory (the tree is shared at the same path),
# with this environment but for what belongs to this machine (PATH, HOME,
# preloads, qemu-arm's settings). Its output comes back as it is written,
# standard output and standard error apart, and its exit status is this
# script's; a program killed by a signal kills this script with the same
# signal. When this script is killed (a test's timeout), the program and
# everything it started in the guest are killed too. When the machine has
# stopped or stops answering, the script fails at once with a message and
# exit status 125.
set -uo pipefail
spool=${ZANTREL_ARMHF_MACHINE:?armhf-machine-run: no machine (run under scripts/armhf-machine.sh)}
silence_bound=${ZANTREL_ARMHF_SILENCE_SECONDS:-90}
if (($# < 1)); then
  echo "usage: armhf-machine-run.sh PROGRAM [ARGS...]" >&2
  exit 2
fi
program=$1 fate="not run"

machine_down() {
  echo "armhf-machine: $* (its console: ${spool%/spool}/console.log); $program $fate" >&2
  exit 125
}
# Fails when qemu has gone or the guest's heartbeat is older than the bound.
# (/proc, not kill -0: a program in a user namespace of its own may not
# signal qemu.)
check_machine() {
  local qemu age
  qemu="$(cat "$spool/qemu.pid" 2> /dev/null)"
  [[ -n $qemu && -d /proc/$qemu ]] || machine_down "the emulated ARM machine has stopped"
  age=$(($(date +%s) - $(stat -c %Y "$spool/alive" 2> /dev/null || echo 0)))
  ((age <= silence_bound)) || machine_down "the emulated ARM machine has not answered for $age s"
}
check_machine

quote() { printf "'%s'" "${1//\'/\'\\\'\'}"; }
id="$spool/$$-$RANDOM"
: > "$id.out"
: > "$id.err"
exec {out}< "$id.out" {err}< "$id.err"
{
  printf 'cd %s || exit 126\n' "$(quote "$PWD")"
  while IFS= read -r -d '' variable; do
    name=${variable%%=*}
    [[ $name =~ ^[A-Za-z_][A-Za-z0-9_]*$ ]] || continue
    case $name in
      PATH | HOME | PWD | OLDPWD | SHLVL | _ | LD_PRELOAD | QEMU_* | ZANTREL_ARMHF_*) continue ;;
    esac
    printf 'export %s=%s\n' "$name" "$(quote "${variable#*=}")"
  done < <(env -0)
  printf 'exec'
  for argument in "$@"; do
    printf ' %s' "$(quote "$argument")"
  done
  printf '\n'
} > "$id.new"
mv "$id.new" "$id.job"
fate="did not finish"

# Killed outright (SIGKILL on a test's timeout), this script cannot ask the
# guest to stop the program: a watcher in a session of its own (out of reach
# of a kill of this script's process group) does.
setsid bash -c 'while kill -0 "$1" 2> /dev/null; do sleep 1; done
  [[ -e $2.rc ]] || : > "$2.kill"' watcher $$ "$id" < /dev/null > /dev/null 2>&1 &
watcher=$!
trap ': > "$id.kill"; exit 143' TERM
trap ': > "$id.kill"; exit 130' INT

relay() {
  cat <&"$out"
  cat <&"$err" >&2
}
delay=0.01 checked=$SECONDS
until [[ -e $id.rc ]]; do
  relay
  sleep "$delay"
  [[ $delay == 0.2 ]] || delay=$(case $delay in 0.01) echo 0.02 ;; 0.02) echo 0.05 ;; 0.05) echo 0.1 ;; *) echo 0.2 ;; esac)
  if ((SECONDS != checked)); then
    checked=$SECONDS
    check_machine
  fi
done
relay
kill "$watcher" 2> /dev/null
status="$(cat "$id.rc")"
rm -f "$id".*
if ((status > 128 && status < 160)); then
  trap - "$((status - 128))" 2> /dev/null
  kill -s "$((status - 128))" $$
fi
exit "$status"
