'use strict';

/* --- Making elements ---------------------------------------------------------------------------
   Everything that is shown goes through element(), and so into text nodes and attributes: a name
   that looks like markup stays a name. Nothing here may parse HTML. */

const byId = id => document.getElementById(id);

// Controls, and marks that turn the direction of writing, would make a name look like another.
const shown = text => text.replace(/[\0-\x08\x0b-\x1f\x7f\u200e\u200f\u202a-\u202e\u2066-\u2069\ufeff]/g,
  c => '\\u' + c.charCodeAt(0).toString(16).padStart(4, '0'));

// element('p.soft', {id: 'x'}, 'text', otherElement): the classes stand behind the name. Children
// that are null or false are left out.
function element(kind, ...children) {
  const [tag, ...classes] = kind.split('.');
  const made = document.createElement(tag);
  if (classes.length > 0)
    made.className = classes.join(' ');
  const first = children[0];
  if (first && typeof first === 'object' && !(first instanceof Node) && !Array.isArray(first)) {
    for (const [name, value] of Object.entries(children.shift()))
      made.setAttribute(name, value);
  }
  for (const child of children.flat(Infinity)) {
    if (child !== null && child !== undefined && child !== false)
      made.append(child instanceof Node ? child : shown(String(child)));
  }
  return made;
}

const name = text => element('code', text.replace(/\n/g, '\\n').replace(/\t/g, '\\t'));
const figure = n => n.toLocaleString('en');
const count = (n, one, many = one + 's') => `${figure(n)} ${n === 1 ? one : many}`;
const seconds = s => s >= 10 ? `${figure(Math.round(s))} s` : s >= 1 ? `${s.toFixed(1)} s` : `${Math.round(s * 1000)} ms`;
const bar = share => {
  const made = element('span.bar', {'aria-hidden': 'true'});
  made.style.setProperty('--share', `${(100 * share).toFixed(1)}%`);
  return made;
};

// A fold makes its body when it is first opened: of 300 extensions most are never looked at.
function fold(kind, summary, makeBody, open = false) {
  const box = element(`details.${kind}`, element('summary', summary));
  box.unfold = () => {
    if (makeBody) {
      box.append(element('div.body', makeBody()));
      makeBody = null;
    }
    box.open = true;
  };
  box.addEventListener('toggle', () => box.open && box.unfold());
  if (open)
    box.unfold();
  return box;
}

function section(id, title, ...children) {
  const made = element('section', {id, 'aria-labelledby': `${id}-title`},
    element('h2', {id: `${id}-title`}, title), children);
  byId('content').append(made);
  const contents = byId('contents');
  if (!contents.firstChild)
    contents.append(element('ul'));
  contents.firstChild.append(element('li', element('a', {href: `#${id}`}, title)));
  contents.hidden = false;
  return made;
}

// The first of a list, and the others under a fold.
function shortened(list, items, limit, one, many) {
  if (items.length <= limit + 1)
    return element(list, items.map(item => item()));
  return [element(list, items.slice(0, limit).map(item => item())),
    fold('quiet', count(items.length - limit, `more ${one}`, `more ${many}`),
      () => element(list, items.slice(limit).map(item => item())))];
}

// Text of a report. In pieces, so that the browser sets only those in sight.
function logText(text) {
  const lines = text.replace(/\n$/, '').split('\n');
  const box = element('pre.log');
  for (let at = 0; at < lines.length; at += 400) {
    const piece = element('div');
    for (const line of lines.slice(at, at + 400))
      piece.append(line.startsWith('MINOR ERROR') ? element('b', line) : shown(line), '\n');
    box.append(piece);
  }
  return box;
}

// A box to type into and a choice beside it. `work` is done when a choice is made, or when nothing
// has been typed for a moment.
function filterTools(what, joint, choices, work, before, after, prefix = '') {
  const [filter, scope] = [`${prefix}filter`, `${prefix}scope`];
  const input = element('input', {type: 'search', id: filter, autocomplete: 'off', spellcheck: 'false', placeholder: 'Filter'});
  const choice = element('select', {id: scope}, choices.map(([value, text]) => element('option', {value}, text)));
  const output = element('output', {for: `${filter} ${scope}`, id: `${prefix}found`});
  let timer = 0;
  input.addEventListener('input', () => {
    clearTimeout(timer);
    timer = setTimeout(work, 150);
  });
  choice.addEventListener('change', work);
  return {input, choice, output,
    words: () => input.value.toLowerCase().split(/\s+/).filter(Boolean),
    box: element('div.tools', {role: 'search', 'aria-label': what}, before, element('span.filter',
      element('label.unseen', {for: filter}, `Filter ${what.toLowerCase()}`), input, element('label', {for: scope}, joint), choice), after, output)};
}

// What a page was opened with, or was brought to, stands behind the # of its address, so that it can
// be sent. An anchor of the contents has no "=".
const address = () => new URLSearchParams(location.hash.includes('=') ? location.hash.slice(1) : '');

function writeAddress(values) {
  const text = new URLSearchParams(Object.entries(values).filter(([, value]) => value !== '')).toString();
  history.replaceState(null, '', text === '' ? location.pathname + location.search : `#${text}`);
}

