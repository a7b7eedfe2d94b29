// The console page: routine types, live routines, parameters, commands; kept live by /events.

import { api, forget, onTokenNeeded, ApiError } from './api.js';
import { follow } from './events.js';
import { buildForm, readForm, setEditable, showErrors } from './form.js';

const $ = (id) => document.getElementById(id);
const routines = new Map();  // path -> the shown routine: { element, slots, form, editing, helpHtml }
// Routines seen deleted. Ids are never reused, so a read that was already on its way when the routine
// went must not bring it back on the page.
const gone = new Set();
// The routines that exist as far as the events tell, shown or not yet read: with the creations still
// on their way, they decide whether Start may be offered.
const known = new Set();
let creating = 0;
let routineLimit;  // from /system; undefined when the service does not say, then nothing is held back

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

function report(error) { $('create-message').textContent = error.message; }

// ---------------------------------------------------------------------------------------------------
// Types and creation

async function showTypes() {
  const list = $('types');
  list.replaceChildren();
  const { routineTypes } = await api.types();
  for (const type of routineTypes) {
    const item = document.createElement('li');
    const about = document.createElement('div');
    about.append(text('strong', type.displayName || type.type), text('p', type.description, 'muted'));
    const start = button('Start', 'primary start', () => create(type.type));
    start.setAttribute('aria-describedby', 'limit-note');
    item.append(about, start);
    list.append(item);
  }
  updateStart();
}

// A creation on its way counts, so that a second click cannot ask for a slot the first one takes; the
// note speaks only of routines that exist.
function updateStart() {
  const limited = routineLimit !== undefined;
  const full = limited && known.size >= routineLimit;
  for (const start of document.querySelectorAll('#types button.start')) {
    start.disabled = limited && known.size + creating >= routineLimit;
  }
  $('limit-note').textContent = full
    ? `At most ${routineLimit} routine${routineLimit === 1 ? '' : 's'} may exist at once: delete one to start another.`
    : '';
}

async function readLimit() {
  const system = await api.system();
  routineLimit = Number.isInteger(system?.routineLimit) ? system.routineLimit : undefined;
  updateStart();
}

// The service answers as soon as the routine exists (its creation goes on waiting there for the first
// continue), so the page learns the new routine from the reply; the "created" event tells the same.
async function create(type) {
  $('create-message').textContent = '';
  ++creating;
  updateStart();
  try {
    const created = await api.create(type);
    if (created?.path && !gone.has(created.path)) {
      known.add(created.path);
      scheduleRefresh(created.path);
    }
  } catch (error) {
    report(error);
    // Refused at the limit: what the page counted was behind the service.
    if (error instanceof ApiError && error.httpStatus === 409) rereadAll().catch(report);
  } finally {
    --creating;
    updateStart();
  }
}

// ---------------------------------------------------------------------------------------------------
// One routine

const STATE_CLASS = ['ready', 'running', 'waiting', 'completed', 'aborted', 'failed'];
const WAITING = 2;
const COMPLETED = 3;  // Aborted and Failed follow: from here on a routine has stopped and takes no input

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

// A routine's article keeps its parts across re-renders: the help frame is not reloaded and an input
// being typed in keeps its focus when a progress report re-renders the rest.
function entryFor(path, doc) {
  let entry = routines.get(path);
  if (entry) return entry;
  const element = document.createElement('article');
  element.className = 'routine';
  element.setAttribute('aria-label', `Routine ${doc.id}`);
  const slots = {};
  for (const name of ['head', 'status', 'help', 'helpLink', 'form', 'message', 'results', 'actions']) {
    slots[name] = document.createElement({ head: 'header', message: 'p' }[name] || 'div');
  }
  // Refusals of this routine's commands and writes that belong to no input.
  slots.message.className = 'message';
  slots.message.id = `${doc.id}-message`;
  slots.message.setAttribute('role', 'alert');
  slots.actions.className = 'actions';
  element.append(...Object.values(slots));
  entry = { element, slots, form: null, editing: false, helpHtml: '' };
  routines.set(path, entry);
  $('routines').append(element);
  return entry;
}

function say(entry, message) { entry.slots.message.textContent = message; }

function render(path, doc) {
  if (gone.has(path)) return;
  known.add(path);
  updateStart();
  const entry = entryFor(path, doc);
  const { slots } = entry;
  const schema = doc._schema?.properties || {};
  const stateText = schema.state?.enumText?.[schema.state.enum.indexOf(doc.state)] ?? String(doc.state);
  const stopped = doc.state >= COMPLETED;
  const paramSchema = schema.parameters;
  // The service marks the parameters read-only whenever the routine does not take them now (not
  // published yet, closed by a continue, or the routine stopped); the state covers a stopped routine
  // read from a document without the mark.
  const takesParameters = !stopped && paramSchema?.readOnly !== true;

  slots.head.replaceChildren(text('h3', `${doc.displayName || doc.type} `), text('span', doc.id, 'muted'),
    text('span', stateText, `pill state-${STATE_CLASS[doc.state] || 'ready'}`));

  // The step text is what the routine tells the user to do now; once it stopped, nothing is asked.
  const status = [];
  if (doc.stateDetails && doc.state > COMPLETED) status.push(text('p', doc.stateDetails, 'error'));
  if (doc.totalSteps > 0 && !stopped) {
    status.push(text('p', `Step ${doc.currentStep} of ${doc.totalSteps}${doc.currentStepInfo ? ` — ${doc.currentStepInfo}` : ''}`, 'step'));
    const progress = document.createElement('progress');
    progress.max = 100;
    progress.value = doc.currentProgress;
    progress.setAttribute('aria-label', 'Progress of the current step');
    status.push(progress);
  } else if (doc.totalSteps > 0 && doc.state !== COMPLETED) {
    status.push(text('p', `Ended at step ${doc.currentStep} of ${doc.totalSteps}.`, 'step'));
  }
  slots.status.replaceChildren(...status);

  // Help explains the step in progress, so a stopped routine shows none; the link stays.
  const helpHtml = stopped ? '' : doc.helpHtml || '';
  if (helpHtml !== entry.helpHtml) {
    entry.helpHtml = helpHtml;
    slots.help.replaceChildren(...(helpHtml ? [helpFrame(helpHtml)] : []));
  }
  slots.helpLink.replaceChildren();
  if (doc.helpUrl) {
    const link = text('a', 'More help', 'help-link');
    link.href = doc.helpUrl;
    link.target = '_blank';
    link.rel = 'noopener noreferrer';
    slots.helpLink.append(link);
  }

  renderForm(path, entry, doc, paramSchema, takesParameters);

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
    slots.results.replaceChildren(table);
  } else {
    slots.results.replaceChildren();
  }

  const continueButton = button('Continue', 'primary', () => command(path, 'continue'));
  continueButton.disabled = doc.state !== WAITING;
  const abortButton = button('Abort', '', () => command(path, 'abort'));
  abortButton.disabled = stopped;
  const deleteButton = button('Delete', 'danger', () => api.remove(path).catch((error) => say(entry, error.message)));
  slots.actions.replaceChildren(continueButton, abortButton, deleteButton);

  $('no-routines').hidden = routines.size > 0;
}

