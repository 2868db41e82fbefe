"""Media-network cards from Python: the C interface of libkiv (kiv_api.h), under the same names without "kiv_" and "get_".

    with kiv.open() as k:
        for card in k.scan():
            print(k.card_status(card.device_id))
"""
from __future__ import annotations

import os
import threading
from collections import deque
from collections.abc import Callable, Iterator
from contextlib import AbstractContextManager
from typing import Any, NamedTuple, Union

# mypy: no-warn-return-any
from . import _kiv  # type: ignore[attr-defined]  # A test compares what it gives with the types here.

LOG_LEVEL_ERROR, LOG_LEVEL_WARNING, LOG_LEVEL_INFO, LOG_LEVEL_DEBUG, LOG_LEVEL_NONE = range(5)
EVENT_LINK, EVENT_HWMON, EVENT_PTP = range(3)

# The records; kiv_types.h tells units and meanings.
SwVersion = NamedTuple("SwVersion", [("major", int), ("minor", int), ("revision", int)])
CardPort = NamedTuple("CardPort", [("mac_address", str), ("link_speed_gbps", int)])
CardInfo = NamedTuple("CardInfo", [("reg_00", int), ("reg_08", int), ("reg_10", int), ("reg_18", int),
    ("port", tuple[CardPort, CardPort])])
NetPort = NamedTuple("NetPort", [("ip_address", int), ("prefix_length", int), ("vlan_enable", int), ("vlan_id", int)])
NetConfig = NamedTuple("NetConfig", [("port_0", NetPort), ("port_1", NetPort)])
NetStatus = NamedTuple("NetStatus", [("link_up_0", int), ("load_a", tuple[float, float]), ("link_up_1", int),
    ("load_b", tuple[float, float])])
PtpConfig = NamedTuple("PtpConfig", [("global_params", tuple[int, int, int, int]), ("enabled", int),
    ("port_params", tuple[int, int, int, int])])
PtpStatus = NamedTuple("PtpStatus", [("state", int), ("tai_time", int), ("is_master", int), ("master_value", int),
    ("clock_identity", int)])
FlashConfig = NamedTuple("FlashConfig", [("slot0_id", tuple[int, int]), ("slot1_id", tuple[int, int]),
    ("next_boot_slot", int)])
StreamStatus = NamedTuple("StreamStatus", [("control", int), ("resource_0", int), ("control_bit_25", int),
    ("control_bit_26", int), ("reg_404", int), ("resource_1", int), ("reg_804", int), ("resource_2", int)])
Sensor = NamedTuple("Sensor", [("input", int), ("max", int), ("critical", int)])
CardStatus = NamedTuple("CardStatus", [("sensor", tuple[Sensor, ...]), ("board_power", int), ("pci_link_b", int),
    ("pci_link_a", int)])
ScanCardDevice = NamedTuple("ScanCardDevice", [("device_id", int), ("card_word", int), ("ip_address_0", int),
    ("ip_address_1", int)])
Tunnel = NamedTuple("Tunnel", [("tunnel_address", int), ("tunnel_value", int)])
ScanEachCard = NamedTuple("ScanEachCard", [("result", int), ("device", ScanCardDevice), ("tunnel", Tunnel)])
EventLink = NamedTuple("EventLink", [("port_0_changed", int), ("port_0_link", int), ("port_1_changed", int),
    ("port_1_link", int)])
HwmonEntry = NamedTuple("HwmonEntry", [("alarm", int), ("sensor", Sensor)])
EventHwmon = NamedTuple("EventHwmon", [("entry", tuple[HwmonEntry, ...])])
Event = NamedTuple("Event", [("device_id", int), ("event", int), ("data", Union[int, EventLink, EventHwmon])])

_FAILED, _NOT_OPENED = 0xC1000D00, 0xC1000300
_REMEDIES = {
    "KIV_ERR_NOT_OPENED": "open and scan first; spawn a child process that uses cards, do not fork it",
    "KIV_ERR_NO_DEVICE": "scan() lists the cards",
    "KIV_ERR_BUSY": "wait until flash_write_status() is 0",
    "KIV_ERR_INVALID_PARAM": "flash slots are 0 and 1",
    "KIV_ERR_REST": '"kivctl doctor" looks at the management server of the card',
}


class Error(Exception):
    """A call that failed: its result code, the name of the code, and what to do."""

    def __init__(self, call: str, code: int, why: str = "", remedy: str = "") -> None:
        super().__init__(call, code, why, remedy)
        self.code = code
        self.name: str = _kiv.result_name(code)
        self.remedy = remedy or _REMEDIES.get(self.name, '"kivctl doctor" looks at driver and card')

    def __str__(self) -> str:
        return f"{self.args[0]}: {self.name}, {self.args[2] or _kiv.result_text(self.code)}; {self.remedy}"


class Events(AbstractContextManager["Events"], Iterator[Event]):
    """Events of one card: an iterator, which waits. It ends with its close, and with the next scan or close."""

    def __init__(self, library: Library, device_id: int, events: tuple[int, ...], limit: int) -> None:
        self.dropped = 0  # The oldest go when nobody takes them.
        self._library, self._id, self._kinds, self._closed = library, device_id, events, False
        self._events: deque[Event] = deque(maxlen=max(limit, 1))
        self._changed = threading.Condition()

    def __exit__(self, *why: object) -> None:
        self.close()

    def __next__(self) -> Event:
        if (event := self.get()) is not None:
            return event
        raise StopIteration

    def get(self, timeout: float | None = None) -> Event | None:
        """The next event; None when it is closed, or after so many seconds."""
        with self._changed:
            self._changed.wait_for(lambda: self._closed or self._events, timeout)
            return None if self._closed or not self._events else self._events.popleft()

    def close(self) -> None:
        self._end()
        with _turn:
            if self._library._subscribed.get(self._id) is self:
                for event in self._kinds:
                    _kiv.disable_event(self._id, event)
                _kiv.unregister_callback(self._id)
                del self._library._subscribed[self._id]

    def _end(self) -> None:
        with self._changed:
            self._closed = True
            self._changed.notify_all()

    def _put(self, *event: Any) -> None:
        """Runs on a thread of the library."""
        with self._changed:
            self.dropped += len(self._events) == self._events.maxlen
            self._events.append(Event(*event))
            self._changed.notify()


