// Shows the device's screen and statistics of the link, and handles the page's controls.
import { connect } from './viewer.js';
import { makeDevices } from './devices.js';
import { decode } from './picture.js';
import { makeButtons } from './input.js';

const FROZEN_AFTER = 2000; // ms without an image; the device repeats its last image every 500 ms
const UNCHANGED_AFTER = 3000; // ms; equal images for this time are worth a remark
const FIGURES_EVERY = 500; // ms between two updates of the statistics
const EVENTS_KEPT = 100;

const $ = (id) => document.getElementById(id);
const canvas = $('canvas');
const context = canvas.getContext('2d');

// The page draws only the newest image, just before the browser repaints.
let newest = null;
let picture = null;
let drawing = false;
let lastImageTime = null;
let lastChangeTime = null; // when an image differed from the one before
let shown = 0; // images drawn since the last update of the statistics
let received = 0; // bytes received since the last update of the statistics

function draw() {
  drawing = false;
  const decoded = decode(newest, picture);
  if (!decoded) return note('A damaged image was ignored');
  if (canvas.width !== decoded.width || canvas.height !== decoded.height || !picture) {
    canvas.width = decoded.width;
    canvas.height = decoded.height;
    $('size').textContent = `${decoded.width} × ${decoded.height}`;
  }
  picture = decoded;
  context.putImageData(picture, 0, 0);
  canvas.dataset.frames = Number(canvas.dataset.frames ?? 0) + 1;
  ++shown;
  showFrozen(false);
}

// Returns whether two images have the same bytes. `one` may be null.
function equal(one, other) {
  if (one?.byteLength !== other.byteLength || other.byteLength % 4 !== 0) return false;
  const [words, others] = [new Uint32Array(one), new Uint32Array(other)];
  return words.every((word, i) => word === others[i]);
}

function showFrozen(frozen) {
  $('screen').classList.toggle('frozen', frozen);
  $('veil').hidden = !frozen;
}

let link = 'connecting';
function showLink(state, text) {
  if ($('link').textContent === text) return;
  link = state;
  $('link').dataset.state = state;
  $('link').textContent = text;
  $('device').hidden = state !== 'linked';
  note(text);
}

const viewer = connect({
  image(image) {
    if (!equal(newest, image)) lastChangeTime = performance.now();
    newest = image;
    received += image.byteLength;
    lastImageTime = performance.now();
    if (!drawing) {
      drawing = true;
      requestAnimationFrame(draw);
    }
  },
  state(status) {
    const { state, address, identity, firmware, wanted, skipped } = status;
    if (state === 'linked') showLink(state, `Linked to ${address}`);
    else if (state === 'several') showLink(state, 'Several devices: choose one');
    else showLink(state, `Searching for ${wanted || 'a device'}`);
    showDevices(status);
    $('identity').textContent = identity;
    $('firmware').textContent = firmware;
    $('skipped').textContent = skipped;
  },
  offline() {
    showLink('offline', 'The viewer is not running');
  },
});

const showDevices = makeDevices($('devices'), (device) => viewer.choose(device));

let figuresTime = performance.now();
setInterval(() => {
  const now = performance.now();
  const seconds = (now - figuresTime) / 1000;
  figuresTime = now;
  $('rate').textContent = (shown / seconds).toFixed(0);
  $('data').textContent = (received / 1024 / seconds).toFixed(0);
  shown = received = 0;

  const age = lastImageTime === null ? null : now - lastImageTime;
  const unchanged = lastChangeTime === null ? 0 : now - lastChangeTime;
  $('unchanged').textContent = unchanged > UNCHANGED_AFTER ? `${(unchanged / 1000).toFixed(0)} s` : '–';
  const frozen = age === null || age > FROZEN_AFTER;
  $('age').textContent = age === null ? '–' : age < 1000 ? `${age.toFixed(0)} ms` : `${(age / 1000).toFixed(0)} s`;
  $('age').classList.toggle('old', frozen && age !== null);
  showFrozen(frozen);
  showDevices();
  $('veil').textContent = link === 'several' ? 'Choose a device above'
    : age === null ? 'Waiting for the first frame' : 'Frozen: no frame for 2 s';
}, FIGURES_EVERY);

// Adds a line to the list of events. If the newest line has the same text, only increments the count of that line.
function note(text) {
  const last = $('log').firstChild;
  if (last?.lastChild.textContent === text) {
    last.dataset.times = Number(last.dataset.times ?? 1) + 1;
    return;
  }
  const now = new Date();
  const item = document.createElement('li');
  const time = document.createElement('time');
  time.textContent = now.toTimeString().slice(0, 8);
  const words = document.createElement('span');
  words.textContent = text;
  item.append(time, words);
  $('log').prepend(item);
  while ($('log').children.length > EVENTS_KEPT) $('log').lastChild.remove();
}

// Sends only while a device is linked. Without a link, the viewer would queue the message and deliver it much later.
const sent = (send) => link === 'linked' && send();

$('text').addEventListener('submit', (event) => {
  event.preventDefault();
  const text = $('line').value;
  if (text === '') return;
  if (sent(() => viewer.text(text))) {
    note(`Sent: ${text}`);
    $('line').value = '';
  } else {
    note('The text was not sent: no device');
  }
});

$('backdrop').addEventListener('change', (event) => { $('screen').dataset.backdrop = event.target.value; });
$('sharp').addEventListener('change', (event) => $('screen').classList.toggle('sharp', event.target.checked));
$('fullscreen').addEventListener('click', () => {
  $('screen').requestFullscreen().catch(({ message }) => note(message));
});

function save(blob, extension) {
  const anchor = document.createElement('a');
  anchor.href = URL.createObjectURL(blob);
  anchor.download = `guilink-${new Date().toISOString().slice(0, 19).replaceAll(':', '-')}.${extension}`;
  anchor.click();
  setTimeout(() => URL.revokeObjectURL(anchor.href), 10_000);
  note(`Saved ${anchor.download}`);
}

$('screenshot').addEventListener('click', () => {
  if (!picture) return note('No picture yet');
  canvas.toBlob((blob) => save(blob, 'png'));
});

let recorder = null;
$('record').addEventListener('click', () => {
  if (recorder) return recorder.stop();
  const parts = [];
  try {
    recorder = new MediaRecorder(canvas.captureStream(), { mimeType: 'video/webm' });
  } catch ({ message }) {
    return note(`This browser cannot record: ${message}`);
  }
  recorder.ondataavailable = ({ data }) => parts.push(data);
  recorder.onstop = () => {
    recorder = null;
    $('record').setAttribute('aria-pressed', 'false');
    $('record').textContent = 'Record';
    save(new Blob(parts, { type: 'video/webm' }), 'webm');
  };
  recorder.start(1000);
  $('record').setAttribute('aria-pressed', 'true');
  $('record').textContent = 'Stop recording';
  note('Recording');
});

try {
  const labels = await (await fetch('labels.json')).json();
  makeButtons($('pad'), labels, (button, label) => {
    note(sent(() => viewer.press(button)) ? `${label} pressed` : `${label} was not sent: no device`);
  });
} catch {
  note('Cannot load the buttons; reload the page');
}
