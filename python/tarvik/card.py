"""An identity card as Python values."""
from __future__ import annotations

import datetime
from dataclasses import dataclass, field
from typing import Optional, Union

from ._library import CardRecord

DateOrText = Union[datetime.date, str]


def date_or_text(text: str) -> DateOrText:
    """A YYYYMMDD date as a ``datetime.date``; anything else (a card valid for
    life, say) as the text itself."""
    if len(text) == 8 and text.isascii() and text.isdigit():
        try:
            return datetime.date(int(text[:4]), int(text[4:6]), int(text[6:]))
        except ValueError:
            pass
    return text


@dataclass(frozen=True)
class Card:
    """The card on the reader.

    Text fields are the card's own, decoded; ``sex`` and ``nation`` are the
    names of ``sex_code`` and ``nation_code`` (empty when a code names nothing).
    ``birth``, ``valid_from`` and ``valid_to`` are dates where they are
    YYYYMMDD dates and text otherwise. ``photo`` is the card's encoded photo
    (1024 bytes); ``third_block`` is None unless it was asked for.
    ``sam_result`` is the SAM's own code (0 or 1).

    The C record is wiped as soon as these values are taken from it. Python's
    str and bytes objects cannot be wiped: they stay in memory until the
    interpreter reuses it, so keep a Card no longer than needed. ``repr``
    shows none of the holder's data, so that logging a Card leaks nothing.
    """

    name: str
    sex: str
    nation: str
    birth: DateOrText
    address: str
    id_number: str
    authority: str
    valid_from: DateOrText
    valid_to: DateOrText
    reserved: str
    sex_code: str
    nation_code: str
    photo: bytes = field(repr=False)
    third_block: Optional[bytes] = field(repr=False)
    sam_result: int

    def __repr__(self) -> str:
        return (f"Card(<the holder's data hidden>, third_block={self.third_block is not None}, "
                f"sam_result={self.sam_result})")


def _text(raw: bytes) -> str:
    return raw.decode("utf-8", "replace")


def card_from_record(record: CardRecord) -> Card:
    """The values of a filled record (the caller wipes it)."""
    return Card(
        name=_text(record.name),
        sex=_text(record.sex),
        nation=_text(record.nation),
        birth=date_or_text(_text(record.birth)),
        address=_text(record.address),
        id_number=_text(record.id_number),
        authority=_text(record.authority),
        valid_from=date_or_text(_text(record.valid_from)),
        valid_to=date_or_text(_text(record.valid_to)),
        reserved=_text(record.reserved),
        sex_code=_text(record.sex_code),
        nation_code=_text(record.nation_code),
        photo=bytes(record.photo),
        third_block=bytes(record.third_block) if record.has_third_block else None,
        sam_result=record.sam_result,
    )
