// The live views: one card per camera (its state, start and stop) with a
// tile per view. A tile asks for a picture newer than the one it shows; the
// console answers as soon as there is one, so a tile follows the camera or
// this browser, whichever is slower. Each tile has its snapshot, its live
// view (WebRTC, MJPEG when WebRTC cannot be had) and its format.
import { element, putJson, sleep } from '/common.js';
import { playWebRtc } from '/webrtc.js';

const $ = (id) => document.getElementById(id);
const FIRST_FRAME_LIMIT_MS = 5000; // a WebRTC view that shows nothing by then gives way to MJPEG

export class Tiles {
  constructor(root, console) {
    this.root = root;
    this.console = console;
    this.tiles = [];
    this.cards = new Map();
    this.round = 0; // the polls of an earlier layout stop when this moves on
    this.viewer = null;
    // A tile asks for pictures only while it is on screen: on a phone the
    // other sections, and on any screen the tiles scrolled away, cost nothing.
    this.observer = new IntersectionObserver((entries) => {
      for (const entry of entries) {
        const tile = this.tiles.find((t) => t.img === entry.target);
        if (!tile) continue;
        tile.visible = entry.isIntersecting;
        if (tile.visible && tile.wake) { tile.wake(); tile.wake = null; }
      }
    });
  }

  show(layout) {
    this.round += 1;
    this.observer.disconnect();
    this.tiles = [];
    this.cards.clear();
    this.formats = layout.formats;
    this.group = layout.group;
    this.root.replaceChildren(...layout.cameras.map((camera) => this.card(camera)));
  }

  card(camera) {
    const state = element('span', { className: 'state' }, camera.running ? 'running' : 'stopped');
    const toggle = element('button', { type: 'button', className: 'run', id: `run-${camera.camera}`,
      disabled: this.group, title: this.group ? 'the cameras of a group start and stop together' : '' },
    camera.running ? 'Stop' : 'Start');
    toggle.addEventListener('click', () => this.setRunning(camera.camera, toggle.textContent === 'Start'));
    const error = element('span', { className: 'error', hidden: true });
    const header = element('header', {}, element('h2', {}, `camera ${camera.camera}`), state, toggle, error);
    const grid = element('div', { className: 'tile-grid' }, ...camera.views.map((view) => this.tile(camera, view)));
    const card = element('section', { className: 'camera-card', dataset: { camera: camera.camera } }, header, grid);
    card.classList.toggle('stopped', !camera.running);
    this.cards.set(camera.camera, { card, state, toggle, error });
    return card;
  }

  tile(camera, view) {
    const img = element('img', { id: `tile-${camera.camera}-${view.view}`,
      alt: `camera ${camera.camera} view ${view.view}`, width: view.preview.width, height: view.preview.height });
    const frame = element('span', { className: 'frame' }, '#-');
    const fps = element('span', { className: 'fps' }, '- fps');
    const snapshot = element('a', { className: 'button', href: view.snapshot,
      download: `camera${camera.camera}-view${view.view}.png` }, 'Snapshot');
    const live = element('button', { type: 'button' }, 'Live');
    live.addEventListener('click', () => this.openViewer(camera, view));
    const formatButton = element('button', { type: 'button', 'aria-expanded': 'false' }, 'Format');
    const form = this.formatForm(camera, view);
    formatButton.addEventListener('click', () => {
      form.hidden = !form.hidden;
      formatButton.setAttribute('aria-expanded', String(!form.hidden));
    });
    const caption = element('figcaption', {},
      element('b', {}, `view ${view.view}`),
      element('span', { className: 'format' }, `${view.format} ${view.width}x${view.height}`), frame, fps,
      element('span', { className: 'actions' }, snapshot, live, formatButton), form);
    const figure = element('figure', { className: 'tile', dataset: { camera: camera.camera, view: view.view } },
      img, caption);
    const tile = { camera: camera.camera, view: view.view, img, frame, fps, times: [], visible: false, wake: null };
    this.tiles.push(tile);
    this.observer.observe(img);
    this.poll(tile, this.round);
    return figure;
  }

  formatForm(camera, view) {
    const id = `format-${camera.camera}-${view.view}`;
    const format = element('select', { id: `${id}-format`, 'aria-label': 'pixel format' },
      ...this.formats.map((name) => element('option', { value: name, selected: name === view.format }, name)));
    const width = element('input', { id: `${id}-width`, type: 'number', min: 2, max: 65534, step: 2,
      value: view.width, 'aria-label': 'width' });
    const height = element('input', { id: `${id}-height`, type: 'number', min: 2, max: 65534, step: 2,
      value: view.height, 'aria-label': 'height' });
    const apply = element('button', { type: 'submit' }, 'Apply');
    const error = element('p', { className: 'error', id: `${id}-error`, hidden: true });
    const form = element('form', { className: 'format-form', id, hidden: true, noValidate: true },
      format, width, element('span', {}, '×'), height, apply, error);
    form.addEventListener('submit', async (event) => {
      event.preventDefault();
      const size = [width, height].map((input) => Number(input.value));
      if (size.some((n) => !Number.isInteger(n) || n < 2 || n > 65534 || n % 2 || [width, height].some((i) => i.value.trim() === ''))) {
        error.textContent = 'width and height: even whole numbers, 2..65534';
        error.hidden = false;
        return; // nothing is sent
      }
      try {
        await putJson(`/api/cameras/${camera.camera}/views/${view.view}`,
          { format: format.value, width: size[0], height: size[1] });
        error.hidden = true;
        await this.console.loadLayout();
      } catch (e) {
        error.textContent = e.message;
        error.hidden = false;
      }
    });
    return form;
  }

