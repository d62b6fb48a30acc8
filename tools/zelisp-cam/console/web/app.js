// The zelisp-cam console: live views, tuning, timing and events, all on the
// same JSON API scripts use. This module starts the parts, keeps the
// figures fresh, and shows when the board stops answering (tiles greyed,
// figures marked stale) until it answers again.
import { Tiles } from '/tiles.js';
import { Tuning } from '/tuning.js';
import { Timing, Events } from '/panels.js';
import { api, sleep } from '/common.js';

const $ = (id) => document.getElementById(id);

const REFRESH_MS = 1000;

class Console {
  constructor() {
    this.connected = null;
    this.layoutKey = '';
    this.tiles = new Tiles($('views'), this);
    this.tuning = new Tuning(this);
    this.timing = new Timing();
    this.events = new Events();
  }

  setConnected(connected, why) {
    document.body.classList.toggle('disconnected', !connected);
    $('status').textContent = connected ? why : `disconnected: ${why} · reconnecting…`;
    if (this.connected === false && connected) this.loadLayout(); // the console may have restarted
    this.connected = connected;
  }

  async askForToken() {
    $('login').hidden = false;
    $('login-token').focus();
    await new Promise((resolve) => {
      $('login-form').addEventListener('submit', async (event) => {
        event.preventDefault();
        try {
          await api('/login', { method: 'POST', body: new URLSearchParams({ token: $('login-token').value }) });
          $('login').hidden = true;
          resolve();
        } catch (error) {
          $('login-error').textContent = error.message;
          $('login-error').hidden = false;
        }
      });
    });
  }

  async loadLayout() {
    const layout = await api('/api/cameras');
    $('mode').textContent = `${layout.cameras.length} cameras · ${layout.group ? 'group' : 'independent'} · trigger ${layout.trigger}`;
    const key = JSON.stringify(layout.cameras);
    if (key !== this.layoutKey) {
      this.layoutKey = key;
      this.tiles.show(layout);
      this.tuning.setCameras(layout.cameras.map((c) => c.camera));
    }
    return layout;
  }

  async refresh() {
    try {
      const stats = await api('/api/stats');
      this.timing.show(stats);
      this.tiles.showFigures(stats);
      await this.events.fetchNew();
      this.setConnected(true, `up ${stats.uptime_s.toFixed(0)} s · streams ${stats.streams.active}/${stats.streams.max}`);
    } catch (error) {
      if (error.status === 401) { await this.askForToken(); return; }
      this.setConnected(false, error.message);
    }
  }

  async start() {
    $('viewer-close').addEventListener('click', () => this.tiles.closeViewer());
    document.addEventListener('keydown', (event) => { if (event.key === 'Escape') this.tiles.closeViewer(); });
    for (const button of document.querySelectorAll('#sections button')) {
      button.addEventListener('click', () => {
        document.body.dataset.section = button.dataset.show;
        for (const other of document.querySelectorAll('#sections button'))
          other.setAttribute('aria-pressed', String(other === button));
      });
    }
    for (;;) {
      try { await this.loadLayout(); break; } catch (error) {
        if (error.status === 401) await this.askForToken();
        else { this.setConnected(false, error.message); await sleep(2000); }
      }
    }
    await this.tuning.load();
    for (;;) {
      await this.refresh();
      await sleep(REFRESH_MS);
    }
  }
}

new Console().start();
