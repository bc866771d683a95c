"""A web server in the sandbox that runs sonobrik.cgi."""

import dataclasses
import shutil
import socket
import subprocess

from .process import SANITIZER_REPORT
from .wait import wait_until

PROGRAM = "/usr/libexec/vesk-cgi/sonobrik.cgi"
PATH = "/vesk-cgi/sonobrik.cgi"
MANAGE_PATH = "/vesk-cgi/manage/sonobrik.cgi"

# The users of the two addresses. Both have the same password.
USER = "anna:s3cret"
MANAGER = "mia:s3cret"
# The output of "openssl passwd -6 -salt salt s3cret".
HASH = ("$6$salt$DGAQW8l.nT4RCbPNEQZjx6ZZzjHy2eW5krORahM6YQzUbUKsZPuhNkX7AUpx1TMPuF37mzmXtWWdUw3"
        "tTKEd.1")


def find_server(name):
    """Returns the path of a web server, or None. Many users do not have /usr/sbin in their PATH."""
    return shutil.which(name, path="/usr/sbin:/usr/bin:/sbin:/bin")


@dataclasses.dataclass(frozen=True)
class Answer:
    status: int
    headers: dict  # by lower-case name; the last one if a name is repeated
    text: str
    body: bytes


class Web:
    """A web server in `sandbox` that runs the built program with the shipped configuration."""

    def __init__(self, sandbox):
        self._sandbox = sandbox
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            self.port = probe.getsockname()[1]
        self.address = f"http://127.0.0.1:{self.port}{PATH}"
        self.manage_address = f"http://127.0.0.1:{self.port}{MANAGE_PATH}"
        self.processes = []

    def start_lighttpd(self, temporary="/run/home"):
        """Starts lighttpd, which puts what it cannot keep in memory into the folder `temporary`."""
        self._write("lighttpd/sonobrik.users", f"anna:{HASH}\n")
        self._write("lighttpd/sonobrik.managers", f"mia:{HASH}\n")
        self._write("lighttpd/sonobrik.conf", self._read_shipped("lighttpd"))
        return self._run_lighttpd("sonobrik.conf", temporary)

    def start_documented_lighttpd(self, commands):
        """Runs the commands, which set up lighttpd as root, and starts it."""
        self._write("lighttpd/example.conf", self._read_shipped("lighttpd"))
        for folder in ("lighttpd/conf-available", "ssl"):
            (self._sandbox.etc / folder).mkdir(parents=True)
        shutil.copy("/etc/ssl/openssl.cnf", self._sandbox.etc / "ssl")
        script = "\n".join(commands).replace(
            "/usr/share/doc/sonobrik/examples/lighttpd/sonobrik.conf", "/etc/lighttpd/example.conf")
        # With capabilities, because the files get another group.
        self._sandbox.run(["bash", "-euc", script], launcher=["env"])
        return self._run_lighttpd("conf-available/50-sonobrik.conf", "/run/home")

    def _run_lighttpd(self, include, temporary):
        self._write("lighttpd/lighttpd.conf",
                    'server.document-root = "/run/home"\n'
                    'server.bind = "127.0.0.1"\n'
                    f"server.port = {self.port}\n"
                    f'server.upload-dirs = ( "{temporary}" )\n'
                    # The distribution's configuration loads this module too.
                    'server.modules = ( "mod_alias" )\n'
                    f'include "{include}"\n')
        self._start([find_server("lighttpd"), "-D", "-f", "/etc/lighttpd/lighttpd.conf"])
        return self

    def start_nginx(self):
        # "fcgiwrap -c" would do the same with one socket, but its processes outlive the sandbox.
        sockets = [f"/run/home/fcgi{i}" for i in range(4)]
        servers = " ".join(f"server unix:{path};" for path in sockets)
        text = self._read_shipped("nginx").replace("unix:/run/fcgiwrap.socket", "fcgiwrap")
        self._write("nginx/sonobrik.users", f"anna:{HASH}\n")
        self._write("nginx/sonobrik.managers", f"mia:{HASH}\n")
        self._write("nginx/snippets/sonobrik.conf", text)
        temporary = "".join(f"  {name}_temp_path /run/home/{name};\n" for name in
                            ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        self._write("nginx/nginx.conf",
                    "user root; daemon off; master_process off; pid /run/home/nginx.pid;\n"
                    "error_log stderr;\nevents {}\n"
                    f"http {{\n  access_log off;\n{temporary}"
                    f"  upstream fcgiwrap {{ least_conn; {servers} }}\n"
                    f"  server {{ listen 127.0.0.1:{self.port};\n"
                    "    include /etc/nginx/snippets/sonobrik.conf;\n  }\n}\n")
        check = self._sandbox.run([find_server("nginx"), "-t", "-c", "/etc/nginx/nginx.conf"])
        for path in sockets:
            self.processes.append(self._sandbox.spawn(
                [find_server("fcgiwrap"), "-s", f"unix:{path}"]))
            wait_until((self._sandbox.folder / path[1:]).exists, 20, "fcgiwrap is listening")
        self._start([find_server("nginx"), "-c", "/etc/nginx/nginx.conf"])
        return check.stderr

    def _read_shipped(self, server):
        text = (self._sandbox.build_dir / "data" / server / "sonobrik.conf").read_text()
        return text.replace(PROGRAM, "/run/build/tools/cgi/sonobrik.cgi")

    def _write(self, name, text):
        path = self._sandbox.etc / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)

    def _start(self, command):
        server = self._sandbox.spawn(command)
        self.processes.append(server)
        wait_until(lambda: not server.is_running or self._answers(), 20, "the web server is listening")
        assert server.is_running, server.lines

    def _answers(self):
        try:
            socket.create_connection(("127.0.0.1", self.port), 1).close()
        except OSError:
            return False
        return True

    def get(self, query="", *options, user=USER, address=None):
        """Requests a query with curl and returns the Answer. `options` are passed to curl."""
        address = address or self.address
        address = f"{address}?{query}" if query else address
        command = ["curl", "--silent", "--show-error", "--include", "--max-time", "120",
                   "--noproxy", "*", *(["--user", user] if user else []), *options, address]
        result = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, check=True)
        head, _, body = result.stdout.partition(b"\r\n\r\n")
        while b" 100 " in head.split(b"\r\n")[0]:
            head, _, body = body.partition(b"\r\n\r\n")
        first, *lines = head.decode("latin-1").split("\r\n")
        pairs = (line.partition(":") for line in lines)
        return Answer(int(first.split()[1]),
                      {name.lower(): value.strip() for name, _, value in pairs}, body.decode(errors="replace"), body)

    def post(self, form, *options, user=USER):
        return self.get("", "--data", form, *options, user=user)

    def manage(self, query="", *options, user=MANAGER):
        """Does the same at the address where clips can be changed."""
        return self.get(query, *options, user=user, address=self.manage_address)

    def change(self, form, *options):
        return self.manage("", "--data", form, *options)

    def upload(self, query, file, *options, content_type="application/octet-stream"):
        """Sends the file at the path `file`, or the bytes that `options` name if it is None."""
        data = ["--data-binary", f"@{file}"] if file else []
        return self.manage(query, *data, "--header", f"Content-Type: {content_type}", *options)

    def check(self):
        """Fails if a sanitizer reported an error."""
        lines = [line for process in self.processes for line in process.lines]
        assert not any(SANITIZER_REPORT.search(line) for line in lines), "\n".join(lines)
