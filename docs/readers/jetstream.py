#!/usr/bin/python3
# jetstream.py: makes a stream in a NATS server and reads one, with nothing but Python: for a machine without the program nats.
#
#   jetstream.py HOST:PORT add STREAM SUBJECT       makes a stream that takes the subject, and knows an id again for an hour
#   jetstream.py HOST:PORT read STREAM SUBJECT      prints what the stream holds of the subject, a line of JSON each, with the
#                                                   host that it came from
import json
import socket
import sys


class Server:
    def __init__(self, address):
        host, port = address.rsplit(":", 1)
        self.file = socket.create_connection((host, int(port)), 30).makefile("rwb")
        self.waiting = []  # records that came before they were asked for
        self.send(b'CONNECT {"verbose":false,"headers":true}\r\nSUB answer 1\r\nSUB records 2\r\n')

    def send(self, data):
        self.file.write(data)
        self.file.flush()

    def next(self, number):
        """A message of that subscription: its headers and its text."""
        if number == b"2" and self.waiting:
            return self.waiting.pop(0)
        while True:
            words = self.file.readline().split()
            if not words:
                sys.exit("the server has closed the connection")
            if words[0] == b"PING":
                self.send(b"PONG\r\n")
            elif words[0] == b"-ERR":
                sys.exit(b" ".join(words).decode())
            elif words[0] in (b"MSG", b"HMSG"):
                data = self.file.read(int(words[-1]) + 2)[:-2]
                size = int(words[-2]) if words[0] == b"HMSG" else 0
                if words[2] == number:
                    return data[:size].decode(), data[size:]
                self.waiting.append((data[:size].decode(), data[size:]))

    def ask(self, call, request):
        body = json.dumps(request).encode()
        self.send(f"PUB $JS.API.{call} answer {len(body)}\r\n".encode() + body + b"\r\n")
        answer = json.loads(self.next(b"1")[1])
        if "error" in answer:
            sys.exit(answer["error"]["description"])
        return answer


def add(server, stream, subject):
    hour = 3600 * 10**9
    server.ask(f"STREAM.CREATE.{stream}", {"name": stream, "subjects": [subject], "storage": "file", "num_replicas": 1,
                                           "duplicate_window": hour})


def read(server, stream, subject):
    consumer = {"deliver_subject": "records", "deliver_policy": "all", "ack_policy": "none", "filter_subject": subject}
    created = server.ask(f"CONSUMER.CREATE.{stream}", {"stream_name": stream, "config": consumer})
    for _ in range(created["num_pending"] + created["delivered"]["consumer_seq"]):
        headers, text = server.next(b"2")
        names = dict(line.split(": ", 1) for line in headers.split("\r\n")[1:] if ": " in line)
        print(json.dumps({"host": names.get("Fmon-Host"), **json.loads(text)}))


if __name__ == "__main__":
    if len(sys.argv) != 5 or sys.argv[2] not in ("add", "read"):
        sys.exit("usage: jetstream.py HOST:PORT add|read STREAM SUBJECT")
    {"add": add, "read": read}[sys.argv[2]](Server(sys.argv[1]), *sys.argv[3:])
