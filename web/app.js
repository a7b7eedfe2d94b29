// The console page: routine types, live routines, parameters, commands; kept live by /events.

import { api, onTokenNeeded, ApiError } from './api.js';
import { follow } from './events.js';
import { buildForm, readForm, showErrors } from './form.js';

const $ = (id) => document.getElementById(id);
const routines = new Map();  // path -> { element, form, editing }
// Routines seen deleted. Ids are never reused, so a read that was already on its way when the routine
// went must not bring it back on the page.
const gone = new Set();

onTokenNeeded(() => new Promise((resolve) => {
  const dialog = $('token-dialog');
  dialog.returnValue = '';
  dialog.addEventListener('close', () => resolve(dialog.returnValue === 'ok' ? $('token-input').value : null), { once: true });
  dialog.showModal();
}));

function text(tag, content, className) {
  const element = document.createElement(tag);
  element.textContent = content;
  if (className) element.className = className;
  return element;
}

function button(label, className, onClick) {
  const element = text('button', label, className);
  element.type = 'button';
  element.addEventListener('click', onClick);
  return element;
}

async function showTypes() {
  const list = $('types');
  list.replaceChildren();
  const { routineTypes } = await api.types();
  for (const type of routineTypes) {
    const item = document.createElement('li');
    const about = document.createElement('div');
    about.append(text('strong', type.displayName || type.type), text('p', type.description, 'muted'));
    item.append(about, button('Start', 'primary', () => create(type.type)));
    list.append(item);
  }
}

function create(type) {
  $('create-message').textContent = '';
  // A creation may wait for the first continue: it is not awaited here; the page follows the new
  // routine through the "created" event.
  api.create(type).catch((error) => { $('create-message').textContent = error.message; });
}

const STATE_CLASS = ['ready', 'running', 'waiting', 'completed', 'aborted', 'failed'];

async function refresh(path) {
  let document_;
  try {
    document_ = await api.routine(path);
  } catch (error) {
    if (error instanceof ApiError && error.httpStatus === 404) drop(path);
    return;
  }
  render(path, document_);
}