// The kinds of verdict that the data name, in their order, the worst first.
let kinds = [];
const resultOf = id => kinds.find(kind => kind.id === id) || {label: id, tone: 'bad', sign: '?'};
const rankOf = id => kinds.findIndex(kind => kind.id === id);
const sign = result => element('span.sign', {'aria-hidden': 'true'}, result.sign);

function showHead(kicker, title, ...origin) {
  document.title = `${title} – ${kicker}`;
  byId('head').append(element('p.kicker', kicker), element('h1', title), element('p.origin', origin));
}

function showFoot(data) {
  byId('foot').append(element('p', `setupmend-rehearse ${data.program.version}`,
    data.program.binary !== '' && [', running ', name(data.program.binary)],
    `. Took ${seconds(data.seconds)}. Nothing on the appliance was changed.`));
}

/* --- A site: verdict, problems, steps ---------------------------------------------------------- */

function showSite(data) {
  showHead('Rehearsal of an upgrade', data.site.name, name(data.site.tree),
    data.site.configRoot && [', configuration root ', name(data.site.configRoot)]);
  if (address().has('fleet'))
    byId('head').append(element('p.origin', element('a', {href: '../fleet.html' + (address().get('fleet') && `#${address().get('fleet')}`)}, '← Back to the fleet')));
  showVerdict(data);
  showProblems(data);
  if (data.verdict.result !== 'not-held' || data.changes.length > 0) {
    showSettings(data.ledger);
    if (data.program.binary === '')
      showSteps(data);
    showChanges(data);
  }
  section('report', 'Report', data.report === '' ? element('p', 'There is no report.')
    : fold('quiet', `mend.log, ${count(data.report.split('\n').length - 1, 'line')}`, () => logText(data.report)));
  showFoot(data);
  const led = byId(`problem-${address().get('problem')}`);
  if (led) {
    led.scrollIntoView();
    led.focus({preventScroll: true});
  }
}

function showVerdict({verdict, lacks, notes, harmless, ledger}) {
  const known = resultOf(verdict.result);
  // An up-to-date unit may have problems too.
  const result = verdict.exitStatus === 1 && known.tone === 'good' ? {...known, label: `${known.label}, with problems`, tone: 'warn', sign: '!'} : known;
  const held = verdict.result !== 'not-held';
  const files = verdict.files;
  const facts = element('dl.facts');
  const fact = (term, ...told) => facts.append(element('dt', term), element('dd', told));
  if (verdict.from !== '' || verdict.to !== '')
    fact('Version', `${verdict.from || 'not known'} → ${verdict.to || 'not known'}`);
  if (held) {
    fact('Stamp', verdict.stamped ? 'The version is stamped into linedb.'
      : `Not stamped${verdict.stampReason === '' ? '.' : `: ${verdict.stampReason}`}`);
    fact('Settings', `${figure(ledger.carried)} of ${figure(ledger.settings)} carried over as they are`, ledger.unaccounted > 0
      && element('strong', `; ${count(ledger.unaccounted, 'setting')} that no step accounts for`));
    fact('Files', `${figure(files.changed)} changed, ${figure(files.added)} added, ${figure(files.removed)} removed`);
  }
  if (verdict.nextStart.text !== '') {
    const touched = verdict.nextStart.settings;
    fact('Next start', !verdict.nextStart.changesNothing && held && element('strong', 'Look at this: '), verdict.nextStart.text,
      touched.length > 0 && fold('quiet', `What it would change (${figure(touched.length)})`,
        () => element('ul.plain', touched.map(one => element('li', name(`${one.file} ${one.section && `[${one.section}] `}${one.key}`), ': ',
          name(one.before), ' → ', name(one.after), one.note !== '' && element('span.soft', ` (${one.note})`))))));
  }
  if (harmless > 0)
    fact('Harmless', `${count(harmless, 'message')} on files that this unit never had`);
  if (lacks.length > 0) {
    fact('The tree lacks', element('ul.plain', lacks.map(({what, means}) =>
      element('li', name(what), means !== '' && `: ${means}`))));
  }
  for (const note of notes)
    fact('Note', note);
  fact('Exit status', String(verdict.exitStatus));
  byId('content').append(element(`section.verdict.tone-${result.tone}`, {id: 'verdict', 'aria-labelledby': 'verdict-title'},
    element('h2', {id: 'verdict-title'}, sign(result), result.label), element('p', verdict.summary)), facts);
}

function showProblems({problems, verdict}) {
  const total = problems.reduce((sum, problem) => sum + problem.items.length, 0);
  if (total === 0) {
    if (verdict.result !== 'not-held')
      section('problems', 'Problems', element('p', 'None.'));
    return;
  }
  section('problems', `Problems (${figure(total)})`, problems.map(problem => element('div.problem', {id: `problem-${problem.rule}`, tabindex: '-1'},
    element('h3', problem.title, ' ', element('span.number.soft', `× ${figure(problem.items.length)}`)),
    problem.means !== '' && element('p', problem.means),
    problem.action !== '' && element('p', element('strong', 'What to do: '), problem.action),
    shortened('ul.items', problem.items.map(item => () => problemItem(item)), 8, 'of this kind', 'of this kind'))));
}

function problemItem({text, file, line, reason, step}) {
  const place = [file !== '' && name(file), line > 0 && `, line ${figure(line)}`,
    reason !== '' && (file === '' ? reason : `: ${reason}`), step !== '' && element('span.soft', ` (step “${step}”)`)];
  return element('li', place.some(Boolean) && element('div', place), text !== '' && element('code.text', text));
}

