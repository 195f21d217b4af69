#!/usr/bin/env bash
# Runs a command against a real, throwaway system keyring: a private D-Bus session bus
# with gnome-keyring's Secret Service, unlocked, whose files live in a temporary home.
set -euo pipefail
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
export HOME="$home" XDG_DATA_HOME="$home/.local/share" XDG_CONFIG_HOME="$home/.config"
export XDG_RUNTIME_DIR="$home/run"
mkdir -p "$XDG_RUNTIME_DIR" && chmod 700 "$XDG_RUNTIME_DIR"
# The password only unlocks this temporary keyring and dies with it.
exec dbus-run-session -- bash -c '
  eval "$(printf "throwaway\n" | gnome-keyring-daemon --unlock --components=secrets)"
  export GNOME_KEYRING_CONTROL
  exec "$@"' with-keyring "$@"
