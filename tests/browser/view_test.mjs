// sensorctl view end to end: its HTTP answers (token, paths, malformed requests) and the page in headless
// Chromium. `page`: every camera's picture changes and every radar and lidar has one, with figures.
// `stall`: through sensor-simd beside another consumer, with a browser open and clients that never read,
// for 60 s: the view's memory stays flat, the browser keeps its pictures, the other consumer its rate.
// Environment: SENSORCTL, SENSOR_SIMD, CHROMIUM (default /usr/bin/chromium), SCREENSHOT (a PNG to write).
import { test, after } from 'node:test';
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import fs from 'node:fs';
import net from 'node:net';
import os from 'node:os';
import path from 'node:path';

const mode = process.argv[2] || 'page';
const sensorctl = process.env.SENSORCTL;
const chromium = process.env.CHROMIUM || '/usr/bin/chromium';
assert.ok(sensorctl && fs.existsSync(sensorctl), 'SENSORCTL must name the built sensorctl');
assert.ok(fs.existsSync(chromium), `no Chromium at ${chromium}: run scripts/setup`);

const { default: puppeteer } = await import('puppeteer-core').catch(() => {
  throw new Error('puppeteer-core is not installed in tests/browser: run scripts/setup');
});

const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'view-test-'));
fs.chmodSync(dir, 0o700);
const children = [];
let browser = null;
after(async () => {
  if (browser) await browser.close().catch(() => {});
  for (const child of children) await end(child);
  fs.rmSync(dir, { recursive: true, force: true });
});

const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

function start(program, args, name) {
  const out = fs.openSync(path.join(dir, `${name}.out`), 'w');
  const err = fs.openSync(path.join(dir, `${name}.err`), 'w');
  const child = spawn(program, args, { stdio: ['ignore', out, err] });
  child.name = name;
  child.exited = new Promise((resolve) => child.on('exit', (code, signal) => resolve({ code, signal })));
  children.push(child);
  return child;
}
const output = (name, stream = 'out') => {
  try {
    return fs.readFileSync(path.join(dir, `${name}.${stream}`), 'utf8');
  } catch {
    return '';
  }
};

// Ends a child by its pid: SIGINT, then SIGKILL after 10 s.
async function end(child) {
  if (child.exitCode !== null || child.signalCode !== null) return child.exited;
  process.kill(child.pid, 'SIGINT');
  const timer = setTimeout(() => child.exitCode === null && process.kill(child.pid, 'SIGKILL'), 10000);
  const result = await child.exited;
  clearTimeout(timer);
  return result;
}

async function waitFor(what, check, ms) {
  const deadline = Date.now() + ms;
  for (;;) {
    const value = await check();
    if (value) return value;
    if (Date.now() > deadline) throw new Error(`not within ${ms} ms: ${what}`);
    await sleep(100);
  }
}

// Starts the view; its first line on stdout is the page's address.
async function startView(args, name = 'view') {
  const child = start(sensorctl, [...args, 'view'], name);
  const url = await waitFor('the view prints its address', () => {
    assert.equal(child.exitCode, null, `the view ended: ${output(name, 'err')}`);
    const line = output(name).split('\n')[0];
    return output(name).includes('\n') ? line : null;
  }, 30000);
  const parsed = new URL(url);
  return { child, url, base: parsed.origin, token: parsed.searchParams.get('token'), port: Number(parsed.port) };
}

