# shellcheck shell=bash
# Sourced by scripts that wait for what another process does.

# Tries a command every tenth of a second until it succeeds, for so many seconds.
within() {  # SECONDS COMMAND...
  local turns=$(($1 * 10))
  shift
  until "$@" >/dev/null 2>&1; do
    ((turns-- > 0)) || return 1
    sleep 0.1
  done
}
