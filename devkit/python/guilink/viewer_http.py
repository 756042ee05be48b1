"""Where a viewer is, and which devices it knows. guilink/viewer.py uses their links."""
from __future__ import annotations

import json
import urllib.error
import urllib.request
from dataclasses import dataclass, field
from typing import Any
from urllib.parse import parse_qs, quote, urlsplit

from guilink.link import AccessError, LinkError

DEFAULT_URL = "http://127.0.0.1:8080"  # where a viewer listens if it has no --listen
PATIENCE = 10.0  # s; limit for each answer of a viewer
ASKS_FOR_TOKEN = "asks for a token; use the URL that it prints when it starts, with ?token=..."


@dataclass(frozen=True)
class ViewerUrl:
    """Where a viewer is, and the token with which it lets a program in."""

    page: str  # for messages, without the token
    token: str = field(repr=False)  # empty if there is none

    @classmethod
    def parse(cls, url: str) -> ViewerUrl:
        parts = urlsplit(url if "://" in url else f"http://{url}")
        page = f"{parts.scheme}://{parts.netloc.rpartition('@')[2]}{parts.path.rstrip('/')}"
        if parts.scheme not in ("http", "https") or not parts.hostname:
            raise ValueError(f"{page} is not the URL of a viewer, such as {DEFAULT_URL}")
        return cls(page, parse_qs(parts.query).get("token", [""])[0])

    @property
    def headers(self) -> dict[str, str]:
        return {"Authorization": f"Bearer {self.token}"} if self.token else {}

    def link(self, device: str | None) -> str:
        """The WebSocket of a device, or of the viewer's main device."""
        return f"ws{self.page[4:]}{f'/device/{quote(device, safe=str())}' if device else ''}/link"


@dataclass(frozen=True)
class ViewerDevice:
    """A device that a viewer knows."""

    id: str        # its identity or, if several devices have this identity, its address
    identity: str
    firmware: str
    address: str
    state: str     # "linked"; "searching": it broadcasts; "waiting": the viewer waits for it
    age: float     # s; of its newest picture or, without one, 0
    held_by: str   # who has locked it; empty: nobody

    def __str__(self) -> str:
        held = f", held by {self.held_by}" if self.held_by else ""
        return f"{self.identity} ({self.firmware}) at {self.address}, {self.state}{held}"

    @classmethod
    def parse(cls, each: dict[str, Any]) -> ViewerDevice:
        return cls(each["id"], each["identity"], each["firmware"], each["address"], each["state"],
                   each["age"] or 0.0, each["held"]["by"] if each["held"] else "")


def viewer_devices(url: ViewerUrl) -> list[ViewerDevice]:
    """Asks a viewer for the devices that it knows. Raises LinkError if it does not answer like one, and AccessError if
    it asks for a token."""
    request = urllib.request.Request(f"{url.page}/devices", headers=url.headers)
    try:
        # No proxy: the viewer is on this computer, or in its network.
        with urllib.request.build_opener(urllib.request.ProxyHandler({})).open(request, timeout=PATIENCE) as answer:
            return [ViewerDevice.parse(each) for each in json.load(answer)["devices"]]
    except urllib.error.HTTPError as error:
        if error.code == 401:
            raise AccessError(f"the viewer at {url.page} {ASKS_FOR_TOKEN}") from error
        raise LinkError(f"{url.page} does not answer like a viewer: HTTP status {error.code}") from error
    except OSError as error:
        raise LinkError(f"the viewer at {url.page} cannot be reached: {getattr(error, 'reason', error)}") from error
    except (ValueError, LookupError, TypeError) as error:
        raise LinkError(f"{url.page} does not answer like a viewer") from error
