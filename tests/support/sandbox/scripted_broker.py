"""An MQTT 5 broker for one client. The test decides what it sends and when the connection ends."""

import json
import socket
import struct
import threading

from .broker import Message

CONNECT, PUBLISH, PUBACK, SUBSCRIBE, UNSUBSCRIBE, PINGREQ = 1, 3, 4, 8, 10, 12
MESSAGE_EXPIRY, RESPONSE_TOPIC, CORRELATION_DATA = b"\x02", b"\x08", b"\x09"


def _length(number):
    """Returns a variable byte integer."""
    encoded = b""
    while True:
        number, digit = divmod(number, 128)
        encoded += bytes([digit | (128 if number else 0)])
        if not number:
            return encoded


def _text(text):
    return struct.pack(">H", len(text)) + text


def _read_length(data):
    """Returns the variable byte integer at the beginning of `data`, and what follows it."""
    number = 0
    for place, byte in enumerate(data):
        number |= (byte & 127) << 7 * place
        if not byte & 128:
            return number, data[place + 1:]
    raise EOFError


def _read_publication(flags, body):
    """Returns the packet identifier of a PUBLISH with QoS 1, and the message."""
    size, = struct.unpack(">H", body[:2])
    topic, body = body[2:2 + size].decode(), body[2 + size:]
    number, = struct.unpack(">H", body[:2])
    size, body = _read_length(body[2:])
    properties, payload = body[:size], body[size:]
    # Correlation data is the only property that the bridge sets.
    correlation = properties[3:] if properties.startswith(CORRELATION_DATA) else None
    return number, Message(topic, payload, bool(flags & 1), correlation)


class ScriptedBroker:
    """Has the members of broker.Broker that broker.Bridge needs."""

    tls = False

    def __init__(self):
        self.publications = []
        self.acknowledged = []  # packet identifiers of publish()
        self.connections = 0
        self.accepts = True         # connections
        self.acknowledges = True    # messages of the client
        self.has_session = False    # what it tells the client
        self.after_connect = b""    # packets that follow the CONNACK
        self.answers_pings = True
        self.refused = {}           # reason codes by topic
        self.forbidden = set()      # topics that end the connection
        self._connection = None
        self._server = socket.create_server(("127.0.0.1", 0))
        self.port = self._server.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            try:
                connection, _ = self._server.accept()
            except OSError:
                return
            if self.accepts:
                self._connection = connection
                threading.Thread(target=self._serve, args=[connection], daemon=True).start()
            else:
                connection.close()

    def _serve(self, connection):
        try:
            with connection, connection.makefile("rb") as stream:
                while kind := stream.read(1):
                    size = b""
                    while not size or size[-1] & 128:
                        size += stream.read(1)
                    body = stream.read(_read_length(size)[0])
                    connection.sendall(self._answer(kind[0] >> 4, kind[0] & 15, body))
        except (OSError, EOFError, ValueError):
            pass  # the client or the test has ended the connection

    def _answer(self, kind, flags, body):
        """Returns the packets that answer a packet of the client."""
        if kind == CONNECT:
            self.connections += 1
            return bytes([0x20, 3, self.has_session, 0, 0]) + self.after_connect
        if kind == PUBLISH:
            number, publication = _read_publication(flags, body)
            self.publications.append(publication)
            if publication.topic in self.forbidden:
                self._connection.sendall(b"\xe0\2\x87\0")  # DISCONNECT, not authorized
                self.cut()
                raise EOFError
            reason = self.refused.get(publication.topic, 0)
            return (struct.pack(">BBHB", 0x40, 3, number, reason) if self.acknowledges else b"")
        if kind == PUBACK:
            self.acknowledged.append(struct.unpack(">H", body[:2])[0])
        if kind == SUBSCRIBE:
            return b"\x90\x04" + body[:2] + b"\0\1"
        if kind == UNSUBSCRIBE:
            return b"\xb0\x04" + body[:2] + b"\0\0"
        return b"\xd0\0" if kind == PINGREQ and self.answers_pings else b""

    @staticmethod
    def make_publish(topic, payload, number, expiry=None, response=None, correlation=None):
        """Returns a PUBLISH packet with QoS 1 and the packet identifier `number`."""
        properties = MESSAGE_EXPIRY + struct.pack(">I", expiry) if expiry is not None else b""
        properties += RESPONSE_TOPIC + _text(response.encode()) if response is not None else b""
        properties += CORRELATION_DATA + _text(correlation) if correlation is not None else b""
        body = (_text(topic.encode()) + struct.pack(">H", number) + _length(len(properties))
                + properties + json.dumps(payload).encode())
        return b"\x32" + _length(len(body)) + body

    def publish(self, *arguments, **options):
        self._connection.sendall(self.make_publish(*arguments, **options))

    def cut(self):
        """Ends the connection without a word."""
        self._connection.shutdown(socket.SHUT_RDWR)

    def get(self, topic):
        """Returns the messages on a topic so far, as broker.Client does."""
        return [publication for publication in list(self.publications)
                if publication.topic == topic]

    def close(self):
        self._server.shutdown(socket.SHUT_RDWR)  # ends accept() in the other thread
        self._server.close()
        if self._connection:
            self._connection.close()
