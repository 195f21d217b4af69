#!/usr/bin/env python3
"""Search over 100,000 lines of scrollback: Termkit against xterm.js's search addon.

Both get the sgr corpus at 200x50 with 100,000 lines of scrollback and find every match of
one word, plainly and by regular expression: cold (nothing cached) and again after one new
line. Termkit's side is the Google Benchmark binary (BM_Search*, BM_Selection*); the peer is
search_peer/xterm_search_bench.js, with its npm packages pinned in search_peer's lock file.
Both run in this one process's run, one after the other, and the ratios are printed.

  python3 search_compare.py --build BUILD_DIR [--corpus FILE]
"""
import argparse
import json
import os
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
PEER = os.path.join(HERE, "search_peer")
WORD, PATTERN = "latency", "lat[a-z]+cy"


def termkit(build, corpus):
    binary = os.path.join(build, "desktop_app", "Benchmarks", "termkit_benchmarks")
    out = subprocess.run([binary, "--benchmark_filter=Search|Selection", "--benchmark_format=json"],
                         env={**os.environ, "TERMKIT_BENCH_CORPUS": corpus},
                         check=True, capture_output=True, text=True).stdout
    # Milliseconds of wall time per benchmark, by name, and the matches each counted.
    benchmarks = json.loads(out)["benchmarks"]
    return ({b["name"]: b["real_time"] for b in benchmarks},
            {b["name"]: int(b["matches"]) for b in benchmarks if "matches" in b})


def peer(corpus):
    if not os.path.isdir(os.path.join(PEER, "node_modules")):
        subprocess.run(["npm", "ci", "--no-audit", "--no-fund"], cwd=PEER, check=True)
    out = subprocess.run(["node", "xterm_search_bench.js", corpus, "200", "50", "100000", WORD, PATTERN],
                         cwd=PEER, check=True, capture_output=True, text=True).stdout
    return json.loads(out.strip().splitlines()[-1])


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", default="build")
    parser.add_argument("--corpus", default=os.path.expanduser("~/.cache/termbench/corpus/sgr.bin"))
    args = parser.parse_args()
    if not os.path.exists(args.corpus):
        sys.exit("no corpus: run ../shared/bench/peers/setup.sh first, or pass --corpus")
    ours, our_counts = termkit(args.build, args.corpus)
    theirs = peer(args.corpus)
    rows = [
        ("findAll plain, cold", ours["BM_SearchFindAllCold/regex:0"], theirs["plain_cold_ms"]),
        ("findAll regex, cold", ours["BM_SearchFindAllCold/regex:1"], theirs["regex_cold_ms"]),
        ("findAll plain, after one new line", ours["BM_SearchFindAllWarmAfterOneLine/regex:0"],
         theirs["plain_warm_after_one_line_ms"]),
        ("findAll regex, after one new line", ours["BM_SearchFindAllWarmAfterOneLine/regex:1"],
         theirs["regex_warm_after_one_line_ms"]),
    ]
    print(f"{'case':38} {'termkit ms':>11} {'xterm.js ms':>12} {'ratio':>8}")
    for name, a, b in rows:
        print(f"{name:38} {a:11.3f} {b:12.3f} {b / a:7.1f}x")
    cold, warm = ours["BM_SearchFindAllCold/regex:0"], ours["BM_SearchFindAllWarmAfterOneLine/regex:0"]
    print(f"termkit cold / warm-after-one-line (plain): {cold / warm:.0f}x")
    print(f"selection text of 10,000 lines: {ours['BM_SelectionText10000Lines']:.3f} ms")
    print(f"matches on the corpus alone: termkit plain {our_counts['BM_SearchFindAllCold/regex:0']}, "
          f"regex {our_counts['BM_SearchFindAllCold/regex:1']}; "
          f"peer plain {theirs['plain_count']}, regex {theirs['regex_count']}; lines {theirs['lines']}")


if __name__ == "__main__":
    main()
