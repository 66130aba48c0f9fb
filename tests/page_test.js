'use strict';
// Run behind a page, by page_test.sh.
const told = [];
const check = (what, holds) => told.push((holds ? 'ok       ' : 'FAILED   ') + what);
const all = selector => [...document.querySelectorAll(selector)];
const seen = selector => all(selector).filter(found => found.checkVisibility());
const pause = () => new Promise(done => setTimeout(done, 400));
const click = text => pause(all('button').findLast(button => button.textContent.startsWith(text)).click());
const data = JSON.parse(document.getElementById('data').textContent);
const filter = async (text, scope = '') => {
  document.getElementById('scope').value = scope;
  document.getElementById('filter').value = text;
  await pause(document.getElementById('filter').dispatchEvent(new Event('input')));
  return document.getElementById('found').textContent;
};
const settings = text => {
  document.getElementById('setting-filter').value = text;
  return pause(document.getElementById('setting-filter').dispatchEvent(new Event('input')));
};
async function site() {
  check('name, summary and steps are there', all('h1')[0].textContent === data.site.name
    && all('.verdict')[0].textContent.includes(data.verdict.summary) && all('.steps > li').length === data.steps.length);
  const first = all('#changes .group')[0];
  check('a fold is empty until it opens', all('.change').length === 0);
  for (const open of [true, false]) {
    await pause(first.firstChild.click());
    check(`a fold ${open ? 'opens' : 'closes'}`, first.open === open && (seen('.change').length > 0) === open);
  }
  const path = data.files[Math.floor(data.files.length / 2)];
  const hits = data.changes.filter(({files}) => files.some(file => data.files[file].includes(path))).length;
  check('the filter finds a file', (await filter(path, 'file')).startsWith(`${hits} of `) && seen('.change').length === hits);
  check('the filter says when nothing matches', /^No change/.test(await filter('no such text')) && seen('#changes .group').length === 0);
  check('an empty filter shows all, folded as before', await filter('') === '' && seen('#changes .group').length > 0 && !first.open);
  document.querySelector('[value=extension]').click();
  const name = data.extensions.find(extension => extension.includes('<'));
  await filter(name, 'extension');
  check('a name with markup is text', seen('#changes .group h3').map(title => title.textContent).join() === `Extension ${name}`);
  await click('Fold all', await filter(''));
  check('all fold', !all('#changes .group').some(fold => fold.open));
  await click('Unfold all');
  check('all unfold', all('#changes .group, .change').every(fold => fold.open) && seen('ins').length > 0);
  const wanted = data.ledger.groups.flatMap(({ways}) => ways).find(({before}) => before.length > 8);
  await settings(wanted.before);
  check('the way of a setting is found by its value', seen('#settings li').length > 0
    && seen('#settings li').every(item => item.textContent.toLowerCase().includes(wanted.before.toLowerCase())));
  await settings('nowhere to be found');
  check('and none when there is none', seen('#settings .group').length === 0);
  check('nothing in the data became an element', all('script').length === 3 && all('img, iframe, main i').length === 0);
}
async function fleet() {
  const rows = () => all('#sites tbody tr:not(.gap)');  // a block of 50, and those near it
  check('a row a site, in the order given', rows().length >= Math.min(50, data.sites.length)
    && rows().map(row => row.querySelector('bdi').textContent).join() === data.sites.slice(0, rows().length).map(({name}) => name).join());
  const last = data.sites.at(-1).name;
  await filter(last);
  check('the filter finds a site', rows().length > 0 && rows().every(row => row.textContent.includes(last)));
  check('the filter says when nothing matches', await filter('no such site') === 'No site matches.' && rows().length === 0);
  await click('Seconds', await filter(''));
  const took = rows().map(row => Number(row.lastChild.textContent));
  check('sorted by seconds', all('[aria-sort=descending]').length === 1 && took.join() === took.toSorted((a, b) => b - a).join());
  check('each step and problem is told once', all('#fleet-steps tbody tr').length === data.steps.length
    && (data.problems.length > 31 || all('#problems .problem').length === data.problems.length));
  const problem = data.problems.findIndex(({sites}) => sites.length > 5);
  if (problem >= 0) {
    await click(`Show the ${data.problems[problem].sites.length.toLocaleString('en')} sites`);
    check('a problem leads to its sites', rows().length >= Math.min(50, data.problems[problem].sites.length)
      && new URLSearchParams(location.hash.slice(1)).get('problem') === String(problem));
    const led = new URL(rows()[0].querySelector('a').href).hash.slice(1);
    check('and a site back to them, and to its place', new URLSearchParams(led).get('fleet') === `problem=${problem}`
      && new URLSearchParams(led).get('problem') === data.problems[problem].rule);
    location.hash = '#verdict=' + data.sites[0].result;
    await pause();
    check('the address filters', rows().length >= Math.min(50, data.counts[data.sites[0].result])
      && rows().every(row => row.textContent.includes(data.kinds.find(({id}) => id === data.sites[0].result).label)));
    location.hash = '#words=';
    await pause();
  }
  check('only what is seen is in the document', rows().length <= 150 || data.sites.length < 1000);
  all('#sites a').forEach(link => told.push(`link ${link.getAttribute('href').replace(/#.*/, '')}`));
}
(data.sites ? fleet() : site()).catch(error => check(error.stack, false)).finally(() => {
  check('nothing is wider than a phone', innerWidth === 360 && document.documentElement.scrollWidth <= 360);
  parent.postMessage(`\n${told.join('\n')}\n`, '*');
});
