# SPDX-License-Identifier: MIT
"""The person's session with a client in it, and what is done with it again and again."""
import machine
import timeline
from session import Failure, Person, Session, wait_for

ANA = ("ana@example.com", "secret")
BERTA = ("berta@example.com", "expired")  # signs in, but the OpenVPN server refuses the password


class Stage:
    """The person's session with a client that has just been started in it."""

    def __init__(self, **screen):
        self.bus = timeline.Bus()
        self.session = Session(**screen)
        self.person = Person(self.session)
        self.start_client()

    def start_client(self):
        self.client = self.session.client()
        title = self.person.do("window", limit=20)["title"]
        self.expect(title == "Conectar", f'the window shows "{title}" at its start')
        print(f'  window shown, button "{title}"')

    def connect(self, who=ANA):
        """Signs in with one click and waits for the tunnel. Returns when both happened."""
        click = self.person.sign_in(*who)
        self.person.sees("Conectando...", click)
        connected = self.person.sees("Desconectar", click)
        print(f'  button "Desconectar" after {connected - click:.3f} s')
        machine.check_connected()
        return click, connected

    def disconnect(self):
        click = self.person.do("click")["time"]
        print(f'  button "Conectar" after {self.person.sees("Conectar", click) - click:.3f} s')
        machine.check_gone()
        self.hears_of_the_end()

    def hears_of_the_end(self):
        """From the helper. After the next click that word would be taken for the new connection's."""
        wait_for("the client to hear of the end", lambda: self.states()[-1] == "NOPROCESS")

    def states(self):
        return [what.removeprefix("state ") for _, _, what in timeline.state_events()]

    def helper_calls(self):
        return [what for _, _, what in self.bus.events() if what.startswith("helper called: run")]

    @staticmethod
    def expect(holds, otherwise):
        if not holds:
            raise Failure(otherwise)