// The parameter form survives re-renders while the user edits it, so typed values are kept; once the
// routine stops taking parameters it shows the values the routine kept, every input disabled.
function renderForm(path, entry, doc, paramSchema, takesParameters) {
  if (!paramSchema || Object.keys(paramSchema.properties || {}).length === 0) {
    entry.slots.form.replaceChildren();
    entry.form = null;
    return;
  }
  if (!takesParameters && entry.editing) {
    entry.editing = false;
    entry.formSource = null;  // typed values that were never taken give way to the routine's own
  }
  // Rebuilt only when what it shows changed: a re-render for a step or a progress report must not swap
  // the form under a user who is about to type into it.
  const source = JSON.stringify([paramSchema, doc.parameters]);
  if (!entry.form || (!entry.editing && source !== entry.formSource)) {
    entry.formSource = source;
    const form = buildForm(paramSchema, doc.parameters, `${doc.id}-param`);
    form.setAttribute('aria-describedby', entry.slots.message.id);
    form.addEventListener('input', () => { entry.editing = true; });
    const save = text('button', 'Save parameters', 'primary');
    save.type = 'submit';
    form.append(save);
    form.addEventListener('submit', (event) => {
      event.preventDefault();
      saveParameters(path, entry, form);
    });
    entry.form = form;
    entry.slots.form.replaceChildren(form);
  }
  setEditable(entry.form, takesParameters);
}

async function saveParameters(path, entry, form) {
  say(entry, '');
  try {
    await api.update(path, readForm(form));
    entry.editing = false;
    showErrors(form, {});
    scheduleRefresh(path);
  } catch (error) {
    const unmatched = showErrors(form, error.fields);
    // What no input shows goes below the form: the whole message when no parameter was named (a
    // routine that stopped waiting, a refused body), or the messages of parameters this form lacks.
    if (unmatched.length || !Object.keys(error.fields || {}).length) {
      say(entry, [error.message, ...unmatched].join(' '));
    }
    // A routine that no longer waits, or no longer exists: show what it is now.
    if (error instanceof ApiError && (error.httpStatus === 409 || error.httpStatus === 404)) scheduleRefresh(path);
  }
}

// Sized to its content (the page's style sheet bounds it), so short help leaves no empty space.
function helpFrame(html) {
  const frame = document.createElement('iframe');
  frame.className = 'help';
  frame.title = 'Help';
  // Routine-provided HTML runs no script. Same origin only lets this page read the content's height:
  // without script the content cannot use it.
  frame.setAttribute('sandbox', 'allow-same-origin');
  frame.addEventListener('load', () => fitFrame(frame));
  frame.srcdoc = html;
  return frame;
}

function fitFrame(frame) {
  const root = frame.contentDocument?.documentElement;
  // The frame's height includes its border (border-box sizing).
  if (root) frame.style.height = `${Math.ceil(root.getBoundingClientRect().height) + frame.offsetHeight - frame.clientHeight}px`;
}

// The content's height follows the frame's width.
window.addEventListener('resize', () => document.querySelectorAll('iframe.help').forEach(fitFrame));

function command(path, name) {
  api.command(path, name).catch((error) => {
    const entry = routines.get(path);
    if (entry) say(entry, error.message);
    else report(error);
  });
}

function drop(path) {
  gone.add(path);
  known.delete(path);
  forget(path);
  routines.get(path)?.element.remove();
  routines.delete(path);
  $('no-routines').hidden = routines.size > 0;
  updateStart();
}

// ---------------------------------------------------------------------------------------------------
// Everything at once: at the start, and when the events cannot say what was missed

async function rereadAll() {
  await readLimit().catch(report);
  const list = await api.list();
  const paths = (list?._embedded?.item || []).map((item) => item._links.self.href);
  for (const path of paths) {
    gone.delete(path);
    known.add(path);
  }
  updateStart();
  // A routine the list lacks may have been created after the list was read: it goes from the page
  // when its own read says it is gone, not on the list's word.
  const unlisted = [...new Set([...routines.keys(), ...known])].filter((path) => !paths.includes(path));
  await Promise.all([...paths, ...unlisted].map(refresh));
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
    else if (!gone.has(path)) {
      known.add(path);
      updateStart();
      scheduleRefresh(path);
    }
  },
});

showTypes().catch(report);
