// Operates the buttons by mouse, touch and keyboard. Sends a press when a button goes down, and
// repeats it while the button is held. All buttons are released when the page loses the focus.

const REPEAT = { first: 450, next: 120 }; // ms; before the first repeat, and between repeats
// ms that a button stays down after a click from the keyboard or from assistive technology. Further clicks
// during this time are ignored.
const CLICK = 50;

// labels: [{button, label, key, place}]. press(button, label) sends a press.
export function makeButtons(pad, labels, press) {
  const held = new Map(); // label entry -> timer of its repeat

  const send = (entry) => press(entry.button, entry.label);
  const down = (entry) => {
    if (held.has(entry)) return;
    entry.element.classList.add('down');
    const repeat = (wait) =>
      held.set(entry, setTimeout(() => { send(entry); repeat(REPEAT.next); }, wait));
    repeat(REPEAT.first);
    send(entry);
  };
  const up = (entry) => {
    clearTimeout(held.get(entry));
    held.delete(entry);
    entry.element.classList.remove('down');
  };

  for (const entry of labels) {
    const element = document.createElement('button');
    element.type = 'button';
    element.dataset.button = entry.button;
    if (entry.place) element.dataset.place = entry.place;
    const name = document.createElement('span');
    name.textContent = entry.label;
    element.append(name);
    if (entry.key) {
      const key = document.createElement('kbd');
      key.textContent = shown(entry.key);
      element.append(key);
      element.setAttribute('aria-keyshortcuts', entry.key);
    }
    entry.element = element;
    element.addEventListener('pointerdown', (event) => {
      if (event.button !== 0) return;
      element.setPointerCapture(event.pointerId);
      down(entry);
    });
    for (const end of ['pointerup', 'pointercancel', 'lostpointercapture']) {
      element.addEventListener(end, () => up(entry));
    }
    element.addEventListener('contextmenu', (event) => event.preventDefault());
    // Clicks without a pointer come from the keyboard and from assistive technology.
    element.addEventListener('click', (event) => {
      if (event.detail === 0) { down(entry); setTimeout(() => up(entry), CLICK); }
    });
    pad.append(element);
  }

  const entryOf = (event) => {
    if (event.ctrlKey || event.altKey || event.metaKey) return undefined;
    if (event.target.closest?.('input:not([type="checkbox"]), select')) return undefined;
    // Enter and space belong to the control that has the focus.
    if (event.target.closest?.('button, input') && ['Enter', ' '].includes(event.key)) return undefined;
    return labels.find(({ key }) => key && key.toLowerCase() === event.key.toLowerCase());
  };
  // Keyed by code, not by name: if Shift is released first, keyup has another name than keydown.
  const keys = new Map(); // code -> label entry
  addEventListener('keydown', (event) => {
    const entry = entryOf(event);
    if (!entry) return;
    event.preventDefault();
    if (event.repeat) return;
    keys.set(event.code, entry);
    down(entry);
  });
  addEventListener('keyup', ({ code }) => {
    if (keys.has(code)) up(keys.get(code));
    keys.delete(code);
  });
  // Take the focus away from a clicked button: otherwise Enter would click it again.
  addEventListener('click', ({ detail, target }) => { if (detail > 0) target.closest('button')?.blur(); });
  addEventListener('blur', () => [...held.keys()].forEach(up));
}

function shown(key) {
  const names = { ArrowUp: '↑', ArrowDown: '↓', ArrowLeft: '←', ArrowRight: '→', Enter: '⏎', ' ': 'Space', Backspace: '⌫', Escape: 'Esc' };
  return names[key] ?? (key.length === 1 ? key.toUpperCase() : key);
}