  async setRunning(camera, running) {
    const card = this.cards.get(camera);
    try {
      await putJson(`/api/cameras/${camera}/running`, { value: running });
      card.error.hidden = true;
      this.showRunning(camera, running);
    } catch (e) {
      card.error.textContent = e.message;
      card.error.hidden = false;
    }
  }

  showRunning(camera, running) {
    const card = this.cards.get(camera);
    if (!card) return;
    card.state.textContent = running ? 'running' : 'stopped';
    card.toggle.textContent = running ? 'Stop' : 'Start';
    card.card.classList.toggle('stopped', !running);
  }

  async poll(tile, round) {
    let after = 0;
    let shown = null;
    while (round === this.round) {
      if (!tile.visible) {
        await new Promise((resolve) => { tile.wake = resolve; setTimeout(resolve, 1000); });
        continue;
      }
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
        await sleep(1000); // the board is away: the status line says so
      }
    }
  }

  showFigures(stats) {
    const now = performance.now();
    for (const tile of this.tiles) {
      const recent = tile.times.filter((t) => now - t < 2000);
      const rate = recent.length > 1 ? (recent.length - 1) * 1000 / (recent[recent.length - 1] - recent[0]) : 0;
      tile.fps.textContent = `${rate.toFixed(1)} fps shown`;
    }
    for (const camera of stats.cameras) {
      this.showRunning(camera.camera, camera.running);
      const card = this.cards.get(camera.camera);
      if (card && camera.error) {
        card.error.textContent = camera.error;
        card.error.hidden = false;
      }
      if (camera.error && this.viewer?.camera === camera.camera) {
        this.endViewer(this.viewer, `camera ${camera.camera} stopped: ${camera.error}`);
      }
    }
  }

  // A camera that gives no more frames (unplugged) has ended its WebRTC
  // session and its stream: the viewer says why in their place, with the
  // console's own words, rather than falling back to a stream that is over.
  endViewer(viewer, why) {
    if (viewer.closed || viewer.ended) return;
    viewer.ended = true;
    clearInterval(viewer.figures);
    if (viewer.session) viewer.session.close();
    viewer.session = null;
    $('viewer-image').removeAttribute('src');
    $('viewer-image').hidden = true;
    $('viewer-video').hidden = true;
    $('viewer-mode').textContent = why;
  }

  async openViewer(camera, view) {
    this.closeViewer();
    $('viewer-title').textContent = `camera ${camera.camera} · view ${view.view} · ${view.format} ${view.width}x${view.height}`;
    $('viewer-snapshot').href = view.snapshot;
    $('viewer-snapshot').download = `camera${camera.camera}-view${view.view}.png`;
    // Nothing of the viewer before is said of this one.
    const mode = $('viewer-mode');
    mode.textContent = '';
    for (const key of Object.keys(mode.dataset)) delete mode.dataset[key];
    $('viewer').hidden = false;
    $('viewer-close').focus();
    const viewer = { camera: camera.camera, closed: false, ended: false, session: null };
    this.viewer = viewer;
    const video = $('viewer-video');
    try {
      viewer.session = await playWebRtc(video, view.whep, () => this.fallBack(viewer, view, 'the connection ended'));
      if (viewer.closed || viewer.ended) { viewer.session.close(); return; }
      video.hidden = false;
      $('viewer-mode').textContent = 'WebRTC · H.264 · connecting';
      const started = performance.now();
      const waiting = () => !viewer.closed && !viewer.ended && video.videoWidth === 0;
      while (waiting() && performance.now() - started < FIRST_FRAME_LIMIT_MS) await sleep(100);
      if (viewer.closed || viewer.ended) return;
      if (video.videoWidth === 0) throw new Error('no picture within 5 s');
      $('viewer-mode').textContent = 'WebRTC · H.264';
      viewer.figures = setInterval(() => this.showWebRtcFigures(viewer), 1000);
    } catch (error) {
      this.fallBack(viewer, view, error.message);
    }
  }

  // What the browser receives, beside the mode: frames decoded per second
  // and the bit rate (also in the element's data for scripts).
  async showWebRtcFigures(viewer) {
    if (!viewer.session || viewer.closed) return;
    const report = await viewer.session.pc.getStats();
    report.forEach((entry) => {
      if (entry.type !== 'inbound-rtp' || entry.kind !== 'video') return;
      const mode = $('viewer-mode');
      const previous = viewer.lastInbound;
      const kbps = previous ? (entry.bytesReceived - previous.bytesReceived) * 8 / (entry.timestamp - previous.timestamp) : 0;
      viewer.lastInbound = entry;
      Object.assign(mode.dataset, { fps: entry.framesPerSecond ?? 0, kbps: kbps.toFixed(0),
        framesDecoded: entry.framesDecoded, bytesReceived: entry.bytesReceived });
      mode.textContent = `WebRTC · H.264 · ${(entry.framesPerSecond ?? 0).toFixed(0)} fps · ${(kbps / 1000).toFixed(1)} Mbit/s`;
    });
  }

  fallBack(viewer, view, why) {
    if (viewer.closed || viewer.ended || viewer !== this.viewer) return;
    clearInterval(viewer.figures);
    if (viewer.session) viewer.session.close();
    viewer.session = null;
    $('viewer-video').hidden = true;
    const image = $('viewer-image');
    image.src = `${view.stream}?size=full`;
    image.hidden = false;
    $('viewer-mode').textContent = `MJPEG (WebRTC: ${why})`;
  }

  closeViewer() {
    const viewer = this.viewer;
    if (!viewer) return;
    viewer.closed = true;
    clearInterval(viewer.figures);
    if (viewer.session) viewer.session.close();
    this.viewer = null;
    $('viewer-image').removeAttribute('src'); // ends the stream
    $('viewer-image').hidden = true;
    $('viewer-video').hidden = true;
    $('viewer').hidden = true;
  }
}
