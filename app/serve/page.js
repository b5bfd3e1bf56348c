// The page of a render: asks how far it is, shows the picture as it stands, and lets it be looked at.
'use strict';

const $ = (id) => document.getElementById(id);
const canvas = $('view');
const pen = canvas.getContext('2d');
const kMostScale = 64;    // device pixels that one pixel of the picture can take
const kLeastScale = 1 / 32;

// What is looked at. The scale is in device pixels for a pixel of the picture; the place is a point of the
// picture, that of the middle of the view.
const look = {image: 0, exposure: 0, scale: 1, x: 0, y: 0, fits: true};
// The last picture that came: an offscreen canvas, and what it was asked by.
const shown = {canvas: null, pixels: null, key: '', level: 0, image: -1};
let status = null;        // the last answer
let size = {width: 0, height: 0};
let logLength = 0, unseen = 0, loading = false, lost = 0;

// A token in the address has become a cookie by now; it shall not stay where it can be read.
if (location.search) history.replaceState(null, '', location.pathname + location.hash);

// What is looked at stands in the address, to be kept and sent: #image=1&exposure=0.5&zoom=1
const asked = new URLSearchParams(location.hash.slice(1));
look.image = Math.max(Math.floor(Number(asked.get('image'))) || 0, 0);
look.exposure = Number(asked.get('exposure')) || 0;
let firstScale = Number(asked.get('zoom')) || 0;

let keeping = 0;
function keepAddress() {
  clearTimeout(keeping);
  keeping = setTimeout(() => {
    const words = new URLSearchParams();
    if (look.image) words.set('image', look.image);
    if (look.exposure) words.set('exposure', look.exposure);
    if (!look.fits) words.set('zoom', Number(look.scale.toPrecision(4)));
    history.replaceState(null, '', location.pathname + (words.size ? '#' + words : ''));
  }, 500);
}

const clamp = (value, least, most) => Math.min(Math.max(value, least), most);
const sentence = (text) => text[0].toUpperCase() + text.slice(1);
const grouped = (number) => number.toLocaleString('en');

function clock(seconds) {
  const whole = Math.round(seconds);
  const two = (number) => String(number).padStart(2, '0');
  const minutes = Math.floor(whole / 60) % 60, hours = Math.floor(whole / 3600);
  return (hours ? hours + ':' + two(minutes) : minutes) + ':' + two(whole % 60);
}

// Numbers of a place, in the order that they matter.
const units = {reading: 'files', building: 'objects', casting: 'photons', passes: 'passes', writing: 'images'};

function showProgress() {
  const p = status.progress;
  const share = p.total > 0 ? clamp((p.done + p.begun) / p.total, 0, 1) : 0;
  const ended = status.state === 'ended', stopping = status.state === 'stopping';
  const begun = p.begun > 0 ? `, ${Math.floor(100 * p.begun)} %` : '';
  const pass = p.done + (p.begun > 0 || p.done === 0 ? 1 : 0);
  const phase = ended ? status.end : stopping ? 'saving images' : p.phase === 'passes' ? 'pass' : p.phase;
  $('phase').textContent = sentence(phase);
  $('count').textContent = ended || stopping || !p.total ? ''
      : p.phase === 'passes' ? ` ${grouped(pass)} of ${grouped(p.total)}${begun}`
      : ` ${grouped(p.done)} of ${grouped(p.total)} ${units[p.phase]}`;
  $('elapsed').textContent = `elapsed ${clock(p.elapsed_s)}`;
  $('left').textContent = !ended && p.remaining_s !== null ? `${clock(p.remaining_s)} left` : '';
  $('rate').textContent = !ended && p.rays_per_second > 0 ? `${(p.rays_per_second / 1e6).toFixed(2)} M rays/s` : '';
  $('error').textContent = p.error !== null ? `error ${(100 * p.error).toPrecision(2)} %` : '';
  if (p.phase !== 'writing' || ended) $('bar').style.width = `${100 * (ended ? 1 : share)}%`;
  document.title = (ended ? 'Ended' : p.phase === 'passes' ? `${Math.floor(100 * share)} %` : p.phase) +
      ` – ${status.scene}`;
  $('stop').disabled = stopping;
  $('stop').textContent = ended ? 'Close' : 'Save and stop';
}

