# SPDX-License-Identifier: MIT
"""The person's session with a client in it, and what is done with it again and again."""
import machine
import timeline
from session import Person, Session, wait_for

ANA = ("ana@example.com", "secret")
BERTA = ("berta@example.com", "expired")  # signs in, but the OpenVPN server refuses the password
STOPPED, CONNECTING, CONNECTED = "Conectar", "Conectando...", "Desconectar"


class Stage:
    """The person's session with a client that has just been started in it."""

    def __init__(self, session: Session, person: Person) -> None:
        self.session, self.person = session, person
        self.start_client()

    def start_client(self) -> None:
        self.client = self.session.client()
        title = self.person.do("window", limit=20)["title"]
        assert title == STOPPED, f'the window shows "{title}" at its start'
        print(f'  window shown, button "{title}"')

    def another_client(self) -> None:
        self.client.end()
        self.start_client()

    def title(self) -> str:
        return self.person.do("window")["title"]

    def connect(self, who: tuple[str, str] = ANA) -> tuple[float, float]:
        """Signs in with one click and waits for the tunnel. Returns when both happened."""
        click = self.person.sign_in(*who)
        self.person.sees(CONNECTING, click)
        connected = self.person.sees(CONNECTED, click)
        print(f'  button "{CONNECTED}" after {connected - click:.3f} s')
        machine.check_connected()
        return click, connected

    def connect_again(self) -> None:
        """With one click. An OpenVPN that had no password yet may be connected twice: it takes the password, and only
        then can it be made to read its file again."""
        click = self.person.sign_in(*ANA)
        wait_for("the tunnel", lambda: self.title() == CONNECTED and machine.reply_from_inside())
        wait_for("a reply through the tunnel", machine.ping)  # the first connection of the two may have been seen
        titles = [f"{title} {when - click:.3f}" for when, title in self.person.titles if when >= click]
        print("  button after the click:", ", ".join(titles))
        machine.check_connected()

    def disconnect(self, then: tuple[str, list[str]] | None = None) -> None:
        """With one click; what there is afterwards is as it was then."""
        click = self.person.do("click")["time"]
        print(f'  button "{STOPPED}" after {self.person.sees(STOPPED, click) - click:.3f} s')
        machine.check_gone(then)
        self.hears_of_the_end()

    def hears_of_the_end(self) -> None:
        """From the helper. After the next click that word would be taken for the new connection's."""
        wait_for("the client to hear of the end", lambda: self.states()[-1] == "NOPROCESS")

    def states(self) -> list[str]:
        return [what.removeprefix("state ") for _, _, what in timeline.state_events()]

    def told(self, word: str, since: float) -> bool:
        """Whether the client has said something that begins so to OpenVPN since then."""
        return any(line.startswith(word) for when, line in list(self.client.lines) if when >= since)