function counts({changed, added, removed}) {
  const told = [[changed, 'changed'], [added, 'added'], [removed, 'removed']].filter(([n]) => n > 0)
    .map(([n, what]) => `${figure(n)} ${what}`);
  return told.length > 0 ? told.join(', ') : 'no file touched';
}

function showSteps({steps, changes}) {
  const longest = Math.max(0.001, ...steps.map(step => step.seconds));
  const list = element('ol.steps');
  for (const step of steps) {
    const busy = step.changed + step.added + step.removed > 0;
    const row = [element('span.name', step.name), element(busy ? 'span.number' : 'span.number.soft', counts(step)),
      element('span.time', bar(step.seconds / longest), element('span.number', seconds(step.seconds)))];
    const own = changes.filter(change => change.step === step.name).length;
    list.append(element(busy ? 'li.busy' : 'li', step.log === '' && own === 0 ? element('div.row', row)
      : fold('step', row, () => [own > 0 && leadTo(step.name, own),
        step.log === '' ? element('p.soft.small', 'It wrote nothing into the report.') : logText(step.log)])));
  }
  section('steps', 'Steps', element('p.soft', `In the order of the run. A filled knot is a step that touched files;
    the bar is its time.`), steps.length === 0 ? element('p', 'No step ran.')
    : [element('div.tools', foldButtons('the steps', () => [...list.querySelectorAll('details.step')])), list]);
}

function leadTo(step, own) {
  const button = element('button.more', {type: 'button'}, `See its ${count(own, 'change')}`);
  button.addEventListener('click', () => document.dispatchEvent(new CustomEvent('lead-to-step', {detail: step})));
  return button;
}

// Opening 300 extensions takes a while: it is done in slices, and the next click on one of the two
// buttons ends it. `folds` tells of the folds that there are now, so also of those just made.
function foldButtons(what, folds) {
  let run = 0;
  const button = (text, work) => {
    const made = element('button', {type: 'button'}, text, element('span.unseen', ` of ${what}`));
    made.addEventListener('click', () => work(++run));
    return made;
  };
  const unfoldSome = mine => {
    const until = performance.now() + 30;
    for (let closed; (closed = folds().filter(box => !box.open && !box.hidden)).length > 0;) {
      for (const box of closed) {
        if (performance.now() > until) {
          setTimeout(() => mine === run && unfoldSome(mine), 0);
          return;
        }
        box.unfold();
      }
    }
  };
  return element('span', button('Unfold all', unfoldSome), ' ',
    button('Fold all', () => folds().forEach(box => { box.open = false; })));
}

/* --- A site: the way of its settings ------------------------------------------------------------ */

const fates = {dropped: 'dropped', changed: 'changed', moved: 'moved', computed: 'new, computed', factory: 'new, from the factory'};

function showSettings(ledger) {
  const groups = ledger.groups.toSorted((a, b) => Object.keys(fates).indexOf(a.fate) - Object.keys(fates).indexOf(b.fate) || b.count - a.count);
  const list = element('div');
  const tools = filterTools('Settings', 'that are', [['', 'anything'], ...Object.entries(fates)], apply, null, null, 'setting-');
  const boxes = groups.map(group => {
    const content = element('div');
    const box = fold('group', [element('span.kind', fates[group.fate]), element('span', group.reason || 'No row of the table says why'),
      element('span.number.soft', count(group.count, 'setting'))], () => content);
    const texts = group.ways.map(way => [way.from, way.before, way.to, way.after].join('\n').toLowerCase());
    const unfold = box.unfold;
    const made = {group, box, content, texts, matching: group.ways, told: false};
    box.unfold = () => {
      if (!made.told)
        tellWays(made);
      unfold();
    };
    return made;
  });
  function tellWays(made) {
    made.told = true;
    const hidden = made.group.count - made.group.ways.length;
    made.content.replaceChildren(element('p.soft.small', `By ${made.group.steps.join(', then ') || 'no step'}`),
      ...[shortened('ul.items', made.matching.map(way => () => element('li', wayText(way))), firstShown, 'setting', 'settings')].flat(),
      ...(hidden > 0 ? [element('p.soft.small', `${figure(hidden)} more are left out here: --explain tells each.`)] : []));
  }
  function apply() {
    const words = tools.words();
    let room = openedByFilter;
    let found = 0;
    for (const made of boxes) {
      const isAsked = tools.choice.value === '' || tools.choice.value === made.group.fate;
      const inReason = words.every(word => made.group.reason.toLowerCase().includes(word));
      made.matching = !isAsked ? [] : made.group.ways.filter((way, at) => inReason || words.every(word => made.texts[at].includes(word)));
      made.box.hidden = made.matching.length === 0;
      found += made.matching.length;
      made.told = false;
      const open = words.length > 0 && made.matching.length > 0 && made.matching.length <= room;
      room -= open ? made.matching.length : 0;
      if (open || made.box.open)
        made.box.unfold();
    }
    tools.output.textContent = words.length === 0 && tools.choice.value === '' ? '' : found === 0 ? 'No setting matches.' : `${count(found, 'setting')}.`;
  }
  list.append(...boxes.map(({box}) => box));
  section('settings', 'Settings', element('p.soft', `${figure(ledger.carried)} settings are carried over as they are. Here is what became of
    the others, and where new ones came from; what went the same way for the same reason is told together.`),
    groups.length === 0 ? element('p', 'There are no others.') : [tools.box, list]);
}

