#!/usr/bin/env bash
# Builds the fuzz target with clang (ASan + UBSan + libFuzzer) and runs it, niced, for the
# given number of seconds (default 1800). It starts from the corpus kept in the repository
# (../data/fuzz-corpus.tar.xz); at the end the grown corpus is merged, minimised, and
# packed back into that archive. The build takes the shared build lock; the run does not.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
seconds=${1:-1800}
build=${TERMKIT_FUZZ_BUILD:-$here/../../../../build-fuzz}
archive=$here/../data/fuzz-corpus.tar.xz
work=$build/corpus
seeds=$build/seeds
mkdir -p "$build" "$work"
rm -rf "$seeds" && mkdir -p "$seeds"
[ -f "$archive" ] && tar -C "$seeds" -xJf "$archive"
flock /tmp/quillmere-build.lock bash -c "
  CC=clang CXX=clang++ cmake -S '$here' -B '$build' -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null &&
  cmake --build '$build' --target termkit_fuzz"
nice -n 19 "$build/termkit_fuzz" "$work" "$seeds" -max_total_time="$seconds" -max_len=4096 -timeout=10 \
  -print_final_stats=1 2>&1 | tee "$build/fuzz.log" | grep -E "^#[0-9]+ +(pulse|DONE)|ERROR|SUMMARY|stat::" | tail -40
# Keep a small, minimised corpus in the repository.
merged=$(mktemp -d)
nice -n 19 "$build/termkit_fuzz" -merge=1 "$merged" "$seeds" "$work" >/dev/null 2>&1 || true
tar -C "$merged" -cJf "$archive" .
echo "corpus: $(ls "$merged" | wc -l) inputs, archive $(du -h "$archive" | cut -f1)"
rm -rf "$merged"