// One request on a socket of its own, answered within 10 s: status and text, once the answer is whole
// (or the server closed the connection).
function request(port, raw) {
  return new Promise((resolve, reject) => {
    const socket = net.connect(port, '127.0.0.1');
    const chunks = [];
    const done = () => {
      const text = Buffer.concat(chunks).toString('latin1');
      resolve({ status: Number(text.split(' ')[1]), text });
      socket.destroy();
    };
    socket.setTimeout(10000, () => socket.destroy(new Error('no answer within 10 s')));
    socket.on('connect', () => socket.write(raw));
    socket.on('data', (d) => {
      chunks.push(d);
      const text = Buffer.concat(chunks).toString('latin1');
      const head = text.indexOf('\r\n\r\n');
      if (head < 0) return;
      const length = /content-length: *(\d+)/i.exec(text.slice(0, head));
      if (length && text.length - head - 4 >= Number(length[1])) done();
    });
    socket.on('error', reject);
    socket.on('close', done);
  });
}
const get = (port, target, extra = '') =>
  request(port, `GET ${target} HTTP/1.1\r\nHost: x\r\nConnection: close\r\n${extra}\r\n`);

// The process's private memory: frames mapped from sensor-simd's shared memory are not its own.
function privateMemory(pid) {
  const line = fs.readFileSync(`/proc/${pid}/status`, 'utf8').split('\n').find((l) => l.startsWith('RssAnon:'));
  return Number(line.split(/\s+/)[1]) * 1024;
}

// The browser stands in for one on the user's laptop: here it shares the machine with the vehicle, so
// it runs on the last processor only and at idle priority, leaving the others to sensor-simd and its
// consumers.
async function openPage(url, viewport = { width: 1600, height: 1000 }) {
  const wrapper = path.join(dir, 'chromium');
  fs.writeFileSync(wrapper, `#!/bin/sh\nexec taskset -c ${os.cpus().length - 1} chrt --idle 0 ${chromium} "$@"\n`, { mode: 0o700 });
  browser ??= await puppeteer.launch({
    executablePath: wrapper,
    headless: true,
    args: ['--no-sandbox', '--disable-gpu', '--disable-dev-shm-usage'],
    protocolTimeout: 60000,
    // The test reads the page, not its traffic: without the network events the driver stays idle.
    networkEnabled: false,
  });
  const page = await browser.newPage();
  await page.setViewport(viewport);
  await page.goto(url, { timeout: 30000 });
  return page;
}

// Per tile: its sensor, how many pictures it has loaded, a hash of the shown picture's pixels.
function tileStates(page) {
  return page.evaluate(async () => {
    const canvas = document.createElement('canvas');
    const context = canvas.getContext('2d', { willReadFrequently: true });
    const states = [];
    for (const tile of document.querySelectorAll('.tile')) {
      const img = tile.querySelector('img');
      // A picture still loading is waited for (at most a second).
      for (let i = 0; i < 100 && !(img.complete && img.naturalWidth > 0); ++i) await new Promise((r) => setTimeout(r, 10));
      let hash = 0;
      if (img.complete && img.naturalWidth > 0) {
        canvas.width = img.naturalWidth;
        canvas.height = img.naturalHeight;
        context.drawImage(img, 0, 0);
        const data = context.getImageData(0, 0, canvas.width, canvas.height).data;
        for (let i = 0; i < data.length; i += 7) hash = (hash * 31 + data[i]) | 0;
      }
      states.push({
        sensor: Number(tile.dataset.sensor),
        kind: tile.classList.contains('camera') ? 'camera' : 'plane',
        loads: Number(tile.dataset.loads || 0),
        width: img.naturalWidth,
        hash,
        figures: tile.querySelector('dl').innerText,
      });
    }
    return states;
  });
}