function wayText({from, before, to, after}) {
  const valued = (place, value) => [name(place), ' = ', name(value)];
  if (from === '')
    return valued(to, after);
  return [valued(from, before), to === '' ? ' → gone' : [' → ', from === to ? name(after) : valued(to, after)]];
}

/* --- A site: its changes ----------------------------------------------------------------------- */

const firstShown = 100;       // changes of a group, at first
const openedByFilter = 60;    // changes that a filter may show without being asked
const longChange = 40;        // lines; a longer change starts folded

function showChanges(data) {
  const none = data.changes.length === 0;
  section('changes', 'Changes',
    data.program.binary !== '' && element('p', 'This rehearsal ran ', name(data.program.binary), `. Which step did what is not
      known of a program that is run from outside: the changes are told by file and by extension only.`),
    none ? element('p', 'No file was changed.') : element('p.soft', `${count(data.changes.length + data.leftOut, 'different change')} in
      ${count(data.fileCount, 'file')}. Equal changes are told once, with * for the directory of an extension.`,
    data.leftOut > 0 && ` Of those in one place the first are told here; ${count(data.leftOut, 'other', 'others')} are left out, which --json has.`),
    none ? null : new Changes(data).parts);
}

// The changes in groups: by step, by file or by extension. An entry is a change as one group tells
// it, with all its files or with those of one extension.
class Changes {
  constructor(data) {
    this.data = data;
    this.told = data.program.binary === '';
    this.extensions = new Set(data.extensions);
    this.lowered = data.files.map(file => file.toLowerCase());
    this.texts = new Map(data.changes.map(change => [change,
      [change.where, change.note, change.step, change.kind, change.pattern, ...change.lines].join('\n').toLowerCase()]));
    this.list = element('div');
    const ways = [this.told && ['step', 'By step'], ['file', 'By file'], this.extensions.size > 0 && ['extension', 'By extension']];
    this.views = viewChoice(ways.filter(Boolean), () => this.showView());
    this.tools = filterTools('Changes', 'in', [['', 'anything'], ['file', 'file'], ['extension', 'extension'], ['text', 'text']],
      () => this.apply(), this.views.box,
      foldButtons('the changes', () => [...this.list.querySelectorAll('details.group, details.change')]));
    this.parts = [this.tools.box, this.list];
    this.showView();
    document.addEventListener('lead-to-step', ({detail}) => this.leadTo(detail));
  }

  // The extension in whose directory a file lies: where the pattern has its star.
  extensionOf(change, file) {
    const star = change.pattern.split('/').indexOf('*');
    const part = star < 0 ? '' : this.data.files[file].split('/')[star];
    return this.extensions.has(part) ? part : '';
  }

  byStep() {
    const groups = new Map(this.data.steps.map(step => [step.name, []]));
    for (const change of this.data.changes)
      into(groups, change.step, {change, files: change.files});
    return groups;
  }

  byFile() {
    const groups = new Map();
    for (const change of this.data.changes)
      into(groups, change.pattern, {change, files: change.files});
    return new Map([...groups].sort(([a], [b]) => a < b ? -1 : 1));
  }

  byExtension() {
    const groups = new Map(['', ...this.data.extensions].map(extension => [extension, []]));
    for (const change of this.data.changes) {
      const own = new Map();
      for (const file of change.files)
        into(own, this.extensionOf(change, file), file);
      for (const [extension, files] of own)
        into(groups, extension, {change, files, extension});
    }
    return groups;
  }

  showView() {
    const [grouped, title] = {
      step: [() => this.byStep(), key => key || 'Outside the steps'],
      file: [() => this.byFile(), key => name(key)],
      extension: [() => this.byExtension(), key => key === '' ? 'Files of no extension' : ['Extension ', name(key)]],
    }[this.views.current()];
    this.groups = [...grouped()].filter(([, entries]) => entries.length > 0)
      .map(([key, entries]) => this.makeGroup(key, title(key), entries));
    this.list.replaceChildren(...this.groups.map(group => group.box));
    this.apply();
  }

  makeGroup(key, title, entries) {
    const group = {key, entries, matching: entries, limit: firstShown, made: new Map(), byFilter: false,
      count: element('span.number.soft'), content: element('div')};
    group.box = fold('group', [element('h3', title), group.count], () => group.content);
    group.box.firstChild.addEventListener('click', () => { group.byFilter = false; });
    const unfold = group.box.unfold;
    group.box.unfold = () => {
      if (!group.content.firstChild)
        this.tell(group);
      unfold();
    };
    return group;
  }

  // Tells a group anew from what matches. A change that was made before comes back as it was left.
  tell(group) {
    const parts = group.matching.slice(0, group.limit).map(entry => {
      if (!group.made.has(entry))
        group.made.set(entry, this.changeBox(entry));
      return group.made.get(entry);
    });
    const more = Math.min(500, group.matching.length - parts.length);
    if (more > 0) {
      const button = element('button.more', {type: 'button'}, `Show ${figure(more)} more of ${figure(group.matching.length)}`);
      button.addEventListener('click', () => {
        group.limit += more;
        this.tell(group);
      });
      parts.push(button);
    }
    group.content.replaceChildren(...parts);
  }

