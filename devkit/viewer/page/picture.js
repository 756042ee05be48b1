// Decodes an image: 16-bit little-endian words; width, height, then pairs of
// run length and pixel value (ARGB 4:4:4:4), row by row.

const MAX_PIXELS = 1 << 22; // three times the largest screen

// Maps a pixel value to the bytes R, G, B, A in memory order.
const RGBA = new Uint32Array(65536);
{
  const bytes = new DataView(RGBA.buffer);
  for (let value = 0; value < 65536; ++value) {
    const nibble = (shift) => ((value >> shift) & 15) * 17;
    bytes.setUint8(4 * value, nibble(8));
    bytes.setUint8(4 * value + 1, nibble(4));
    bytes.setUint8(4 * value + 2, nibble(0));
    bytes.setUint8(4 * value + 3, nibble(12));
  }
}

// Returns the picture as an ImageData, or null for a damaged image. Overwrites and returns `reuse` if that
// ImageData has the right size.
export function decode(image, reuse = null) {
  if (image.byteLength < 4 || image.byteLength % 4 !== 0) return null;
  const words = new Uint16Array(image);
  const [width, height] = words;
  const count = width * height;
  if (count === 0 || count > MAX_PIXELS) return null;
  const picture = reuse?.width === width && reuse?.height === height ? reuse : new ImageData(width, height);
  const pixels = new Uint32Array(picture.data.buffer);

  let position = 0;
  for (let i = 2; i < words.length; i += 2) {
    const end = position + words[i];
    if (end >= count) return null;
    pixels.fill(RGBA[words[i + 1]], position, end);
    position = end;
  }
  // The device never sends the last pixel: copy its left neighbour.
  if (position !== count - 1) return null;
  pixels[position] = position > 0 ? pixels[position - 1] : 0;
  return picture;
}
