'use strict';
const box = document.getElementById('search');
const found = document.getElementById('found');
const messages = [...document.querySelectorAll('.message')];
const texts = messages.map(message => message.textContent.toLowerCase());

function openAll(within, open) {
  for (const details of within.querySelectorAll('details')) details.open = open;
}

// Where the text stands, for browsers that can mark it without changing the page.
function rangesOf(wanted, within) {
  const ranges = [];
  const walker = document.createTreeWalker(within, NodeFilter.SHOW_TEXT);
  while (walker.nextNode()) {
    const text = walker.currentNode.data.toLowerCase();
    for (let at = text.indexOf(wanted); at >= 0; at = text.indexOf(wanted, at + wanted.length)) {
      const range = new Range();
      range.setStart(walker.currentNode, at);
      range.setEnd(walker.currentNode, at + wanted.length);
      ranges.push(range);
    }
  }
  return ranges;
}

function search() {
  const wanted = box.value.trim().toLowerCase();
  const hits = messages.filter((message, i) => texts[i].includes(wanted));
  for (const message of messages) message.hidden = !hits.includes(message);
  if (wanted) hits.forEach(message => openAll(message, true));
  found.textContent = wanted ? `${hits.length} of ${messages.length} messages` : '';
  if (!CSS.highlights) return;
  CSS.highlights.delete('found');
  if (wanted) CSS.highlights.set('found', new Highlight(...hits.flatMap(hit => rangesOf(wanted, hit))));
}

function go(step) {
  const summaries = messages.filter(message => !message.hidden)
    .map(message => message.querySelector('summary'));
  const here = summaries.findIndex(summary => summary.closest('.message').contains(document.activeElement));
  const to = summaries[Math.min(Math.max(here + step, 0), summaries.length - 1)];
  if (to) to.focus();
}

document.getElementById('tools').hidden = false;
box.addEventListener('input', search);
document.getElementById('open').addEventListener('click', () => openAll(document, true));
document.getElementById('close').addEventListener('click', () => openAll(document, false));
let closed = [];
addEventListener('beforeprint', () => {
  closed = [...document.querySelectorAll('details:not([open])')];
  openAll(document, true);
});
addEventListener('afterprint', () => closed.forEach(details => { details.open = false; }));
addEventListener('keydown', event => {
  if (event.ctrlKey || event.metaKey || event.altKey) return;
  if (event.target === box) {
    if (event.key !== 'Escape') return;
    box.value = '';
    search();
    box.blur();
  } else if (event.key === '/') {
    box.focus();
    event.preventDefault();
  } else if (event.key === 'j' || event.key === 'k') {
    go(event.key === 'j' ? 1 : -1);
  }
});