  changeBox({change, files, extension}) {
    const others = extension === undefined ? 0 : change.count - files.length;
    const all = change.count - others;
    const untold = change.count - change.files.length;
    const single = all === 1;
    const summary = [element(`span.kind.${change.kind}`, change.kind), !single && `in ${count(all, 'file')} `,
      name(single ? this.data.files[files[0]] : change.pattern), change.where !== '' && [', ', change.where],
      change.note !== '' && element('span.soft', ` (${change.note})`),
      this.told && extension !== undefined && element('span.soft.small', ` – step “${change.step}”`)];
    return fold('change', summary, () => [
      change.lines.length > 0 && element('pre.diff', change.lines.some(line => line.length > 30) ? {tabindex: '0'} : {}, element('code', change.lines.map(diffLine))),
      change.lines.length === 0 && change.note === '' && element('p.soft.small', 'Without content.'),
      change.count > 1 && fold('quiet', others > 0 ? `Equal in ${count(others, 'other file')}` : `The ${count(all, 'file')}`,
        () => element('ul.names', change.files.filter(file => others === 0 || !files.includes(file))
          .map(file => element('li', name(this.data.files[file]))),
        untold > 0 && element('li.soft', `and ${figure(untold)} more, which --json has`))),
    ], change.lines.length <= longChange);
  }

  matches({change, files}, word, scope, typed) {
    if (scope === 'extension') {
      const exactly = this.extensions.has(typed);
      return files.map(file => this.extensionOf(change, file))
        .some(own => own !== '' && (exactly ? own === typed : own.toLowerCase().startsWith(word)));
    }
    return (scope !== 'file' && this.texts.get(change).includes(word))
      || (scope !== 'text' && files.some(file => this.lowered[file].includes(word)));
  }

  apply() {
    const words = this.tools.words();
    const scope = this.tools.choice.value;
    const typed = this.tools.input.value.trim();
    const found = new Set();
    let room = openedByFilter;
    for (const group of this.groups) {
      group.matching = group.entries.filter(entry => words.every(word => this.matches(entry, word, scope, typed)));
      group.matching.forEach(entry => found.add(entry.change));
      const some = group.matching.length;
      const open = words.length > 0 && some > 0 && some <= room;
      room -= open ? some : 0;
      this.refresh(group, open);
    }
    this.tools.output.textContent = words.length === 0 ? '' : found.size === 0 ? `No change matches “${typed}”.`
      : `${figure(found.size)} of ${count(this.data.changes.length, 'change')} match${found.size === 1 ? 'es' : ''} “${typed}”.`;
    highlight(this.list, scope === 'extension' ? [] : words);
  }

  // What the filter opened it also closes; what the reader opened stays open.
  refresh(group, open) {
    const [some, all] = [group.matching.length, group.entries.length];
    group.box.hidden = some === 0;
    group.count.textContent = `${some === all ? '' : `${figure(some)} of `}${count(all, 'change')}`;
    group.limit = firstShown;
    group.content.replaceChildren();
    if (open && !group.box.open)
      group.byFilter = true;
    else if (!open && group.byFilter)
      group.box.open = group.byFilter = false;
    if (open || group.box.open)
      group.box.unfold();
  }

  leadTo(step) {
    this.tools.input.value = '';
    this.views.first();
    this.showView();
    const {box} = this.groups.find(({key}) => key === step);
    box.unfold();
    // Once more when what came into sight has got its real height.
    box.scrollIntoView();
    setTimeout(() => box.scrollIntoView(), 50);
    box.firstChild.focus({preventScroll: true});
  }
}

function into(groups, key, entry) {
  if (groups.has(key))
    groups.get(key).push(entry);
  else
    groups.set(key, [entry]);
}

function diffLine(line) {
  return element(line.startsWith('+') ? 'ins' : line.startsWith('-') ? 'del' : 'span', line);
}

function viewChoice(ways, work) {
  const radios = ways.map(([value], at) => element('input', {type: 'radio', name: 'view', value, ...(at === 0 && {checked: ''})}));
  radios.forEach(radio => radio.addEventListener('change', work));
  return {
    box: element('fieldset', element('legend.unseen', 'Show the changes'),
      radios.map((radio, at) => element('label', radio, ways[at][1]))),
    current: () => radios.find(radio => radio.checked).value,
    first: () => { radios[0].checked = true; },
  };
}

// Marks what was found, where the browser can without touching the document.
function highlight(box, words) {
  if (!CSS.highlights)
    return;
  const ranges = [];
  const walker = document.createTreeWalker(box, NodeFilter.SHOW_TEXT);
  for (let node; words.length > 0 && ranges.length < 2000 && (node = walker.nextNode());) {
    const text = node.data.toLowerCase();
    for (const word of words) {
      for (let at = text.indexOf(word); at >= 0 && at + word.length <= node.length; at = text.indexOf(word, at + word.length))
        ranges.push(new StaticRange({startContainer: node, startOffset: at, endContainer: node, endOffset: at + word.length}));
    }
  }
  CSS.highlights.set('found', new Highlight(...ranges));
}