function showScene() {
  $('scene').textContent = status.scene;
  $('detail').textContent = [status.camera, size.width ? `${size.width} × ${size.height}` : '']
      .filter(Boolean).join('  ·  ') || '\u00a0';
  const options = status.images.map((name, i) => new Option(name, i));
  const select = $('image');
  if ([...select.options].map((o) => o.text).join('\n') !== status.images.join('\n')) {
    select.replaceChildren(...options);
    look.image = Math.min(look.image, Math.max(options.length - 1, 0));
    select.selectedIndex = look.image;
  }
}

function showLog() {
  for (const line of status.log) {
    const item = document.createElement('li'), time = document.createElement('time');
    time.textContent = clock(line.at);
    item.className = line.severity;
    item.append(time, line.text);
    $('lines').append(item);
    if ($('log').hidden && line.severity !== 'note') {
      unseen++;
      if (line.severity !== 'warning') $('news').className = 'bad';
    }
  }
  logLength += status.log.length;
  if (status.log.length && !$('log').hidden) $('log').scrollTop = $('log').scrollHeight;
  $('news').hidden = unseen === 0;
  $('news').textContent = unseen;
}

async function ask() {
  try {
    const answer = await fetch(`/status?image=${look.image}&log=${logLength}`);
    if (!answer.ok) throw new Error(answer.statusText);
    status = await answer.json();
    lost = 0;
    if (status.width !== size.width || status.height !== size.height) {
      size = {width: status.width, height: status.height};
      fit();
      if (firstScale) zoomTo(firstScale);
      firstScale = 0;
      draw();
    }
    showScene();
    showProgress();
    showLog();
    loadPicture();
  } catch (error) {
    lost++;
    if (lost > 1 && status) {
      $('phase').textContent = status.end ? sentence(status.end) : 'The render does not answer';
      $('count').textContent = $('left').textContent = $('rate').textContent = '';
      $('stop').disabled = true;
      $('stop').textContent = status.end ? 'Ended' : 'Save and stop';
    }
  }
  setTimeout(ask, lost > 1 || document.hidden ? 3000 : 400);
}

// Of the squares that the server shall make one pixel of: those that are no larger than one of the screen.
const levelOf = (scale) => Math.max(0, Math.floor(Math.log2(1 / scale) + 1e-6));

async function loadPicture() {
  if (loading || !status || !status.version) return;
  const level = levelOf(look.scale), image = look.image;
  const key = [image, status.version, look.exposure, level].join(' ');
  if (key === shown.key) return;
  loading = true;
  try {
    const answer = await fetch(`/picture?image=${image}&exposure=${look.exposure}&level=${level}`);
    if (!answer.ok) throw new Error(answer.statusText);
    const width = Number(answer.headers.get('X-Width')), height = Number(answer.headers.get('X-Height'));
    const pixels = new Uint8ClampedArray(await answer.arrayBuffer());
    const made = document.createElement('canvas');
    made.width = width;
    made.height = height;
    made.getContext('2d').putImageData(new ImageData(pixels, width, height), 0, 0);
    Object.assign(shown, {canvas: made, pixels, key, level, image});
    canvas.dataset.version = answer.headers.get('X-Version');
    canvas.dataset.passes = answer.headers.get('X-Passes');
    $('hint').hidden = true;
    draw();
    askValue();
  } catch (error) {
    // The next answer about the render brings the next attempt.
  }
  loading = false;
  if ([look.image, status.version, look.exposure, levelOf(look.scale)].join(' ') !== shown.key)
    setTimeout(loadPicture, 50);
}

function fit() {
  if (!size.width || !canvas.width) return;
  look.scale = clamp(Math.min(canvas.width / size.width, canvas.height / size.height), kLeastScale, 8);
  look.x = size.width / 2;
  look.y = size.height / 2;
  look.fits = true;
}

// The top left corner on the screen, in device pixels: whole ones, so that pixels stay what they are.
function corner() {
  return [Math.round(canvas.width / 2 - look.x * look.scale), Math.round(canvas.height / 2 - look.y * look.scale)];
}

const checker = (() => {
  const tile = document.createElement('canvas');
  tile.width = tile.height = 24;
  const ink = tile.getContext('2d');
  ink.fillStyle = '#232323';
  ink.fillRect(0, 0, 24, 24);
  ink.fillStyle = '#2b2b2b';
  ink.fillRect(0, 0, 12, 12);
  ink.fillRect(12, 12, 12, 12);
  return pen.createPattern(tile, 'repeat');
})();

