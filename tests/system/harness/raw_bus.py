"""A client of the gateway's bus that writes its messages byte by byte, also wrong ones."""

import os
import socket
import struct
import time

from . import bus, clock

CALL, RETURN, ERROR, SIGNAL = 1, 2, 3, 4
NO_REPLY = 1
PATH, INTERFACE, MEMBER, ERROR_NAME, REPLY_SERIAL, DESTINATION, SENDER, SIGNATURE = range(1, 9)
FIELD_TYPES = {PATH: "o", REPLY_SERIAL: "u", SIGNATURE: "g"}
DRIVER = {DESTINATION: bus.DRIVER[0], PATH: bus.DRIVER[1], INTERFACE: bus.DRIVER[2]}
HELLO = {**DRIVER, MEMBER: "Hello"}


def to(target, member):
    """The header fields of a call to one of the daemon's objects."""
    name, path, interface = target
    fields = {DESTINATION: name, PATH: path, MEMBER: member}
    return fields if interface is None else {**fields, INTERFACE: interface}


def as_bytes(text):
    """Text as UTF-8; bytes as they are."""
    return text if isinstance(text, bytes) else text.encode()


def padded(data, size):
    """The data, filled with zeros to a multiple of the size."""
    return data + b"\0" * (-len(data) % size)


def string(text, order="<"):
    """A string of the wire; bytes are taken as they are."""
    data = as_bytes(text)
    return struct.pack(order + "I", len(data)) + data + b"\0"


def strings(*texts):
    """Several of them, one behind the other."""
    data = b""
    for text in texts:
        data = padded(data, 4) + string(text)
    return data


def message(kind, fields, body=b"", *, serial=1, flags=0, order="<", version=1, body_length=None):
    """A whole message."""
    array = b""
    for code, value in fields.items():
        kind_of_field = FIELD_TYPES.get(code, "s")
        array = padded(array, 8) + bytes((code, 1)) + kind_of_field.encode() + b"\0"
        if kind_of_field == "g":
            array += bytes((len(as_bytes(value)),)) + as_bytes(value) + b"\0"
        elif kind_of_field == "u":
            array += struct.pack(order + "I", value)
        else:
            array += string(value, order)
    head = struct.pack(order + "cBBBIII", b"l" if order == "<" else b"B", kind, flags, version,
                       len(body) if body_length is None else body_length, serial, len(array))
    return padded(head + array, 8) + body


class Answer:
    """A message that has arrived."""

    def __init__(self, data):
        order = "<" if data[:1] == b"l" else ">"
        self.kind = data[1]
        body_length, self.serial, fields_length = struct.unpack_from(order + "III", data, 4)
        self.body = data[len(data) - body_length:]
        self.order = order
        self.fields = {}
        at = 16
        while at < 16 + fields_length:
            at += -at % 8
            code, kind = data[at], data[at + 2:at + 3]
            at += 4
            if kind == b"g":
                self.fields[code] = data[at + 1:at + 1 + data[at]].decode()
                at += data[at] + 2
            else:
                number, = struct.unpack_from(order + "I", data, at)
                at += 4
                self.fields[code] = number
                if kind != b"u":
                    self.fields[code] = data[at:at + number].decode()
                    at += number + 1

    @property
    def text(self):
        """Its first argument, a string; None when it has none."""
        if not self.fields.get(SIGNATURE, "").startswith("s"):
            return None
        length, = struct.unpack_from(self.order + "I", self.body)
        return self.body[4:4 + length].decode()


class RawBus:
    """One connection."""

    def __init__(self, hello=True, within=10):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(clock.stretched(within))
        self.socket.connect(bus.SOCKET)
        self.socket.sendall(b"\0AUTH EXTERNAL " + str(os.getuid()).encode().hex().encode() + b"\r\n")
        self.data = b""
        while b"\n" not in self.data:
            piece = self.socket.recv(4096)
            if not piece:
                raise ConnectionResetError("the bus has closed the connection")
            self.data += piece
        assert self.data.startswith(b"OK "), self.data
        self.data = b""
        self.socket.sendall(b"BEGIN\r\n")
        self.serial = 0
        self.name = self.ask(HELLO).text if hello else ""

    def send(self, kind, fields, body=b"", **how):
        """Send a message; give its serial."""
        self.serial += 1
        self.socket.sendall(message(kind, fields, body, serial=self.serial, **how))
        return self.serial

    def receive(self):
        """The next message; None when the bus has closed the connection."""
        while True:
            if len(self.data) >= 16:
                order = "<" if self.data[:1] == b"l" else ">"
                body_length, _, fields_length = struct.unpack_from(order + "III", self.data, 4)
                whole = 16 + fields_length + -fields_length % 8 + body_length
                if len(self.data) >= whole:
                    data, self.data = self.data[:whole], self.data[whole:]
                    return Answer(data)
            try:
                piece = self.socket.recv(1 << 16)
            except ConnectionResetError:
                return None
            if not piece:
                return None
            self.data += piece

    def answer_to(self, serial):
        """Wait for the answer to that message; None when the connection was closed instead."""
        while (found := self.receive()) is not None:
            if found.fields.get(REPLY_SERIAL) == serial and found.kind in (RETURN, ERROR):
                return found
        return None

    def ask(self, fields, body=b"", **how):
        """Call, and wait for the answer; None when the bus closes the connection instead."""
        try:
            return self.answer_to(self.send(CALL, fields, body, **how))
        except (BrokenPipeError, ConnectionResetError):
            return None

    def pour(self, data, seconds):
        """Send without ever reading, until all is sent or nothing is taken for that long; give what was sent."""
        self.socket.setblocking(False)
        sent, last = 0, time.monotonic()
        while sent < len(data) and time.monotonic() < last + seconds:
            try:
                sent += self.socket.send(data[sent:sent + (1 << 16)])
                last = time.monotonic()
            except BlockingIOError:
                time.sleep(0.001)
        return sent

    def close(self):
        """Leave."""
        self.socket.close()
