#!/usr/bin/env python3
"""A web server that serves a folder like python's http.server, except that
it sends the files named with --slow at two bytes a second and answers the
files named with --endless with data that never ends. It prints the port it
listens on, as http.server does."""
import argparse
import http.server
import os
import time

parser = argparse.ArgumentParser()
parser.add_argument("dir")
parser.add_argument("--slow", action="append", default=[])
parser.add_argument("--endless", action="append", default=[])
args = parser.parse_args()


class Handler(http.server.SimpleHTTPRequestHandler):
    def __init__(self, *rest, **named):
        super().__init__(*rest, directory=args.dir, **named)

    def do_GET(self):
        name = self.path.lstrip("/")
        if name in args.endless:
            self.send_response(200)
            self.end_headers()
            while True:
                self.wfile.write(b"x" * 65536)
        if name in args.slow:
            with open(os.path.join(args.dir, name), "rb") as file:
                body = file.read()
            self.send_response(200)
            self.send_header("Content-Length", str(len(body)))
            self.end_headers()
            for start in range(0, len(body), 2):
                self.wfile.write(body[start:start + 2])
                self.wfile.flush()
                time.sleep(1)
            return
        super().do_GET()


server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
print("port", server.server_address[1], flush=True)
server.serve_forever()
