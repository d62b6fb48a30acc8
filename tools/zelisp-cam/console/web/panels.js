// The timing table with its frame-set skew chart, and the event panel with
// the library's lines and the console's own events.
import { api, element } from '/common.js';

const $ = (id) => document.getElementById(id);
const EVENTS_SHOWN = 200;

// The chart keeps its labels in margins of their own, so that the trace
// never runs over them.
const MARGIN = { left: 56, right: 8, top: 10, bottom: 22 };

function drawSkew(canvas, recent) {
  const g = canvas.getContext('2d');
  const width = canvas.width, height = canvas.height;
  const plot = { x: MARGIN.left, y: MARGIN.top, w: width - MARGIN.left - MARGIN.right, h: height - MARGIN.top - MARGIN.bottom };
  g.clearRect(0, 0, width, height);
  g.font = '11px system-ui, sans-serif';
  g.fillStyle = '#9aa0a6';
  g.strokeStyle = '#4a4f55';
  g.beginPath();
  g.moveTo(plot.x, plot.y);
  g.lineTo(plot.x, plot.y + plot.h);
  g.lineTo(plot.x + plot.w, plot.y + plot.h);
  g.stroke();
  const top = Math.max(1, ...recent.map(([, skew]) => skew));
  g.textAlign = 'right';
  g.textBaseline = 'middle';
  g.fillText(`${top} µs`, plot.x - 4, plot.y);
  g.fillText('0', plot.x - 4, plot.y + plot.h);
  if (recent.length < 2) return;
  const t0 = recent[0][0];
  const span = Math.max(1e-6, recent[recent.length - 1][0] - t0);
  g.textBaseline = 'top';
  g.textAlign = 'left';
  g.fillText(`−${span.toFixed(1)} s`, plot.x, plot.y + plot.h + 4);
  g.textAlign = 'right';
  g.fillText('now', plot.x + plot.w, plot.y + plot.h + 4);
  g.save();
  g.beginPath();
  g.rect(plot.x, plot.y, plot.w, plot.h);
  g.clip();
  g.strokeStyle = '#5aa9e6';
  g.beginPath();
  recent.forEach(([t, skew], i) => {
    const x = plot.x + ((t - t0) / span) * plot.w;
    const y = plot.y + plot.h - (skew / top) * plot.h;
    if (i === 0) g.moveTo(x, y); else g.lineTo(x, y);
  });
  g.stroke();
  g.restore();
}

export class Timing {
  show(stats) {
    const rows = stats.cameras.map((c) => element('tr', { id: `timing-${c.camera}` },
      element('td', {}, String(c.camera)), element('td', {}, c.running ? c.fps.toFixed(1) : 'stopped'),
      element('td', {}, String(c.frames)), element('td', {}, String(c.refused)),
      element('td', {}, String(c.dropped)), element('td', {}, c.error ?? String(c.last_sequence))));
    $('timing-rows').replaceChildren(...rows);
    if (stats.group) {
      $('group-panel').hidden = false;
      const g = stats.group;
      $('group-figures').textContent = `${g.sets} sets, skew mean ${g.mean_skew_us.toFixed(0)} µs, max ${g.max_skew_us} µs, ` +
        `${g.incomplete} incomplete`;
      drawSkew($('skew-chart'), g.recent);
    }
  }
}

export class Events {
  constructor() { this.next = 0; }

  async fetchNew() {
    const answer = await api(`/api/events?after=${this.next}&wait=0`);
    this.next = answer.next;
    const list = $('event-list');
    for (const event of answer.events) {
      const time = new Date(event.time_ms).toLocaleTimeString([], { hour12: false });
      list.prepend(element('li', { className: `${event.source} ${event.kind}`, dataset: { id: event.id } },
        element('time', {}, time), element('span', { className: 'source' }, event.source),
        event.node ? element('span', { className: 'node' }, event.node) : null,
        element('span', { className: 'text' }, event.text)));
    }
    while (list.children.length > EVENTS_SHOWN) list.lastElementChild.remove();
    $('events-lost').textContent = answer.lost ? `${answer.lost} library lines lost` : '';
  }
}