function draw() {
  if (look.fits) fit();
  pen.setTransform(1, 0, 0, 1, 0, 0);
  pen.fillStyle = '#161616';
  pen.fillRect(0, 0, canvas.width, canvas.height);
  $('scale').textContent = `${Number((100 * look.scale).toPrecision(3))} %`;
  if (!size.width) return;
  const [left, top] = corner();
  const width = Math.round(size.width * look.scale), height = Math.round(size.height * look.scale);
  pen.save();
  pen.beginPath();
  pen.rect(left, top, width, height);
  pen.clip();
  pen.fillStyle = checker;
  pen.fillRect(left, top, width, height);
  if (shown.canvas && shown.image === look.image) {
    const scale = look.scale * 2 ** shown.level;
    pen.imageSmoothingEnabled = scale < 2 && scale !== 1;  // beyond, squares show what the pixels are
    pen.imageSmoothingQuality = 'high';
    pen.drawImage(shown.canvas, left, top, shown.canvas.width * scale, shown.canvas.height * scale);
  }
  pen.restore();
}

function resize() {
  const ratio = window.devicePixelRatio || 1, box = canvas.getBoundingClientRect();
  canvas.width = Math.max(1, Math.round(box.width * ratio));
  canvas.height = Math.max(1, Math.round(box.height * ratio));
  draw();
  loadPicture();
}

// --- moving about

const devicePoint = (event) => {
  const box = canvas.getBoundingClientRect();
  return [(event.clientX - box.left) * canvas.width / box.width, (event.clientY - box.top) * canvas.height / box.height];
};

// Keeps the point of the picture under a point of the screen where it is.
function zoomTo(scale, at = [canvas.width / 2, canvas.height / 2]) {
  scale = clamp(scale, kLeastScale, kMostScale);
  const [left, top] = corner();
  const x = (at[0] - left) / look.scale, y = (at[1] - top) / look.scale;
  look.scale = scale;
  look.x = x + (canvas.width / 2 - at[0]) / scale;
  look.y = y + (canvas.height / 2 - at[1]) / scale;
  moved();
}

function pan(dx, dy) {
  look.x -= dx / look.scale;
  look.y -= dy / look.scale;
  moved();
}

function moved() {
  look.fits = false;
  look.x = clamp(look.x, 0, size.width);
  look.y = clamp(look.y, 0, size.height);
  draw();
  keepAddress();
  loadPicture();
}

function showWhole() {
  fit();
  keepAddress();
  draw();
  loadPicture();
}

// The next of the scales that are easy to think in: 1, 1.5, 2, 3, 4, 6 ...
const scales = [];
for (let power = kLeastScale; power <= kMostScale; power *= 2) scales.push(power, 1.5 * power);
function stepZoom(direction) {
  const next = direction > 0 ? scales.find((scale) => scale > look.scale * 1.001)
      : scales.findLast((scale) => scale < look.scale * 0.999);
  if (next) zoomTo(next);
}

const fingers = new Map();
canvas.addEventListener('pointerdown', (event) => {
  canvas.setPointerCapture(event.pointerId);
  fingers.set(event.pointerId, devicePoint(event));
  point(event);
});
canvas.addEventListener('pointermove', (event) => {
  const before = fingers.get(event.pointerId), now = devicePoint(event);
  if (!before) return point(event);
  if (fingers.size === 1) {
    canvas.classList.add('dragged');
    pan(now[0] - before[0], now[1] - before[1]);
  } else if (fingers.size === 2) {
    const other = [...fingers].find(([id]) => id !== event.pointerId)[1];
    const reach = (p) => Math.max(Math.hypot(p[0] - other[0], p[1] - other[1]), 1);
    const middle = (p) => [(p[0] + other[0]) / 2, (p[1] + other[1]) / 2];
    const from = middle(before), to = middle(now);
    pan(to[0] - from[0], to[1] - from[1]);
    zoomTo(look.scale * reach(now) / reach(before), to);
  }
  fingers.set(event.pointerId, now);
});
for (const name of ['pointerup', 'pointercancel'])
  canvas.addEventListener(name, (event) => {
    fingers.delete(event.pointerId);
    canvas.classList.remove('dragged');
  });
canvas.addEventListener('pointerleave', (event) => {
  if (event.pointerType === 'mouse' && !fingers.size) point(null);
});
canvas.addEventListener('wheel', (event) => {
  event.preventDefault();
  zoomTo(look.scale * 2 ** (-event.deltaY / (event.deltaMode ? 6 : 300)), devicePoint(event));
}, {passive: false});
canvas.addEventListener('dblclick', (event) => {
  if (look.fits) zoomTo(1, devicePoint(event));
  else showWhole();
});

// --- the value under the pointer

let pointed = null, asking = false;

