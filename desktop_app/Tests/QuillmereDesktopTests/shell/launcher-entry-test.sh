#!/usr/bin/env bash
# The launcher entry as `cmake --install` leaves it: the entry and its icon where desktops
# look for them, the entry starting the installed program, and its StartupWMClass the
# class of the window that program opens (checked on a virtual X display).
set -euo pipefail
build=$1
work=$(mktemp -d)
app_pid=
cleanup() {
  [[ -n "$app_pid" ]] && kill "$app_pid" 2>/dev/null && wait "$app_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "launcher entry: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$work/prefix" >/dev/null
entry="$work/prefix/share/applications/quillmere.desktop"
[[ -f "$entry" ]] || fail "no entry at $entry"
[[ -f "$work/prefix/share/icons/hicolor/scalable/apps/quillmere.svg" ]] || fail "no icon"
[[ -x "$work/prefix/bin/quillmere" ]] || fail "no program"
grep -qx 'Type=Application' "$entry" || fail "not an application entry"
grep -qx 'Exec=quillmere' "$entry" || fail "Exec does not start the installed program"
grep -qx 'Icon=quillmere' "$entry" || fail "Icon does not name the installed icon"
wm_class=$(sed -n 's/^StartupWMClass=//p' "$entry")
[[ -n "$wm_class" ]] || fail "no StartupWMClass"
# The build's own copy starts the built program.
grep -q "^Exec=.*/quillmere$" "$build/share/applications/quillmere.desktop" || fail "no build copy"

# The installed program's window on a display of its own, with a throwaway home; the relay
# address leads nowhere, since only the window matters here.
mkdir -p "$work/home/config/Quillmere" "$work/run"
chmod 700 "$work/run"
printf '[General]\nrelayURL=http://127.0.0.1:9/\n' >"$work/home/config/Quillmere/Quillmere.conf"
display=:$((90 + RANDOM % 100))
Xvfb "$display" -screen 0 800x600x24 -nolisten tcp >/dev/null 2>&1 &
xvfb_pid=$!
trap 'kill $xvfb_pid 2>/dev/null; cleanup' EXIT
for _ in $(seq 50); do xdpyinfo -display "$display" >/dev/null 2>&1 && break; sleep 0.1; done
env -i PATH="$work/prefix/bin:/usr/bin:/bin" HOME="$work/home" XDG_CONFIG_HOME="$work/home/config" \
  XDG_DATA_HOME="$work/home/share" XDG_RUNTIME_DIR="$work/run" DISPLAY="$display" \
  DBUS_SESSION_BUS_ADDRESS=unix:path=/nonexistent quillmere >/dev/null 2>&1 &
app_pid=$!
# The main window is the one titled "Quillmere" with a class (hidden helper windows may share
# the title but have none); the tree lists each as: "title": ("instance" "Class").
class=
for _ in $(seq 100); do
  class=$(DISPLAY="$display" xwininfo -root -tree 2>/dev/null |
    sed -n 's/.*"Quillmere": ("[^"]*" "\([^"]*\)").*/\1/p' | head -n 1)
  [[ -n "$class" ]] && break
  sleep 0.1
done
[[ -n "$class" ]] || fail "the program's window did not appear"
[[ "$class" == "$wm_class" ]] || fail "window class \"$class\" is not StartupWMClass \"$wm_class\""
echo "launcher entry: installed, and StartupWMClass=$wm_class matches the window"
