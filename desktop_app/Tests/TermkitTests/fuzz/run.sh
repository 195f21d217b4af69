#!/usr/bin/env bash
# Builds the fuzz target with clang (ASan + UBSan + libFuzzer) and runs it, niced, for the
# given number of seconds (default 1800). The corpus grows in a scratch folder; at the end
# it is merged, minimised, into ../data/fuzz-corpus, which seeds the next run.
# The build takes the shared build lock; the run itself does not.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
seconds=${1:-1800}
build=${TERMKIT_FUZZ_BUILD:-$here/../../../../build-fuzz}
seeds=$here/../data/fuzz-corpus
work=${TERMKIT_FUZZ_WORK:-$build/corpus}
mkdir -p "$build" "$work" "$seeds"
flock /tmp/quillmere-build.lock bash -c "
  CC=clang CXX=clang++ cmake -S '$here' -B '$build' -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null &&
  cmake --build '$build' --target termkit_fuzz"
nice -n 19 "$build/termkit_fuzz" "$work" "$seeds" -max_total_time="$seconds" -max_len=4096 -timeout=10 \
  -print_final_stats=1 2>&1 | tee "$build/fuzz.log" | grep -E "^#[0-9]+ +(pulse|DONE|NEW)|ERROR|SUMMARY|stat::" | tail -40
# Keep a small, minimised corpus in the repository.
tmp=$(mktemp -d)
nice -n 19 "$build/termkit_fuzz" -merge=1 "$tmp" "$seeds" "$work" >/dev/null 2>&1 || true
rm -rf "$seeds" && mv "$tmp" "$seeds"
echo "corpus: $(ls "$seeds" | wc -l) files, $(du -sh "$seeds" | cut -f1)"