function point(event) {
  const at = event && devicePoint(event), [left, top] = corner();
  const x = at && Math.floor((at[0] - left) / look.scale), y = at && Math.floor((at[1] - top) / look.scale);
  pointed = at && x >= 0 && y >= 0 && x < size.width && y < size.height ? [x, y] : null;
  if (pointed) askValue();
  else $('value').hidden = true;
}

async function askValue() {
  if (!pointed || asking || !status || !status.version) return;
  asking = true;
  const [x, y] = pointed, key = shown.key;
  try {
    const answer = await fetch(`/value?image=${look.image}&x=${x}&y=${y}`);
    const value = await answer.json();
    $('value').hidden = !pointed;
    $('place').textContent = `${x}, ${y}`;
    $('numbers').textContent = value.length ? value.join('  ') : 'not rendered yet';
    if (shown.canvas) {
      const at = 4 * ((y >> shown.level) * shown.canvas.width + (x >> shown.level));
      $('swatch').style.background = `rgb(${shown.pixels.slice(at, at + 3).join(' ')})`;
    }
  } catch (error) {
    $('value').hidden = true;
  }
  asking = false;
  if (pointed && (pointed[0] !== x || pointed[1] !== y || key !== shown.key)) askValue();
}

// --- the rest of the controls

function setExposure(stops) {
  if (!Number.isFinite(stops)) return;
  look.exposure = clamp(stops, -40, 40);
  $('exposure').value = $('stops').value = look.exposure;
  keepAddress();
  loadPicture();
}

// Depths and colours want other exposures than light: each image keeps its own.
const exposures = new Map();
function setImage(index) {
  exposures.set(look.image, look.exposure);
  look.image = clamp(index, 0, status ? status.images.length - 1 : 0);
  $('image').selectedIndex = look.image;
  if (status) status.version = 0;
  setExposure(exposures.get(look.image) || 0);
  keepAddress();
  draw();
}

function toggleLog() {
  $('log').hidden = !$('log').hidden;
  $('logs').setAttribute('aria-expanded', !$('log').hidden);
  if (!$('log').hidden) {
    unseen = 0;
    $('news').hidden = true;
    $('news').className = '';
    $('log').scrollTop = $('log').scrollHeight;
  }
}

async function stop() {
  $('stop').disabled = true;
  try {
    const answer = await fetch('/stop', {method: 'POST'});
    if (!answer.ok) $('stop').disabled = false;
  } catch (error) {
    $('stop').disabled = false;
  }
}

$('exposure').addEventListener('input', () => setExposure(Number($('exposure').value)));
$('exposure').addEventListener('dblclick', () => setExposure(0));
$('stops').addEventListener('change', () => setExposure(Number($('stops').value)));
$('image').addEventListener('change', () => setImage($('image').selectedIndex));
$('in').addEventListener('click', () => stepZoom(1));
$('out').addEventListener('click', () => stepZoom(-1));
$('fit').addEventListener('click', showWhole);
$('scale').addEventListener('click', () => zoomTo(1));
$('logs').addEventListener('click', toggleLog);
$('stop').addEventListener('click', () => {
  if (status && status.state === 'ended') stop();
  else $('sure').showModal();
});
$('sure').addEventListener('close', () => {
  if ($('sure').returnValue === 'yes') stop();
  $('sure').returnValue = '';
});

const keys = {
  '+': () => stepZoom(1),
  '=': () => stepZoom(1),
  '-': () => stepZoom(-1),
  '0': showWhole,
  'f': showWhole,
  '1': () => zoomTo(1),
  '[': () => setExposure(look.exposure - 0.5),
  ']': () => setExposure(look.exposure + 0.5),
  '\\': () => setExposure(0),
  'PageDown': () => setImage(look.image + 1),
  'PageUp': () => setImage(look.image - 1),
  'l': toggleLog,
  'ArrowLeft': () => pan(canvas.width / 8, 0),
  'ArrowRight': () => pan(-canvas.width / 8, 0),
  'ArrowUp': () => pan(0, canvas.height / 8),
  'ArrowDown': () => pan(0, -canvas.height / 8),
};
document.addEventListener('keydown', (event) => {
  if (event.ctrlKey || event.altKey || event.metaKey || event.target.matches('input, select') || $('sure').open) return;
  const act = keys[event.key] || keys[event.key.toLowerCase()];
  if (!act) return;
  event.preventDefault();
  act();
});

setExposure(look.exposure);
new ResizeObserver(resize).observe(canvas);
document.addEventListener('visibilitychange', () => { if (!document.hidden) loadPicture(); });
ask();
