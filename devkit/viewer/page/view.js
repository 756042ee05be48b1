// Shows the device's screen and statistics of the link, and handles the page's controls.
import { connect } from './viewer.js';
import { makeDevices } from './devices.js';
import { decode } from './picture.js';
import { makeButtons } from './input.js';
import { makePicker } from './picker.js';
import { record } from './recording.js';
import { load, makeSwitch, save } from './settings.js';

const FROZEN_AFTER = 2000; // ms without an image; the device repeats its last image every 500 ms
const UNCHANGED_AFTER = 3000; // ms; equal images for this time are worth a remark
const FIGURES_EVERY = 500; // ms between two updates of the statistics
const EVENTS_KEPT = 100;
const HOLD = 600; // s for which one can hold a device
// The page of one of several devices is at device/ID/, and that of all is two levels up.
const ONE_OF_SEVERAL = /\/device\/[^/]+\/$/.test(location.pathname);

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
    $('overlay').setAttribute('viewBox', `0 0 ${decoded.width} ${decoded.height}`);
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

// Asks for how long the pictures had been equal before this page came.
async function askForLastChange() {
  const first = lastChangeTime;
  const { unchanged } = await (await fetch('state')).json();
  if (lastChangeTime === first) lastChangeTime -= unchanged * 1000;
}

function showFrozen(frozen) {
  $('screen').classList.toggle('frozen', frozen);
  $('veil').hidden = !frozen;
}

let link = 'connecting';
let mayPress = true; // some visitors may only look
let held = null; // who holds the device: {by, mine, seconds}
let buttons = null;
let labels = [];
function showLink(state, text, title = text) {
  document.title = `${title} – Guilink`;
  if ($('link').textContent === text) return;
  link = state;
  $('link').dataset.state = state;
  $('link').textContent = text;
  $('device').hidden = state !== 'linked';
  $('refusal').textContent = '';
  enableButtons();
  note(text);
}

function enableButtons() {
  const free = link === 'linked' && (!held || held.mine);
  buttons?.enable(free && mayPress);
  $('send').disabled = !free;
  $('hold').disabled = !free;
}

function showHeld(now) {
  const before = held;
  held = now;
  enableButtons();
  $('hold').setAttribute('aria-pressed', Boolean(held?.mine));
  if (held?.by === before?.by) return;
  if (held && !held.mine) say(`Held by ${held.by}: nobody else can press`);
  else if (before && !before.mine) say(`No longer held by ${before.by}`);
}

const viewer = connect({
  image(image) {
    if (!equal(newest, image)) lastChangeTime = performance.now();
    if (!newest) askForLastChange();
    newest = image;
    received += image.byteLength;
    lastImageTime = performance.now();
    if (!drawing) {
      drawing = true;
      requestAnimationFrame(draw);
    }
  },
  state(status) {
    const { state, address, identity, firmware, wanted, skipped, may, devices } = status;
    mayPress = may !== 'view';
    $('text').hidden = !mayPress;
    $('hold').hidden = !mayPress;
    showHeld(status.held);
    if (state === 'linked') showLink(state, `Linked to ${address}${mayPress ? '' : ', view only'}`, `${identity}: linked`);
    else if (state === 'several') showLink(state, 'Several devices: choose one');
    else showLink(state, `Searching for ${wanted || 'a device'}`);
    if (!ONE_OF_SEVERAL) showDevices(status);
    $('all').hidden = !ONE_OF_SEVERAL && devices.every((device) => device.address === address);
    $('identity').textContent = identity;
    $('firmware').textContent = firmware;
    $('skipped').textContent = skipped;
  },
  event({ event, button, device, address, from }) {
    const who = `by a ${from} at ${address}`;
    if (event === 'press') note(`${labelOf(button)} pressed ${who}`);
    if (event === 'text') note(`Text sent ${who}`);
    if (event === 'device') note(`${device} chosen ${who}`);
  },
  failed(why) {
    $('refusal').textContent = why;
    note(why);
  },
  offline(why) {
    showLink('offline', why);
  },
  refused() {
    showLink('offline', 'The viewer asks for its token: reload this page');
  },
});

const labelOf = (button) => labels.find((label) => label.button === button)?.label ?? `Button ${button}`;
const showDevices = makeDevices($('devices'), (device) => viewer.choose(device));

function duration(ms) {
  if (ms < 1000) return `${ms.toFixed(0)} ms`;
  const [size, unit] = [[3600, 'h'], [60, 'min'], [1, 's']].find(([seconds]) => ms >= 1000 * seconds);
  return `${Math.floor(ms / 1000 / size)} ${unit}`;
}

