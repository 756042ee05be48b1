"""Opens every page of the simulated device's menu, and changes each setting there.

The tests need a device that has just started. They restore all settings.
"""
import pytest

PANEL = (70, 150, 560, 740)      # x, y, width, height of the menu and its pages
MOVING = [(100, 230, 500, 20),   # the animated bar below the title
          (540, 260, 60, 330)]   # the animated arrow beside the selected row
TITLE = MOVING[:1]
FRAMES = (330, 435, 280, 40)     # the frame counter on the page "About"
PAGES = ["display", "image", "recordings", "about"]


@pytest.fixture(autouse=True)
def menu(device):
    """Opens the menu: from every page, the buttons Info and then Back lead there."""
    device.press("info")
    device.press("back")


def press(device, button, times):
    for _ in range(times):
        device.press(button)


def open_page(device, page):
    press(device, "down", PAGES.index(page))
    device.press("ok")


def leave_page(device, page):
    device.press("back")
    press(device, "up", PAGES.index(page))


@pytest.mark.parametrize("page", PAGES)
def test_page_opens_and_closes(device, assert_screen, page):
    assert_screen("menu", region=PANEL, mask=MOVING)
    open_page(device, page)
    assert_screen(page, region=PANEL, mask=TITLE + [FRAMES])
    leave_page(device, page)
    assert_screen("menu", region=PANEL, mask=MOVING)


def test_slider_stops_at_both_ends(device, assert_screen):
    open_page(device, "display")
    assert_screen("display", region=PANEL, mask=TITLE + [FRAMES])
    press(device, "left", 11)
    assert_screen("brightness_none", region=PANEL, mask=TITLE)
    press(device, "right", 11)
    assert_screen("brightness_full", region=PANEL, mask=TITLE)
    press(device, "left", 4)
    assert_screen("display", region=PANEL, mask=TITLE + [FRAMES])
    leave_page(device, "display")


def test_switch_turns_off_and_on(device, assert_screen):
    open_page(device, "image")
    for state in ("stabiliser_on", "stabiliser_off", "stabiliser_on"):
        assert_screen(state, region=PANEL, mask=TITLE)
        device.press("ok")
    device.press("ok")
    leave_page(device, "image")


def test_list_reaches_a_clip(device, press_until):
    open_page(device, "recordings")
    press_until("down", "clip_7", region=PANEL, mask=TITLE, at_most=7)
    press(device, "up", 7)
    leave_page(device, "recordings")


def test_list_scrolls_and_wraps(device, assert_screen):
    open_page(device, "recordings")
    for clip in [*range(12), 0]:
        assert_screen(f"clip_{clip}", region=PANEL, mask=TITLE)
        device.press("down")
    device.press("up")
    leave_page(device, "recordings")


def test_screen_changes_its_size(device):
    for width, height in ((1024, 768), (1280, 960)):
        device.press("size")
        device.wait_for(lambda screen: (screen.width, screen.height) == (width, height),
                        name=f"a screen of {width} x {height}")
