'use strict';
// Run behind a page and axe-core, by page_test.sh.
document.querySelectorAll('details').forEach(box => box.unfold && box.unfold());
setTimeout(() => axe.run().then(({violations}) => parent.postMessage('\n' + (violations.length === 0 ? 'ok       axe finds no fault'
  : violations.map(({id, nodes}) => `FAILED   axe: ${id}: ${nodes[0].html.slice(0, 150)} ${nodes[0].failureSummary.replace(/\s+/g, ' ').slice(0, 300)}`).join('\n')) + '\n', '*')), 500);
