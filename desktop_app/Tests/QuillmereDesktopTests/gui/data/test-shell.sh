#!/bin/sh
# The drawer's shell in tests: the real /bin/sh, interactive, with stand-ins for the agent
# tools and their installers first on its PATH, so that the auto-run lines run for real
# without installing anything from the network. Takes and ignores the login flags.
here=$(cd "$(dirname "$0")" && pwd)
PATH="$here/fakebin:$PATH"
PS1='$ '
export PATH PS1
exec /bin/sh -i