class Library(AbstractContextManager["Library"]):
    """The open library. Calls may be made from several threads, and let other threads run while they wait."""

    def __init__(self) -> None:
        self._subscribed: dict[int, Events] = {}  # By card; under the turn. They live here while callbacks may run.

    def __exit__(self, *why: object) -> None:
        self.close()

    def close(self) -> None:
        global _open
        with _turn:
            if _open is self:
                self._renew(_kiv.close)
                _open = None

    def scan_each(self, only: int | None = None, limit_ms: int = 0) -> tuple[ScanEachCard, ...]:
        return tuple(self._renew(_kiv.scan_each, only, limit_ms))

    # fmt: off
    def card_info(self, device_id: int) -> CardInfo:               return self._call(_kiv.card_info, device_id)
    def card_status(self, device_id: int) -> CardStatus:           return self._call(_kiv.card_status, device_id)
    def epoch_and_2point(self, device_id: int) -> tuple[int, ...]: return self._call(_kiv.epoch_and_2point, device_id)
    def flash_config(self, device_id: int) -> FlashConfig:         return self._call(_kiv.flash_config, device_id)
    def flash_write_status(self, device_id: int) -> int:           return self._call(_kiv.flash_write_status, device_id)
    def media_net_config(self, device_id: int) -> NetConfig:       return self._call(_kiv.media_net_config, device_id)
    def net_status(self, device_id: int) -> NetStatus:             return self._call(_kiv.net_status, device_id)
    def ptp_config(self, device_id: int) -> PtpConfig:             return self._call(_kiv.ptp_config, device_id)
    def ptp_net_config(self, device_id: int) -> NetConfig:         return self._call(_kiv.ptp_net_config, device_id)
    def ptp_status(self, device_id: int) -> PtpStatus:             return self._call(_kiv.ptp_status, device_id)
    def rx_stream_status(self, device_id: int) -> StreamStatus:    return self._call(_kiv.rx_stream_status, device_id)
    def tx_stream_status(self, device_id: int) -> StreamStatus:    return self._call(_kiv.tx_stream_status, device_id)
    def scan(self) -> tuple[ScanCardDevice, ...]: return tuple(self._renew(_kiv.scan))
    def configure_save(self) -> None: self._call(_kiv.configure_save)
    def select_flash_slot(self, device_id: int, slot: int) -> None: self._call(_kiv.select_flash_slot, device_id, slot)
    # fmt: on

    def set_ptp_config(self, device_id: int, net: NetConfig, ptp: PtpConfig) -> None:
        self._call(_kiv.set_ptp_config, device_id, net, ptp)

    def write_flash_image(self, device_id: int, path: str | os.PathLike[str]) -> None:
        self._call(_kiv.write_flash_image, device_id, os.fsencode(path))

    def events(self, device_id: int, *events: int, limit: int = 1024) -> Events:
        """Of these kinds, or all. At most `limit` wait. A card has one subscription: a new one ends the former."""
        made = Events(self, device_id, events or (EVENT_LINK, EVENT_HWMON, EVENT_PTP), limit)
        with _turn:
            if device_id in self._subscribed:
                self._subscribed[device_id].close()
            self._subscribed[device_id] = made
            self._call(_kiv.register_callback, device_id, made)
            for event in made._kinds:  # After the registration: what nobody listens to is not told again.
                self._call(_kiv.enable_event, device_id, event)
        return made

    def _renew(self, function: Callable[..., Any], *arguments: object) -> Any:
        """A scan or close, which ends all subscriptions."""
        with _turn:
            for events in self._subscribed.values():
                events._end()
            found = self._call(function, *arguments)
            self._subscribed.clear()
            return found

    def _call(self, function: Callable[..., Any], *arguments: object) -> Any:
        if _open is not self:
            raise Error(function.__name__, _NOT_OPENED)
        return _checked(function, *arguments)


def _checked(function: Callable[..., Any], *arguments: object) -> Any:
    call = f"{function.__name__}({', '.join(map(repr, arguments[:1]))})"
    try:
        code, value = function(*arguments)
    except RuntimeError as error:
        raise Error(call, _FAILED, str(error), '"kivctl config check" looks at the card configuration') from None
    if code != 0:
        raise Error(call, code)
    return value


_turn = threading.RLock()  # Of open, scan, close and subscriptions: one at a time.
_open: Library | None = None


def open(log_level: int = LOG_LEVEL_WARNING) -> Library:
    """Loads the card configuration. One library is open in a process at a time; its close ends it."""
    global _open
    with _turn:
        if _open is not None:
            raise Error("open", _FAILED, "the library is open already", "use that one, or close it first")
        _checked(_kiv.open, log_level)
        _open = Library()
        return _open


def sw_version() -> SwVersion: return SwVersion(*_kiv.sw_version())  # fmt: skip


def _forked() -> None:
    """The child has no open library, and no thread that has the turn."""
    global _open, _turn
    _open, _turn = None, threading.RLock()


os.register_at_fork(after_in_child=_forked)
