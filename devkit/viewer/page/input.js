// The page's buttons for mouse, touch and keyboard. A button sends a press when it goes down, and
// repeats the press while it is held. When the page loses the focus, all buttons are released.

const REPEAT = { first: 450, next: 120 }; // ms before the first repeat, and between repeats
// ms; after a click from the keyboard or from assistive technology, the button stays down for this time. Further
// clicks during this time are ignored.
const CLICK = 50;

// labels: [{button, label, key, place, confirm}]. press(entry) sends a press. A button with `confirm` is pressed once,
// after confirm(entry). Returns functions that switch the buttons, and the keys for them, on and off.
export function makeButtons(pad, labels, press, confirm) {
  const held = new Map(); // entry of `labels` -> timer of the entry's next repeat
  let shortcuts = true;

  const down = (entry) => {
    if (held.has(entry) || entry.element.disabled) return;
    if (entry.confirm) return confirm(entry);
    entry.element.classList.add('down');
    const repeat = (wait) =>
      held.set(entry, setTimeout(() => { press(entry); repeat(REPEAT.next); }, wait));
    repeat(REPEAT.first);
    press(entry);
  };
  const up = (entry) => {
    clearTimeout(held.get(entry));
    held.delete(entry);
    entry.element.classList.remove('down');
  };
  const release = () => [...held.keys()].forEach(up);

  for (const entry of labels) {
    const element = document.createElement('button');
    element.type = 'button';
    element.disabled = true;
    element.dataset.button = entry.button;
    if (entry.place) element.dataset.place = entry.place;
    const name = document.createElement('span');
    name.textContent = entry.label;
    element.append(name);
    if (entry.key) {
      const key = document.createElement('kbd');
      key.textContent = shown(entry.key);
      key.ariaHidden = true; // aria-keyshortcuts tells it
      element.append(key);
    }
    entry.element = element;
    element.addEventListener('pointerdown', (event) => {
      if (event.button !== 0 || entry.confirm) return;
      element.setPointerCapture(event.pointerId);
      down(entry);
    });
    for (const end of ['pointerup', 'pointercancel', 'lostpointercapture']) {
      element.addEventListener(end, () => up(entry));
    }
    element.addEventListener('contextmenu', (event) => event.preventDefault());
    // A click with detail 0 comes from the keyboard or from assistive technology.
    element.addEventListener('click', (event) => {
      if (event.detail === 0 || entry.confirm) { down(entry); setTimeout(() => up(entry), CLICK); }
    });
    pad.append(element);
  }
  // The Tab key visits the buttons as the eye does, row by row.
  const position = ({ offsetTop, offsetLeft }) => 1e5 * offsetTop + offsetLeft;
  pad.append(...[...pad.children].sort((one, other) => position(one) - position(other)));

  const entryOf = (event) => {
    if (!shortcuts || event.ctrlKey || event.altKey || event.metaKey) return undefined;
    if (event.target.closest?.('input') || document.querySelector('dialog[open]')) return undefined;
    // The browser itself applies Enter and space to the button or link that has the focus.
    if (event.target.closest?.('button, a') && ['Enter', ' '].includes(event.key)) return undefined;
    return labels.find(({ key, element }) => key?.toLowerCase() === event.key.toLowerCase() && !element.disabled);
  };
  // Keyed by event.code, because event.key can change between keydown and keyup when Shift is released.
  const keys = new Map(); // event.code -> entry of `labels`
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
  // Take the focus away from a clicked button, because Enter would click a focused button again.
  addEventListener('click', ({ detail, target }) => { if (detail > 0) target.closest('button')?.blur(); });
  addEventListener('blur', release);

  return {
    enable(on) {
      if (!on) release();
      for (const { element } of labels) element.disabled = !on;
    },
    setShortcuts(on) {
      shortcuts = on;
      pad.classList.toggle('keyless', !on);
      for (const { element, key } of labels) {
        if (key && on) element.setAttribute('aria-keyshortcuts', key);
        else element.removeAttribute('aria-keyshortcuts');
      }
    },
  };
}

function shown(key) {
  const names = { ArrowUp: '↑', ArrowDown: '↓', ArrowLeft: '←', ArrowRight: '→', Enter: '⏎', ' ': 'Space', Backspace: '⌫', Escape: 'Esc' };
  return names[key] ?? (key.length === 1 ? key.toUpperCase() : key);
}
