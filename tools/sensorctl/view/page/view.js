// The view's page: one tile per sensor, each picture fetched again once the previous one has arrived
// and at most at the view's rate, and the figures polled once a second.
'use strict';

const token = new URLSearchParams(location.search).get('token') || '';
const withToken = (path) => `${path}${path.includes('?') ? '&' : '?'}token=${encodeURIComponent(token)}`;
const tiles = new Map();
let rate = 10;
let fullSensor = null;

function el(tag, props = {}, ...children) {
  const node = document.createElement(tag);
  Object.assign(node, props);
  for (const child of children) node.append(child);
  return node;
}

function figure(dl, name) {
  const dd = el('dd');
  dl.append(el('dt', { textContent: name }), dd);
  return dd;
}

function makeTile(sensor) {
  const plane = sensor.kind !== 'camera';
  const img = el('img', { className: 'picture', alt: `${sensor.name} (${sensor.id})` });
  const dl = el('dl');
  const tile = el('section', { className: `tile ${plane ? 'plane' : 'camera'}` },
    el('h2', {}, el('span', { textContent: `${sensor.id} ${sensor.name}` }),
      el('span', { className: 'size', textContent: '' })), img, dl);
  tile.dataset.sensor = sensor.id;
  const fields = {
    fps: figure(dl, 'fps'), gaps: figure(dl, 'gaps'), get: figure(dl, 'get / hold'),
    link: figure(dl, 'link'),
  };
  if (sensor.kind === 'camera') fields.brightness = figure(dl, 'brightness');
  if (sensor.raw !== undefined && (sensor.id === 2 || sensor.id === 3)) fields.pairing = figure(dl, 'pairing');
  img.addEventListener('click', () => openFull(sensor));
  const state = { sensor, img, tile, fields, last: null, loads: 0, shown: null };
  tiles.set(sensor.id, state);
  fetchPicture(state);
  return tile;
}

// The next picture of a tile, no sooner than 1/rate after the previous request began. The browser keeps
// showing the previous picture until the new one has loaded.
function fetchPicture(state) {
  const began = performance.now();
  state.img.onload = () => {
    state.loads += 1;
    state.tile.dataset.loads = state.loads;
    setTimeout(() => fetchPicture(state), Math.max(0, 1000 / rate - (performance.now() - began)));
  };
  state.img.onerror = () => setTimeout(() => fetchPicture(state), 500);
  state.img.src = withToken(`tile/${state.sensor.id}.jpg?n=${state.loads}-${Date.now()}`);
}

function openFull(sensor) {
  fullSensor = sensor;
  document.getElementById('full-title').textContent = `${sensor.id} ${sensor.name}, full resolution`;
  document.getElementById('full-raw-label').hidden = !(sensor.id === 2 || sensor.id === 3);
  document.getElementById('full-raw').checked = false;
  document.getElementById('full').hidden = false;
  fetchFull();
}

function fetchFull() {
  if (fullSensor === null) return;
  const sensor = fullSensor;
  const raw = document.getElementById('full-raw').checked;
  const began = performance.now();
  const probe = new Image();
  const again = (delay) => setTimeout(() => { if (fullSensor === sensor) fetchFull(); }, delay);
  probe.onload = () => {
    if (fullSensor !== sensor) return;
    document.getElementById('full-img').src = probe.src;
    again(Math.max(0, 1000 / rate - (performance.now() - began)));
  };
  probe.onerror = () => again(500);
  probe.src = withToken(`${raw ? 'raw' : 'full'}/${sensor.id}.jpg?n=${Date.now()}`);
}

document.getElementById('full-close').addEventListener('click', () => {
  fullSensor = null;
  document.getElementById('full').hidden = true;
});

const number = (v, digits = 1) => (typeof v === 'number' ? v.toFixed(digits) : '-');

function showFigures(stats) {
  for (const s of stats.sensors) {
    const state = tiles.get(s.id);
    if (!state) continue;
    const f = state.fields;
    const last = state.last;
    let fps = s.meanFps;
    if (last && stats.nowUs > last.nowUs) fps = ((s.frames - last.frames) * 1e6) / (stats.nowUs - last.nowUs);
    state.last = { frames: s.frames, nowUs: stats.nowUs };
    f.fps.textContent = `${number(fps)} (${s.frames} frames)`;
    const errors = Object.entries(s.errors).map(([k, n]) => `${n}×${k}`).join(' ');
    f.gaps.textContent = `${s.gaps} missing, ${s.outOfOrder} out of order${errors ? `, ${errors}` : ''}`;
    f.gaps.className = s.gaps || s.outOfOrder || errors ? 'bad' : '';
    f.get.textContent = `${number(s.getUs, 0)} µs / ${number(s.holdUs, 0)} µs`;
    if (s.link) {
      f.link.textContent = `${s.link.link ? 'link up' : 'link DOWN'}, ${s.link.video ? 'video' : 'NO video'}, state ${s.link.state ?? '-'}`;
      f.link.className = s.link.link && s.link.video ? 'good' : 'bad';
    } else {
      f.link.textContent = 'unknown';
    }
    if (f.brightness) {
      const b = s.brightness;
      f.brightness.textContent = b && b.valid
        ? `${number(b.value, 2)} (${b.roiCount} regions, ${b.roiCellCount} cells, frame ${b.frameId})`
        : 'not available';
    }
    if (f.pairing) {
      const tries = s.paired + s.pairFailures;
      f.pairing.textContent = tries ? `${((100 * s.paired) / tries).toFixed(1)} % (${s.paired}/${tries})` : '-';
    }
    state.tile.querySelector('.size').textContent = s.width ? `${s.width}×${s.height} ${s.format}` : (s.problem || '');
  }
}

async function poll() {
  const status = document.getElementById('status');
  try {
    const reply = await fetch(withToken('stats'), { cache: 'no-store' });
    if (!reply.ok) throw new Error(`${reply.status}`);
    const stats = await reply.json();
    rate = stats.fps;
    if (tiles.size === 0) {
      const main = document.getElementById('tiles');
      for (const s of stats.sensors) main.append(makeTile(s));
    }
    showFigures(stats);
    status.textContent = `${stats.sensors.length} sensors, up to ${stats.fps} pictures/s per tile`;
    status.className = '';
  } catch (e) {
    status.textContent = `no answer from sensorctl (${e.message})`;
    status.className = 'down';
  }
  setTimeout(poll, 1000);
}

poll();
