// The zelisp-cam console: every tile polls its view's newest preview, the
// tuning form and the timing table use the same JSON API scripts use.
'use strict';

const $ = (id) => document.getElementById(id);
const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));
const tiles = [];
let selectedCamera = null;

async function api(path, options = {}) {
  const response = await fetch(path, { cache: 'no-store', ...options });
  const body = await response.json().catch(() => ({}));
  if (!response.ok) throw new Error(body.error || `${response.status} ${response.statusText}`);
  return body;
}

function element(tag, props = {}, ...children) {
  const node = document.createElement(tag);
  Object.assign(node, props);
  for (const child of children) node.append(child);
  return node;
}

function showStatus(text) { $('status').textContent = text; }

// ---- live previews ----

function makeTile(camera, view) {
  const img = element('img', { id: `tile-${camera.camera}-${view.view}`, alt: `camera ${camera.camera} view ${view.view}` });
  img.width = view.preview.width;
  img.height = view.preview.height;
  const frame = element('span', { className: 'frame' }, '#-');
  const fps = element('span', { className: 'fps' }, '- fps');
  const caption = element('figcaption', {},
    element('b', {}, `cam ${camera.camera} · view ${view.view}`),
    element('span', {}, `${view.format} ${view.width}x${view.height}`), frame, fps);
  const figure = element('figure', { className: 'tile' }, img, caption);
  figure.dataset.camera = camera.camera;
  figure.dataset.view = view.view;
  figure.addEventListener('click', () => openViewer(camera, view));
  $('tiles').append(figure);
  const tile = { camera: camera.camera, view: view.view, img, frame, fps, times: [] };
  tiles.push(tile);
  pollTile(tile);
}

// Asks for a picture newer than the last one shown; the server answers as
// soon as there is one, so a tile runs at the camera's rate or as fast as
// this browser keeps up, whichever is lower.
async function pollTile(tile) {
  let after = 0;
  let shown = null;
  for (;;) {
    try {
      const response = await fetch(`/api/preview/${tile.camera}/${tile.view}.jpg?after=${after}`, { cache: 'no-store' });
      if (response.status === 200) {
        after = Number(response.headers.get('X-Preview-Generation'));
        const sequence = response.headers.get('X-Frame-Sequence');
        const url = URL.createObjectURL(await response.blob());
        tile.img.src = url;
        await tile.img.decode().catch(() => {});
        if (shown) URL.revokeObjectURL(shown);
        shown = url;
        tile.img.dataset.sequence = sequence;
        tile.frame.textContent = `#${sequence}`;
        const now = performance.now();
        tile.times.push(now);
        while (tile.times.length > 1 && now - tile.times[0] > 2000) tile.times.shift();
      } else if (response.status !== 204) {
        await sleep(1000);
      }
    } catch (error) {
      await sleep(1000);
    }
  }
}

function updateTileRates() {
  const now = performance.now();
  for (const tile of tiles) {
    const recent = tile.times.filter((t) => now - t < 2000);
    const rate = recent.length > 1 ? (recent.length - 1) * 1000 / (recent[recent.length - 1] - recent[0]) : 0;
    tile.fps.textContent = `${rate.toFixed(1)} fps shown`;
  }
}

function openViewer(camera, view) {
  $('viewer-title').textContent = `camera ${camera.camera} · view ${view.view} · ${view.format} ${view.width}x${view.height}`;
  $('viewer-image').src = `${view.stream}?size=full`;
  $('viewer-snapshot').href = view.snapshot;
  $('viewer-snapshot').download = `cam${camera.camera}-view${view.view}.png`;
  $('viewer').hidden = false;
}

function closeViewer() {
  $('viewer-image').removeAttribute('src'); // ends the stream
  $('viewer').hidden = true;
}

// ---- tuning ----

function controlRow(control) {
  const form = $('controls');
  const label = element('label', { htmlFor: `control-${control.name}`, title: control.help }, control.name);
  const readback = element('span', { className: 'readback', id: `readback-${control.name}` });
  const error = element('span', { className: 'error', id: `error-${control.name}`, hidden: true });
  const inputs = control.fields.map((field, i) => {
    const input = element('input', {
      id: i === 0 ? `control-${control.name}` : `control-${control.name}-${i}`,
      min: field.min, max: field.max, title: `${field.label}: ${field.min}..${field.max}`,
    });
    input.type = control.kind === 'slider' ? 'range' : control.kind === 'switch' ? 'checkbox' : 'number';
    input.setAttribute('aria-label', `${control.name} ${field.label}`);
    return input;
  });
  const apply = async () => {
    const values = inputs.map((input) => (input.type === 'checkbox' ? (input.checked ? 1 : 0) : Number(input.value)));
    try {
      const answer = await api(`/api/cameras/${selectedCamera}/controls/${control.name}`, {
        method: 'PUT',
        headers: { 'Content-Type': 'application/json' },
        body: JSON.stringify({ value: values.length === 1 ? values[0] : values }),
      });
      error.hidden = true;
      showValue(control, answer.value, inputs, readback, answer.read_back);
    } catch (e) {
      error.textContent = e.message;
      error.hidden = false;
    }
  };
  let holder;
  if (control.kind === 'readonly') {
    return;
  } else if (control.kind === 'number') {
    const button = element('button', { type: 'button' }, 'Set');
    button.addEventListener('click', apply);
    holder = element('span', { className: 'multi' }, ...inputs, button);
  } else {
    for (const input of inputs) {
      input.addEventListener('input', () => { readback.textContent = inputs.map((i) => i.value).join(' '); });
      input.addEventListener('change', apply);
    }
    holder = element('span', { className: 'multi' }, ...inputs);
  }
  form.append(label, holder, readback, error);
  showValue(control, control.value, inputs, readback, control.readable);
}