/* --- A fleet ----------------------------------------------------------------------------------- */

function showFleet(data) {
  const total = data.sites.length;
  showHead('Rehearsal of a fleet', count(total, 'site'), `Each site was upgraded on a copy, in ${seconds(data.seconds)} in all.`);
  const classes = data.comparison.kinds;
  const isCompared = data.comparison.baseline.out !== '';
  const sites = new SiteTable(data, isCompared ? classes : []);
  section('verdict', 'Verdict', total === 0 ? element('p', 'There is no site in this fleet.') : [shares(kinds, data.counts),
    data.firmware.path !== '' && element('p', 'Firmware ', name(data.firmware.path), data.firmware.version !== '' && ` (${data.firmware.version})`, '.'),
    data.findings.map(finding => element('div.problem', element('h3', finding.title), element('p', finding.text),
      element('p', element('strong', 'What to do: '), finding.action))),
    data.notes.length > 0 && element('ul.plain.soft', data.notes.map(note => element('li', note)))]);
  if (isCompared)
    showComparison(data, sites);
  section('problems', 'Problems', data.problems.length === 0 ? element('p', 'No site has a problem.')
    : [element('p.soft', 'The gravest first, and of those the most widespread; the same problem on many sites is told once.'),
      shortened('div', data.problems.map((problem, at) => () => fleetProblem(problem, at, sites)), 30, 'problem', 'problems')]);
  if (data.waivers.length > 0)
    section('waivers', 'Known and waived', element('ul.items', data.waivers.map(waiver => element('li',
      element('strong', [waiver.rule, waiver.file, waiver.setting, waiver.site].filter(Boolean).join(', ')), `: ${waiver.reason} (${waiver.owner}, `,
      waiver.isExpired ? element('strong', `out of date since ${waiver.until}`) : `until ${waiver.until}`, `) – ${figure(waiver.count)} on ${count(waiver.sites, 'site')}`))));
  if (total > 0)
    sites.show();
  const most = Math.max(1, total);
  section('fleet-steps', 'Steps', element('p.soft', `On how many sites each step touched files, in the order of the run. A step
    that stands out here may fire where it should not.`), data.steps.length === 0 ? element('p', data.program.binary === '' ? 'No step ran.' : 'The steps of a program that is run from outside are not known.')
    : sortableTable([
      {head: 'Step', value: step => step.name, cell: step => step.name},
      {head: 'Sites', phone: true, right: true, value: step => step.sites, cell: step => figure(step.sites)},
      {head: 'Share', kind: 'bars', value: step => step.sites, cell: step => bar(step.sites / most)},
      {head: 'Files', phone: true, right: true, value: step => step.files, cell: step => figure(step.files)},
    ], data.steps).table);
  showFoot(data);
}

// How many sites are of which kind, as a bar and in words.
function shares(all, sites) {
  const present = all.filter(({id}) => sites[id] > 0);
  return [element('div.share', {'aria-hidden': 'true'}, present.map(({id, tone}) => {
    const part = element(`span.tone-${tone}`);
    part.style.setProperty('--share', sites[id]);
    return part;
  })), element('ul.legend', present.map(kind => element(`li.tone-${kind.tone}`,
    element('span.label', sign(kind), `${kind.label}: ${figure(sites[kind.id])}`))))];
}

function showComparison({comparison}, sites) {
  const side = ({out, version, binary, firmware, target}) => [name(out), ` (setupmend ${version}`, binary !== '' && [', ', name(binary)],
    firmware !== '' && [', firmware ', name(firmware)], target !== '' && `, to ${target}`, ')'];
  section('comparison', 'Comparison', element('p', element('strong', comparison.summary)), shares(comparison.kinds, comparison.counts),
    element('p.soft', side(comparison.baseline), ' → ', side(comparison.candidate)),
    comparison.differences.length === 0 ? element('p', 'The results do not differ.')
      : shortened('div', comparison.differences.map((difference, at) => () => fleetDifference(difference, at, sites)), 20, 'difference', 'differences'));
}

function fleetDifference(difference, at, sites) {
  const {file, section: part, key, values, more} = difference;
  const place = [file, part && `[${part}]`, key].filter(Boolean).join(' ');
  return element('div.problem', element('h3', difference.title || place, ' ', element('span.number.soft', `on ${count(difference.sites.length, 'site')}`)),
    difference.title !== '' && place !== '' && element('p', name(place)), difference.text !== '' && element('p', difference.text),
    values.length > 0 && element('ul.plain', values.map(({before, after, sites: hit}) =>
      element('li', name(before), ' → ', name(after), element('span.soft', ` on ${count(hit, 'site')}`))), more > 0 && element('li.soft', `and ${figure(more)} other pairs`)),
    difference.steps.length > 0 && element('p.soft', `By ${difference.steps.join(', then ')}`),
    difference.action !== '' && element('p', element('strong', 'What to do: '), difference.action),
    sites.leadTo(difference.sites, {difference: at}, difference.rule));
}

function fleetProblem(problem, at, sites) {
  return element('div.problem', element('h3', problem.title, ' ', element('span.number.soft', `on ${count(problem.sites.length, 'site')}`)),
    problem.text !== '' && element('p', element('code', problem.text)), problem.means !== '' && element('p', problem.means),
    problem.action !== '' && element('p', element('strong', 'What to do: '), problem.action),
    sites.leadTo(problem.sites, {problem: at}, problem.rule));
}