let figuresTime = performance.now();
setInterval(() => {
  const now = performance.now();
  const seconds = (now - figuresTime) / 1000;
  figuresTime = now;
  $('rate').textContent = (shown / seconds).toFixed(0);
  $('data').textContent = (received / 1024 / seconds).toFixed(0);
  shown = received = 0;

  const age = lastImageTime === null ? null : now - lastImageTime;
  const frozen = age === null || age > FROZEN_AFTER;
  $('age').textContent = age === null ? '–' : duration(age);
  $('age').classList.toggle('old', frozen && age !== null);
  showFrozen(frozen);
  if (!ONE_OF_SEVERAL) showDevices();
  const reason = link === 'several' ? 'Choose a device above'
    : age === null ? 'Waiting for the first frame' : 'Frozen: no frame for 2 s';
  if ($('veil').textContent !== reason) $('veil').textContent = reason; // a screen reader says it each time
  const unchanged = lastChangeTime === null ? 0 : now - lastChangeTime;
  $('unchanged').hidden = frozen || unchanged < UNCHANGED_AFTER;
  $('unchanged').textContent = `Unchanged for ${duration(unchanged)}`;
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

// Also makes a screen reader say it. The list of events would be too much to listen to.
function say(text) {
  note(text);
  $('spoken').textContent = text;
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
    say('The text was not sent: no device');
  }
});

function showBackdrop(backdrop) {
  $('screen').dataset.backdrop = backdrop;
  for (const button of $('backdrops').children) button.setAttribute('aria-pressed', button.dataset.backdrop === backdrop);
}
showBackdrop(load('backdrop', 'checker'));
$('backdrops').addEventListener('click', ({ target }) => {
  if (!target.dataset.backdrop) return;
  showBackdrop(target.dataset.backdrop);
  save('backdrop', target.dataset.backdrop);
});
makeSwitch($('sharp'), false, (on) => $('screen').classList.toggle('sharp', on));

$('fullscreen').hidden = !document.fullscreenEnabled; // as in browsers on small phones
$('fullscreen').addEventListener('click', () => {
  $('screen').requestFullscreen().catch(({ message }) => say(message));
});

$('hold').addEventListener('click', () => viewer.hold(held?.mine ? 0 : HOLD));
if (ONE_OF_SEVERAL) $('all').href = '../../';

makePicker($('overlay'), $('place'), (pixel) => { $('pixel').textContent = pixel; });
$('copy').addEventListener('click', ({ currentTarget }) => {
  if ($('place').value === '') return say('Drag a box on the picture first');
  $('place').select();
  document.execCommand('copy'); // navigator.clipboard is missing where the page comes by plain HTTP from afar
  currentTarget.focus();
  say(`Copied ${$('place').value}`);
});

function download(blob, extension) {
  const anchor = document.createElement('a');
  anchor.href = URL.createObjectURL(blob);
  anchor.download = `guilink-${new Date().toISOString().slice(0, 19).replaceAll(':', '-')}.${extension}`;
  anchor.click();
  setTimeout(() => URL.revokeObjectURL(anchor.href), 10_000);
  say(`Saved ${anchor.download}`);
}

$('screenshot').addEventListener('click', () => {
  if (!picture) return say('No picture yet');
  canvas.toBlob((blob) => download(blob, 'png'));
});

let recorder = null;
const askFirst = (event) => event.preventDefault(); // before the page is left
function showRecording(on) {
  $('record').setAttribute('aria-pressed', on);
  $('record').textContent = on ? 'Stop recording' : 'Record';
  (on ? addEventListener : removeEventListener)('beforeunload', askFirst);
}
$('record').addEventListener('click', () => {
  if (recorder) return recorder.stop();
  try {
    recorder = record(canvas, (video) => {
      recorder = null;
      showRecording(false);
      download(video, 'webm');
    });
  } catch ({ message }) {
    return say(`This browser cannot record: ${message}`);
  }
  showRecording(true);
  say('Recording');
});

function press({ button, label }) {
  if (sent(() => viewer.press(button))) note(`${label} pressed`);
  else say(`${label} was not sent: no device`);
}

function confirm(entry) {
  $('question').textContent = `Press ${entry.label}?`;
  $('confirm').returnValue = '';
  $('confirm').onclose = ({ target }) => { if (target.returnValue) press(entry); };
  $('confirm').showModal();
}

try {
  labels = await (await fetch('labels.json')).json();
  buttons = makeButtons($('pad'), labels, press, confirm);
  enableButtons();
  makeSwitch($('shortcuts'), true, buttons.setShortcuts);
} catch {
  say('Cannot load the buttons; reload the page');
}