function showValue(control, value, inputs, readback, readBack) {
  if (value === null || value === undefined) {
    readback.textContent = control.readable ? 'n/a' : 'set only';
    return;
  }
  const values = Array.isArray(value) ? value : [value];
  values.forEach((v, i) => {
    if (!inputs[i]) return;
    if (inputs[i].type === 'checkbox') inputs[i].checked = v !== 0;
    else inputs[i].value = v;
  });
  readback.textContent = values.join(' ') + (readBack ? '' : ' (sent)');
  readback.dataset.value = values.join(' ');
}

async function loadControls(camera) {
  selectedCamera = camera;
  const details = await api(`/api/cameras/${camera}`);
  $('controls').replaceChildren();
  for (const control of details.controls) controlRow(control);
  $('abnormal').textContent = details.abnormal ?? 'n/a';
}

async function refreshAbnormal() {
  if (selectedCamera === null) return;
  try {
    const details = await api(`/api/cameras/${selectedCamera}`);
    $('abnormal').textContent = details.abnormal ?? 'n/a';
  } catch (e) { /* shown by the stats poll */ }
}

// ---- timing ----

function drawSkew(recent) {
  const canvas = $('skew-chart');
  const g = canvas.getContext('2d');
  g.clearRect(0, 0, canvas.width, canvas.height);
  if (recent.length < 2) return;
  const top = Math.max(1, ...recent.map(([, skew]) => skew));
  const t0 = recent[0][0];
  const span = Math.max(1e-6, recent[recent.length - 1][0] - t0);
  g.strokeStyle = '#5aa9e6';
  g.beginPath();
  recent.forEach(([t, skew], i) => {
    const x = ((t - t0) / span) * (canvas.width - 4) + 2;
    const y = canvas.height - 14 - (skew / top) * (canvas.height - 20);
    if (i === 0) g.moveTo(x, y); else g.lineTo(x, y);
  });
  g.stroke();
  g.fillStyle = '#9aa0a6';
  g.font = '11px system-ui';
  g.fillText(`max ${top} µs`, 4, 11);
  g.fillText(`last ${span.toFixed(1)} s`, 4, canvas.height - 2);
}

async function refreshStats() {
  try {
    const stats = await api('/api/stats');
    const rows = stats.cameras.map((c) => element('tr', { id: `timing-${c.camera}` },
      element('td', {}, String(c.camera)), element('td', {}, c.fps.toFixed(1)),
      element('td', {}, String(c.frames)), element('td', {}, String(c.refused)),
      element('td', {}, String(c.dropped)), element('td', {}, c.error ?? String(c.last_sequence))));
    $('timing-rows').replaceChildren(...rows);
    for (const tile of tiles) {
      const camera = stats.cameras.find((c) => c.camera === tile.camera);
      if (camera && camera.error) tile.frame.textContent = camera.error;
    }
    if (stats.group) {
      $('group-panel').hidden = false;
      $('group-figures').textContent = `${stats.group.sets} sets, skew mean ${stats.group.mean_skew_us.toFixed(0)} µs, ` +
        `max ${stats.group.max_skew_us} µs, ${stats.group.incomplete} incomplete`;
      drawSkew(stats.group.recent);
    }
    showStatus(`up ${stats.uptime_s.toFixed(0)} s · streams ${stats.streams.active}/${stats.streams.max}`);
  } catch (e) {
    showStatus(`no answer from the board: ${e.message}`);
  }
}

async function start() {
  $('viewer-close').addEventListener('click', closeViewer);
  document.addEventListener('keydown', (e) => { if (e.key === 'Escape') closeViewer(); });
  let layout;
  for (;;) {
    try { layout = await api('/api/cameras'); break; } catch (e) { showStatus(e.message); await sleep(2000); }
  }
  $('mode').textContent = `${layout.cameras.length} cameras · ${layout.group ? 'group' : 'independent'} · trigger ${layout.trigger}`;
  for (const camera of layout.cameras) {
    for (const view of camera.views) makeTile(camera, view);
    $('camera-select').append(element('option', { value: camera.camera }, `camera ${camera.camera}`));
  }
  $('camera-select').addEventListener('change', (e) => loadControls(Number(e.target.value)));
  if (layout.cameras.length) await loadControls(layout.cameras[0].camera);
  setInterval(refreshStats, 1000);
  setInterval(updateTileRates, 500);
  setInterval(refreshAbnormal, 2000);
  refreshStats();
}

start();