// The rows of a fleet, with what they are filtered by: words, a verdict, a class of the comparison,
// and a problem or a difference that led here. All of it stands in the address.
class SiteTable {
  constructor(data, classes) {
    this.data = data;
    this.classes = classes;
    this.led = {problem: '', difference: ''};
  }

  // A path, so never a scheme: ./ keeps a site that is called javascript: from being one. The way
  // back, and what to look at there, stand behind it.
  link({name: text, page}, rule = '') {
    const label = element('bdi', text);
    if (page === '')
      return label;
    const made = element('a', {href: './' + page.split('/').map(encodeURIComponent).join('/')}, label);
    const path = made.getAttribute('href');
    const lead = () => made.setAttribute('href', `${path}#${new URLSearchParams({fleet: address().toString(), ...(rule !== '' && {problem: rule})})}`);
    lead();
    for (const event of ['pointerdown', 'focus', 'click'])  // as the address is by then
      made.addEventListener(event, lead);
    return made;
  }

  // The first sites that have something, and a button that shows all of them below.
  leadTo(numbers, led, rule) {
    const first = 5;
    const button = element('button.more', {type: 'button'}, `Show the ${figure(numbers.length)} sites`);
    button.addEventListener('click', () => {
      this.lead({problem: '', difference: '', ...led});
      byId('sites').scrollIntoView();
      byId('filter').focus({preventScroll: true});
    });
    return element('p', numbers.slice(0, first).map((number, at) => [at > 0 && ', ', this.link(this.data.sites[number], rule)]),
      numbers.length > first && [` and ${figure(numbers.length - first)} more. `, button]);
  }

  lead(led) {
    this.led = led;
    this.tools.input.value = '';
    for (const select of [this.tools.choice, this.byClass])
      select.value = '';
    this.apply();
  }

  show() {
    const {data, classes} = this;
    const grave = new Set(kinds.filter(({tone}) => tone === 'bad').map(({id}) => id));
    const touched = ({files}) => files.changed + files.added + files.removed;
    const classOf = id => classes.find(one => one.id === id) || {label: id, tone: 'bad', sign: '?'};
    const label = result => element(`span.label.tone-${result.tone}`, sign(result), result.label);
    const classRank = site => classes.findIndex(({id}) => id === site.comparedClass);
    this.table = sortableTable([
      {head: 'Site', value: site => site.name, cell: site => [this.link(site, this.rule), grave.has(site.result) && element('small', site.summary),
        site.note !== '' && element('small', site.note)]},
      classes.length > 0 && {head: 'Compared', kind: 'wide', isRank: true, value: classRank, cell: site => label(classOf(site.comparedClass))},
      {head: 'From', kind: 'version', phone: true, value: site => site.from, cell: site => site.from || '–'},
      {head: 'To', kind: 'version', phone: true, value: site => site.to, cell: site => site.to || '–'},
      {head: 'Verdict', kind: 'wide', isRank: true, value: site => rankOf(site.result), cell: site => label(resultOf(site.result))},
      {head: 'Problems', phone: true, right: true, value: site => site.problems, cell: site => site.problems === 0 ? '–' : element('strong', figure(site.problems))},
      {head: 'Files changed', phone: true, right: true, value: touched, cell: site => figure(touched(site))},
      {head: 'Seconds', phone: true, right: true, value: site => site.seconds, cell: site => site.seconds.toFixed(1)},
    ].filter(Boolean), data.sites);
    this.table.table.classList.add('fixed');
    const present = kinds.map(({id}) => id).filter(id => data.counts[id] > 0);
    this.byClass = element('select', {id: 'class', 'aria-label': 'Class of the comparison'}, [['', 'every class'],
      ...classes.filter(({id}) => data.comparison.counts[id] > 0).map(({id, label: text}) => [id, text])].map(([value, text]) => element('option', {value}, text)));
    this.byClass.addEventListener('change', () => this.apply());
    this.ledBy = element('span.led');
    this.tools = filterTools('Sites', 'with', [['', 'every verdict'], ...present.map(id => [id, resultOf(id).label])], () => this.apply(),
      null, [classes.length > 0 && this.byClass, this.ledBy]);
    this.texts = data.sites.map(site => [site.name, site.from, site.to, resultOf(site.result).label, site.summary, site.note].join('\n').toLowerCase());
    section('sites', 'Sites', this.tools.box, this.table.table);
    this.readAddress();
    addEventListener('hashchange', () => location.hash.includes('=') && this.readAddress());
  }

  readAddress() {
    const given = address();
    this.led = {problem: given.get('problem') || '', difference: given.get('difference') || ''};
    this.tools.input.value = given.get('words') || '';
    this.tools.choice.value = given.get('verdict') || '';
    this.byClass.value = given.get('class') || '';
    this.apply();
    if (given.size > 0)
      byId('sites').scrollIntoView();
  }

