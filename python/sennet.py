# SPDX-License-Identifier: MIT
"""Calls services of libsennet, is one, and hears and emits signals, from Python.

    import sennet

    print(sennet.call("example.echo", {"greeting": "hello"}).json)

    with sennet.Server("example.python", lambda sender, message: {"you said": message.text}):
        sennet.run()

All callbacks run on the thread that runs a GLib main loop on the default context. The functions may
be called on any thread. Needs PyGObject.
"""

from __future__ import annotations

import json
import re
import sys
import traceback
from typing import Any, Callable, Optional, Union

from gi.repository import Gio, GLib

__all__ = ["CallFailed", "Error", "Message", "Server", "call", "run", "subscribe"]

_METHODS = """<node><interface name='%s'>
<method name='SendMessage'><arg type='s' direction='in'/><arg type='u' direction='in'/>
<arg type='s' direction='in'/><arg type='s' direction='in'/><arg type='s' direction='out'/>
<arg type='u' direction='out'/><arg type='s' direction='out'/><arg type='s' direction='out'/>
<arg type='a(y)' direction='out'/></method>
<method name='SendMessageWithBuffer'><arg type='s' direction='in'/><arg type='u' direction='in'/>
<arg type='s' direction='in'/><arg type='s' direction='in'/><arg type='a(y)' direction='in'/>
<arg type='s' direction='out'/><arg type='u' direction='out'/><arg type='s' direction='out'/>
<arg type='s' direction='out'/><arg type='a(y)' direction='out'/></method>
</interface></node>"""

_ERROR_REPLY = '{"dbus_result":"fail","errmsg":"error handling"}'


class Error(Exception):
    """A call that got no answer. `name` is the D-Bus error name, or empty."""

    def __init__(self, text: str, name: str = "") -> None:
        super().__init__(text)
        self.name = name


class CallFailed(Error):
    """The answer says "dbus_result":"fail"; `reply` is the answer."""

    def __init__(self, reply: Message) -> None:
        super().__init__("the service reports a failure: " + reply.text)
        self.reply = reply


class Message:
    """A text, a code, a type and a buffer. `json` is the text as JSON, or None."""

    def __init__(self, text: Any = "", code: int = 0, type: str = "", buffer: bytes = b"") -> None:
        """`text` is a str, or anything that json.dumps() takes."""
        self.text = text if isinstance(text, str) else _compact(text)
        self.code = code
        self.type = type
        self.buffer = buffer

    @property
    def json(self) -> Any:
        try:
            return json.loads(self.text)
        except ValueError:
            return None

    def __repr__(self) -> str:
        return f"Message({self.text!r}, {self.code}, {self.type!r}, {self.buffer!r})"


Content = Union[Message, str, dict, list]
Handler = Callable[[str, Message], Optional[Content]]


def _compact(value: Any) -> str:
    return json.dumps(value, separators=(",", ":"), ensure_ascii=False, allow_nan=False)


def _message(content: Optional[Content]) -> Message:
    if isinstance(content, Message):
        return content
    return Message("" if content is None else content)


def _bus_name(service: str) -> str:
    name = re.sub(r"[^A-Za-z0-9._]", "_", service + ".message")
    if len(name) > 255 or not re.fullmatch(r"[A-Za-z_]\w*(\.[A-Za-z_]\w*)+", name, re.ASCII):
        raise ValueError(f"{service!r} is not the name of a service")
    return name


def _path(bus_name: str) -> str:
    return "/" + bus_name.replace(".", "/")


def _bus() -> Gio.DBusConnection:
    return Gio.bus_get_sync(Gio.BusType.SYSTEM, None)


def _array(data: bytes) -> GLib.Variant:
    # The serialised form of an array of one-byte structures is the bytes themselves.
    return GLib.Variant.new_from_bytes(GLib.VariantType("a(y)"), GLib.Bytes(data), True)


def _body(sender: str, message: Message, reply: bool) -> GLib.Variant:
    fields = [
        GLib.Variant("s", sender),
        GLib.Variant("u", message.code & 0xFFFFFFFF),
        GLib.Variant("s", message.type),
        GLib.Variant("s", message.text),
    ]
    if reply or message.buffer:
        fields.append(_array(message.buffer or b"\0"))
    return GLib.Variant.new_tuple(*fields)


