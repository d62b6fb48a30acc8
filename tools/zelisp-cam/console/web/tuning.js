// Tuning: every control of the chosen camera with its range and unit
// beside it, as a slider, a menu (enumerated controls) or number fields.
// A value is checked here before it is sent: an empty or invalid entry
// shows why and sends nothing. After each change the value the driver
// reads back is shown; while a slider moves, only the value it will send.
import { api, element, putJson } from '/common.js';

const $ = (id) => document.getElementById(id);
const ABNORMAL_REFRESH_MS = 2000;

function rangeText(control) {
  if (control.kind === 'menu') return '';
  const field = control.fields[0];
  const range = field.max === 4294967295 ? 'any 32-bit word, for the ISP firmware' : `${field.min}..${field.max}`;
  return control.unit ? `${range} ${control.unit}` : range;
}

// The entries' numbers, or why they cannot be sent.
function readEntries(control, inputs) {
  const values = [];
  for (const [i, input] of inputs.entries()) {
    const field = control.fields[i];
    const what = control.fields.length > 1 ? `${control.name} ${field.label}` : control.name;
    const text = input.value.trim();
    if (text === '') return { error: `${what}: enter a whole number ${field.min}..${field.max}` };
    if (!/^\d+$/.test(text)) return { error: `${what}: ${text} is not a whole number ${field.min}..${field.max}` };
    const number = Number(text);
    if (number < field.min || number > field.max) return { error: `${what} must be ${field.min}..${field.max}` };
    values.push(number);
  }
  return { values };
}

export class Tuning {
  constructor(console) {
    this.console = console;
    this.camera = null;
    $('camera-select').addEventListener('change', (event) => this.load(Number(event.target.value)));
    setInterval(() => this.refreshAbnormal(), ABNORMAL_REFRESH_MS);
  }

  setCameras(cameras) {
    const select = $('camera-select');
    const chosen = cameras.includes(this.camera) ? this.camera : cameras[0];
    select.replaceChildren(...cameras.map((c) => element('option', { value: c, selected: c === chosen }, `camera ${c}`)));
    if (chosen !== this.camera && this.camera !== null) this.load(chosen);
    this.camera = chosen;
  }

  async load(camera = this.camera) {
    this.camera = camera;
    try {
      const details = await api(`/api/cameras/${camera}`);
      $('controls').replaceChildren(...details.controls.flatMap((control) => this.row(control)));
      $('abnormal').textContent = details.abnormal ?? 'n/a';
    } catch (error) {
      $('controls').replaceChildren(element('p', { className: 'error' }, error.message));
    }
  }

  async refreshAbnormal() {
    if (this.camera === null || document.body.classList.contains('disconnected')) return;
    try {
      const details = await api(`/api/cameras/${this.camera}`);
      $('abnormal').textContent = details.abnormal ?? 'n/a';
    } catch (error) { /* the status line tells */ }
  }

  row(control) {
    if (control.kind === 'readonly') return [];
    const name = control.name;
    const label = element('label', { for: `control-${name}`, title: control.help }, name);
    const range = element('span', { className: 'range', id: `range-${name}` }, rangeText(control));
    const readback = element('output', { className: 'readback', id: `readback-${name}`, 'aria-label': `${name} read back` });
    const pending = element('span', { className: 'pending', id: `pending-${name}` });
    const error = element('p', { className: 'error', id: `error-${name}`, role: 'alert', hidden: true });
    const inputs = this.inputs(control);
    const send = async (values) => {
      try {
        const answer = await putJson(`/api/cameras/${this.camera}/controls/${name}`,
          { value: values.length === 1 ? values[0] : values });
        error.hidden = true;
        pending.textContent = '';
        this.showValue(control, answer.value, inputs, readback, answer.read_back);
      } catch (e) {
        error.textContent = e.message;
        error.hidden = false;
      }
    };
    const complain = (text) => { error.textContent = text; error.hidden = false; };
    let holder;
    if (control.kind === 'number') {
      const button = element('button', { type: 'button', id: `set-${name}` }, 'Set');
      const commit = () => {
        const entry = readEntries(control, inputs);
        if (entry.error) complain(entry.error); else send(entry.values);
      };
      button.addEventListener('click', commit);
      for (const input of inputs) input.addEventListener('keydown', (e) => { if (e.key === 'Enter') { e.preventDefault(); commit(); } });
      const fields = inputs.map((input, i) => element('label', { className: 'field' },
        element('span', {}, control.fields.length > 1 ? control.fields[i].label : ''), input));
      holder = element('div', { className: `numbers count-${inputs.length}` }, ...fields, button);
    } else {
      for (const input of inputs) {
        // While a slider moves it shows what it will send; the read-back
        // changes only once the driver has it.
        input.addEventListener('input', () => { pending.textContent = `→ ${inputs.map((i) => i.value).join(' ')}`; });
        input.addEventListener('change', () => send(inputs.map((i) => Number(i.value))));
      }
      holder = element('div', { className: 'multi' }, ...inputs);
    }
    this.showValue(control, control.value, inputs, readback, control.readable);
    const wide = control.kind === 'number' && control.fields.length > 1;
    return [element('div', { className: wide ? 'control wide' : 'control', id: `row-${name}` },
      label, holder, range, readback, pending, error)];
  }

  inputs(control) {
    return control.fields.map((field, i) => {
      const id = i === 0 ? `control-${control.name}` : `control-${control.name}-${i}`;
      const labelText = `${control.name} ${field.label}`;
      if (control.kind === 'menu') {
        return element('select', { id, 'aria-label': labelText },
          ...control.menu.map((item) => element('option', { value: item.value }, `${item.label} (${item.value})`)));
      }
      if (control.kind === 'slider') {
        return element('input', { id, type: 'range', min: field.min, max: field.max, step: 1, 'aria-label': labelText });
      }
      return element('input', { id, type: 'text', inputMode: 'numeric', 'aria-label': labelText,
        placeholder: `${field.min}..${field.max === 4294967295 ? '2³²−1' : field.max}` });
    });
  }

  showValue(control, value, inputs, readback, readBack) {
    if (value === null || value === undefined) {
      readback.textContent = control.readable ? 'n/a' : 'set only';
      delete readback.dataset.value;
      return;
    }
    const values = Array.isArray(value) ? value : [value];
    values.forEach((v, i) => { if (inputs[i]) inputs[i].value = v; });
    const shown = control.kind === 'menu'
      ? values.map((v) => (control.menu.find((item) => item.value === v) || { label: v }).label).join(' ')
      : values.join(' ');
    readback.textContent = shown + (readBack ? '' : ' (sent)');
    readback.dataset.value = values.join(' ');
  }
}
