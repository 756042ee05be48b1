// Records the picture as a WebM video.

// Returns {stop} of a recording that has begun; throws an error if the browser cannot record. Calls ended(blob).
export function record(canvas, ended) {
  const recorder = new MediaRecorder(canvas.captureStream(), { mimeType: 'video/webm' });
  const begin = performance.now();
  const parts = [];
  recorder.ondataavailable = ({ data }) => parts.push(data);
  recorder.onstop = async () => {
    ended(await withDuration(new Blob(parts, { type: 'video/webm' }), performance.now() - begin));
  };
  recorder.start(1000);
  return recorder;
}

// Writes the duration in ms into the video's head: the browser, which writes the head first, cannot know it.
async function withDuration(video, duration) {
  const INFO = [0x15, 0x49, 0xA9, 0x66];
  const DURATION = 0x4489;
  const head = new Uint8Array(await video.slice(0, 1024).arrayBuffer());
  const at = head.findIndex((_, i) => INFO.every((byte, j) => head[i + j] === byte));
  if (at < 0) return video;

  // An element is an ID, the length of its content, its content. The number of leading zero bits tells how many
  // bytes an ID or a length has.
  const bytesOf = (i) => Math.clz32(head[i]) - 23;
  const number = (i, first) => head.slice(i + 1, i + bytesOf(i)).reduce((sum, byte) => sum * 256 + byte, first);
  const id = (i) => number(i, head[i]);
  const length = (i) => number(i, head[i] & 255 >> bytesOf(i));
  const begin = at + INFO.length + bytesOf(at + INFO.length);
  const end = begin + length(at + INFO.length);
  const kept = [];
  for (let i = begin; i < end;) {
    const size = i + bytesOf(i);
    const next = size + bytesOf(size) + length(size);
    if (id(i) !== DURATION) kept.push(...head.slice(i, next));
    i = next;
  }

  const value = new DataView(new ArrayBuffer(8));
  value.setFloat64(0, duration);
  const info = [...kept, DURATION >> 8, DURATION & 255, 0x88, ...new Uint8Array(value.buffer)];
  const size = [0x40 | info.length >> 8, info.length & 255];
  return new Blob([head.slice(0, at), new Uint8Array([...INFO, ...size, ...info]), video.slice(end)],
    { type: video.type });
}
