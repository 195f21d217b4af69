// The peer of Termkit's search benchmark: xterm.js's search addon over its headless
// terminal, on the same corpus, size and scrollback.
//
//   node xterm_search_bench.js FILE COLS ROWS SCROLLBACK WORD REGEX
//
// The headless terminal has no selection and no decorations, which the addon calls; the
// few methods below stand in for them and do no work, so the timings are the addon's own
// search. "find all" is the addon's highlight-all pass (decorations on, resultCount out);
// "warm" repeats it after one more line has been written.
// Prints one JSON line of medians in milliseconds.
'use strict';
const fs = require('fs');
const { Terminal } = require('./node_modules/@xterm/headless');
const { SearchAddon } = require('./node_modules/@xterm/addon-search');

const [file, cols, rows, scrollback, word, regex] = [process.argv[2], +process.argv[3], +process.argv[4],
  +process.argv[5], process.argv[6], process.argv[7]];
const REPEATS = 5;
const CHUNK = 64 * 1024;

const term = new Terminal({ cols, rows, scrollback, allowProposedApi: true });
let selection;
term.select = (column, row, length) => {
  const end = row * cols + column + length;
  selection = { start: { x: column, y: row }, end: { x: end % cols, y: Math.floor(end / cols) } };
};
term.getSelectionPosition = () => selection;
term.clearSelection = () => { selection = undefined; };
term.hasSelection = () => selection !== undefined;
term.scrollLines = () => {};
term.scrollToLine = () => {};
const noEvent = () => ({ dispose() {} });
term.registerDecoration = () => ({ onRender: noEvent, onDispose: noEvent, dispose() {}, marker: { line: 0 } });

const search = new SearchAddon({ highlightLimit: 1000000 });
term.loadAddon(search);
let count = 0;
search.onDidChangeResults((e) => { count = e.resultCount; });
const decorations = { matchOverviewRuler: '#888', activeMatchColorOverviewRuler: '#fff' };

function median(xs) { const s = [...xs].sort((a, b) => a - b); return s[Math.floor(s.length / 2)]; }
function timed(fn) { const t0 = process.hrtime.bigint(); fn(); return Number(process.hrtime.bigint() - t0) / 1e6; }
function writeAll(data) { return new Promise((resolve) => {
  for (let off = 0; off < data.length; off += CHUNK) {
    const last = off + CHUNK >= data.length;
    term.write(data.subarray(off, off + CHUNK), last ? resolve : undefined);
  }
}); }

(async () => {
  await writeAll(fs.readFileSync(file));
  const out = { peer: 'xterm.js search addon', lines: term.buffer.active.length };
  const cases = [['plain', word, { decorations }], ['regex', regex, { regex: true, decorations }]];
  // The counts on the corpus alone, the buffer Termkit's cold search reads: the timed runs
  // below each add lines, which push the oldest out of the full ring.
  for (const [name, needle, options] of cases) {
    search.clearDecorations();
    search.findNext(needle, options);
    out[name + '_count'] = count;
  }
  for (const [name, needle, options] of cases) {
    const cold = [];
    const warm = [];
    for (let i = 0; i < REPEATS; i++) {
      // clearDecorations forgets the term, so the next findNext finds and highlights every
      // match again; a line feed drops the addon's line cache, so that pass is cold.
      await writeAll(Buffer.from('one more line\r\n'));
      search.clearDecorations();
      cold.push(timed(() => search.findNext(needle, options)));
      // The same after one new line: what a find bar left open pays as output arrives.
      await writeAll(Buffer.from('one more line with ' + word + '\r\n'));
      search.clearDecorations();
      warm.push(timed(() => search.findNext(needle, options)));
    }
    out[name + '_cold_ms'] = +median(cold).toFixed(3);
    out[name + '_warm_after_one_line_ms'] = +median(warm).toFixed(3);
  }
  console.log(JSON.stringify(out));
})();
