"""The golden files of the project, and the listings of its pages."""

from __future__ import annotations

import re
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
FOLDER = ROOT / "tests" / "golden"


def file(name: str) -> bytes:
    return (FOLDER / name).read_bytes()


def listing_bytes(text: str) -> bytes:
    """Bytes of a listing: pairs of hexadecimal digits; two blanks and no pair begin what explains a line."""
    out = b""
    for line in text.splitlines():
        match = re.match(r"[ ]*((?:[0-9a-f]{2})+(?: +(?:[0-9a-f]{2})+)*)(?=  |$)", line)
        if match:
            out += bytes.fromhex(match[1])
    return out


def listings(page: str) -> list[str]:
    """The blocks of code on a page of docs/ that are not taken from an example."""
    blocks = re.findall(r"^```(.*?)\n(.*?)^```$", (ROOT / "docs" / page).read_text(), re.M | re.S)
    return [text for kind, text in blocks if " " not in kind]
