"""A first test of a device's GUI. `pytest --guilink-update` saves the reference pictures. Check them by eye."""

ROWS = (70, 260, 560, 630)       # x, y, width, height of the menu's rows
ARROWS = [(540, 260, 60, 630)]   # the animated arrow beside the selected row


def test_down_selects_the_next_row(device, assert_screen):
    assert_screen("first_row", region=ROWS, mask=ARROWS)
    device.press("down")
    assert_screen("second_row", region=ROWS, mask=ARROWS)
    device.press("up")
    assert_screen("first_row", region=ROWS, mask=ARROWS)
