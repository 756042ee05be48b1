// The WebSocket between viewer and page.
//
// Viewer to page: a binary message is the payload of an ImageMessage as the device sent it; a text
// message is JSON, {"state", "address", "identity", "firmware", "wanted", "may", "held", "devices", "skipped"} or, after
// another page or program has pressed a button, sent a text or chosen a device, {"event", "address", "from", ...}.
// Page to viewer: JSON, {"press": BUTTON}, {"text": TEXT}, {"device": ID} or {"hold": SECONDS}. With an "id", the viewer
// answers {"delivered": ID} or {"failed": ID, "why": TEXT}.

const BACK_OFF = { first: 250, most: 5000 }; // ms between attempts, doubled each time
const ANSWER = 1000; // ms; a viewer that does not answer for this time is not running

// Connects, and reconnects whenever the connection is lost. handlers: image(ArrayBuffer),
// state(object), event(object), failed(why), offline(why), refused(). After refused(), does not try again.
export function connect(handlers) {
  const url = new URL('link', location.href);
  url.protocol = url.protocol.replace('http', 'ws');
  let socket = null;
  let wait = BACK_OFF.first;

  const open = () => {
    socket = new WebSocket(url);
    socket.binaryType = 'arraybuffer';
    socket.onmessage = ({ data }) => {
      wait = BACK_OFF.first;
      if (data instanceof ArrayBuffer) return handlers.image(data);
      const message = JSON.parse(data);
      if (message.event) handlers.event(message);
      else if (message.why) handlers.failed(message.why);
      else if (message.state) handlers.state(message);
    };
    socket.onclose = async () => {
      const answer = await fetch('state', { signal: AbortSignal.timeout(ANSWER) }).catch(() => null);
      if (answer?.status === 401) return handlers.refused();
      const why = answer === null || answer.ok ? 'The viewer is not running' : await answer.text().catch(() => '');
      handlers.offline(why.trim());
      setTimeout(open, wait * (0.5 + Math.random())); // jitter: pages must not reconnect all at once
      wait = Math.min(2 * wait, BACK_OFF.most);
    };
  };
  open();

  const send = (message) => {
    const ready = socket.readyState === WebSocket.OPEN;
    if (ready) socket.send(JSON.stringify(message));
    return ready;
  };
  return {
    press: (button) => send({ press: button }),
    text: (text) => send({ text }),
    choose: (device) => send({ device, id: 0 }),
    hold: (seconds) => send({ hold: seconds, id: 0 }),
  };
}