def _parse(body: Optional[GLib.Variant]) -> Optional[tuple[str, Message]]:
    """The sender's name and the message; None for a body of another shape."""
    shape = body.get_type_string() if body is not None else ""
    if shape not in ("(suss)", "(sussa(y))"):
        return None
    sender, code, kind, text = (body.get_child_value(i).unpack() for i in range(4))
    data = b""
    if shape == "(sussa(y))":
        data = body.get_child_value(4).get_data_as_bytes().get_data() or b""
    return sender, Message(text, code, kind, b"" if data == b"\0" else bytes(data))


def call(
    dest: str, message: Content, timeout_ms: int = 25000, sender: str = "python"
) -> Message:
    """Sends a message to a service and waits for the answer. Raises Error or CallFailed."""
    name = _bus_name(dest)
    content = _message(message)
    method = "SendMessageWithBuffer" if content.buffer else "SendMessage"
    try:
        answer = _bus().call_sync(
            name, _path(name), name, method, _body(sender, content, False), None,
            Gio.DBusCallFlags.NONE, timeout_ms, None,
        )  # fmt: skip
    except GLib.Error as error:
        remote = Gio.DBusError.get_remote_error(error) or ""
        Gio.DBusError.strip_remote_error(error)
        raise Error(error.message, remote) from None
    parsed = _parse(answer)
    if parsed is None:
        raise Error(f"the answer of {dest} does not have the shape of a message")
    reply = parsed[1]
    content_json = reply.json
    if isinstance(content_json, dict) and content_json.get("dbus_result") == "fail":
        raise CallFailed(reply)
    return reply


def subscribe(
    source: Optional[str], signal: str, callback: Callable[[str, Message], None]
) -> Callable[[], None]:
    """Calls back with the sender's name and the message of each signal; None means any source.
    Returns a function that ends the subscription."""
    bus = _bus()
    interface = None if source is None else _bus_name(source)

    def on_signal(_bus: Any, _sender: str, _path: str, _interface: str, _signal: str, body: Any) -> None:
        parsed = _parse(body)
        if parsed is not None:
            callback(*parsed)

    number = bus.signal_subscribe(
        None, interface, signal, None, None, Gio.DBusSignalFlags.NONE, on_signal
    )
    return lambda: bus.signal_unsubscribe(number)


class Server:
    """A service. The handler gets the sender's name and the message, and returns the answer: a
    Message, a str, a dict or a list. If it raises, the caller gets the error reply."""

    def __init__(self, name: str, handler: Handler) -> None:
        self.name = name
        self._bus_name = _bus_name(name)
        self._handler = handler
        self._bus = _bus()
        info = Gio.DBusNodeInfo.new_for_xml(_METHODS % self._bus_name)
        self._object = self._bus.register_object(
            _path(self._bus_name), info.interfaces[0], self._on_call, None, None
        )
        flags = Gio.BusNameOwnerFlags.ALLOW_REPLACEMENT | Gio.BusNameOwnerFlags.REPLACE
        self._owner = Gio.bus_own_name_on_connection(
            self._bus, self._bus_name, flags, self._on_granted, None
        )

    def close(self) -> None:
        """Leaves the bus."""
        if self._owner:
            Gio.bus_unown_name(self._owner)
            self._bus.unregister_object(self._object)
            self._bus.flush_sync(None)
            self._owner = 0

    def __enter__(self) -> Server:
        return self

    def __exit__(self, *_: Any) -> None:
        self.close()

    def emit(self, signal: str, message: Content = "") -> None:
        """Broadcasts a signal."""
        self._bus.emit_signal(
            None, _path(self._bus_name), self._bus_name, signal,
            _body(self.name, _message(message), False),
        )  # fmt: skip

    def call(self, dest: str, message: Content, timeout_ms: int = 25000) -> Message:
        """Like the function call(), in the name of this server."""
        return call(dest, message, timeout_ms, self.name)

    def _on_granted(self, _bus: Any, _name: str) -> None:
        self.emit("service_start_default", {"service_name": self.name})

    def _on_call(
        self, _bus: Any, _sender: str, _path: str, _interface: str, _method: str,
        body: GLib.Variant, invocation: Gio.DBusMethodInvocation,
    ) -> None:  # fmt: skip
        try:
            parsed = _parse(body)
            answer = Message(_ERROR_REPLY) if parsed is None else _message(self._handler(*parsed))
            reply = _body(self.name, answer, True)
        except Exception:  # pylint: disable=broad-except # it must not get into the main loop
            traceback.print_exc(file=sys.stderr)
            reply = _body("", Message(_ERROR_REPLY), True)
        invocation.return_value(reply)


def run() -> None:
    """Runs a main loop on the default context until SIGINT or SIGTERM."""
    loop = GLib.MainLoop()
    for number in (2, 15):
        GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, number, loop.quit)
    loop.run()
