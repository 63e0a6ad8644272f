# SPDX-License-Identifier: MIT
"""What lies behind the tunnel: a page that says who is asking."""
import http.server


class Handler(http.server.BaseHTTPRequestHandler):
    def do_GET(self) -> None:
        body = f"You are {self.client_address[0]}\n".encode()
        self.send_response(200)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)


http.server.ThreadingHTTPServer(("10.77.0.1", 80), Handler).serve_forever()