function render(path, doc) {
  if (gone.has(path)) return;
  let entry = routines.get(path);
  if (!entry) {
    const element = document.createElement('article');
    element.className = 'routine';
    element.setAttribute('aria-label', `Routine ${doc.id}`);
    entry = { element, form: null, editing: false };
    routines.set(path, entry);
    $('routines').append(element);
  }
  const schema = doc._schema?.properties || {};
  const stateText = schema.state?.enumText?.[schema.state.enum.indexOf(doc.state)] ?? String(doc.state);
  const waiting = doc.state === 2;
  const stopped = doc.state >= 3;

  const head = document.createElement('header');
  head.append(text('h3', `${doc.displayName || doc.type} `), text('span', doc.id, 'muted'),
    text('span', stateText, `pill state-${STATE_CLASS[doc.state] || 'ready'}`));
  const parts = [head];
  if (doc.state === 5 && doc.stateDetails) parts.push(text('p', doc.stateDetails, 'error'));
  if (doc.totalSteps > 0) {
    parts.push(text('p', `Step ${doc.currentStep} of ${doc.totalSteps}${doc.currentStepInfo ? ` — ${doc.currentStepInfo}` : ''}`, 'step'));
    const progress = document.createElement('progress');
    progress.max = 100;
    progress.value = doc.currentProgress;
    progress.setAttribute('aria-label', 'Progress of the current step');
    parts.push(progress);
  }
  if (doc.helpHtml) {
    const help = document.createElement('iframe');
    help.className = 'help';
    help.title = 'Help';
    help.setAttribute('sandbox', '');  // routine-provided HTML runs no script and reaches nothing
    help.srcdoc = doc.helpHtml;
    parts.push(help);
  }
  if (doc.helpUrl) {
    const link = text('a', 'More help', 'help-link');
    link.href = doc.helpUrl;
    link.target = '_blank';
    link.rel = 'noopener noreferrer';
    parts.push(link);
  }

  // The parameter form survives re-renders while the user edits it, so typed values are kept.
  const paramSchema = schema.parameters;
  if (paramSchema && Object.keys(paramSchema.properties || {}).length > 0) {
    if (!entry.form || !entry.editing) {
      entry.form = buildForm(paramSchema, doc.parameters, `${doc.id}-param`);
      entry.form.addEventListener('input', () => { entry.editing = true; });
      const save = text('button', 'Save parameters', 'primary');
      save.type = 'submit';
      save.disabled = !waiting;
      entry.form.append(save);
      entry.form.addEventListener('submit', async (event) => {
        event.preventDefault();
        try {
          await api.update(path, readForm(entry.form));
          entry.editing = false;
          showErrors(entry.form, paramSchema, []);
          refresh(path);
        } catch (error) {
          const rest = showErrors(entry.form, paramSchema, error.causes || []);
          if (rest.length || !error.causes?.length) alert(rest.join('\n') || error.message);
        }
      });
    }
    entry.form.querySelector('button[type=submit]').disabled = !waiting;
    parts.push(entry.form);
  }

  const results = Object.entries(doc.results || {});
  if (results.length) {
    const table = document.createElement('table');
    table.className = 'results';
    table.append(text('caption', 'Results'));
    const titles = schema.results?.properties || {};
    for (const [key, value] of results) {
      const row = document.createElement('tr');
      row.append(text('th', titles[key]?.title || key), text('td', typeof value === 'number' ? Number(value.toPrecision(6)).toString() : String(value)));
      table.append(row);
    }
    parts.push(table);
  }

  const actions = document.createElement('div');
  actions.className = 'actions';
  const continueButton = button('Continue', 'primary', () => command(path, 'continue'));
  continueButton.disabled = !waiting;
  const abortButton = button('Abort', '', () => command(path, 'abort'));
  abortButton.disabled = stopped;
  actions.append(continueButton, abortButton, button('Delete', 'danger', () => api.remove(path).catch(report)));
  parts.push(actions);

  entry.element.replaceChildren(...parts);
  $('no-routines').hidden = routines.size > 0;
}

function report(error) { $('create-message').textContent = error.message; }

function command(path, name) { api.command(path, name).catch(report); }

function drop(path) {
  gone.add(path);
  routines.get(path)?.element.remove();
  routines.delete(path);
  $('no-routines').hidden = routines.size > 0;
}

async function rereadAll() {
  const list = await api.list();
  const paths = (list?._embedded?.item || []).map((item) => item._links.self.href);
  for (const path of [...routines.keys()]) if (!paths.includes(path)) drop(path);
  for (const path of paths) gone.delete(path);
  await Promise.all(paths.map(refresh));
}

// Updates for one routine are read at most once at a time; a newer event re-reads after.
const pending = new Map();
function scheduleRefresh(path) {
  if (pending.has(path)) { pending.set(path, true); return; }
  pending.set(path, false);
  refresh(path).finally(() => {
    const again = pending.get(path);
    pending.delete(path);
    if (again) scheduleRefresh(path);
  });
}

$('delete-all').addEventListener('click', () => {
  if (confirm('Delete every routine? Running routines are aborted.')) api.removeAll().catch(report);
});

follow({
  // A resumed stream replays what happened while it was down; otherwise the page re-reads.
  onOpen: (resumed) => {
    $('connection').textContent = 'live';
    $('connection').className = 'pill live';
    if (!resumed) rereadAll().catch(report);
  },
  onClose: () => { $('connection').textContent = 'reconnecting…'; $('connection').className = 'pill'; },
  onEvent: ({ type, path }) => {
    if (type === 'reset' || path === '/routines') rereadAll().catch(report);
    else if (typeof path !== 'string' || !path.startsWith('/routines/')) return;
    else if (type === 'deleted') drop(path);
    else scheduleRefresh(path);
  },
});

showTypes().catch(report);
