#!/bin/bash
# Screenshots of the terminal view and of xterm showing the same things at the same size in
# cells, side by side, for a person to compare: a coloured listing and a full-screen program.
# Runs under its own Xvfb.   compare_screenshots.sh [BUILD] [OUT]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=${1:-$here/../../../build}
out=${2:-$build/screenshots}
data=$here/../../Tests/QuillmereDesktopTests/gui/data
mkdir -p "$out"
if [[ -z "${COMPARE_INNER:-}" ]]; then
  COMPARE_INNER=1 exec xvfb-run -a -s "-screen 0 1600x900x24 -dpi 96" "$0" "$build" "$out"
fi
folder=$(mktemp -d)
mkdir "$folder/projects" "$folder/notes"
for f in README.md archive.tar.gz photo.png build.sh data.json; do echo x > "$folder/$f"; done
chmod +x "$folder/build.sh"
ln -s "$folder/projects" "$folder/link-to-projects"
ln -s "$folder/gone" "$folder/broken-link"
listing="cd $folder; eval \$(dircolors -b); clear; ls --color=always -og; ls --color=always -F; sleep 4"
fullscreen="python3 $data/fullscreen_demo.py 4"
shoot() { # name command...
  local name=$1; shift
  "$@" &
  local pid=$!
  sleep 2.5
  import -window root -crop 730x420+0+0 "$out/$name.png"
  wait $pid || true
}
view=$build/desktop_app/Benchmarks/termkit-view-host
xt=(xterm -fa "DejaVu Sans Mono" -fs 11 -geometry 80x24+0+0 -bg white -fg black -e)
shoot compare-ls-view "$view" --cols 80 --rows 24 --run "$listing"
shoot compare-ls-xterm "${xt[@]}" bash -c "$listing"
shoot compare-fullscreen-view "$view" --cols 80 --rows 24 --run "$fullscreen"
shoot compare-fullscreen-xterm "${xt[@]}" $fullscreen
for what in ls fullscreen; do
  convert "$out/compare-$what-view.png" "$out/compare-$what-xterm.png" +append "$out/compare-$what.png"
done
rm -rf "$folder"
echo "$out/compare-ls.png $out/compare-fullscreen.png"
