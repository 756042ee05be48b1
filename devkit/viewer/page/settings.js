// What a visitor has chosen. The browser keeps it for the next visit, if it keeps anything at all.

export function load(name, otherwise) {
  try {
    return localStorage.getItem(name) ?? otherwise;
  } catch {
    return otherwise;
  }
}

export function save(name, value) {
  try {
    localStorage.setItem(name, value);
  } catch {
    // The choice holds for this visit.
  }
}

// Makes a button switch between on and off. Calls apply(on) now and after each click.
export function makeSwitch(button, initially, apply) {
  const set = (on) => {
    button.setAttribute('aria-pressed', on);
    apply(on);
  };
  set(load(button.id, String(initially)) === 'true');
  button.addEventListener('click', () => {
    set(button.getAttribute('aria-pressed') !== 'true');
    save(button.id, button.getAttribute('aria-pressed'));
  });
}
