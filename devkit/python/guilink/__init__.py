"""Links to a device, shows its GUI to scripts and presses its buttons."""
