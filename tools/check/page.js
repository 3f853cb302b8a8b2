'use strict';
(() => {
  const form = document.getElementById('tools');
  if (form === null) return;
  const [find, show, order, shown] =
      ['find', 'show', 'order', 'shown'].map((id) => document.getElementById(id));
  const body = document.querySelector('#pairs > tbody');
  const kind = document.querySelector('#pairs th').textContent.toLowerCase();
  const links = [...document.querySelectorAll('#reasons a[data-reason]')];

  // The text of each row is taken once: a page may have thousands of them.
  const rows = [...body.rows].map((element) => {
    const results = [...element.querySelectorAll('.result')];
    const marks = new Set();
    for (const {dataset} of results) {
      marks.add(dataset.result).add('#' + dataset.reason);
      if (dataset.result !== 'accepted') marks.add('!accepted');
    }
    const name = element.cells[0].textContent;
    const servers = [...element.querySelectorAll('.at')];
    const text = [name, ...results, ...servers]
        .map((part) => part.textContent ?? part).join('\n').toLowerCase();
    return {element, name, marks, text};
  });

  function addChoices(label, choices) {
    const group = document.createElement('optgroup');
    group.label = label;
    for (const [value, text] of choices) group.append(new Option(text, value));
    show.append(group);
  }

  function filter() {
    const words = find.value.toLowerCase().split(/\s+/);
    let count = 0;
    for (const row of rows) {
      const fits = (show.value === '' || row.marks.has(show.value)) &&
          words.every((word) => row.text.includes(word));
      if (row.element.hidden === fits) row.element.hidden = !fits;
      if (fits) ++count;
    }
    shown.value = `${count} of ${rows.length} ${kind}s`;
  }

  function sort() {
    const collator = new Intl.Collator(undefined, {numeric: true});
    const sorted = order.value === 'name' ?
        [...rows].sort((a, b) => collator.compare(a.name, b.name)) :
        rows;
    body.append(...sorted.map(({element}) => element));
  }

  // Typing must not wait for thousands of rows.
  let planned = 0;
  function filterSoon() {
    cancelAnimationFrame(planned);
    planned = requestAnimationFrame(filter);
  }

  const results = new Map();
  for (const badge of document.querySelectorAll('#reasons .badge'))
    results.set(badge.lastChild.textContent.trim(), 0);
  addChoices('Result', [...results.keys()].map((name) => [name, name]));
  addChoices('Reason', links.map(
      (link) => ['#' + link.dataset.reason, link.textContent]));

  for (const link of links) {
    link.addEventListener('click', () => {
      show.value = '#' + link.dataset.reason;
      filter();
    });
  }
  form.addEventListener('submit', (event) => event.preventDefault());
  find.addEventListener('input', filterSoon);
  show.addEventListener('input', filterSoon);
  order.addEventListener('input', sort);
  form.hidden = false;
  filter();
})();
