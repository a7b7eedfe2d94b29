// Builds a parameter form from a routine's parameter schema: numbers with their limits, text,
// enumerations as selects with their display texts, read-only fields disabled, in sort order. Each
// input is described by its own message element, where the service's refusals of that parameter go.

export function buildForm(schema, values, idPrefix) {
  const form = document.createElement('form');
  form.className = 'params';
  form.noValidate = true;
  const properties = Object.entries(schema?.properties || {})
    .sort(([, a], [, b]) => (a.sortOrder ?? 0) - (b.sortOrder ?? 0));
  for (const [key, property] of properties) {
    const id = `${idPrefix}-${key}`;
    const field = document.createElement('div');
    field.className = 'field';
    field.dataset.key = key;
    const label = document.createElement('label');
    label.htmlFor = id;
    label.textContent = property.title || key;
    let input;
    if (Array.isArray(property.enum)) {
      input = document.createElement('select');
      property.enum.forEach((value, index) => {
        const option = document.createElement('option');
        option.value = String(value);
        option.textContent = property.enumText?.[index] ?? String(value);
        input.append(option);
      });
    } else {
      input = document.createElement('input');
      if (property.type === 'integer' || property.type === 'number') {
        input.type = 'number';
        input.step = property.type === 'integer' ? '1' : 'any';
        if (property.minimum !== undefined) input.min = property.minimum;
        if (property.maximum !== undefined) input.max = property.maximum;
      } else if (property.type === 'boolean') {
        input.type = 'checkbox';
      } else {
        input.type = 'text';
      }
    }
    input.id = id;
    input.name = key;
    input.dataset.type = property.type;
    if (property.readOnly) {
      input.dataset.readOnly = 'true';
      input.disabled = true;
    }
    const value = values?.[key];
    if (input.type === 'checkbox') input.checked = Boolean(value);
    else if (value !== undefined) input.value = String(value);
    const hint = document.createElement('span');
    hint.className = 'hint';
    hint.id = `${id}-hint`;
    const limits = [];
    if (!Array.isArray(property.enum)) {
      if (property.minimum !== undefined && property.type !== 'string') limits.push(`min ${property.minimum}`);
      if (property.maximum !== undefined) limits.push(`max ${property.maximum}`);
    }
    hint.textContent = limits.join(', ');
    const error = document.createElement('span');
    error.className = 'error';
    error.id = `${id}-error`;
    error.setAttribute('role', 'alert');
    input.setAttribute('aria-describedby', `${hint.id} ${error.id}`);
    field.append(label, input, hint, error);
    form.append(field);
  }
  return form;
}

// Enables the inputs while the routine takes parameters and disables all of them otherwise; a field the
// schema marks read-only stays disabled.
export function setEditable(form, editable) {
  for (const input of form.querySelectorAll('input, select, button')) {
    input.disabled = !editable || input.dataset.readOnly === 'true';
  }
}

// The values of the form's editable fields, typed as their schema says.
export function readForm(form) {
  const values = {};
  for (const input of form.querySelectorAll('input, select')) {
    if (input.dataset.readOnly === 'true') continue;
    const type = input.dataset.type;
    if (input.type === 'checkbox') values[input.name] = input.checked;
    else if (type === 'integer') values[input.name] = input.value === '' ? input.value : Number.parseInt(input.value, 10);
    else if (type === 'number') values[input.name] = Number(input.value);
    else values[input.name] = input.value;
  }
  return values;
}

// Shows each message of a refusal's "fields" next to the input of that parameter path; returns the
// messages that belong to no input of this form (a parameter the form does not show), prefixed by path.
export function showErrors(form, fields) {
  for (const error of form.querySelectorAll('.field .error')) error.textContent = '';
  for (const input of form.querySelectorAll('[aria-invalid]')) input.removeAttribute('aria-invalid');
  const unmatched = [];
  for (const [path, messages] of Object.entries(fields || {})) {
    const list = (Array.isArray(messages) ? messages : [messages]).map(String);
    const field = [...form.querySelectorAll('.field')].find((element) => element.dataset.key === path);
    if (field) {
      field.querySelector('.error').textContent = list.join(' ');
      field.querySelector('input, select').setAttribute('aria-invalid', 'true');
    } else {
      unmatched.push(...list.map((message) => `${path}: ${message}`));
    }
  }
  return unmatched;
}