  // The sites that a problem or a difference led to; null for all.
  wanted() {
    const {problem, difference} = this.led;
    const from = problem !== '' ? this.data.problems[problem] : difference !== '' ? this.data.comparison.differences[difference] : null;
    this.rule = from ? from.rule : '';
    const clear = element('button', {type: 'button'}, 'All sites again');
    clear.addEventListener('click', () => this.lead({problem: '', difference: ''}));
    this.ledBy.replaceChildren(...(from ? [element('span', `Sites with “${shown(from.title || from.key || from.file)}” `), clear] : []));
    return from ? new Set(from.sites) : null;
  }

  apply() {
    const words = this.tools.words();
    const [verdict, kind] = [this.tools.choice.value, this.byClass.value];
    const wanted = this.wanted();
    const found = [];
    this.data.sites.forEach((site, at) => {
      if ((verdict === '' || site.result === verdict) && (kind === '' || site.comparedClass === kind)
        && (wanted === null || wanted.has(at)) && words.every(word => this.texts[at].includes(word)))
        found.push(at);
    });
    const all = this.data.sites.length;
    writeAddress({words: this.tools.input.value.trim(), verdict, class: kind, ...this.led});
    this.table.show(found);
    this.tools.output.textContent = found.length === all ? '' : found.length === 0 ? 'No site matches.' : `${figure(found.length)} of ${count(all, 'site')}.`;
  }
}

// A table in the order given. A click on a head sorts: numbers the greatest first, text from A on;
// another click turns it round. Rows that are equal stay in the order given. Ten thousand rows are
// made in blocks, and a block has rows only while it is near what is seen.
function sortableTable(columns, items) {
  const inBlock = 50;
  const rowHeight = 38;  // until one was seen
  const table = element('table');
  const row = item => element('tr', columns.map(({cell, kind, right, phone, head}) =>
    element('td' + (right ? '.number.right' : '') + (kind ? `.${kind}` : ''), phone ? {'data-head': head} : {}, cell(item))));
  let shownItems = items.map((item, at) => at);
  let order = (a, b) => a - b;
  let blocks = [];
  const fill = block => {
    if (!block.isFilled)
      block.body.replaceChildren(...block.items.map(at => row(items[at])));
    block.isFilled = true;
  };
  const empty = block => {
    const height = block.isFilled ? block.body.getBoundingClientRect().height : block.items.length * rowHeight;
    const gap = element('td', {colspan: columns.length});
    gap.style.height = `${height}px`;
    block.body.replaceChildren(element('tr.gap', {'aria-hidden': 'true'}, gap));
    block.isFilled = false;
  };
  const watch = new IntersectionObserver(entries => entries.forEach(({target, isIntersecting}) => {
    const block = blocks.find(({body}) => body === target);
    if (block && isIntersecting !== block.isFilled)
      (isIntersecting ? fill : empty)(block);
  }), {rootMargin: '1500px'});
  const tell = () => {
    watch.disconnect();
    blocks.forEach(({body}) => body.remove());
    const sorted = shownItems.toSorted(order);
    blocks = [];
    for (let at = 0; at < sorted.length; at += inBlock)
      blocks.push({body: element('tbody'), items: sorted.slice(at, at + inBlock), isFilled: false});
    blocks.forEach((block, at) => (at === 0 ? fill : empty)(block));
    table.append(...blocks.map(({body}) => body));
    if (blocks.length > 1)
      blocks.forEach(({body}) => watch.observe(body));
  };
  const heads = columns.map(column => {
    const button = element('button', {type: 'button'}, column.head);
    const head = element((column.right ? 'th.right' : 'th') + (column.kind ? `.${column.kind}` : ''), {scope: 'col', 'aria-sort': 'none'}, button);
    button.addEventListener('click', () => {
      const values = items.map(column.value);
      const natural = typeof values[0] === 'number' && !column.isRank ? -1 : 1;
      const turn = head.getAttribute('aria-sort') === (natural < 0 ? 'descending' : 'ascending') ? -natural : natural;
      const {compare} = new Intl.Collator('en', {numeric: true});
      order = (a, b) => turn * (typeof values[a] === 'number' ? values[a] - values[b] : compare(values[a], values[b])) || a - b;
      heads.forEach(other => other.setAttribute('aria-sort', 'none'));
      head.setAttribute('aria-sort', turn < 0 ? 'descending' : 'ascending');
      tell();
    });
    return head;
  });
  table.append(element('thead', element('tr', heads)));
  addEventListener('beforeprint', () => blocks.forEach(fill));
  tell();
  return {table, show: found => {
    shownItems = found;
    tell();
  }};
}

/* --- The data that this page holds ------------------------------------------------------------- */

function start() {
  const shows = {'setupmend-rehearsal/2': showSite, 'setupmend-fleet/3': showFleet};
  const text = byId('data').textContent.trim();
  let trouble = '';
  if (text === '' || text.startsWith('@')) {
    trouble = 'This page holds no data. setupmend-rehearse --html fills it.';
  } else {
    try {
      const data = JSON.parse(text);
      if (Object.hasOwn(shows, data.format)) {
        kinds = data.kinds;
        shows[data.format](data);
      } else {
        trouble = `This page does not know data of the format “${data.format}”.`;
      }
    } catch (error) {
      trouble = `The data of this page cannot be shown: ${error.message}`;
      console.error(error);
    }
  }
  if (trouble !== '') {
    byId('head').append(element('h1', 'Rehearsal of an upgrade'));
    byId('content').prepend(element('p', {role: 'alert'}, trouble));
  }
}

start();
