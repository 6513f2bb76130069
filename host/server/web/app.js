// The dashboard: polls writer-host's API every 1.5 s and draws the cameras'
// state, their buffer fill over the last minute, the write traffic, open
// events, and the archive's recordings of one camera.
'use strict';

const REFRESH_MS = 1500;
let info = { export: false, token: false };
let cameras = [];
let busy = false;

async function get(path) {
  const r = await fetch(path, { cache: 'no-store' });
  const text = await r.text();
  if (!r.ok) throw new Error(path + ': ' + r.status + ' ' + text);
  return text;
}

// The plug-in writes the buffering thread's last round as a bare time, and
// a status line may thus not parse as it comes: quote that one field.
function parseStatus(text) {
  if (!text.trim()) return [];
  const fixed = text.replace(/"buff_thread_last_itter":([^,}"]*)/g, '"buff_thread_last_itter":"$1"');
  try { return JSON.parse(fixed); } catch (e) { return []; }
}

function stateOf(line) {
  if (!line) return ['no channel', 'idle'];
  if (line.error) return ['error', 'error'];
  if (!line.sched) return ['schedule closed', 'closed'];
  if (line.need_write && line.wait_key_frame_mode) return ['waiting for a key frame', 'waiting'];
  if (line.need_write) return ['recording', 'recording'];
  // An idle by-events channel leaves its frames unread, so its last frame
  // time stands still: that is no loss of signal.
  if (line.by_event_prop) return ['by events, idle', 'idle'];
  if (line.no_signal) return ['no signal', 'error'];
  return ['idle', 'idle'];
}

function svg(tag, attrs) {
  const el = document.createElementNS('http://www.w3.org/2000/svg', tag);
  for (const k in attrs) el.setAttribute(k, attrs[k]);
  return el;
}

// A polyline of values over a fixed width; the top is the largest value.
function drawSeries(chart, series, width, height) {
  chart.textContent = '';
  const top = Math.max(1, ...series.flatMap(s => s.values));
  for (const s of series) {
    if (s.values.length < 2) continue;
    const step = width / (s.values.length - 1);
    const pts = s.values.map((v, i) => (i * step).toFixed(1) + ',' + (height - 2 - v / top * (height - 4)).toFixed(1));
    chart.appendChild(svg('polyline', { points: pts.join(' '), class: s.cls }));
  }
  chart.dataset.points = series.reduce((n, s) => n + s.values.length, 0);
  chart.setAttribute('aria-label', 'largest ' + top);
}

function row(cam) {
  let tr = document.querySelector('tr[data-camera="' + CSS.escape(cam.name) + '"]');
  if (tr) return tr;
  tr = document.createElement('tr');
  tr.dataset.camera = cam.name;
  tr.innerHTML = '<td class="name"></td><td><span class="state"></span></td><td class="counts"></td>' +
    '<td><svg class="chart fill" viewBox="0 0 240 48" preserveAspectRatio="none"></svg></td>' +
    '<td class="events"></td><td><button class="start">start</button> <button class="stop">stop</button></td>';
  tr.querySelector('.name').textContent = cam.name + (cam.id !== cam.name ? ' (' + cam.id + ')' : '');
  tr.querySelector('.start').onclick = () => forced(cam, 'start');
  tr.querySelector('.stop').onclick = () => forced(cam, 'stop');
  document.querySelector('#cameras tbody').appendChild(tr);
  return tr;
}

function headers() {
  const h = { 'Content-Type': 'application/json' };
  if (info.token) {
    let t = sessionStorage.getItem('writer-token');
    if (!t) { t = prompt('Token for the recording commands') || ''; sessionStorage.setItem('writer-token', t); }
    h.Authorization = 'Bearer ' + t;
  }
  return h;
}

async function forced(cam, action) {
  const body = action === 'start' ? { action: 'start' } : { action: 'stop' };
  const r = await fetch('/api/cameras/' + encodeURIComponent(cam.id) + '/recording',
                        { method: 'POST', headers: headers(), body: JSON.stringify(body) });
  const text = await r.text();
  if (r.status === 401) sessionStorage.removeItem('writer-token');
  document.getElementById('message').textContent =
    r.ok ? '' : cam.name + ': ' + action + ' refused (' + r.status + ') ' + text +
           (r.status === 409 ? ': forced recording works on cameras that record by events' : '');
  refresh();
}

function drawCameras(status, fills, register) {
  for (const cam of cameras) {
    const tr = row(cam);
    const mine = status.filter(l => l.key2 === cam.key2);
    const line = mine.find(l => l.type === 'video') || mine[0];
    const [text, cls] = stateOf(line);
    const st = tr.querySelector('.state');
    st.textContent = text + (line && line.forced_recording ? ' (forced)' : '');
    st.className = 'state ' + cls;
    tr.dataset.state = text;
    tr.querySelector('.counts').textContent = (cam.sent ?? '–') + ' / ' + (cam.wanted ?? '–');
    const fill = fills.find(l => l.key2 === cam.key2 && l.type === 'video') || fills.find(l => l.key2 === cam.key2);
    const values = a => (a || []).map(e => Array.isArray(e) ? e[1] : e);
    drawSeries(tr.querySelector('.fill'), fill ? [{ values: values(fill.buff1), cls: 'b1' },
                                                  { values: values(fill.buff2), cls: 'b2' }] : [], 240, 48);
    const reg = register.find(l => l.key2 === cam.key2);
    const open = reg ? (reg.events || []).filter(e => e.cntr > 0).map(e => e.event) : [];
    tr.querySelector('.events').textContent = open.length ? open.join(', ') : '–';
  }
}

// "YYYY.MM.DD HH:MM:SS:mmm write size N write KB write useful KB" per period.
function drawTraffic(text) {
  const values = [];
  for (const l of text.split('\n')) {
    const m = / write size \d+ write (\d+)/.exec(l);
    if (m) values.push(Number(m[1]));
  }
  drawSeries(document.getElementById('traffic'), [{ values, cls: 'tr' }], 480, 100);
  document.getElementById('traffic-note').textContent =
    'kB/s handed to the archive per period; latest ' + (values.length ? values[values.length - 1] : '–');
}

async function refresh() {
  if (busy) return;
  busy = true;
  try {
    cameras = JSON.parse(await get('/api/cameras')).cameras;
    const [status, fills, register, traffic, memory] = await Promise.all([
      get('/api/methods/GetStatus').then(parseStatus),
      get('/api/methods/GetStatus?view=buffer_fill').then(parseStatus),
      get('/api/methods/events_register?view=full').then(parseStatus),
      get('/api/query?json=' + encodeURIComponent('{"query_id":"traffic"}')).catch(() => ''),
      get('/api/query?json=' + encodeURIComponent('{"query_id":"common_status"}')).catch(() => '{}')]);
    drawCameras(status, fills, register);
    drawTraffic(traffic);
    const mem = JSON.parse(memory || '{}').buffs_used_mem;
    document.getElementById('memory').textContent = mem === undefined ? '–' : (mem / 1e6).toFixed(2) + ' MB';
    const recording = status.filter(l => l.need_write).length;
    document.getElementById('summary').textContent =
      cameras.length + ' camera(s), ' + recording + ' channel(s) recording';
    document.getElementById('updated').textContent = 'updated ' + new Date().toLocaleTimeString();
    fillCameraChoice();
  } catch (e) {
    document.getElementById('summary').textContent = 'no answer from the server: ' + e.message;
  } finally {
    busy = false;
  }
}

function fillCameraChoice() {
  const sel = document.getElementById('rec-camera');
  if (sel.options.length === cameras.length) return;
  sel.textContent = '';
  for (const c of cameras) sel.appendChild(new Option(c.name, c.name));
  drawRecordings();
}

function localInput(us) {
  const d = new Date(us / 1000 - new Date().getTimezoneOffset() * 60000);
  return d.toISOString().slice(0, 19);
}

async function drawRecordings() {
  const name = document.getElementById('rec-camera').value;
  const chart = document.getElementById('timeline');
  const note = document.getElementById('timeline-note');
  chart.textContent = '';
  if (!name) return;
  let rec;
  try { rec = JSON.parse(await get('/api/recordings/' + encodeURIComponent(name))).recordings[0]; }
  catch (e) { note.textContent = 'nothing recorded yet'; return; }
  const video = rec.streams.find(s => s.kind === 'video') || rec.streams[0];
  const from = video.first_us, to = Math.max(video.last_us, from + 1);
  // Spans between the pauses, drawn on the stream's own scale.
  let start = from;
  const spans = [];
  for (const [a, b] of video.gaps) { spans.push([start, a]); start = b; }
  spans.push([start, video.last_us]);
  for (const [a, b] of spans)
    chart.appendChild(svg('rect', { class: 'rec', x: (a - from) / (to - from) * 1000, y: 4,
                                    width: Math.max(1, (b - a) / (to - from) * 1000), height: 32 }));
  note.textContent = video.frames + ' ' + video.kind + ' frames from ' + new Date(from / 1000).toLocaleString() +
    ' to ' + new Date(video.last_us / 1000).toLocaleString() + ', ' + video.gaps.length + ' pause(s)';
  if (info.export) {
    document.getElementById('player').hidden = false;
    document.getElementById('play-from').value = localInput(from);
    document.getElementById('play-to').value = localInput(video.last_us);
  }
}

function play() {
  const name = document.getElementById('rec-camera').value;
  const us = id => new Date(document.getElementById(id).value).getTime() * 1000;
  document.getElementById('video').src = '/api/recordings/' + encodeURIComponent(name) +
    '/export.mp4?from=' + us('play-from') + '&to=' + us('play-to');
}

async function start() {
  try { info = JSON.parse(await get('/api/info')); } catch (e) { /* keep the defaults */ }
  document.getElementById('rec-camera').onchange = drawRecordings;
  document.getElementById('play').onclick = play;
  await refresh();
  setInterval(refresh, REFRESH_MS);
  setInterval(drawRecordings, 10000);
}

start();
