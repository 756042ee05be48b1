// Picks pixels and boxes on the picture, as text: "(x, y)" or "(x, y, width, height)", in the picture's pixels.

// overlay: an SVG above the picture; its viewBox has the picture's size, so its coordinates are pixels. field: the
// input for the text; what is typed there is shown on the picture. point(text) gets the pixel under the pointer.
export function makePicker(overlay, field, point) {
  const box = overlay.querySelector('rect');
  let start = null; // where the pointer went down

  const pixel = (event) => {
    const { width, height } = overlay.viewBox.baseVal;
    const { x, y } = new DOMPoint(event.clientX, event.clientY).matrixTransform(overlay.getScreenCTM().inverse());
    const within = (value, size) => Math.min(Math.max(Math.floor(value), 0), size - 1);
    return [within(x, width), within(y, height)];
  };
  const show = () => {
    const [x, y, width = 1, height = 1] = field.value.match(/\d+/g) ?? [];
    box.style.display = y === undefined ? 'none' : '';
    for (const [name, value] of Object.entries({ x, y, width, height })) box.setAttribute(name, value ?? 0);
  };
  const pick = (event) => {
    const [[x1, y1], [x2, y2]] = [start, pixel(event)];
    const size = x1 === x2 && y1 === y2 ? [] : [Math.abs(x2 - x1) + 1, Math.abs(y2 - y1) + 1];
    field.value = text([Math.min(x1, x2), Math.min(y1, y2), ...size]);
    show();
  };

  overlay.addEventListener('pointerdown', (event) => {
    if (event.button !== 0) return;
    start = pixel(event);
    overlay.setPointerCapture(event.pointerId);
  });
  overlay.addEventListener('pointermove', (event) => {
    point(text(pixel(event)));
    if (start && event.pointerType !== 'touch') pick(event);
  });
  overlay.addEventListener('pointerup', (event) => {
    if (start) pick(event);
    start = null;
  });
  overlay.addEventListener('pointercancel', () => { start = null; }); // a finger scrolls the page
  overlay.addEventListener('pointerleave', () => point('–'));
  field.addEventListener('input', show);
  show();
}

function text(numbers) {
  return `(${numbers.join(', ')})`;
}
