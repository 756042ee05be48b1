// The list of devices in the network. The list is shown only if there is a choice.

// ms; a device that has not broadcast for this time leaves the list. A device broadcasts about once a second.
const IN_SIGHT = 5000;

// The list calls choose(address) to link to the device with this address. Returns a function update(status),
// which lists the devices that the viewer's `status` contains. Without `status`, update() only removes devices
// whose last broadcast is too old.
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
    // Offer no choice if the viewer is about to link by itself. This is so if the viewer is not linked, waits
    // for no particular device, and has only one device in sight.
    const choice = others.length > 0 && (linked || status.wanted !== '' || status.state === 'several');
    root.hidden = !choice;
    const entries = choice ? [...(linked ? [{ ...status, linked }] : []), ...others] : [];
    entries.sort((one, other) => one.address.localeCompare(other.address, 'en', { numeric: true }));
    const now = JSON.stringify(entries.map(({ identity, firmware, address, linked: is }) => [identity, firmware, address, is]));
    if (now === shown) return; // do not replace a button that is being clicked
    shown = now;
    root.replaceChildren(...entries.map((device) => {
      const button = document.createElement('button');
      button.type = 'button';
      button.disabled = status.may === 'view';
      button.setAttribute('aria-pressed', Boolean(device.linked));
      for (const [name, text] of [['strong', device.identity], ['span', device.firmware], ['span', device.address]]) {
        button.appendChild(document.createElement(name)).textContent = text;
      }
      button.addEventListener('click', () => choose(device.address));
      return button;
    }));
  };
}
