// The devices in the network, to choose from. Shown if there is a choice.

const IN_SIGHT = 5000; // ms since a device's last broadcast; it broadcasts about once a second

// choose(device) links to the device with this address. Returns a function that shows the newest
// status of the viewer, or, called without one, what has become of it since.
export function makeDevices(root, choose) {
  let status = null;
  let received = 0;
  let shown = '';

  return (newest = null) => {
    if (newest) [status, received] = [newest, performance.now()];
    const linked = status?.state === 'linked';
    const age = performance.now() - received;
    const others = (status?.devices ?? []).filter(({ address, seconds_ago: ago }) =>
      ago * 1000 + age < IN_SIGHT && !(linked && address === status.address));
    // The only device in sight is about to be linked.
    const choice = others.length > 0 && (linked || status.wanted !== '' || status.state === 'several');
    root.hidden = !choice;
    const entries = choice ? [...(linked ? [{ ...status, linked }] : []), ...others] : [];
    entries.sort((one, other) => one.address.localeCompare(other.address, 'en', { numeric: true }));
    const now = JSON.stringify(entries.map(({ identity, firmware, address, linked: is }) => [identity, firmware, address, is]));
    if (now === shown) return; // a button that is being clicked stays
    shown = now;
    root.replaceChildren(...entries.map((device) => {
      const button = document.createElement('button');
      button.type = 'button';
      button.setAttribute('aria-pressed', Boolean(device.linked));
      for (const [name, text] of [['strong', device.identity], ['span', device.firmware], ['span', device.address]]) {
        button.appendChild(document.createElement(name)).textContent = text;
      }
      button.addEventListener('click', () => choose(device.address));
      return button;
    }));
  };
}
