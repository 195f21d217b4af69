#!/bin/sh
# Starts the relay by hand for development: loopback, port 8787, local sign-in on,
# data in the same folder the application uses. Every variable can be overridden.
set -eu
here=$(CDPATH= cd -- "$(dirname -- "$0")" && pwd)
data_dir="${XDG_DATA_HOME:-$HOME/.local/share}/Quillmere"
export MERE_RELAY_PORT="${MERE_RELAY_PORT:-8787}"
export MERE_RELAY_DB_PATH="${MERE_RELAY_DB_PATH:-$data_dir/relay.db}"
export MERE_RELAY_ENV_PATH="${MERE_RELAY_ENV_PATH:-$data_dir/relay.env}"
export MERE_RELAY_LOCAL_AUTH="${MERE_RELAY_LOCAL_AUTH:-1}"
export PYTHONDONTWRITEBYTECODE=1
python=$(command -v python3 || true)
if [ -z "$python" ]; then
  echo "run.sh: Python 3.11 or later is needed (python3 was not found on PATH)" >&2
  exit 1
fi
exec "$python" "$here/server.py" "$@"