if (mode === 'page') {
  const view = await startView([]);

  // Would catch a request served without the token, with a wrong one, or past the page's own paths.
  test('the token and the paths', async () => {
    for (const target of ['/', '/stats', '/tile/0.jpg', '/view.js', `/?token=${'0'.repeat(view.token.length)}`,
      `/?token=${view.token.slice(0, -1)}`, `/stats?token=${view.token}x`]) {
      assert.equal((await get(view.port, target)).status, 403, target);
    }
    // Pictures come once the sensors' first frames have (503 until then).
    await waitFor('every sensor has a frame', async () => {
      const reply = await get(view.port, `/stats?token=${view.token}`);
      return JSON.parse(reply.text.split('\r\n\r\n')[1]).sensors.every((s) => s.frames > 0);
    }, 30000);
    for (const target of ['/', '/view.js', '/view.css', '/stats', '/tile/0.jpg', '/full/3.jpg', '/raw/2.jpg']) {
      const reply = await get(view.port, `${target}${target.includes('?') ? '&' : '?'}token=${view.token}`);
      assert.equal(reply.status, 200, `${target}: ${reply.text.slice(0, 200)}`);
    }
    for (const target of ['/../../etc/passwd', '/index.html/../../../etc/passwd', '/tile/15.jpg', '/tile/99.jpg',
      '/raw/0.jpg', '/page/view.js', '/etc/passwd']) {
      const reply = await get(view.port, `${target}?token=${view.token}`);
      assert.ok(reply.status === 404 || reply.status === 400, `${target}: ${reply.status}`);
      assert.ok(!reply.text.includes('root:'), target);
    }
    const stats = JSON.parse((await get(view.port, `/stats?token=${view.token}`)).text.split('\r\n\r\n')[1]);
    assert.equal(stats.sensors.length, 21);
  });

  // Would catch a malformed or oversized request that ends the view or is served.
  test('malformed requests get 400 and the view goes on', async () => {
    for (const raw of ['GARBAGE\r\n\r\n', 'GET\r\n\r\n', `GET /${'a'.repeat(10000)} HTTP/1.1\r\n\r\n`,
      `GET /?token=${view.token} HTTP/1.1\r\nX: ${'b'.repeat(20000)}\r\n\r\n`,
      `POST /?token=${view.token} HTTP/1.1\r\nContent-Length: 100000\r\n\r\n${'c'.repeat(2000)}`]) {
      const reply = await request(view.port, raw);
      assert.ok(reply.status >= 400 && reply.status < 500, `${raw.slice(0, 30)}: ${reply.status}`);
    }
    assert.equal((await get(view.port, `/?token=${view.token}`)).status, 200);
    assert.equal(view.child.exitCode, null);
    assert.ok(!output('view', 'err').includes(view.token), 'the token is in the log');
  });

  // Would catch a camera whose picture freezes, a radar or lidar without a picture, or missing figures.
  test('every camera shows a changing picture, every radar and lidar a picture, with figures', async () => {
    const page = await openPage(view.url);
    await waitFor('every tile has loaded three pictures', async () => {
      const tiles = await tileStates(page);
      return tiles.length === 21 && tiles.every((t) => t.loads >= 3 && t.width > 0);
    }, 60000);
    const first = await tileStates(page);
    await sleep(1500);
    const second = await tileStates(page);
    assert.equal(first.filter((t) => t.kind === 'camera').length, 12);
    for (const t of second) {
      const before = first.find((f) => f.sensor === t.sensor);
      if (t.kind === 'camera') assert.notEqual(t.hash, before.hash, `camera ${t.sensor} did not change`);
      assert.ok(t.loads > before.loads, `sensor ${t.sensor} loaded no new picture`);
      assert.match(t.figures, /fps\s+[1-9]/, `sensor ${t.sensor}: ${t.figures}`);
      assert.match(t.figures, /link up/, `sensor ${t.sensor}: ${t.figures}`);
    }
    for (const id of [2, 3]) assert.match(second.find((t) => t.sensor === id).figures, /pairing\s+\d/);
    if (process.env.SCREENSHOT) {
      // Half scale keeps the picture of the whole page small enough for the docs.
      await page.setViewport({ width: 1600, height: 1000, deviceScaleFactor: 0.5 });
      await sleep(1500);
      await page.screenshot({ path: process.env.SCREENSHOT, fullPage: true });
    }
    await page.close();
  });

  test('the view ends with status 0 on Ctrl-C', async () => {
    const result = await end(view.child);
    assert.equal(result.code, 0, output('view', 'err'));
  });
}

