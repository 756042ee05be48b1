// Shows a tile for each device. A click opens the device's page.

const EVERY = 500; // ms between two looks at the devices; while nobody sees the page, there is none
const ANSWER = 5000; // ms; a viewer that does not answer for this time is not running
const FROZEN_AFTER = 2; // s without a picture

const $ = (id) => document.getElementById(id);
const tiles = new Map(); // id of a device -> its tile

function makeTile(id) {
  const tile = document.createElement('a');
  tile.href = `device/${encodeURIComponent(id)}/`;
  tile.className = 'tile';
  const picture = document.createElement('img');
  picture.alt = '';
  picture.width = 320;
  picture.height = 240;
  const name = document.createElement('strong');
  const state = document.createElement('span');
  state.className = 'pill';
  const details = document.createElement('span');
  tile.append(picture, name, state, details);
  return { element: tile, picture, name, state, details, number: 0, loading: false };
}

function show(tile, { id, identity, firmware, address, state, age, pictures, held }) {
  tile.name.textContent = identity || address || id;
  tile.details.textContent = [firmware, address].filter(Boolean).join(' · ');
  const frozen = state === 'linked' && !(age < FROZEN_AFTER);
  tile.state.dataset.state = frozen ? 'frozen' : state;
  tile.state.textContent = state !== 'linked' ? (state === 'waiting' ? 'not in sight' : 'searching')
    : age === null ? 'no picture yet' : frozen ? `frozen for ${age.toFixed(0)} s` : held ? `held by ${held.by}` : 'live';
  tile.element.classList.toggle('frozen', frozen || state !== 'linked');
  if (!pictures || pictures === tile.number || tile.loading) return;
  const picture = new Image(); // the old picture stays until the new one has arrived
  tile.loading = true;
  picture.onload = picture.onerror = () => { tile.loading = false; };
  picture.addEventListener('load', () => {
    tile.picture.src = picture.src;
    tile.element.dataset.pictures = Number(tile.element.dataset.pictures ?? 0) + 1;
  });
  tile.number = pictures;
  picture.src = `device/${encodeURIComponent(id)}/tile.jpg?after=${pictures - 1}`;
}

function showAll(devices) {
  const linked = devices.filter(({ state }) => state === 'linked').length;
  $('link').dataset.state = linked ? 'linked' : 'searching';
  const text = devices.length ? `${linked} of ${devices.length} devices linked` : 'No device is in sight';
  if ($('link').textContent !== text) $('link').textContent = text; // a screen reader says it each time
  document.title = `${linked} of ${devices.length} devices – Guilink`;
  for (const [id, { element }] of tiles) {
    if (devices.some((device) => device.id === id)) continue;
    element.remove();
    tiles.delete(id);
  }
  devices.forEach((device, i) => {
    if (!tiles.has(device.id)) tiles.set(device.id, makeTile(device.id));
    const tile = tiles.get(device.id);
    if ($('bench').children[i] !== tile.element) $('bench').insertBefore(tile.element, $('bench').children[i] ?? null);
    show(tile, device);
  });
}

async function look() {
  if (document.hidden) return;
  const answer = await fetch('devices?use', { signal: AbortSignal.timeout(ANSWER) });
  if (answer.status === 401) throw new Error('The viewer asks for its token: reload this page');
  showAll((await answer.json()).devices);
}

for (;;) {
  await look().catch(({ name, message }) => {
    $('link').dataset.state = 'offline';
    $('link').textContent = name === 'Error' ? message : 'The viewer is not running';
  });
  await new Promise((done) => { setTimeout(done, EVERY); });
}