if (mode === 'stall') {
  const simd = process.env.SENSOR_SIMD;
  assert.ok(simd && fs.existsSync(simd), 'SENSOR_SIMD must name the built sensor-simd');
  const socketPath = path.join(dir, 'service.sock');
  start(simd, ['--socket', socketPath], 'simd');
  await waitFor('sensor-simd listens', () => fs.existsSync(socketPath), 20000);
  const seconds = Number(process.env.VIEW_TEST_SECONDS || 60);
  const stalledClients = Number(process.env.VIEW_TEST_STALLED ?? 4);
  const view = await startView(['--service', socketPath]);

  // Would catch memory that grows with a stalled client, pictures that stop for the others, or a view
  // that slows another consumer of the same service.
  test('a stalled client for 60 s: flat memory, pictures for the others, full rate for the other consumer', async () => {
    const page = await openPage(view.url, { width: 1024, height: 700 });
    await waitFor('every tile has a picture', async () => {
      const tiles = await tileStates(page);
      return tiles.length === 21 && tiles.every((t) => t.loads >= 2);
    }, 60000);
    // Clients that ask for full-size pictures again and again and never read an answer: a new one every
    // 5 s (the view drops each once its writes time out), all kept open.
    const stalled = [];
    const stall = () => {
      const socket = net.connect(view.port, '127.0.0.1');
      socket.pause();
      socket.on('error', () => {});
      let pipelined = '';
      for (let n = 0; n < 200; ++n) pipelined += `GET /full/${n % 12}.jpg?token=${view.token}&n=${n} HTTP/1.1\r\nHost: x\r\n\r\n`;
      socket.write(pipelined);
      stalled.push(socket);
    };
    // The other consumer runs while the page is open (not while the browser starts) and the clients stall.
    const other = start(sensorctl, ['--service', socketPath, 'stream', '--duration', String(seconds + 30), '--json',
      '--camera-app', 'APP_CAMERA_IRC', '--sensor-app', 'APP_SENSOR_IRC'], 'other');
    for (let i = 0; i < stalledClients; ++i) stall();
    await sleep(5000);
    const baseline = privateMemory(view.child.pid);
    let highest = baseline;
    let loadsBefore = null;
    for (let t = 0; t < seconds; t += 1) {
      await sleep(1000);
      if (t % 5 === 0 && stalledClients > 0) stall();
      highest = Math.max(highest, privateMemory(view.child.pid));
      if (t === seconds - 11) loadsBefore = await tileStates(page);
    }
    const loadsAfter = await tileStates(page);
    for (const socket of stalled) socket.destroy();
    const mib = (bytes) => (bytes / 1048576).toFixed(1);
    console.log(`view private memory: ${mib(baseline)} MiB after 5 s, at most ${mib(highest)} MiB in ${seconds} s ` +
      `with ${stalled.length} stalled clients`);
    for (const t of loadsAfter) {
      const before = loadsBefore.find((b) => b.sensor === t.sensor);
      assert.ok(t.loads >= before.loads + 10, `sensor ${t.sensor}: ${t.loads - before.loads} pictures in 10 s`);
    }
    assert.ok(highest - baseline < 16 * 1048576, `memory grew by ${mib(highest - baseline)} MiB`);
    await page.close();

    await end(other);
    const report = JSON.parse(output('other'));
    const nominal = (id) => (id < 12 ? 30 : [14, 20, 21].includes(id) ? 10 : 20);
    assert.equal(report.sensors.length, 21);
    console.log(`other consumer gaps: ${report.sensors.map((s) => `${s.id}:${s.gaps}`).join(' ')}`);
    for (const s of report.sensors) {
      console.log(`other consumer: sensor ${s.id} ${s.fps.toFixed(2)} fps (${(s.fps / nominal(s.id)).toFixed(3)} of nominal)`);
      assert.ok(s.fps >= 0.99 * nominal(s.id), `sensor ${s.id}: ${s.fps} fps`);
    }
    assert.equal((await end(view.child)).code, 0, output('view', 'err'));
  });
}
